"""Does everything at once to the daemon for some time, and shows whether it grows.

usage: /usr/bin/python3 bench/soak_mixed.py [--minutes N] [--seed N] [BUILD-FOLDER]

The daemon runs in a sandbox with virtual sound cards; install the packages of the system tests
first. The default is 30 minutes. These happen at the same time: plays, stops and chains on four
outputs, damaged files, changes and listings of the store, random calls, callers that disconnect
before the reply, messages from a user without any right, on-screen controls and an audio control
service that come and go. Every 20 seconds they pause, and a clip must play well. The table shows
the resident memory, open descriptors and threads in such a pause after each tenth of the time.
Exits with 1 if the daemon ends, leaves a call without an answer or is reported by a sanitizer, or
if descriptors, threads or memory grow from a tenth of the time to the end. With the address
sanitizer, the growth of memory is only shown, because the sanitizer delays the reuse of memory.
"""

import argparse
import collections
import concurrent.futures
import math
import os
import pathlib
import random
import sys
import tempfile
import time

# Makes the package "sandbox" available, too.
from soak import KINDS, ROOT, count_files, empty, measure, settle

from sandbox import BusError, Player, Sandbox, Store, clips, has_several_users, wait_until
from sandbox.answers import Answers, leave, post
from sandbox.connections import PURPOSES, find_connections
from sandbox.controls import Controls
from sandbox.damage import damage
from sandbox.player import NAME, PATH
from sandbox.random_calls import RandomCalls
from sandbox.store import LEGACY_INTERFACE, LEGACY_NAME
from sandbox.strangers import start_flood

ROUND = 20  # seconds
PATIENCE = 180  # seconds until a call must be answered, with the sanitizers on a busy machine

GROWTH_KIB = 4096  # from a tenth of the time to the end

# By default, malloc creates up to 8 arenas for each processor, and keeps more freed memory after
# messages of 1 MB and 10 MB. Either would hide what the daemon holds.
ALLOCATOR = {"MALLOC_ARENA_MAX": "1", "MALLOC_MMAP_THRESHOLD_": "131072"}

# The outputs as options of a play request, and the device and output number of their cards.
OUTPUTS = {
    "audiooutput=0": (0, 0),
    "audiooutput=1": (1, 0),
    "audiodeviceid=0&audiooutputid=0": (0, 0),
    "audiodeviceid=1&audiooutputid=1": (1, 1),
}

CLIP_KINDS = ("wav", "au", "mulaw", "mp3", "mp2", "vorbis", "opus")

DEVICES = ("/com/vesk/AudioControl", "org.freedesktop.DBus.ObjectManager")

# The bus answers with this while too many messages to the daemon are queued.
FULL = "org.freedesktop.DBus.Error.LimitsExceeded"


