"""Reads the recording of a virtual sound card or of the vendor's sink element.

tests/support/recording.h describes the files.
"""

import array
import dataclasses
import math
import struct
import sys

# While a file of one of these names exists, the sound card misbehaves.
TROUBLES = ("busy", "fast", "gone", "stuck")

HEADER = struct.Struct("<4sI4s4sIHHIIHH4sI")


@dataclasses.dataclass(frozen=True)
class Event:
    """One recorded event; `time` is in nanoseconds, on the clock of time.monotonic_ns()."""

    time: int
    name: str
    fields: dict


class Take:
    """One WAV file: consecutive frames of one sample format."""

    def __init__(self, path):
        content = path.read_bytes()
        header = HEADER.unpack_from(content)
        self.path = path
        self.channels, self.rate = header[6], header[7]
        self.bits, size = header[10], header[12]
        self.frame_size = self.channels * self.bits // 8
        self.data = content[HEADER.size:HEADER.size + size]

    @property
    def frames(self):
        return len(self.data) // self.frame_size

    @property
    def seconds(self):
        return self.frames / self.rate

    @property
    def samples(self):
        """The samples of all channels, interleaved, as signed integers of `bits` bits."""
        if self.bits == 24:
            return array.array("i", (int.from_bytes(self.data[i:i + 3], "little", signed=True)
                                     for i in range(0, len(self.data), 3)))
        samples = array.array({16: "h", 32: "i"}[self.bits], self.data)
        if sys.byteorder == "big":
            samples.byteswap()
        return samples

    @property
    def peak(self):
        """The peak, from 0 to 1 of full scale."""
        samples = self.samples
        return max(abs(min(samples)), max(samples)) / 2 ** (self.bits - 1) if samples else 0.0

    @property
    def level(self):
        """The RMS level of all samples in dBFS; -inf for silence."""
        samples = self.samples
        power = math.fsum(sample * sample for sample in samples)
        if not power:
            return -math.inf
        return 10 * math.log10(power / len(samples)) - 20 * math.log10(2 ** (self.bits - 1))

    def find(self, samples, start=0):
        """Returns the first frame from `start` on where `samples` begin without a gap, or -1."""
        if self.bits != 16:
            raise ValueError(f"the recording has {self.bits} bits a sample, not 16")
        samples = array.array("h", samples)
        if sys.byteorder == "big":
            samples.byteswap()
        wanted = samples.tobytes()
        at = self.data.find(wanted, start * self.frame_size)
        while at >= 0 and at % self.frame_size:
            at = self.data.find(wanted, at + 1)
        return at // self.frame_size if at >= 0 else -1


class Recording:
    """What one sound card or the vendor's sink has played so far."""

    def __init__(self, folder):
        self.folder = folder

    @property
    def takes(self):
        # A file without a complete header was just created.
        return [Take(path) for path in sorted(self.folder.glob("[0-9]*.wav"))
                if path.stat().st_size >= HEADER.size]

    @property
    def frames(self):
        return sum(take.frames for take in self.takes)

    @property
    def events(self):
        path = self.folder / "events"
        # A last line without a line feed is still being written.
        lines = path.read_text().split("\n")[:-1] if path.exists() else []
        return [self._parse(line) for line in lines]

    @staticmethod
    def _parse(line):
        time, name, *fields = line.split(" ")
        return Event(int(time), name, dict(field.split("=", 1) for field in fields))

    def count(self, name):
        """Returns the number of events of this name."""
        return sum(event.name == name for event in self.events)

    @property
    def is_open(self):
        states = [event.name for event in self.events if event.name in ("open", "close")]
        return states[-1:] == ["open"]

    def set_trouble(self, name, on=True):
        """Makes a sound card "busy", "fast", "gone" or "stuck", or ends that state."""
        if name not in TROUBLES:
            raise ValueError(name)
        if on:
            (self.folder / name).touch()
        else:
            (self.folder / name).unlink(missing_ok=True)
