"""Steps of a request that run in one process, each against the library call in it."""

import json
import re

from measuring import Results, Row, to_us, write_records

FLOOR = "Floor"

FILES = 100  # that the wildcard matches


def run(bench):
    options = ["--benchmark_format=json",
               f"--benchmark_repetitions={bench.pick(9, 5, 1)}",
               f"--benchmark_min_time={bench.pick(0.05, 0.02, 0.001)}"]
    with bench.sandbox(bus=False) as box:
        write_records(box, 1)
        for number in range(FILES):
            box.write_file(f"{number}.wav")
        report = json.loads(box.run(["/run/build/bench/micro", *options], deadline=300).stdout)
    times = {}
    for entry in report["benchmarks"]:
        assert "error_message" not in entry, entry
        if entry["run_type"] == "iteration":
            times.setdefault(entry["run_name"], []).append(entry["cpu_time"])
    return Results([Row(f"in one process: {describe(name)}", "µs", to_us(samples),
                        to_us(times.get(FLOOR + name, [])))
                    for name, samples in times.items() if not name.startswith(FLOOR)])


def describe(name):
    """Returns "walk wildcard" for "WalkWildcard"."""
    return re.sub(r"(?<!^)(?=[A-Z])", " ", name).lower()
