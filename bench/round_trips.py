"""How long a caller waits for an answer that needs no work: against an echo service."""

from measuring import Results, Row, to_us


def run(bench):
    results = Results()
    count = bench.pick(3000, 500, 3)
    with bench.sandbox() as box:
        bench.start_daemon(box)
        bench.start_floor(box, "echo")
        for what, *call in (
                ("round trip, StopPlayingClip while idle", "StopPlayingClip", "x"),
                ("round trip, SupportedFile of a missing path", "SupportedFile",
                 "/etc/audioclips/missing.wav")):
            bench.compare(box, bench.pick(200, 50, 1), *call)  # the first calls load pages
            ours, floor = bench.compare(box, count, *call)
            results.rows.append(Row(what, "µs", to_us(ours), to_us(floor)))
    return results
