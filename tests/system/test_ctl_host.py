"""sonobrikctl --host: two machines, each a sandbox of its own, and an ssh that connects them."""

import json
import os
import pathlib
import re
import shlex
import shutil
import signal
import time

import pytest
from sandbox import Sandbox, Shell, clips, wait_until
from sandbox.shell import PROGRAM

# Where the remote machine's bus is mounted on the local machine, which has no bus of its own.
MOUNT = "/mnt"

# Records its arguments and does what ssh does with these machines.
SSH = """\
#!/bin/sh
printf '%s\\n' "$*" >>/tmp/ssh-calls
shift $(($# - 2))
case $1 in
shop|root@shop)
    exec "$2" --bus-path=unix:path=/mnt/system_bus_socket
    ;;
nobridge)
    echo "bash: line 1: $2: command not found" >&2
    exit 127
    ;;
nobus)
    exec "$2" --bus-path=unix:path=/mnt/none
    ;;
silent)
    exec sleep 1000
    ;;
*)
    echo "ssh: Could not resolve hostname $1: Name or service not known" >&2
    exit 255
    ;;
esac
"""

ROOT = pathlib.Path(__file__).resolve().parents[2]

FOLLOW_UP = "check that you can log in there with ssh, and that systemd-stdio-bridge is installed there"


