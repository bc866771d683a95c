"""From the call to the first sample at the card, with one clip of each kind, both sides warm."""

import time

from measuring import CARD, DAEMON, FLOOR, Results, Row, clips, encode, to_ms

KINDS = (("WAV", "wav"), ("MP3 without a length header", "mp3"), ("Opus", "opus"))


PAUSE = 1  # seconds


def measure_after_pause(bench, box, clip):
    """Returns a row of calls that each follow a pause."""
    ours, floor = [], []
    for _ in range(bench.pick(15, 5, 1)):
        for service, times in ((DAEMON, ours), (FLOOR, floor)):
            time.sleep(bench.pick(PAUSE, PAUSE, 0))
            call = encode(service, "StartPlayingClip", clip.location)
            times += bench.call(box, "play", 1, CARD, call)[0]
    return Row(f"call to first sample, WAV, after a pause of {PAUSE} s", "ms", to_ms(ours),
               to_ms(floor))


def run(bench):
    results = Results()
    with bench.sandbox() as box:
        sound = clips.tone(440, 2)
        made = [(name, box.write_clip(f"a.{kind}", sound)) for name, kind in KINDS]
        bench.start_daemon(box)
        bench.start_floor(box, "player")
        for name, clip in made:
            calls = [encode(service, "StartPlayingClip", clip.location)
                     for service in (DAEMON, FLOOR)]
            bench.call(box, "play", bench.pick(5, 3, 1), CARD, *calls)
            ours, floor = bench.call(box, "play", bench.pick(100, 15, 1), CARD, *calls)
            results.rows.append(Row(f"call to first sample, {name}", "ms", to_ms(ours),
                                    to_ms(floor)))
        results.rows.append(measure_after_pause(bench, box, made[0][1]))
    return results
