"""Plays thousands of clips and chains, and shows whether the daemon grows.

usage: /usr/bin/python3 bench/soak.py [--plays N] [--chains N] [BUILD-FOLDER]

The daemon runs in a sandbox with the virtual sound card; install the packages of the system tests
first. The defaults are 10,000 plays and 1,000 chains. Every tenth clip plays to its end, which
takes a third of a second because of the delay after the end; the others are stopped once the card
has started. A chain is stopped when its third clip has begun. The table shows resident memory, open
descriptors and threads at the start, after a tenth and at the end. Exits with 1 if, from a tenth to
the end, descriptors or threads grow, or memory grows by more than 0.5 KiB for each clip; a chain
counts as three.

The daemon's malloc has one arena. By default, it creates up to 8 for each processor, at times that
depend on the threads, and each keeps some freed memory.
"""

import argparse
import os
import pathlib
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests/support"))

from sandbox import Player, Sandbox, clips, wait_until  # noqa: E402 (found by the path above)

GROWTH_KIB = 0.5
NATURAL_ENDS = 10  # one play in so many
CHAIN_LENGTH = 3
SETTLING = 60  # seconds

KINDS = ("resident KiB", "descriptors", "threads")


def measure(pid):
    """Returns resident memory in KiB, and the number of descriptors and threads."""
    process = pathlib.Path("/proc", str(pid))
    status = dict(line.split(":", 1) for line in (process / "status").read_text().splitlines())
    return (int(status["VmRSS"].split()[0]), len(os.listdir(process / "fd")),
            int(status["Threads"]))


def settle(pid, first):
    """Waits up to SETTLING seconds for as few descriptors and threads as in the measurements
    `first`, because a thread pool keeps idle threads for a while. Returns measure()."""
    end = time.monotonic() + SETTLING
    wait_until(lambda: time.monotonic() > end
               or all(value <= limit for value, limit in
                      zip(measure(pid)[1:], first[1:], strict=True)), 2 * SETTLING)
    return measure(pid)


def count_files(player):
    return sum(event[0] == "CurrentlyPlaying" for event in player.events)


def play(sandbox, player, clip, number):
    if number % NATURAL_ENDS == 0:
        assert player.call("PlayClip", clip.location) == "OK"
        return
    card = sandbox.card(0)
    started = card.count("start")
    assert player.call("StartPlayingClip", clip.location) == "OK"
    wait_until(lambda: card.count("start") > started, what="the card plays")
    assert player.call("StopPlayingClip") == "OK"


def chain(_sandbox, player, clip, _number):
    begun = count_files(player)
    assert player.call("StartPlayingClip", f"{clip.location}&repeat=-1") == "OK"
    wait_until(lambda: count_files(player) >= begun + CHAIN_LENGTH, 20, "the third clip begins")
    assert player.call("StopPlayingClip") == "OK"


def empty(card):
    """Deletes what a card has recorded, which would fill the disk and slow down reading it."""
    for path in card.folder.glob("*"):
        if path.suffix == ".wav" or path.name == "events":
            path.unlink()


def repeat(sandbox, action, clip, times):
    """Calls an action so many times, and prints and returns the measurements."""
    pid = sandbox.daemon.pid
    rows = [measure(pid)]
    for part in (times // 10, times - times // 10):
        for first in range(0, part, 100):
            # A new client for each hundred keeps this program's own lists short.
            bus = sandbox.connect()
            player = Player(bus)
            for number in range(first, min(first + 100, part)):
                action(sandbox, player, clip, number)
            bus.close()
            empty(sandbox.card(0))
        rows.append(settle(pid, rows[-1]))
    for name, row in zip(("start", "a tenth", "end"), rows, strict=True):
        print(f"{action.__name__:6} {name:8}" + "".join(
            f"{value:8} {kind}" for value, kind in zip(row, KINDS, strict=True)), flush=True)
    return rows


def is_flat(rows, count):
    _, early, late = rows
    growth = (late[0] - early[0]) / (count - count // 10)
    print(f"growth from a tenth to the end: {growth:.2f} KiB a clip", flush=True)
    return growth <= GROWTH_KIB and late[1] <= early[1] and late[2] <= early[2]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", nargs="?", default=ROOT / "build", type=pathlib.Path)
    parser.add_argument("--plays", default=10000, type=int)
    parser.add_argument("--chains", default=1000, type=int)
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory() as name:
        with Sandbox(pathlib.Path(name) / "box", arguments.build.resolve()) as sandbox:
            clip = sandbox.write_clip("a.wav", clips.noise(4800))
            (sandbox.card(0).folder / "fast").touch()  # the card plays faster than the clock
            sandbox.start_bus()
            sandbox.start_daemon(env={"MALLOC_ARENA_MAX": "1"})
            # The first plays load plugins and start the threads that stay.
            player = Player(sandbox.bus)
            for number in range(20):
                play(sandbox, player, clip, number)
            flat = [is_flat(repeat(sandbox, action, clip, times), times * length)
                    for action, times, length in ((play, arguments.plays, 1),
                                                  (chain, arguments.chains, CHAIN_LENGTH))
                    if times >= 10]
    return 0 if all(flat) else 1


if __name__ == "__main__":
    sys.exit(main())
