"""From the call to the first sample, when the location matches more and more files."""

import shutil
import statistics

from measuring import CARD, DAEMON, FLOOR, Curve, Results, Row, clips, encode, to_ms


def run(bench):
    results = Results()
    lines = {"sonobrik": [], "floor": []}
    with bench.sandbox() as box:
        clip = box.write_clip("one/0.wav", clips.tone(440, 1))
        bench.start_daemon(box)
        bench.start_floor(box, "player")
        for files in bench.pick((1, 3, 10, 30, 100), (1, 10, 100), (1, 2)):
            folder = clip.file.parents[1] / str(files)
            folder.mkdir()
            for number in range(files):
                shutil.copy(clip.file, folder / f"{number}.wav")
            location = f"location=/etc/audioclips/{files}/*.wav"
            calls = [encode(name, "StartPlayingClip", location) for name in (DAEMON, FLOOR)]
            bench.call(box, "play", 1, CARD, *calls)
            ours, floor = bench.call(box, "play", bench.pick(8, 3, 1), CARD, *calls)
            word = "file" if files == 1 else "files"
            results.rows.append(Row(f"call to first sample, wildcard of {files} {word}", "ms",
                                    to_ms(ours), to_ms(floor)))
            for name, times in (("sonobrik", ours), ("floor", floor)):
                lines[name].append((files, statistics.median(to_ms(times))))
    results.curves.append(Curve("wildcard", "Call to first sample by files of a wildcard",
                                "files", "ms", lines))
    return results
