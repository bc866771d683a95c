"""Creates samples and audio files. Samples are interleaved signed 16-bit integers."""

import array
import dataclasses
import math
import pathlib
import random
import struct
import sys
import wave

# GStreamer elements that encode raw audio, by kind of file.
ENCODERS = {
    "flac": "flacenc",
    "mp2": "twolamemp2enc",
    "mp3": "lamemp3enc",
    "mulaw": "mulawenc ! wavenc",
    "opus": "opusenc ! oggmux",
    "vorbis": "vorbisenc ! oggmux",
}

KINDS = ("au", "wav", *ENCODERS)


@dataclasses.dataclass(frozen=True)
class Clip:
    path: str  # as the daemon sees it
    file: pathlib.Path  # the same from outside
    samples: array.array  # what went in; a lossy kind plays something like it
    rate: int
    channels: int

    @property
    def frames(self):
        return len(self.samples) // self.channels

    @property
    def location(self):
        """The play option for this clip; the path must not need escaping."""
        return f"location={self.path}"


def noise(frames, channels=1, seed=0):
    """Returns noise without zero samples, so that none can be mistaken for silence."""
    source = random.Random(seed)
    return array.array("h", (source.randint(1, 20000) * source.choice((-1, 1))
                             for _ in range(frames * channels)))


def tone(frequency, seconds, rate=48000, channels=1, peak=0.5):
    """Returns a sine tone with a fade of 5 ms at both ends, so that it does not click."""
    frames = round(seconds * rate)
    samples = array.array("h")
    for i in range(frames):
        gain = peak * min(1, i / rate / 0.005, (frames - 1 - i) / rate / 0.005)
        value = round(32767 * gain * math.sin(2 * math.pi * frequency * i / rate))
        samples.extend([value] * channels)
    return samples


def write_wav(path, samples, rate=48000, channels=1):
    with wave.open(str(path), "wb") as file:
        file.setnchannels(channels)
        file.setsampwidth(2)
        file.setframerate(rate)
        file.writeframes(_with_order("little", samples).tobytes())


def write_au(path, samples, rate=48000, channels=1):
    """Writes a Sun audio file of linear 16-bit samples."""
    data = _with_order("big", samples).tobytes()
    header = struct.pack(">4sIIIII", b".snd", 24, len(data), 3, rate, channels)
    pathlib.Path(path).write_bytes(header + data)


def encoder_command(kind, source, target):
    """Returns the command that encodes the WAV file `source` as `target`; `kind` is one of
    ENCODERS."""
    pipeline = (f"filesrc location={source} ! wavparse ! audioconvert ! audioresample ! "
                f"{ENCODERS[kind]} ! filesink location={target}")
    return ["gst-launch-1.0", "-q", *pipeline.split()]


def _with_order(order, samples):
    samples = array.array("h", samples)
    if sys.byteorder != order:
        samples.byteswap()
    return samples
