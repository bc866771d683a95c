"""GetMetadata and AddClip with more and more records."""

import statistics

from measuring import DAEMON, FLOOR, RECORDS, Curve, Results, Row, encode, to_ms, write_records

CLIP = ("/etc/audioclips/new.wav", "New", "audio")


def run(bench):
    results = Results()
    sizes = bench.pick((100, 1000, 10000), (100, 1000, 10000), (2, 4))
    curves = {"GetMetadata": {}, "AddClip": {}}
    with bench.sandbox() as box:
        bench.start_daemon(box)
        bench.start_floor(box, "store")
        for size in sizes:
            write_records(box, size)
            count = max(bench.pick(60000, 6000, 4) // size, bench.pick(8, 3, 1))
            bench.compare(box, 1, "GetMetadata")
            listed = bench.compare(box, min(count, 300), "GetMetadata")
            calls = [encode(name, "AddClip", *CLIP) for name in (DAEMON, FLOOR)]
            added = bench.call(box, "calls", min(count, 100), "-r", RECORDS, *calls)
            for method, (ours, floor) in (("GetMetadata", listed), ("AddClip", added)):
                unit = f"{method}, {size:,} records"
                results.rows.append(Row(unit, "ms", to_ms(ours), to_ms(floor)))
                for name, times in (("sonobrik", ours), ("floor", floor)):
                    point = (size, statistics.median(to_ms(times)))
                    curves[method].setdefault(name, []).append(point)
    results.rows.sort(key=lambda row: row.what.split(",")[0], reverse=True)
    results.curves = [Curve(method.lower(), f"{method} by records", "records", "ms", lines)
                      for method, lines in curves.items()]
    return results
