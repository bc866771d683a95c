"""Writes the results: a table for the terminal, and the generated parts of docs/benchmarks.md."""

import datetime
import math
import os
import pathlib
import platform
import re
import subprocess

from measuring import ROOT, quartiles

HEADINGS = ("what", "sonobrik", "the least", "unit", "ratio")
PLAIN_HEADINGS = ("what", "median", "", "unit", "")


def show(value):
    """Returns a number with three digits that matter."""
    if value == 0 or abs(value) >= 100:
        return f"{value:,.0f}"
    return f"{value:.{max(0, 2 - math.floor(math.log10(abs(value))))}f}"


def describe(samples):
    """Returns the median and, if there are several samples, the quartiles."""
    first, median, third = map(show, quartiles(samples))
    return median if len(samples) < 2 else f"{median} ({first} to {third})"


def make_cells(row):
    ratio = "" if row.ratio is None else f"{row.ratio:.2f}"
    return row.what, describe(row.ours), describe(row.floor) if row.floor else "", row.unit, ratio


def print_row(row):
    what, ours, floor, unit, ratio = make_cells(row)
    print(f"{what}\n    {ours:28} {floor:28} {unit:7} {ratio}".rstrip(), flush=True)


def make_table(rows):
    """Returns a Markdown table; columns that are empty in all rows are left out."""
    headings = HEADINGS if any(row.floor for row in rows) else PLAIN_HEADINGS
    lines = [headings, *(make_cells(row) for row in rows)]
    kept = [i for i in range(len(headings)) if any(line[i] for line in lines[1:])]
    text = ["| " + " | ".join(line[i] for i in kept) + " |" for line in lines]
    text.insert(1, "|" + "---|" * len(kept))
    return "\n".join(text)


def read_first(path, pattern):
    """Returns the first match in a file, or "unknown"."""
    found = re.search(pattern, pathlib.Path(path).read_text(), re.MULTILINE)
    return found[1].strip() if found else "unknown"


def find_commit():
    """Returns the commit of this tree, or "unknown" if the tree is not a clone or git is missing."""
    try:
        result = subprocess.run(["git", "describe", "--always", "--dirty"], cwd=ROOT, text=True,
                                capture_output=True, check=False)
    except FileNotFoundError:
        return "unknown"
    return result.stdout.strip() or "unknown"


def describe_machine():
    system = platform.freedesktop_os_release().get("PRETTY_NAME", "unknown system")
    version = pathlib.Path("/etc/debian_version")
    if version.exists():
        system += f" ({version.read_text().strip()})"
    processor = read_first("/proc/cpuinfo", r"^(?:model name|Model)\s*:\s*(.*)$")
    memory = int(read_first("/proc/meminfo", r"^MemTotal:\s*(\d+)")) / 1024 / 1024
    gstreamer = subprocess.run(["pkg-config", "--modversion", "gstreamer-1.0"], text=True,
                               capture_output=True, check=True).stdout.strip()
    return (f"Measured on {datetime.date.today()} at commit {find_commit()}: {os.cpu_count()} processors "
            f"({processor}, {platform.machine()}), {memory:.0f} GiB of memory, {system}, Linux "
            f"{platform.release().partition('-')[0]}, GStreamer {gstreamer}, the tests' virtual sound card.")


# The plots

WIDTH, HEIGHT = 480, 280
LEFT, RIGHT, TOP, BOTTOM = 60, 20, 50, 45

STYLE = """\
text { font: 12px sans-serif; fill: #555 }
.title { font-size: 14px }
.grid { stroke: #ccc }
.sonobrik { stroke: #0b62c4; fill: #0b62c4 }
.floor { stroke: #c25a00; fill: #c25a00; stroke-dasharray: 5 3 }
text.sonobrik, text.floor { stroke: none }
polyline { stroke-width: 2; fill: none !important }
@media (prefers-color-scheme: dark) {
  text { fill: #bbb }
  .grid { stroke: #444 }
  .sonobrik { stroke: #6cb0ff; fill: #6cb0ff }
  .floor { stroke: #ffa657; fill: #ffa657 }
}"""