class Local:
    """sonobrikctl on the local machine, from where ssh reaches the remote one."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.shell = Shell(sandbox)
        self.env = {"PATH": "/tmp/bin:/usr/bin:/bin"}

    def ok(self, *words):
        return self.shell.ok("--host", "shop", *words, env=self.env)

    def fail(self, status, *words):
        return self.shell.fail(status, "--host", "shop", *words, env=self.env)

    def run(self, *words, **options):
        return self.shell.run(*words, env=self.env, **options)

    @property
    def calls(self):
        """The command lines of ssh since the last time."""
        file = self.sandbox.folder / "tmp/ssh-calls"
        lines = file.read_text().splitlines() if file.exists() else []
        file.unlink(missing_ok=True)
        return lines


@pytest.fixture
def local(tmp_path, build_dir, cache, sandbox):
    """The local machine. It has no bus, no clips and no sound; `sandbox` is the remote machine."""
    if not shutil.which("systemd-stdio-bridge"):
        pytest.skip("needs systemd-stdio-bridge")
    with Sandbox(tmp_path / "local", build_dir, cache) as box:
        box.set_outputs([])
        box.bind(sandbox.folder / "run/dbus", MOUNT)
        (box.folder / "tmp/bin").mkdir()
        ssh = box.folder / "tmp/bin/ssh"
        ssh.write_text(SSH)
        ssh.chmod(0o755)
        yield Local(box)


def wait_sound(sandbox):
    wait_until(lambda: sandbox.card(0).frames > 0, 20, "the clip is playing")


def test_every_command_uses_the_other_machine(local, sandbox, player, clip):
    assert local.ok("check", clip.path) == f"{clip.path}: can be played\n"
    assert local.ok("add", clip.path, "--name", "Door") == "0\n"
    assert local.ok("rename", "Door", "Gate") == ""
    assert re.search(r"0  Gate  a\.wav  wav ", local.ok("list"))
    assert local.ok("list", "--names") == "Gate\n"
    assert local.ok("sync") == ""
    assert [row["output"] for row in json.loads(local.ok("outputs", "--json"))] == [0]
    assert local.ok("play", "--wait", "Gate") == ""
    assert local.ok("play", "--wait", clip.path) == ""
    assert local.ok("play", "--wait", "/etc/audioclips/*.wav") == ""
    assert local.ok("play", "--replace", "a.wav") == ""
    assert local.ok("stop") == ""
    assert local.ok("status") == "nothing is playing\n"
    assert local.ok("remove", "--yes", "Gate") == ""
    result = local.run("-H", "shop", "list")
    assert (result.returncode, result.stdout, result.stderr) == (
        0, "", "sonobrikctl: no clips yet; to add one: sonobrikctl --host 'shop' add FILE\n")
    assert set(local.calls) == {"-xT -- shop systemd-stdio-bridge"}


def test_the_option_stands_anywhere(local, daemon):
    for words in (["--host", "root@shop", "status"], ["--host=root@shop", "status"],
                  ["-H", "root@shop", "status"], ["status", "--host=root@shop"],
                  ["status", "--host", "root@shop"], ["status", "-H", "root@shop"],
                  ["-Hroot@shop", "status"], ["status", "-Hroot@shop"],
                  ["--host", "nowhere", "status", "--host", "root@shop"]):
        result = local.run(*words)
        assert (result.returncode, result.stdout) == (0, "nothing is playing\n"), (words, result)
    assert local.calls == ["-xT -- root@shop systemd-stdio-bridge"] * 9
    assert "Plays and manages" in local.run("-H", "shop", "--help").stdout
    assert "Plays a clip, a file" in local.run("--host=shop", "help", "play").stdout
    assert local.run("--host", "shop:22", "status").returncode == 0
    assert local.calls == ["-xT -p 22 -- shop systemd-stdio-bridge"]


@pytest.mark.parametrize("words", [["--host"], ["--host", "shop"], ["status", "--host"]])
def test_without_a_machine_or_command_the_line_is_invalid(local, words):
    assert local.run(*words).returncode == 2


@pytest.mark.parametrize("machine", ["-oProxyCommand=touch /tmp/harm", "-", ""])
def test_a_machine_that_ssh_would_misunderstand_is_refused(local, machine):
    assert local.shell.fail(2, "status", f"--host={machine}", env=local.env)[0] == (
        f"--host takes the name of a machine, not '{machine}'")
    assert local.calls == []


@pytest.mark.parametrize("machine, reason", [
    ("nowhere", "ssh: Could not resolve hostname nowhere: Name or service not known"),
    ("nobridge", "bash: line 1: systemd-stdio-bridge: command not found"),
    ("nobus", None),
])
def test_a_machine_that_cannot_be_reached_is_one_plain_error(local, daemon, machine, reason):
    result = local.run("--host", machine, "play", "/etc/audioclips/a.wav")
    lines = result.stderr.splitlines()
    assert (result.returncode, result.stdout, lines[-2:]) == (3, "", [
        f"sonobrikctl: no connection to the system bus of '{machine}': ssh did not connect",
        f"sonobrikctl: {FOLLOW_UP}"])
    assert lines[:-2] == [reason] if reason else len(lines) > 2


def test_without_ssh_the_error_says_so(local, daemon):
    result = local.sandbox.run(["env", "PATH=/tmp", PROGRAM, "--host", "shop", "stop"], check=False)
    assert (result.returncode, result.stdout) == (3, "")
    assert result.stderr.splitlines() == [
        "sonobrikctl: no connection to the system bus of 'shop': ssh is not installed"]


def test_ssh_that_never_answers_is_given_up(local, full):
    if not full:
        pytest.skip("takes a minute and a half; needs --full")
    result = local.run("--host", "silent", "stop", deadline=200)
    assert result.returncode == 3
    assert result.stderr.splitlines()[0] == (
        "sonobrikctl: no connection to the system bus of 'silent': ssh did not connect")


# What only this machine has


@pytest.mark.parametrize("words", [
    ["play", "./a.wav"], ["play", "../a.wav"], ["play", "*.wav"], ["add", "a.wav"],
    ["check", "/etc/audioclips/a.wav", "a.wav"],
])
def test_a_relative_path_is_refused(local, daemon, clip, words):
    local.sandbox.write_clip("a.wav", clips.noise(48))
    assert local.fail(2, *words) == [
        f"'{words[-1]}' is a relative path; with --host, files are those of 'shop', so give the "
        "whole path there",
        "to copy a file there first: scp"]


def test_a_file_of_this_machine_is_not_taken_for_one_there(local, daemon):
    # The current folder is the root folder here, and has a folder of this name.
    assert local.fail(5, "play", "etc") == ["no such clip: 'etc'",
                                            "to list all clips: sonobrikctl --host 'shop' list"]
    local.sandbox.write_clip("here.wav", clips.noise(48))
    for words in (["play", "/etc/audioclips/here.wav"], ["add", "/etc/audioclips/here.wav"]):
        error, *_ = local.fail(1, *words)
        assert error == ("Could not determine the media format of file: "
                         "'/etc/audioclips/here.wav'"), words


def test_files_are_neither_copied_nor_deleted(local, daemon, clip):
    assert local.ok("add", clip.path) == "0\n"
    local.sandbox.write_clip("a.wav", clips.noise(48))
    assert local.fail(2, "remove", "--yes", "--file", "0") == [
        "--file deletes files of this machine only; with --host, delete the file there, over ssh"]
    assert local.fail(2, "add", "--copy", "/tmp/a.wav") == [
        "--copy cannot be combined with --host; copy the file to 'shop' first, for example with scp"]
    assert local.fail(2, "add", "/tmp/a.wav") == [
        "'/tmp/a.wav' is not under /etc/audioclips",
        "copy it there first, for example with scp"]
    assert local.fail(2, "add", "/etc/audioclips/../a.wav")[0] == (
        "'/etc/audioclips/../a.wav' is not under /etc/audioclips")
    assert local.fail(2, "add", "/etc/audioclips/") == [
        "'/etc/audioclips/' is a directory; with --host, name its files"]
    assert (local.sandbox.etc / "audioclips/a.wav").exists()
    assert clip.file.exists()


def test_a_recording_is_replaced_there(local, sandbox, daemon, clip):
    local.ok("add", clip.path)
    sandbox.write_clip("a.wav", clips.noise(48000))
    assert local.ok("add", "--replace", clip.path) == "0\n"
    row, = json.loads(local.ok("list", "--json"))
    assert row["durationMs"] == 1000


def test_advice_names_the_machine(local, sandbox, player, long):
    local.ok("play", long.path)
    assert local.fail(1, "play", long.path) == [
        "A clip is already playing.",
        "to stop it: sonobrikctl --host 'shop' stop; to play another clip instead: "
        "sonobrikctl --host 'shop' play --replace CLIP"]
    local.ok("stop")
    assert local.fail(1, "play", "--output", "5", long.path) == [
        "there is no output 5; the outputs are: 0",
        "for more about them: sonobrikctl --host 'shop' outputs"]
    sandbox.set_access({"com.vesk.Sonobrik": {"groups": "nobody-here"}})
    local.sandbox.set_access({"com.vesk.Sonobrik": {"groups": "wrong-machine"}})
    assert local.fail(4, "stop") == [
        "permission denied by the access policy: StopPlayingClip",
        "for details: journalctl -t sonobrik (on 'shop')"]


def test_a_pattern_that_matches_nothing_is_explained(local, daemon):
    assert local.fail(1, "play", "/etc/audioclips/*.ogg")[1:] == [
        "to find out why a matching file is not played: sonobrikctl --host 'shop' check FILE"]


def list_hidden():
    """Returns the folders that the daemon's unit hides."""
    settings = re.findall(r"(?m)^(\w+)=(.*)$", (ROOT / "data/systemd/sonobrik.service.in").read_text())
    assert {("ProtectHome", "yes"), ("PrivateTmp", "yes")} <= set(settings)
    words = " ".join(value for name, value in settings if name == "InaccessiblePaths").split()
    assert words
    return ["/home", "/root", "/run/user", "/tmp", "/var/tmp", *(word.removeprefix("-") for word in words)]