class Soak:
    """What is done to the daemon in `sandbox`. Each method that is named in ACTORS is a generator,
    and yields a condition for which it waits while the others go on."""

    def __init__(self, sandbox, seed):
        self.sandbox = sandbox
        self.source = random.Random(seed)
        self.counts = collections.Counter()
        self.clips = [sandbox.write_clip(f"{kind}.clip", clips.noise(4800), kind=kind)
                      for kind in CLIP_KINDS]
        self.good = sandbox.write_clip("good.wav", clips.noise(2400, seed=1))
        self.end = 0
        self.busy = 0
        self.threads = None
        self.connections = {}

    @property
    def is_over(self):
        return time.monotonic() >= self.end

    def pause(self, seconds):
        """Returns a condition that becomes true at a random moment of the next seconds."""
        moment = time.monotonic() + self.source.uniform(0, seconds)
        return lambda: time.monotonic() >= moment

    def answer(self, what, reply, name):
        """Waits for a reply. Returns its values, or None if the method fails or the bus is full."""
        yield lambda: reply.done
        try:
            values = reply.wait()
        except BusError as error:
            if error.name == FULL:
                self.counts["calls refused by the bus"] += 1
                yield self.pause(0.5)
            elif error.name == name:
                self.counts[f"{what}, refused"] += 1
            else:
                raise
            return None
        self.counts[what] += 1
        return values

    def run_round(self, seconds):
        """Runs all actors for some seconds, and until each has finished what it began."""
        self.end = time.monotonic() + seconds
        waiting = {getattr(self, name)(): (lambda: True, self.end) for name in ACTORS}

        def step():
            for actor, (condition, deadline) in list(waiting.items()):
                if not condition():
                    if time.monotonic() > deadline:
                        raise AssertionError(f"{PATIENCE} s passed in {actor}")
                    continue
                try:
                    waiting[actor] = (next(actor), time.monotonic() + PATIENCE)
                except StopIteration:
                    del waiting[actor]
            self.busy = len(waiting)
            if not self.sandbox.daemon.is_running:
                raise AssertionError("the daemon has ended")
            return not waiting

        with concurrent.futures.ThreadPoolExecutor() as self.threads:
            wait_until(step, seconds + 2 * PATIENCE, "the round is over")

    # The actors

    def play(self):
        player = Player(self.sandbox.connect())
        while not self.is_over:
            way = self.source.choice((self._play_to_the_end, self._stop, self._stop, self._chain,
                                      self._leave))
            location = self.source.choice([
                *(clip.location for clip in self.clips), "location=/etc/audioclips/*.clip",
                "location=/etc/audioclips/damaged/*"])
            volume = self.source.choice((0, 50, 100, 1000))
            output = self.source.choice(list(OUTPUTS))
            yield from way(player, f"{location}&{output}&volume={volume}")
        player.bus.close()

    def _ask(self, player, method, options=""):
        return self.answer(method, player.send(method, options), f"{NAME}.{method}")

    def _play_to_the_end(self, player, options):
        yield from self._ask(player, "PlayClip", options)

    def _stop(self, player, options):
        if (yield from self._ask(player, "StartPlayingClip", options)):
            yield self.pause(0.5)
        yield from self._ask(player, "StopPlayingClip")

    def _chain(self, player, options):
        begun = count_files(player)
        if (yield from self._ask(player, "StartPlayingClip", f"{options}&repeat=-1")):
            # Another caller may stop the chain before.
            late = self.pause(5)
            yield lambda: count_files(player) >= begun + 3 or late()
            self.counts["chains of three clips"] += count_files(player) >= begun + 3
        yield from self._ask(player, "StopPlayingClip")

    def _leave(self, _player, options):
        caller = Player(self.sandbox.connect())
        caller.send("PlayClip", f"{options}&repeat=2")
        leave(caller.bus)
        self.counts["callers that left"] += 1
        yield self.pause(0.5)

    def stop_at_the_end(self):
        """Ends the endless chains of random calls, for which others wait."""
        player = Player(self.sandbox.connect())
        yield lambda: self.is_over
        while self.busy > 1:
            yield from self._ask(player, "StopPlayingClip")
            yield self.pause(0.2)
        player.bus.close()

    def change_the_store(self):
        sandbox = self.sandbox
        bus = sandbox.connect()
        store = Store(sandbox)
        store.bus = bus
        while not self.is_over:
            number = self.source.randrange(20)
            method = self.source.choice(("AddClip", "GetMetadata", "Sync", "GetConfigurations",
                                         "RemoveConfiguration", "SetConfigurationEntry"))
            name = f"{NAME}.{method}"
            if method == "AddClip":
                reply = store.send_clip(self.source.choice(self.clips).path, f"clip {number}")
            elif method == "GetMetadata":
                reply = bus.send(NAME, PATH, NAME, method)
            else:
                name = f"{LEGACY_NAME}.{method}"
                if method == "SetConfigurationEntry":
                    reply = store.send_name(number, f"name {number}")
                elif method == "RemoveConfiguration":
                    reply = store.send(method, "(i)", number)
                else:
                    reply = store.send(method)
            yield from self.answer(method, reply, name)
        bus.close()

    def damage_files(self):
        player = Player(self.sandbox.connect())
        store = Store(self.sandbox)
        number = 0
        while not self.is_over:
            kind = self.source.randrange(len(CLIP_KINDS))
            content, _ = damage(self.clips[kind].file.read_bytes(), CLIP_KINDS[kind], self.source)
            path = self.sandbox.write_file(f"damaged/{number}", bytes(content))
            number += 1
            yield from self.answer("SupportedFile of a damaged file",
                                   player.send("SupportedFile", path), f"{NAME}.SupportedFile")
            values = yield from self.answer("AddClip of a damaged file", store.send_clip(path),
                                            f"{NAME}.AddClip")
            if values:
                yield from self._ask_metadata(store)
                yield from self.answer("RemoveConfiguration",
                                       store.send("RemoveConfiguration", "(i)", *values),
                                       f"{LEGACY_NAME}.RemoveConfiguration")
            # A few stay, so that a wildcard finds several.
            if number > 5:
                (self.sandbox.etc / f"audioclips/damaged/{number - 5}").unlink()
        player.bus.close()

    def _ask_metadata(self, store):
        return self.answer("GetMetadata",
                           store.bus.send(NAME, PATH, NAME, "GetMetadata"),
                           f"{NAME}.GetMetadata")

    def call_at_random(self):
        calls = RandomCalls(self.source, self.clips)
        answers = Answers()
        callers = [self.sandbox.connect() for _ in range(10)]
        while not self.is_over:
            leaving = self.source.sample(range(len(callers)), 2)
            for number in range(5):
                for index, caller in enumerate(callers):
                    if index in leaving or number == 0:
                        post(caller, calls.draw())
                    else:
                        answers.send(caller, calls.draw())
                    self.counts["random calls"] += 1
            for index in leaving:
                Answers().send(callers[index], calls.draw())
                leave(callers[index])
                self.counts["callers that left"] += 1
                callers[index] = self.sandbox.connect()
            yield lambda: answers.waiting == 0
            if answers.faults:
                raise AssertionError("\n".join(answers.faults))
        for caller in callers:
            caller.close()

    def flood(self):
        while not self.is_over:
            purpose = self.source.choice(PURPOSES)
            run = start_flood(self.threads, self.sandbox, self.connections[purpose], (50, 10),
                              PATIENCE)
            yield run.done
            self.counts["messages nobody asked for"] += int(run.result().stdout)
            yield self.pause(2)

    def flap_the_controls(self):
        bus = self.sandbox.connect()
        while not self.is_over:
            controls = Controls(self.sandbox)
            trouble = self.source.choice((
                lambda: None, controls.refuse, controls.hold,
                lambda: controls.reply_with_error(10000000),  # noqa: B023 (called in this loop)
                lambda: controls.reply_with_values("as", "['x'] * 100000")))  # noqa: B023
            trouble()
            sync = bus.send(LEGACY_NAME, PATH, LEGACY_INTERFACE, "Sync")
            if trouble == controls.hold:
                yield lambda: controls.is_asked or sync.done  # noqa: B023
            else:
                yield self.pause(3)
            controls.process.kill()
            controls.process.wait_exit()
            self.counts["on-screen controls that vanished"] += 1
            yield from self.answer("Sync", sync, f"{LEGACY_NAME}.Sync")
        bus.close()

    def flap_the_audio_control(self):
        bus = self.sandbox.connect()
        while not self.is_over:
            bus.own_name("com.vesk.AudioControl")
            yield self.pause(0.5)
            bus.emit(DEVICES[0], DEVICES[1], "InterfacesChanged")
            bus.release_name("com.vesk.AudioControl")
            self.counts["audio control services that vanished"] += 1
            yield self.pause(0.5)
            # The name is nobody's, so this must not end the daemon.
            bus.emit(*DEVICES, "InterfacesAdded")
        bus.close()

    # The pauses

    def check(self, first):
        """Plays a clip and compares what the card got; then returns the measurements."""
        daemon = self.sandbox.daemon
        player = Player(self.sandbox.connect())
        assert player.call("StopPlayingClip", timeout=PATIENCE) == "OK"
        for device, output in set(OUTPUTS.values()):
            card = self.sandbox.card(device, output)
            self.counts["starts of a card"] += card.count("start")
            empty(card)
        assert player.call("PlayClip", self.good.location, timeout=PATIENCE) == "OK"
        assert self.sandbox.card(0).takes[-1].find(self.good.samples) >= 0
        player.bus.close()
        return settle(daemon.pid, first) if first else measure(daemon.pid)


