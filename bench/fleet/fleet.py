"""Measures a fleet: how closely clips start together, and how fast a broker reaches its nodes.

usage: /usr/bin/python3 bench/fleet/fleet.py [BUILD-FOLDER] [--nodes N] [--rounds N]
                                             [--subscribers N] [--alone N]

Install the packages of the system tests first. All programs run on this machine: a broker, and for
each node a sandbox with a bus, the daemon, a virtual sound card and sonobrik-mqtt.

"together" sends `rounds` commands with a time to a group of `nodes` nodes. The time of the first
sample comes from the recordings of the sound cards. "alone" does the same with one node, as on a
machine of its own; of many nodes on one machine, each waits for the processors that the others use.
"broker" measures the time from publishing a message to the last of `subscribers` clients that do
nothing but receive it.
"""

import argparse
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests/support"))

from sandbox import Sandbox, clips, wait_until  # noqa: E402 (found by the path above)
from sandbox.broker import Bridge, Broker  # noqa: E402

# From sending a command to its time. Each node checks the file first.
AHEAD_MS = 3000

NOISE = clips.noise(9600)


def read_rss_kib(pid):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    raise AssertionError(f"process {pid} has no resident memory")


def read_cpu_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / 100


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


class Node:
    def __init__(self, folder, build, cache, broker, operator, number):
        self.sandbox = Sandbox(folder, build, cache)
        self.clip = self.sandbox.write_clip("noise.wav", NOISE)
        self.sandbox.start_bus()
        self.sandbox.start_daemon()
        self.bridge = Bridge(self.sandbox, broker, operator, node={"name": f"node{number}"},
                             homeassistant={"discovery": "no"}).start()

    def find_first_sample(self, starts):
        """Returns the time of the first sample after `starts` starts of the card, in ms UTC."""
        events = [event for event in self.sandbox.card(0).events if event.name == "start"]
        if len(events) != starts + 1:
            raise AssertionError(f"the card started {len(events) - starts} times")
        event = events[-1]
        frame = int(event.fields["frame"])
        take = next(take for take in self.sandbox.card(0).takes
                    if take.path.stem == event.fields["file"])
        found = take.find(NOISE[:960], frame)
        if found < 0:
            raise AssertionError("the clip is not in the recording")
        utc = time.time_ns() - time.monotonic_ns()
        return (event.time + utc) / 1e6 + (found - frame) / take.rate * 1e3

    def count_starts(self):
        return self.sandbox.card(0).count("start")


def play_round(nodes, operator, number):
    """Returns by how many milliseconds the first sample of each node missed the time."""
    starts = [node.count_starts() for node in nodes]
    at = time.time_ns() // 1000000 + AHEAD_MS
    operator.publish("sonobrik/group/all/play",
                     {"location": "noise.wav", "at": at, "id": f"{number}-{at}"})
    for node in nodes:
        # Each play ends in two events; the node's state then says that it is idle again.
        answer = wait_until(
            lambda node=node: next((a for a in node.bridge.results
                                    if a.get("at") == at and a["status"] != "scheduled"), None),
            60, "an answer")
        if answer["status"] != "playing":
            raise AssertionError(answer)
    for node in nodes:
        wait_until(lambda node=node: not node.sandbox.card(0).is_open, 60, "the clip has ended")
    return [node.find_first_sample(count) - at for node, count in zip(nodes, starts)]


def measure_plays(name, count, rounds, build, folder):
    cache = folder.parent / "cache"
    with Sandbox(folder / "broker", build, cache) as box:
        broker = Broker(box).start()
        operator = broker.connect(topics=("sonobrik/+/info", "sonobrik/+/result"))
        nodes = []
        try:
            for number in range(count):
                nodes.append(Node(folder / str(number), build, cache, broker, operator, number))
            # The nodes learn how long their calls take.
            for number in range(3):
                play_round(nodes, operator, f"warm{number}")
            misses = [play_round(nodes, operator, number) for number in range(rounds)]
            bridge = read_rss_kib(nodes[0].bridge.process.pid)
            print(f"{name}: memory of a bridge after {rounds + 3} plays: {bridge} KiB")
        finally:
            for node in nodes:
                node.bridge.process.kill()
                node.sandbox.close()
            operator.close()
    flat = [miss for misses_of_round in misses for miss in misses_of_round]
    print(f"{name}: {count} nodes, {rounds} plays: first sample after its time, in ms: "
          f"median {statistics.median(flat):.1f}, "
          f"1 % {percentile(flat, 0.01):.1f}, 99 % {percentile(flat, 0.99):.1f}")
    if count > 1:
        spreads = [max(one) - min(one) for one in misses]
        print(f"{name}: from the first node to the last, in ms: "
              f"median {statistics.median(spreads):.1f}, 99 % {percentile(spreads, 0.99):.1f}")
    near = [abs(miss - statistics.median(flat)) for miss in flat]
    print(f"{name}: distance from the median of all, in ms: "
          f"median {statistics.median(near):.1f}, 99 % {percentile(near, 0.99):.1f}", flush=True)


def build_subscribers(folder):
    flags = subprocess.run(["pkg-config", "--cflags", "--libs", "libmosquitto"], check=True,
                           capture_output=True, text=True).stdout.split()
    program = folder / "subscribers"
    subprocess.run(["c++", "-std=c++20", "-O2", "-o", program,
                    ROOT / "bench/fleet/subscribers.cpp", *flags], check=True)
    return program


def measure_broker(count, rounds, build, folder):
    program = build_subscribers(folder.parent)
    with Sandbox(folder, build, folder.parent / "cache") as box:
        broker = Broker(box, lines=["log_type none"]).start()
        pid = broker.process.pid
        empty = read_rss_kib(pid)
        with subprocess.Popen([program, str(broker.port), str(count), str(rounds)],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as clients:
            if clients.stdout.readline() != "ready\n":
                raise AssertionError("the clients did not subscribe")
            full = read_rss_kib(pid)
            before = read_cpu_seconds(pid)
            clients.stdin.write("go\n")
            clients.stdin.flush()
            lasts = [float(clients.stdout.readline()) for _ in range(rounds)]
            used = read_cpu_seconds(pid) - before
            clients.stdin.close()
    print(f"broker: {count} subscribers, {rounds} messages: from publishing to the last, in ms: "
          f"median {statistics.median(lasts):.1f}, 99 % {percentile(lasts, 0.99):.1f}")
    print(f"broker: memory {empty} KiB without clients, {full} KiB with them, "
          f"{(full - empty) / count:.1f} KiB each; processor time "
          f"{used / rounds / count * 1e6:.1f} us for each delivery")


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", nargs="?", default=ROOT / "build", type=pathlib.Path)
    parser.add_argument("--nodes", type=int, default=20)
    parser.add_argument("--rounds", type=int, default=30)
    parser.add_argument("--subscribers", type=int, default=1000)
    parser.add_argument("--alone", type=int, default=30, help="rounds of one node")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        if options.subscribers:
            measure_broker(options.subscribers, 100, options.build.resolve(), folder / "broker")
        if options.alone:
            measure_plays("alone", 1, options.alone, options.build.resolve(), folder / "alone")
        if options.rounds:
            measure_plays("together", options.nodes, options.rounds, options.build.resolve(),
                          folder / "together")


if __name__ == "__main__":
    main()