def test_a_file_in_a_folder_that_the_unit_hides_is_explained(local, daemon):
    def check(*files):
        return local.run("--host", "shop", "check", *files).stdout.splitlines()

    folders = list_hidden()
    lines = check(*(f"{folder}/door.wav" for folder in folders))
    assert [line.split("'; ")[1] for line in lines] == [
        f"the daemon cannot see files in {folder} (systemd sandbox); put clips under /etc/audioclips"
        for folder in folders]
    others = check("/homes/door.wav", "/tmpdoor.wav", "/etc/audioclips/tmp/door.wav")
    assert len(others) == 3
    assert not any("sandbox" in line for line in others)


def test_the_daemon_is_missing_there(local, sandbox):
    assert local.fail(3, "stop")[1] == (
        "check the service: systemctl status sonobrik (on 'shop')")


def test_the_outputs_have_no_names_of_this_machines_cards(local, sandbox, daemon):
    local.sandbox.set_alsa('pcm.audiosink0 { type hw card 30 hint.description "Wrong" }\n')
    row, = json.loads(local.ok("outputs", "--json"))
    assert (row["name"], row["unplugged"]) == (None, False)


def test_an_output_that_cannot_be_opened_is_not_blamed_on_this_machine(local, sandbox, clip):
    sandbox.set_alsa("pcm.audiosink0 { type hw card 30 }\n")
    sandbox.start_daemon()
    assert local.fail(1, "play", clip.path)[1] == (
        "the output may be unplugged or in use by another program; for details: "
        "journalctl -t sonobrik (on 'shop')")


def test_the_number_of_clips_there_is_limited_there(local, sandbox, clip):
    sandbox.set_parameters({"root.SonoBrik.MaxGroups": "1"})
    local.sandbox.set_parameters({"root.SonoBrik.MaxGroups": "1"})
    sandbox.start_daemon()
    local.ok("add", clip.path)
    assert "the list is full" not in str(local.fail(1, "add", clip.path))


