"""From process start to the bus names, and the first clip after that.

The floor of the first clip is a clip of a player that has played before. For a call 1 s after the
start, that player pauses before each clip too: processors that were idle are slow at first.
"""

import time

from measuring import CARD, DAEMON, FLOOR, LEGACY, Results, Row, clips, encode, to_ms

# The floor's second name, as the daemon has two.
SECOND = "bench.Floor.Second"

IDLE_MS = 1000


def play_after_pauses(bench, box, call):
    """Returns the times of calls that each follow a pause."""
    times = []
    for _ in range(bench.pick(20, 5, 1)):
        time.sleep(bench.pick(IDLE_MS, IDLE_MS, 100) / 1000)
        times += bench.call(box, "play", 1, CARD, call)[0]
    return times


def run(bench):
    results = Results()
    with bench.sandbox() as box:
        clip = box.write_clip("a.wav", clips.tone(440, 2))
        programs = [f"/run/build/src/sonobrik|{DAEMON}|{LEGACY}",
                    f"/run/build/bench/floor-player|{FLOOR}|{SECOND}"]

        def start(count, idle_ms):
            return bench.call(box, "start", count, idle_ms, CARD, clip.location, *programs)

        start(1, 0)  # makes GStreamer list its plugins
        at_once, floor_at_once = start(bench.pick(20, 5, 1), 0)
        later, floor_later = start(bench.pick(20, 5, 1), bench.pick(IDLE_MS, IDLE_MS, 100))
        bench.start_floor(box, "player")
        call = encode(FLOOR, "StartPlayingClip", clip.location)
        bench.call(box, "play", bench.pick(5, 3, 1), CARD, call)
        warm, = bench.call(box, "play", bench.pick(30, 10, 1), CARD, call)
        warm_later = play_after_pauses(bench, box, call)
        results.rows += [
            Row("process start to both names", "ms", to_ms(at_once["names"] + later["names"]),
                to_ms(floor_at_once["names"] + floor_later["names"])),
            Row("first call after the start, WAV, at once", "ms", to_ms(at_once["first"]),
                to_ms(warm)),
            Row("first call after the start, WAV, 1 s later", "ms", to_ms(later["first"]),
                to_ms(warm_later)),
            Row("resident, idle", "KiB", later["resident"], floor_later["resident"]),
        ]
    return results
