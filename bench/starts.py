"""From process start to the bus names, and the first clip after that.

The first clip is compared with the floor's second one, which the same caller starts after the same
pause, and with the floor's first one. The pause matters: processors that were idle are slow at
first, and a caller that was just started wakes them.
"""

from measuring import CARD, DAEMON, FLOOR, LEGACY, Results, Row, clips, to_ms

# The floor's second name, as the daemon has two.
SECOND = "bench.Floor.Second"

IDLE_MS = 1000


def compare_first(when, ours, floor):
    """Returns the rows of the first clip, against a later one and the first one of the floor."""
    what = f"first call after the start, WAV, {when}"
    first = to_ms(ours["first"])
    return [Row(what, "ms", first, to_ms(floor["later"])),
            Row(f"{what}, against the floor's first call", "ms", first, to_ms(floor["first"]))]


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
        results.rows += [
            Row("process start to both names", "ms", to_ms(at_once["names"] + later["names"]),
                to_ms(floor_at_once["names"] + floor_later["names"])),
            *compare_first("at once", at_once, floor_at_once),
            *compare_first("1 s later", later, floor_later),
            Row("resident, idle", "KiB", later["resident"], floor_later["resident"]),
        ]
    return results
