"""Common players beside the daemon: on the same clips and the same virtual card, in turn.

mpd plays without a database: its clients name the files, which it permits to local ones. `mpc play`
finds the clip in mpd's queue, because mpc cannot queue and play in one command.
"""

import fcntl
import os
import pathlib
import time

from measuring import CARD, Results, Row, clips, read_resident_kib, to_ms, wait_until

SOCKET = "/run/mpd.socket"

MPD = f"""\
music_directory "/etc/audioclips"
db_file "/run/mpd.db"
bind_to_address "{SOCKET}"
audio_output {{
    type "alsa"
    name "card"
    device "audiosink0"
}}
"""

CTL = "/run/build/tools/sonobrikctl/sonobrikctl"

TICKS = 100  # a second, in /proc/PID/stat


def start_mpd(box):
    (box.etc / "mpd.conf").write_text(MPD)
    mpd = box.spawn(["mpd", "--no-daemon", "/etc/mpd.conf"])
    mpd.expected = True
    wait_until(lambda: (box.folder / SOCKET.removeprefix("/")).exists(), 20, "mpd listens")
    return mpd


def read_seconds(pid):
    """Returns the processor time that a process has used."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def is_locked(box):
    """Returns True while a program has the card open."""
    folder = os.open(box.card(0).folder, os.O_RDONLY)
    try:
        fcntl.flock(folder, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        return True
    finally:
        os.close(folder)
    return False


def measure_starts(bench, box):
    """Returns rows with the times to the first sample."""
    rows = []
    for kind in ("wav", "mp3", "opus"):
        path = f"/etc/audioclips/a.{kind}"
        players = {
            "sonobrik, over the bus": f"bus|location={path}",
            "mpd, over its socket": f"mpd|file://{path}|{SOCKET}",
            "sonobrikctl play": f"run|{CTL} play {path}|{CTL} stop",
            "mpc play": f"run|mpc -q --host={SOCKET} play|mpc -q --host={SOCKET} stop",
            "gst-play-1.0": f"run|/run/gst-play {path}",
        }
        if kind == "wav":
            players["aplay"] = f"run|aplay -q -D audiosink0 {path}"
        bench.call(box, "peers", 1, CARD, *players.values())
        lists = bench.call(box, "peers", bench.pick(30, 10, 1), CARD, *players.values())
        rows += [Row(f"{kind.upper()}, first sample: {name}", "ms", to_ms(times))
                 for name, times in zip(players, lists, strict=True)]
    return rows


def measure_processor(bench, box, daemon, mpd):
    """Returns rows with the processor time of playing a WAV for a while."""
    seconds = bench.pick(60, 10, 1)
    path = "/etc/audioclips/long.wav"

    def run_program(*command):
        process = box.spawn(command)
        process.expected = True
        return process.pid, process.kill

    def run_client(pid, start, stop):
        box.run(start)
        return pid, lambda: box.run(stop)

    box.run(["mpc", "-q", f"--host={SOCKET}", "clear"])
    box.run(["mpc", "-q", f"--host={SOCKET}", "add", f"file://{path}"])
    players = {
        "sonobrik": lambda: run_client(daemon.pid, [CTL, "play", path], [CTL, "stop"]),
        "mpd": lambda: run_client(mpd.pid, ["mpc", "-q", f"--host={SOCKET}", "play"],
                                  ["mpc", "-q", f"--host={SOCKET}", "stop"]),
        "gst-play-1.0": lambda: run_program("/run/gst-play", path),
        "aplay": lambda: run_program("aplay", "-q", "-D", "audiosink0", path),
    }
    rows = []
    for name, play in players.items():
        begun = box.card(0).count("start")
        pid, stop = play()
        wait_until(lambda begun=begun: box.card(0).count("start") > begun, 20, f"{name} plays")
        before = read_seconds(pid)
        time.sleep(seconds)
        rows.append(Row(f"processor time of {seconds} s of WAV: {name}", "s",
                        [read_seconds(pid) - before]))
        stop()
        wait_until(lambda: not is_locked(box), 20, f"{name} frees the card")
    return rows


def run(bench):
    with bench.sandbox() as box:
        sound = clips.tone(440, 2)
        for kind in ("wav", "mp3", "opus"):
            box.write_clip(f"a.{kind}", sound)
        box.write_clip("long.wav", clips.tone(440, 1) * bench.pick(70, 20, 5))
        # The caller cannot pass an argument with a blank.
        script = box.folder / "run/gst-play"
        script.write_text("#!/bin/sh\nexec gst-play-1.0 -q --no-interactive "
                          '--audiosink="alsasink device=audiosink0" "$@"\n')
        script.chmod(0o755)
        daemon, mpd = box.start_daemon(), start_mpd(box)
        time.sleep(bench.pick(2, 2, 0))
        rows = [Row(f"resident, idle: {name}", "KiB", [read_resident_kib(process)])
                for name, process in (("sonobrik", daemon), ("mpd", mpd))]
        rows += measure_starts(bench, box)
        rows += measure_processor(bench, box, daemon, mpd)
    return Results(rows)
