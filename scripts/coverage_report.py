"""Prints the coverage of src/ and tools/ from an lcov file, and lists what is not covered.

usage: coverage_report.py LCOV-FILE UNCOVERED-FILE

The second file receives one line for each source: the lines that did not run, and the lines with a
condition that was never true or never false. Exits with 1 if a goal is missed.
"""

import dataclasses
import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
GOALS = {"lines": 95, "branches": 85}


@dataclasses.dataclass
class Source:
    lines: dict = dataclasses.field(default_factory=dict)  # line: how often it ran
    branches: dict = dataclasses.field(default_factory=dict)  # (line, ...): how often it was taken

    def count(self, kind):
        """Returns the number of covered lines or branches, and the number of all."""
        values = getattr(self, kind).values()
        return sum(value > 0 for value in values), len(values)


def read(path):
    """Returns the sources of an lcov file by name, relative to the root."""
    sources = {}
    for text in pathlib.Path(path).read_text().splitlines():
        key, _, value = text.partition(":")
        if key == "SF":
            name = pathlib.Path(value).resolve()
            source = sources.setdefault(name, Source())
        elif key == "DA":
            line, count = map(int, value.split(",")[:2])
            source.lines[line] = max(count, source.lines.get(line, 0))
        elif key == "BRDA":
            line, *branch, count = value.split(",")
            place = (int(line), *branch)
            count = 0 if count == "-" else int(count)
            source.branches[place] = max(count, source.branches.get(place, 0))
    inside = {name.relative_to(ROOT): source for name, source in sources.items()
              if name.is_relative_to(ROOT)}
    return {str(name): source for name, source in sorted(inside.items())
            if name.parts[0] in ("src", "tools")}


def join(numbers):
    """Returns "3-5 9" for 3, 4, 5, 9."""
    ranges = []
    for number in sorted(set(numbers)):
        if ranges and number == ranges[-1][1] + 1:
            ranges[-1][1] = number
        else:
            ranges.append([number, number])
    return " ".join(f"{first}-{last}" if last > first else str(first) for first, last in ranges)


def describe(counts):
    covered, total = counts
    return f"{covered:5}/{total:<5} {100 * covered / total if total else 100:5.1f} %"


def main(lcov, uncovered):
    sources = read(lcov)
    with open(uncovered, "w", encoding="utf-8") as file:
        for name, source in sources.items():
            lines = join(line for line, count in source.lines.items() if count == 0)
            branches = join(place[0] for place, count in source.branches.items() if count == 0)
            if lines or branches:
                print(f"{name}: lines {lines or 'none'}; branches {branches or 'none'}", file=file)
    for name, source in sources.items():
        print(f"{name:45} {describe(source.count('lines'))}   {describe(source.count('branches'))}")
    failed = not sources
    for kind, goal in GOALS.items():
        counts = [source.count(kind) for source in sources.values()]
        covered, total = (sum(column) for column in zip(*counts, strict=True)) if counts else (0, 0)
        reached = covered * 100 >= goal * total
        failed |= not reached
        print(f"all {kind}: {describe((covered, total))}; the goal of {goal} % is "
              f"{'reached' if reached else 'missed'}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
