"""Measures the daemon beside floors that make only the unavoidable library calls.

usage: /usr/bin/python3 bench/bench.py [--build FOLDER] [--quick|--shortest] [NAME...]

Use scripts/bench, which builds first. NAME selects benchmarks: a module of this folder.
"""

import argparse
import importlib
import pathlib
import tempfile

from measuring import ROOT, Bench, quartiles

NAMES = ("first_sample", "wildcard", "starts", "round_trips", "store", "memory", "many", "micro")


def show(value):
    """Returns a number with three digits that matter."""
    return f"{value:,.0f}" if abs(value) >= 100 else f"{value:.3g}"


def describe(samples):
    first, median, third = map(show, quartiles(samples))
    return f"{median} ({first} to {third})"


def print_row(row):
    ratio = "" if row.ratio is None else f"{row.ratio:6.2f}"
    floor = describe(row.floor) if row.floor else ""
    print(f"{row.what:46} {describe(row.ours):26} {floor:26} {row.unit:4} {ratio}", flush=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=ROOT / "build-bench", type=pathlib.Path)
    parser.add_argument("--quick", dest="scale", action="store_const", const="quick")
    parser.add_argument("--shortest", dest="scale", action="store_const", const="shortest")
    parser.add_argument("names", nargs="*", metavar="NAME")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(arguments.build, folder, arguments.scale or "full")
        for name in arguments.names or NAMES:
            for row in importlib.import_module(name).run(bench).rows:
                print_row(row)


if __name__ == "__main__":
    main()
