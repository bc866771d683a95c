"""Many callers at once: throughput and the longest wait; and whether a clip plays on meanwhile."""

import struct

from measuring import (
    DAEMON, FLOOR, Curve, Results, Row, clips, encode, to_ms, wait_until, write_records)

MISSING = ("SupportedFile", "/etc/audioclips/missing.wav")

RECORDS = 100

RATE = 48000
STARTED = 4800  # frames that must have been played before the load begins


def measure_throughput(bench, results):
    rounds, seconds = bench.pick((5, 1), (3, 0.5), (1, 0.05))
    with bench.sandbox() as box:
        write_records(box, RECORDS)
        bench.start_daemon(box)
        for what, floor, *call in (("SupportedFile of a missing path", "echo", *MISSING),
                                   (f"GetMetadata of {RECORDS} records", "store", "GetMetadata")):
            bus_name = f"{FLOOR}.{floor}"
            bench.start_floor(box, floor, bus_name)
            curves = {"throughput": {}, "wait": {}}
            for callers in bench.pick((1, 10, 100), (1, 10, 100), (1, 2)):
                speeds, waits = {}, {}
                for _ in range(rounds):
                    for side, name in (("sonobrik", DAEMON), ("floor", bus_name)):
                        load = bench.call(box, "load", seconds, callers, encode(name, *call))
                        speeds.setdefault(side, []).append(len(load["times"]) / load["seconds"])
                        waits.setdefault(side, []).append(max(to_ms(load["times"])))
                title = f"{what}, {callers} caller{'s' if callers > 1 else ''}"
                results.rows += [
                    Row(f"{title}: throughput", "/s", speeds["sonobrik"], speeds["floor"]),
                    Row(f"{title}: longest wait", "ms", waits["sonobrik"], waits["floor"])]
                for kind, samples in (("throughput", speeds), ("wait", waits)):
                    for side, values in samples.items():
                        middle = sorted(values)[len(values) // 2]
                        curves[kind].setdefault(side, []).append((callers, middle))
            method = call[0]
            results.curves += [
                Curve(f"{method.lower()}-throughput", f"{method}: throughput by callers at once",
                      "callers", "calls/s", curves["throughput"]),
                Curve(f"{method.lower()}-wait", f"{method}: longest wait by callers at once",
                      "callers", "ms", curves["wait"])]


def count_gap_frames(box, clip):
    """Returns how many frames of silence or of time the card had between frames of the clip.

    The clip is noise without a zero sample, so a zero in the recording was not in the clip.
    """
    events = box.card(0).events
    take = box.card(0).takes[-1]
    begin = take.find(clip.samples[:100])
    assert begin >= 0, "the card has not played the clip"
    samples = take.samples[::take.channels][begin:]
    silent = sum(sample == 0 for sample in samples[:len(clip.samples)])
    intact = take.find(clip.samples[:len(samples)], begin) == begin
    pauses = 0
    for index, event in enumerate(events):
        if event.name == "underrun":
            again = next((later.time for later in events[index:] if later.name == "start"), None)
            pauses += round(((again or event.time) - event.time) * 1e-9 * RATE)
    assert intact or silent or pauses, "the card has played other samples than the clip's"
    return silent + pauses


def measure_playing(bench, results):
    seconds, callers = bench.pick((10, 100), (3, 100), (0.2, 2))
    with bench.sandbox() as box:
        clip = box.write_clip("a.wav", clips.noise(round((seconds + 5) * RATE)))
        short = box.write_clip("b.wav", clips.tone(440, 1))
        probe = box.folder / "run/loop"
        probe.write_bytes(bytes(16))
        bench.start_daemon(box, env={"LOOP_PROBE_FILE": "/run/loop",
                                    "LD_PRELOAD": "/run/build/bench/libloop_probe.so"})
        bench.start_floor(box, "player")
        inspect = ("SupportedFile", short.path)
        bench.compare(box, bench.pick(20, 5, 1), *inspect)
        ours, floor = bench.compare(box, bench.pick(300, 50, 2), *inspect)
        results.rows.append(Row("round trip, SupportedFile of a WAV", "ms", to_ms(ours),
                                to_ms(floor)))
        bench.call(box, "calls", 1, encode(DAEMON, "StartPlayingClip", clip.location))
        wait_until(lambda: box.card(0).frames > STARTED, what="the card plays")
        probe.write_bytes(bytes(16))
        bench.call(box, "load", seconds, callers, encode(DAEMON, *inspect))
        busy, discoverer = struct.unpack("QQ", probe.read_bytes())
        bench.call(box, "calls", 1, encode(DAEMON, "StopPlayingClip", "x"))
        gaps = count_gap_frames(box, clip)
    during = f"while a clip plays and {callers} callers ask about a WAV"
    results.rows += [
        Row(f"gaps at the card {during}", "frames", [gaps]),
        Row(f"longest busy time of the loop {during}", "ms", to_ms([busy]),
            to_ms([discoverer]))]


def run(bench):
    results = Results()
    measure_throughput(bench, results)
    measure_playing(bench, results)
    return results
