"""Adds up JUnit result files and prints "N passed, N failed[, N skipped]" as the last line.

A missing file counts as one failure: its runner stopped before writing it. Exits with 1 if a test
failed or none passed.
"""

import os
import sys
import xml.etree.ElementTree as ElementTree


def outcome(case):
    """Returns the outcome of one <testcase> element."""
    if case.find("failure") is not None or case.find("error") is not None:
        return "failed"
    if case.find("skipped") is not None or case.get("result") == "skipped":
        return "skipped"
    return "passed"


def main(paths):
    counts = {"passed": 0, "failed": 0, "skipped": 0}
    for path in paths:
        if not os.path.exists(path):
            counts["failed"] += 1
            continue
        for case in ElementTree.parse(path).iter("testcase"):
            counts[outcome(case)] += 1
    line = f"{counts['passed']} passed, {counts['failed']} failed"
    if counts["skipped"]:
        line += f", {counts['skipped']} skipped"
    print(line)
    return 0 if counts["passed"] and not counts["failed"] else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