ACTORS = ("play", "play", "stop_at_the_end", "change_the_store", "damage_files", "call_at_random",
          "flood", "flap_the_controls", "flap_the_audio_control")


def soak(sandbox, minutes, seed):
    """Returns the rows of the table, and prints them."""
    work = Soak(sandbox, seed)
    sandbox.start_bus()
    sandbox.start_daemon(env=ALLOCATOR).ignores_misuse = True
    work.connections = find_connections(sandbox)
    begin = time.monotonic()
    first = work.check(None)
    row = first
    rows = [first]
    print_row(0, first)
    while len(rows) <= 10:
        share = begin + minutes * 60 * len(rows) / 10
        while time.monotonic() < share:
            work.run_round(min(ROUND, max(1, share - time.monotonic())))
            row = work.check(first)
        rows.append(row)
        print_row((time.monotonic() - begin) / 60, row)
    for what, count in sorted(work.counts.items()):
        print(f"{count:9} {what}")
    return rows


def print_row(minutes, row):
    print(f"{minutes:6.1f} min" + "".join(
        f"{value:8} {kind}" for value, kind in zip(row, KINDS, strict=True)), flush=True)


def silence_programs():
    """Keeps this program's standard output from the programs that it starts: the mock of the
    on-screen controls prints every call."""
    sys.stdout = os.fdopen(os.dup(1), "w")
    with open(os.devnull, "w", encoding="ascii") as null:
        os.dup2(null.fileno(), 1)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", nargs="?", default=ROOT / "build", type=pathlib.Path)
    parser.add_argument("--minutes", default=30, type=float)
    parser.add_argument("--seed", default=1, type=int)
    arguments = parser.parse_args()
    # By default, the address sanitizer holds back up to 256 MiB of freed memory, which would hide
    # the growth of everything else.
    os.environ["ASAN_OPTIONS"] = ":".join(
        filter(None, ("quarantine_size_mb=8", os.environ.get("ASAN_OPTIONS"))))
    silence_programs()
    with tempfile.TemporaryDirectory() as name:
        with Sandbox(pathlib.Path(name) / "box", arguments.build.resolve()) as sandbox:
            if has_several_users():
                sandbox.set_access({"com.vesk.Sonobrik": {"users": "root"}})
            sandbox.set_parameters({"root.SonoBrik.MaxGroups": "20"})
            sandbox.set_outputs(["audiosink0", "device0_output0", "audiosink1", "device1_output1"])
            sandbox.card(0).set_trouble("fast")
            rows = soak(sandbox, arguments.minutes, arguments.seed)
            daemon = sandbox.daemon
            limit = math.inf if daemon.keeps_freed_memory else GROWTH_KIB
            status = daemon.stop(deadline=PATIENCE)
            print(f"the daemon's exit status: {status}")
    _, early, *_, late = rows
    print(f"growth from a tenth to the end: {late[0] - early[0]} KiB")
    is_flat = (late[0] - early[0] <= limit and late[1] <= early[1] and late[2] <= early[2])
    return 0 if is_flat and status == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
