"""How resident memory grows with each play, and whether it shrinks after a long listing."""

import time

from measuring import (
    CARD, DAEMON, FLOOR, Results, Row, clips, encode, read_resident_kib, write_records)

SETTLING = 3  # seconds in which the daemon loads what its first clip needs


def measure_plays(bench):
    """Returns a row with the mean growth over many plays, in KiB a play."""
    batch, batches = bench.pick((50, 8), (20, 3), (1, 1))
    with bench.sandbox() as box:
        clip = box.write_clip("a.wav", clips.tone(440, 2))
        processes = [bench.start_daemon(box), bench.start_floor(box, "player")]
        calls = [encode(name, "StartPlayingClip", clip.location) for name in (DAEMON, FLOOR)]
        bench.call(box, "play", bench.pick(100, 20, 1), CARD, *calls)  # what is loaded only once
        sizes = [[read_resident_kib(process)] for process in processes]
        for _ in range(batches):
            bench.call(box, "play", batch, CARD, *calls)
            for process, history in zip(processes, sizes, strict=True):
                history.append(read_resident_kib(process))
    plays = batch * batches
    ours, floor = ([(history[-1] - history[0]) / plays] for history in sizes)
    return Row(f"growth of resident memory, mean of {plays} plays", "KiB", ours, floor)


def measure_listing(bench):
    """Returns rows with the memory after a listing, each against the memory before it."""
    records = bench.pick(10000, 10000, 10)
    wait = bench.pick(60, 5, 0)
    with bench.sandbox() as box:
        # The start lists the records too, so they are written after it.
        daemon = bench.start_daemon(box)
        time.sleep(bench.pick(SETTLING, SETTLING, 0))
        before = read_resident_kib(daemon)
        write_records(box, records)
        bench.call(box, "calls", 1, encode(DAEMON, "GetMetadata"))
        after = read_resident_kib(daemon)
        time.sleep(wait)
        later = read_resident_kib(daemon)
    what = f"a listing of {records:,} records, against before it"
    return [Row(f"resident after {what}", "KiB", [after], [before]),
            Row(f"resident {wait} s after {what}", "KiB", [later], [before])]


def run(bench):
    return Results(rows=[*measure_listing(bench), measure_plays(bench)])
