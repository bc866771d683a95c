"""From the call to the first sample at the card, with one clip of each kind, both sides warm."""

from measuring import CARD, DAEMON, FLOOR, Results, Row, clips, encode, to_ms

KINDS = (("WAV", "wav"), ("MP3 without a length header", "mp3"), ("Opus", "opus"))


def run(bench):
    results = Results()
    with bench.sandbox() as box:
        sound = clips.tone(440, 2)
        made = [(name, box.write_clip(f"a.{kind}", sound)) for name, kind in KINDS]
        box.start_daemon()
        bench.start_floor(box, "player")
        for name, clip in made:
            calls = [encode(service, "StartPlayingClip", clip.location)
                     for service in (DAEMON, FLOOR)]
            bench.call(box, "play", bench.pick(5, 3, 1), CARD, *calls)
            ours, floor = bench.call(box, "play", bench.pick(100, 15, 1), CARD, *calls)
            results.rows.append(Row(f"call to first sample, {name}", "ms", to_ms(ours),
                                    to_ms(floor)))
    return results