class Axis:
    """A logarithmic axis over whole powers of ten, from pixel `first` to pixel `last`."""

    def __init__(self, values, first, last):
        self.low = math.floor(math.log10(min(values)))
        self.high = max(math.ceil(math.log10(max(values))), self.low + 1)
        self.first, self.last = first, last

    def place(self, value):
        part = (math.log10(value) - self.low) / (self.high - self.low)
        return round(self.first + part * (self.last - self.first), 1)

    @property
    def ticks(self):
        return [10 ** power for power in range(self.low, self.high + 1)]


def make_plot(curve):
    """Returns the text of an SVG file."""
    points = [point for line in curve.lines.values() for point in line]
    x = Axis([point[0] for point in points], LEFT, WIDTH - RIGHT)
    y = Axis([point[1] for point in points], HEIGHT - BOTTOM, TOP)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
             f'width="{WIDTH}" height="{HEIGHT}" role="img">',
             f"<title>{curve.title}</title>", f"<style>\n{STYLE}\n</style>",
             f'<text class="title" x="{LEFT}" y="18">{curve.title}</text>']
    for value in x.ticks:
        at = x.place(value)
        parts += [f'<line class="grid" x1="{at}" y1="{TOP}" x2="{at}" y2="{HEIGHT - BOTTOM}"/>',
                  f'<text x="{at}" y="{HEIGHT - BOTTOM + 16}" text-anchor="middle">{value:,}</text>']
    for value in y.ticks:
        at = y.place(value)
        parts += [f'<line class="grid" x1="{LEFT}" y1="{at}" x2="{WIDTH - RIGHT}" y2="{at}"/>',
                  f'<text x="{LEFT - 6}" y="{at + 4}" text-anchor="end">{value:,}</text>']
    parts += [f'<text x="{WIDTH - RIGHT}" y="{HEIGHT - 10}" text-anchor="end">{curve.x}</text>',
              f'<text x="{LEFT - 6}" y="{TOP - 10}" text-anchor="end">{curve.y}</text>']
    for number, (name, line) in enumerate(curve.lines.items()):
        places = [(x.place(a), y.place(b)) for a, b in line]
        parts.append(f'<polyline class="{name}" points="'
                     + " ".join(f"{a},{b}" for a, b in places) + '"/>')
        parts += [f'<circle class="{name}" cx="{a}" cy="{b}" r="3"/>' for a, b in places]
        label = "the least" if name == "floor" else name
        parts.append(f'<text class="{name}" x="{LEFT + 90 * number}" y="36">{label}</text>')
    return "\n".join([*parts, "</svg>", ""])


# The page


def fill(text, name, content):
    """Returns the page with the part between the two comments of this name replaced."""
    begin, end = f"<!-- begin {name} -->", f"<!-- end {name} -->"
    before, found, rest = text.partition(begin)
    _, found_end, after = rest.partition(end)
    if not found or not found_end:
        raise SystemExit(f"the page lacks {begin} or {end}")
    return f"{before}{begin}\n{content}\n{end}{after}"


def write_page(page, results):
    """Writes the figures and plots of the floors into the page and the folder beside it."""
    folder = page.with_suffix("")
    folder.mkdir(exist_ok=True)
    for curve in results.curves:
        (folder / f"{curve.name}.svg").write_text(make_plot(curve))
    plots = "\n".join(f"![{curve.title}]({folder.name}/{curve.name}.svg)"
                      for curve in results.curves)
    text = page.read_text()
    for name, content in (("machine", describe_machine()), ("figures", make_table(results.rows)),
                          ("plots", plots)):
        text = fill(text, name, content)
    page.write_text(text)


def write_peers(page, results):
    """Writes the comparison with other players into the page."""
    table = make_table(results.rows)
    page.write_text(fill(page.read_text(), "peers", f"{describe_machine()}\n\n{table}"))
