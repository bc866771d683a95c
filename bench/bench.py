"""Measures the daemon beside floors that make only the unavoidable library calls.

usage: /usr/bin/python3 bench/bench.py [--build FOLDER] [--page FILE] [--quick|--shortest]
                                       [--peers] [NAME...]

Use scripts/bench, which builds first. NAME selects benchmarks, each a module of this folder.
--peers compares common players instead. Everything is measured and then written to the page,
docs/benchmarks.md, unless NAMEs, --quick or --shortest ask for less; --page writes those too.
"""

import argparse
import importlib
import pathlib
import tempfile

import page
from measuring import ROOT, Bench, Results

NAMES = ("first_sample", "wildcard", "starts", "round_trips", "store", "memory", "many", "micro")
PEERS = ("peers",)


def measure(bench, names):
    """Runs benchmarks, prints each row as soon as it is known, and returns all results."""
    everything = Results()
    for name in names:
        results = importlib.import_module(name).run(bench)
        for row in results.rows:
            page.print_row(row)
        everything.rows += results.rows
        everything.curves += results.curves
    return everything


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=ROOT / "build-bench", type=pathlib.Path)
    parser.add_argument("--page", type=pathlib.Path)
    parser.add_argument("--quick", dest="scale", action="store_const", const="quick")
    parser.add_argument("--shortest", dest="scale", action="store_const", const="shortest")
    parser.add_argument("--peers", action="store_true")
    parser.add_argument("names", nargs="*", metavar="NAME", choices=(*NAMES, *PEERS, []))
    arguments = parser.parse_args()
    path = arguments.page
    if not path and not arguments.names and not arguments.scale:
        path = ROOT / "docs/benchmarks.md"
    names = arguments.names or (PEERS if arguments.peers else NAMES)
    with tempfile.TemporaryDirectory() as folder:
        results = measure(Bench(arguments.build, folder, arguments.scale or "full"), names)
    if path:
        (page.write_peers if arguments.peers else page.write_page)(path, results)
        print(f"Written to {path}.")


if __name__ == "__main__":
    main()