def test_a_missing_file_is_found_by_the_daemon(local, daemon, clip):
    local.ok("add", clip.path)
    # Neither has this machine the file of a clip that can be played, nor the other way round.
    assert " wav " in local.ok("list")
    clip.file.unlink()
    local.sandbox.write_clip("a.wav", clips.noise(48))
    assert local.fail(1, "play", "0") == [f"Could not determine the media format of file: '{clip.path}'"]


# Position and time


def read_position(local):
    status, = json.loads(local.ok("status", "--json"))
    return status["positionMs"]


def can_shift_clock(sandbox):
    return sandbox.run(["true"], check=False, launcher=SHIFT).returncode == 0


# The remote machine has been running for a day longer. The offset is written to /proc, which is
# read-only in a sandbox.
SHIFT = ["sh", "-c", "mount -o remount,bind,rw /proc && "
         'exec unshare --time --fork --kill-child --monotonic 86400 "$@"', "sh"]


@pytest.mark.needs_root
def test_the_position_is_right_although_the_clocks_differ(local, sandbox, long):
    if not can_shift_clock(sandbox):
        pytest.skip("needs the right to make a time namespace")
    sandbox.start_daemon(launcher=SHIFT)
    before = time.monotonic()
    local.ok("play", long.path)
    wait_sound(sandbox)
    position = read_position(local)
    assert 0 < position <= (time.monotonic() - before) * 1000
    assert re.search(r"Position:  0:0\d\.\d\n", local.ok("status"))
    sandbox.daemon.kill()  # unshare does not pass SIGTERM on


def test_the_position_advances(local, sandbox, player, long):
    local.ok("play", long.path)
    wait_sound(sandbox)
    first = read_position(local)
    wait_until(lambda: sandbox.card(0).frames > 48000, 20, "a second has been played")
    assert read_position(local) >= max(1000, first)


# Long connections


def start(local, *words):
    line = f"PATH=/tmp/bin:$PATH exec {PROGRAM} --host shop {shlex.join(words)} >/tmp/ctl-output"
    return local.sandbox.spawn(["sh", "-c", line])


def lines_of(local):
    return (local.sandbox.folder / "tmp/ctl-output").read_text().splitlines()


def test_the_monitor_prints_what_happens_there(local, sandbox, player, clip):
    monitor = start(local, "monitor")
    wait_until(lambda: any("watching" in line for line in monitor.lines), 20, "it watches")
    local.ok("play", "--wait", clip.path)
    wait_until(lambda: len(lines_of(local)) >= 3, 20, "three events are printed")
    assert [line.split(" ", 1)[1] for line in lines_of(local)] == [
        "output 0 started playing", f"output 0 is playing {clip.path}", "output 0 is idle"]


def is_bridge(entry, monitor):
    """Returns True if this process in /proc is the bridge that `monitor` has started."""
    try:
        fields = (entry / "stat").read_text().rpartition(")")[2].split()
        return int(fields[1]) == monitor.pid
    except OSError:
        return False


def test_the_monitor_ends_when_ssh_ends(local, sandbox, player):
    monitor = start(local, "monitor")
    wait_until(lambda: any("watching" in line for line in monitor.lines), 20, "it watches")
    bridge, = [int(entry.name) for entry in pathlib.Path("/proc").iterdir()
               if entry.name.isdigit() and is_bridge(entry, monitor)]
    os.kill(bridge, signal.SIGTERM)
    assert monitor.wait_exit() == 3
    assert "sonobrikctl: lost the connection to the system bus of 'shop'" in monitor.lines


def test_ctrl_c_stops_the_clip_although_it_ends_ssh(local, sandbox, player, long):
    """On a terminal, Ctrl-C reaches ssh too."""
    output, status = local.shell.on_terminal(
        "--host", "shop", "play", "--wait", "--repeat", "forever", long.path,
        steps=[("0:01.", "\x03")], env=local.env)
    assert status == 130, output
    assert local.ok("status") == "nothing is playing\n"
    assert sandbox.card(0).frames > 0


def test_a_signal_stops_the_clip(local, sandbox, player, long):
    waiting = start(local, "play", "--wait", long.path)
    wait_sound(sandbox)
    waiting.kill(signal.SIGTERM)
    assert waiting.wait_exit() == 143
    assert local.ok("status") == "nothing is playing\n"
