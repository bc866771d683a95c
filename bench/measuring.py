"""What all benchmarks share: their scale, their sandboxes, their rows, and statistics."""

import contextlib
import dataclasses
import json
import pathlib
import statistics
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests/support"))

from sandbox import Sandbox, clips, wait_until  # noqa: E402, F401 (found by the path above)
from sandbox.store import write_record  # noqa: E402

DAEMON = "com.vesk.Sonobrik"
LEGACY = "com.vesk.Sonobrik.Legacy"
FLOOR = "bench.Floor"

CARD = "/run/cards/0"
RECORDS = "/etc/dynamic/sonobrik/clip_data"

# Records have their metadata, so a listing reads files and inspects none.
METADATA = {"mediaTypes": ["audio/x-wav"], "size": 94, "duration": 1000}

SCALES = ("full", "quick", "shortest")


@dataclasses.dataclass(frozen=True)
class Row:
    """One line of the table. `ours` and `floor` are samples in `unit`; `floor` may be empty."""

    what: str
    unit: str
    ours: list
    floor: list = dataclasses.field(default_factory=list)

    @property
    def ratio(self):
        """The median of ours divided by the median of the floor, or None."""
        floor = statistics.median(self.floor) if self.floor else 0
        return statistics.median(self.ours) / floor if floor > 0 else None


@dataclasses.dataclass(frozen=True)
class Curve:
    """One plot: for each name, points (x, y). Both axes are logarithmic."""

    name: str  # of the file, without its suffix
    title: str
    x: str
    y: str
    lines: dict


@dataclasses.dataclass
class Results:
    rows: list = dataclasses.field(default_factory=list)
    curves: list = dataclasses.field(default_factory=list)


def quartiles(samples):
    """Returns the first quartile, the median and the third quartile."""
    if len(samples) < 2:
        return [samples[0]] * 3
    return statistics.quantiles(samples, n=4, method="inclusive")


def scaled(times, factor):
    return [time * factor for time in times]


def to_us(times):
    return scaled(times, 1e-3)


def to_ms(times):
    return scaled(times, 1e-6)


class Bench:
    """The build to measure, the scale, and a folder for the sandboxes."""

    def __init__(self, build, folder, scale):
        self.build = pathlib.Path(build).resolve()
        self.folder = pathlib.Path(folder)
        self.scale = SCALES.index(scale)
        self._sandboxes = 0

    def pick(self, *values):
        """Returns the value for the scale: of full, quick and shortest."""
        return values[self.scale]

    @contextlib.contextmanager
    def sandbox(self, bus=True):
        """A sandbox with a bus and a store of up to 20,000 records."""
        self._sandboxes += 1
        folder = self.folder / str(self._sandboxes)
        with Sandbox(folder, self.build, self.folder / "cache") as box:
            box.set_parameters({"root.SonoBrik.MaxGroups": "20000"})
            if bus:
                box.start_bus()
            yield box

    @staticmethod
    def start_daemon(box, **options):
        """Starts the daemon with its log in a file and returns its process.

        The sandbox would read the log from a pipe and take processor time for each line.
        """
        program = box.folder / "run/daemon"
        program.write_text("#!/bin/sh\nexec /run/build/src/sonobrik 2>/tmp/daemon.log\n")
        program.chmod(0o755)
        return box.start_daemon("/run/daemon", **options)

    def start_floor(self, box, name, bus_name=FLOOR):
        """Starts build/bench/floor-NAME and returns its process."""
        floor = box.spawn([f"/run/build/bench/floor-{name}", bus_name])
        floor.expected = True
        wait_until(lambda: not floor.is_running or box.bus.get_owner(bus_name), 20,
                   f"{bus_name} has an owner")
        assert floor.is_running, floor.lines
        return floor

    @staticmethod
    def call(box, mode, *arguments, deadline=600):
        """Runs the caller and returns what it prints."""
        command = ["/run/build/bench/caller", mode, *arguments]
        return json.loads(box.run(command, deadline=deadline).stdout)

    def compare(self, box, count, *call):
        """Makes the call of the daemon and of the floor in turn; returns both lists of times."""
        return self.call(box, "calls", count, *(encode(name, *call) for name in (DAEMON, FLOOR)))


def encode(name, method, *arguments):
    """Returns a call as the caller's arguments have it."""
    return "|".join((name, method, *arguments))


def write_records(box, count):
    """Fills the store with `count` records, instead of those that it has."""
    folder = box.folder / RECORDS.removeprefix("/")
    for path in folder.iterdir():
        path.unlink()
    for number in range(count):
        text = write_record(f"/etc/audioclips/clip{number}.wav", f"Clip {number}", "audio", METADATA)
        (folder / f"M{number}.json").write_text(text)


def read_resident_kib(process):
    status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
    return next(int(line.split()[1]) for line in status.splitlines() if line.startswith("VmRSS:"))
