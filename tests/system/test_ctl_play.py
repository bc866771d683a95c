"""sonobrikctl: playing, in a pipe."""

import signal

import pytest
from sandbox import clips, wait_until
from sandbox.player import NAME
from sandbox.shell import PROGRAM
from sandbox.store import Store, write_record


@pytest.fixture
def door(sandbox, player):
    return sandbox.write_clip("door.wav", clips.noise(4800))


@pytest.fixture
def long(sandbox, player):
    return sandbox.write_clip("long.wav", clips.noise(48000) * 60)


def played(player):
    """The files of all events so far."""
    player.fence()
    return [event[4] for event in player.events if event[0] == "CurrentlyPlaying"]


def wait_sound(sandbox, card=0):
    wait_until(lambda: sandbox.card(card).frames > 0, 20, "it sounds")


# What an argument means


def test_a_clip_plays_by_its_number_and_its_name(shell, player, door):
    shell.ok("add", door.path, "--name", "Front door")
    for word in ("0", "Front door"):
        assert shell.ok("play", "--wait", word) == ""
    assert played(player) == [door.path] * 2


def test_a_path_is_a_path_though_a_clip_is_called_so(shell, sandbox, player, door):
    other = sandbox.write_clip("other.wav", clips.noise(4800))
    shell.ok("add", other.path, "--name", door.path)
    shell.ok("play", "--wait", door.path)
    shell.ok("play", "--wait", "0")
    assert played(player) == [door.path, other.path]


def test_a_clip_wins_over_a_file_of_its_name(shell, sandbox, player, door):
    clips.write_wav(sandbox.etc / "0", clips.noise(4800))
    command = ["sh", "-c", 'cd /etc; exec "$0" "$@"', PROGRAM, "play", "--wait"]
    sandbox.run([*command, "0"])
    shell.ok("add", door.path)
    sandbox.run([*command, "0"])
    sandbox.run([*command, "./0"])
    assert played(player) == ["/etc/0", door.path, "/etc/0"]


def test_a_pattern_plays_what_it_matches(shell, sandbox, player, door):
    sandbox.write_file("notes.txt", b"text")
    shell.ok("play", "--wait", "/etc/audioclips/*")
    shell.ok("play", "--wait", "etc/audioclips/d??r.wav")  # the working folder is /
    assert played(player) == [door.path] * 2
    assert shell.fail(1, "play", "/etc/audioclips/*.mp3") == [
        "No supported file(s) found at '/etc/audioclips/*.mp3'."]


@pytest.mark.parametrize("name", ["a b+c%20&d=e.wav", "[*?].wav", "\n\x1b[2J'\"$(x).wav", "鈴.wav"])
def test_any_name_is_taken_to_the_letter(shell, sandbox, player, name):
    clip = sandbox.write_clip(name, clips.noise(4800))
    sandbox.write_clip("[ab].wav", clips.noise(480))
    shell.ok("add", clip.path)
    shell.ok("play", "--wait", "0")
    shell.ok("play", "--wait", clip.path)
    assert played(player) == [clip.path] * 2


def test_a_stored_clip_whose_file_is_gone_says_so_and_widens_into_nothing(shell, sandbox, player):
    sandbox.write_clip("door.wav", clips.noise(4800))
    for number, name in enumerate(("bell.wav", "d*.wav", "doo?.wav")):
        clip = sandbox.write_clip(name, clips.noise(4800))
        shell.ok("add", clip.path)
        clip.file.unlink()
        for words in (["play"], ["play", "--wait"]):
            assert shell.fail(5, *words, str(number)) == [
                f"the file of clip {number} is gone: '{clip.path}'",
                f"bring it back, or remove the clip: sonobrikctl remove {number}"]
    assert played(player) == []


def test_a_clip_without_a_file_is_refused(shell, sandbox):
    Store(sandbox).write("M2.json", write_record())
    sandbox.start_daemon()
    assert shell.fail(5, "play", "2") == ["clip 2 has no file"]


def test_what_nothing_is_called_is_refused(shell, daemon):
    assert shell.fail(5, "play", "bell\n") == ["no clip 'bell\\x0a'",
                                               "'sonobrikctl list' shows all clips"]
    assert shell.fail(5, "play", "/no/bell.wav") == [
        "No supported file(s) found at '/no/bell.wav'.", "there is no '/no'"]
    assert "is a folder" in shell.fail(2, "play", "/etc/audioclips")[0]


# How it plays


def test_volume_repeats_and_output_reach_the_daemon(shell, sandbox, player, door):
    sandbox.set_outputs(["audiosink0", "audiosink1", "device1_output2"])
    shell.ok("play", "--wait", door.path, "--volume", "50", "--repeat", "1", "--output", "1")
    assert sandbox.card(1).frames >= 2 * door.frames
    peak = max(abs(sample) for take in sandbox.card(1).takes for sample in take.samples)
    assert peak == pytest.approx(max(map(abs, door.samples)) / 2, abs=2)
    shell.ok("play", "--wait", door.path, "--device", "1", "--device-output", "2")
    assert sandbox.card(1, 2).frames >= door.frames


