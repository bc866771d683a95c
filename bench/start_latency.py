"""Measures how long a start and the first calls take, and how much memory the daemon uses.

usage: /usr/bin/python3 bench/start_latency.py [BUILD-FOLDER]

The daemon runs in a sandbox with the virtual sound card; install the packages of the system tests
first. The time of a StartPlayingClip call is measured over the bus, on the caller's side. Each call
starts a WAV file of 1 s, which is then stopped at once. "cold registry" is the first start after an
installation, when GStreamer lists its plugins; it is measured once. "warm registry" is the median
of several starts after that.
"""

import pathlib
import statistics
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests/support"))

from sandbox import Player, Sandbox, clips  # noqa: E402 (found by the path above)

RUNS = 7
PLAYS = 100


def time_ms(action):
    begin = time.monotonic()
    action()
    return (time.monotonic() - begin) * 1000


def read_rss_kib(pid):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    raise AssertionError(f"process {pid} has no resident memory")


def time_calls(build, folder, cache, count):
    """Returns the duration of the daemon's start and of `count` StartPlayingClip calls, in ms."""
    with Sandbox(folder, build, cache) as sandbox:
        clip = sandbox.write_clip("a.wav", clips.tone(440, 1))
        sandbox.start_bus()
        start = time_ms(sandbox.start_daemon)
        player = Player(sandbox.bus)
        calls = []
        for _ in range(count):
            calls.append(time_ms(lambda: player.call("StartPlayingClip", clip.location, 60)))
            player.call("StopPlayingClip")
    return start, calls


def measure_memory(build, folder, cache):
    """Returns the resident memory in KiB after the start, after one play and after PLAYS more."""
    with Sandbox(folder, build, cache) as sandbox:
        clip = sandbox.write_clip("a.wav", clips.tone(440, 0.05))
        sandbox.start_bus()
        daemon = sandbox.start_daemon()
        player = Player(sandbox.bus)
        sizes = [read_rss_kib(daemon.pid)]
        for plays in (1, PLAYS):
            for _ in range(plays):
                player.call("PlayClip", clip.location)
            sizes.append(read_rss_kib(daemon.pid))
    return sizes


def main(build):
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        start, calls = time_calls(build, folder / "cold", folder / "cache", 10)
        print(f"cold registry: start {start:.1f} ms, first call {calls[0]:.1f} ms, "
              f"tenth call {calls[9]:.1f} ms")
        runs = [time_calls(build, folder / f"warm{number}", folder / "cache", 10)
                for number in range(RUNS)]
        print(f"warm registry, median of {RUNS}: "
              f"start {statistics.median(start for start, _ in runs):.1f} ms, "
              f"first call {statistics.median(calls[0] for _, calls in runs):.1f} ms, "
              f"tenth call {statistics.median(calls[9] for _, calls in runs):.1f} ms")
        started, once, often = measure_memory(build, folder / "memory", folder / "cache")
        print(f"resident memory: {started} KiB after the start, {once} KiB after one play, "
              f"{often} KiB after {PLAYS} more")


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ROOT / "build").resolve())