def test_it_returns_once_it_plays_and_stop_stops(shell, sandbox, player, long):
    shell.ok("play", long.path, "--repeat", "forever")
    wait_sound(sandbox)
    assert shell.ok("outputs").splitlines() == [
        "OUTPUT  DEVICE  DEVICE-OUTPUT  STATE    FILE",
        f"     0       0              0  playing  {long.path}"]
    for words in (["play", long.path], ["play", "--wait", long.path]):
        assert shell.fail(1, *words) == [
            "A clip is already playing.", "stop it with 'sonobrikctl stop', or wait for its end"]
    shell.ok("stop")
    assert shell.ok("outputs").splitlines()[1].split() == ["0", "0", "0", "idle"]
    shell.ok("stop")  # nothing plays: no error


def test_wait_ends_when_another_stops_the_clip(shell, sandbox, player, long):
    waiting = shell.start("play", "--wait", long.path)
    wait_sound(sandbox)
    shell.ok("stop")
    assert waiting.process.wait_exit() == 0
    assert waiting.process.lines == []


@pytest.mark.parametrize("number, status", [(signal.SIGINT, 130), (signal.SIGTERM, 143)])
def test_a_signal_stops_the_clip(shell, sandbox, player, long, number, status):
    waiting = shell.start("play", "--wait", long.path)
    wait_sound(sandbox)
    waiting.process.kill(number)
    assert waiting.process.wait_exit() == status
    player.fence()
    assert player.events[-1] == ("Playing", 1, 0, 0, False)
    assert waiting.process.lines == []


def test_a_background_job_goes_on_ignoring_the_terminals_signal(shell, sandbox, player, long):
    waiting = sandbox.spawn(["sh", "-c", 'trap "" INT; exec "$0" "$@"', PROGRAM, "play", "--wait",
                             long.path])
    wait_sound(sandbox)
    waiting.kill(signal.SIGINT)
    wait_until(lambda: is_caught(waiting.pid), 20, "the signal is gone")
    shell.ok("stop")
    assert waiting.wait_exit() == 0


def test_a_refused_stop_is_told_when_a_signal_asked_for_it(shell, sandbox, player, long):
    sandbox.set_access({NAME: {"users": "*"}, f"{NAME}.StopPlayingClip": {"groups": "audio"}})
    waiting = shell.start("play", "--wait", long.path)
    wait_sound(sandbox)
    waiting.process.kill(signal.SIGINT)
    assert waiting.process.wait_exit() == 4
    assert waiting.process.lines[0] == (
        "sonobrikctl: not allowed; members of the group audio are, on this machine")
    sandbox.set_access({NAME: {"users": "*"}})
    shell.ok("stop")


def test_a_second_signal_ends_the_wait_for_a_silent_daemon(shell, sandbox, player, long):
    waiting = shell.start("play", "--wait", long.path)
    wait_sound(sandbox)
    sandbox.daemon.pause()
    waiting.process.kill(signal.SIGINT)
    wait_until(lambda: is_caught(waiting.process.pid), 20, "the first signal is taken")
    waiting.process.kill(signal.SIGINT)
    assert waiting.process.wait_exit() == 130
    sandbox.daemon.go_on()
    wait_until(lambda: player.events[-1:] == [("Playing", 1, 0, 0, False)], 20, "it is stopped")


def is_caught(pid):
    """No signal waits for this process."""
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        pending = [line.split()[1] for line in status if line.startswith(("SigPnd", "ShdPnd"))]
    return all(int(mask, 16) == 0 for mask in pending)


def test_an_output_that_is_not_there_is_refused(shell, player, door):
    assert shell.fail(1, "play", door.path, "--output", "3")[1] == (
        "is there such an output? 'sonobrikctl outputs' lists them")
    lines = shell.fail(1, "play", door.path, "--device", "7", "--device-output", "0")
    assert lines[0].startswith("Error playing clip: ")


# The command line


@pytest.mark.parametrize("words, line", [
    ([], "a command is missing"),
    (["sing"], "there is no command 'sing'"),
    (["play"], "play: an argument is missing"),
    (["play", "1", "2"], "play: too many arguments"),
    (["stop", "1"], "stop: too many arguments"),
    (["rename", "1"], "rename: an argument is missing"),
    (["play", "1", "--volume", "1001"], "--volume takes a number from 0 to 1000, not '1001'"),
    (["play", "1", "--volume", "x\n"], "--volume takes a number from 0 to 1000, not 'x\\x0a'"),
    (["play", "1", "--repeat", "-1"], "--repeat takes a number from 0 to 2147483647, not '-1'"),
    (["play", "1", "--output", "6"], "--output takes a number from 0 to 5, not '6'"),
    (["play", "1", "--device", "1"], "--device and --device-output go together"),
    (["play", "1", "--output", "1", "--device", "1", "--device-output", "1"],
     "give --output, or --device and --device-output, not both"),
    (["list", "--json", "--names"], "give --json or --names, not both"),
    (["list", "--loud"], "Unknown option --loud"),
])
def test_a_command_line_that_is_not_understood_changes_nothing(shell, words, line):
    assert shell.fail(2, *words)[0] == line


@pytest.mark.parametrize("command", [
    "add", "check", "list", "monitor", "outputs", "play", "remove", "rename", "stop", "sync"])
def test_each_command_has_a_help(shell, command):
    assert f"  {command} " in shell.ok("--help")
    assert shell.ok(command, "--help").startswith(f"Usage:\n  sonobrikctl {command} ")


def test_it_has_a_version(shell):
    assert shell.ok("--version").startswith("sonobrikctl ")
