"""sonobrikctl: playback, in a pipe."""

import re
import signal

import pytest
from sandbox import clips, wait_until
from sandbox.box import ROOT
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
    """Returns the files of all events so far."""
    player.fence()
    return [event[4] for event in player.events if event[0] == "CurrentlyPlaying"]


def wait_sound(sandbox, card=0):
    wait_until(lambda: sandbox.card(card).frames > 0, 20, "the clip is playing")


# The meaning of the argument


def test_a_clip_plays_by_its_number_and_its_name(shell, player, door):
    shell.ok("add", door.path, "--name", "Front door")
    for word in ("0", "Front door"):
        assert shell.ok("play", "--wait", word) == ""
    assert played(player) == [door.path] * 2


def test_a_path_wins_over_a_clip_of_that_name(shell, sandbox, player, door):
    other = sandbox.write_clip("other.wav", clips.noise(4800))
    shell.ok("add", other.path, "--name", door.path)
    shell.ok("play", "--wait", door.path)
    shell.ok("play", "--wait", "0")
    assert played(player) == [door.path, other.path]


def test_a_clip_wins_over_a_file_of_that_name(shell, sandbox, player, door):
    clips.write_wav(sandbox.etc / "0", clips.noise(4800))
    command = ["sh", "-c", 'cd /etc; exec "$0" "$@"', PROGRAM, "play", "--wait"]
    sandbox.run([*command, "0"])
    shell.ok("add", door.path)
    sandbox.run([*command, "0"])
    sandbox.run([*command, "./0"])
    assert played(player) == ["/etc/0", door.path, "/etc/0"]


def test_a_pattern_plays_a_matching_file(shell, sandbox, player, door):
    sandbox.write_file("notes.txt", b"text")
    shell.ok("play", "--wait", "/etc/audioclips/*")
    shell.ok("play", "--wait", "etc/audioclips/d??r.wav")  # the current folder is /
    assert played(player) == [door.path] * 2
    assert shell.fail(1, "play", "/etc/audioclips/*.mp3") == [
        "No supported file(s) found at '/etc/audioclips/*.mp3'.",
        "to find out why a matching file is not played: sonobrikctl check FILE"]


@pytest.mark.parametrize("name", ["a b+c%20&d=e.wav", "[*?].wav", "\n\x1b[2J'\"$(x).wav", "鈴.wav"])
def test_special_characters_in_names_are_taken_literally(shell, sandbox, player, name):
    clip = sandbox.write_clip(name, clips.noise(4800))
    sandbox.write_clip("[ab].wav", clips.noise(480))
    shell.ok("add", clip.path)
    shell.ok("play", "--wait", "0")
    shell.ok("play", "--wait", clip.path)
    assert played(player) == [clip.path] * 2


def test_a_missing_file_of_a_clip_is_reported_and_no_other_file_plays(shell, sandbox, player):
    sandbox.write_clip("door.wav", clips.noise(4800))
    for number, name in enumerate(("bell.wav", "d*.wav", "doo?.wav")):
        clip = sandbox.write_clip(name, clips.noise(4800))
        shell.ok("add", clip.path)
        clip.file.unlink()
        for words in (["play"], ["play", "--wait"]):
            assert shell.fail(5, *words, str(number)) == [
                f"the file of clip {number} is missing: '{clip.path}'",
                f"restore it, or remove the clip: sonobrikctl remove {number}"]
    assert played(player) == []


def test_a_clip_without_a_file_is_refused(shell, sandbox):
    Store(sandbox).write("M2.json", write_record())
    sandbox.start_daemon()
    assert shell.fail(5, "play", "2") == ["clip 2 has no file"]


def test_an_unknown_name_or_path_is_refused(shell, daemon):
    assert shell.fail(5, "play", "bell\n") == ["no such clip: 'bell\\x0a'",
                                               "to list all clips: sonobrikctl list"]
    assert shell.fail(5, "play", "/no/bell.wav") == [
        "No supported file(s) found at '/no/bell.wav'.", "'/no' does not exist"]
    assert "is a directory" in shell.fail(2, "play", "/etc/audioclips")[0]


# Playback


@pytest.mark.parametrize("options", [
    ["--wait", "--volume", "50", "--repeat", "1", "--output", "1"], ["-wv50", "-r1", "-o1"]])
def test_volume_repeats_and_output_reach_the_daemon(shell, sandbox, player, door, options):
    sandbox.set_outputs(["audiosink0", "audiosink1", "device1_output2"])
    shell.ok("play", door.path, *options)
    assert sandbox.card(1).frames >= 2 * door.frames
    peak = max(abs(sample) for take in sandbox.card(1).takes for sample in take.samples)
    assert peak == pytest.approx(max(map(abs, door.samples)) / 2, abs=2)
    shell.ok("play", "--wait", door.path, "--device", "1", "--device-output", "2")
    assert sandbox.card(1, 2).frames >= door.frames


def test_play_returns_when_the_clip_plays_and_stop_stops_it(shell, sandbox, player, long):
    shell.ok("play", long.path, "--repeat", "forever")
    wait_sound(sandbox)
    assert shell.ok("outputs").splitlines() == [
        "OUTPUT  DEVICE  DEVICE-OUTPUT  NAME  STATE    FILE",
        f"     0       0              0  -     playing  {long.path}"]
    for words in (["play", long.path], ["play", "--wait", long.path]):
        assert shell.fail(1, *words) == [
            "A clip is already playing.",
            "to stop it: sonobrikctl stop; to play another clip instead: sonobrikctl play --replace CLIP"]
    shell.ok("stop")
    assert shell.ok("outputs").splitlines()[1].split() == ["0", "0", "0", "-", "idle"]
    shell.ok("stop")  # nothing is playing: not an error


def test_wait_ends_when_another_process_stops_the_clip(shell, sandbox, player, long):
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


def test_a_background_job_keeps_ignoring_ctrl_c(shell, sandbox, player, long):
    waiting = sandbox.spawn(["sh", "-c", 'trap "" INT; exec "$0" "$@"', PROGRAM, "play", "--wait",
                             long.path])
    wait_sound(sandbox)
    waiting.kill(signal.SIGINT)
    wait_until(lambda: is_caught(waiting.pid), 20, "the signal has been delivered")
    shell.ok("stop")
    assert waiting.wait_exit() == 0


def test_a_denied_stop_after_a_signal_is_reported(shell, sandbox, player, long):
    sandbox.set_access({NAME: {"users": "*"}, f"{NAME}.StopPlayingClip": {"groups": "audio"}})
    waiting = shell.start("play", "--wait", long.path)
    wait_sound(sandbox)
    waiting.process.kill(signal.SIGINT)
    assert waiting.process.wait_exit() == 4
    assert waiting.process.lines[0] == (
        "sonobrikctl: permission denied: only members of group 'audio' may do this")
    sandbox.set_access({NAME: {"users": "*"}})
    shell.ok("stop")


def test_a_second_signal_ends_the_wait_for_a_slow_daemon(shell, sandbox, player, long):
    waiting = shell.start("play", "--wait", long.path)
    wait_sound(sandbox)
    sandbox.daemon.pause()
    waiting.process.kill(signal.SIGINT)
    wait_until(lambda: is_caught(waiting.process.pid), 20, "the first signal has been delivered")
    waiting.process.kill(signal.SIGINT)
    assert waiting.process.wait_exit() == 130
    sandbox.daemon.go_on()
    wait_until(lambda: player.events[-1:] == [("Playing", 1, 0, 0, False)], 20, "playback has stopped")


def is_caught(pid):
    """Returns true if no signal is pending for this process."""
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        pending = [line.split()[1] for line in status if line.startswith(("SigPnd", "ShdPnd"))]
    return all(int(mask, 16) == 0 for mask in pending)


def test_a_missing_output_is_refused(shell, player, door):
    assert shell.fail(1, "play", door.path, "--output", "3") == [
        "there is no output 3; the outputs are: 0", "for more about them: sonobrikctl outputs"]
    lines = shell.fail(1, "play", door.path, "--device", "7", "--device-output", "0")
    assert lines[0].startswith("Error playing clip: ")


def test_a_machine_without_outputs_is_said_to_have_none(shell, sandbox):
    door = sandbox.write_clip("door.wav", clips.noise(480))
    sandbox.set_outputs([])
    sandbox.start_daemon()
    assert shell.fail(1, "play", door.path) == [
        "there is no audio output", "check that a sound card is present: aplay -l"]


def test_no_sound_card_is_said_only_if_there_is_none(shell, sandbox, player, door):
    lines = shell.fail(1, "play", door.path, "--device", "7", "--device-output", "0")
    has_card = sandbox.run(["grep", "-q", "^ *[0-9]", "/proc/asound/cards"], check=False)
    assert lines[1].startswith("the output may be unplugged" if has_card.returncode == 0 else
                               "this machine has no sound card")


def test_an_unsupported_format_comes_with_a_way_to_convert_it(shell, sandbox, player):
    path = sandbox.write_clip("it's.flac", clips.noise(4800)).path
    for words in (["play", path], ["add", path]):
        assert shell.fail(1, *words) == [
            f"'{path}' is not supported on this device.",
            "convert it to WAV, MP3, Vorbis or Opus, for example: "
            "ffmpeg -i 'it'\\''s.flac' 'it'\\''s.wav'"]
    assert "on this device; convert it to WAV" in shell.run("check", path).stdout


def test_the_converted_file_has_another_name_than_the_file(shell, sandbox, player):
    flac = sandbox.write_clip("door.flac", clips.noise(4800)).path
    wav = flac.removesuffix("flac") + "wav"
    sandbox.run(["mv", flac, wav])
    assert shell.fail(1, "play", wav)[1].endswith("ffmpeg -i 'door.wav' 'door-new.wav'")


# Replacing what plays


@pytest.mark.parametrize("words", [[], ["--wait"]])
def test_replace_stops_what_plays_first(shell, sandbox, player, long, door, words):
    shell.ok("play", long.path, "--repeat", "forever")
    wait_sound(sandbox)
    shell.ok("play", "--replace", door.path, *words)
    player.fence()
    assert [event[4] for event in player.events if event[0] == "CurrentlyPlaying"] == [
        long.path, door.path]
    shell.ok("play", "--wait", "--replace", door.path)  # and works if nothing plays
    shell.ok("play", "--wait", "--replace", "/etc/audioclips/d?or*")


def test_replace_plays_on_a_device_without_events(shell, sandbox, player, long):
    sandbox.set_outputs(["audiosink0", "device7_output2"])
    sandbox.card(7, 2)  # makes the card
    shell.ok("play", long.path)
    shell.ok("play", "--replace", "--device", "7", "--device-output", "2", long.path)
    wait_until(lambda: sandbox.card(7, 2).frames > 0, 20, "the device plays")
    shell.ok("stop")


def test_replace_stops_nothing_for_a_clip_that_cannot_be_played(shell, sandbox, player, long):
    shell.ok("play", long.path, "--repeat", "forever")
    wait_sound(sandbox)
    sandbox.write_file("notes.wav", b"text")
    shell.fail(1, "play", "--replace", "/etc/audioclips/notes.wav")
    shell.fail(5, "play", "--replace", "/etc/audioclips/none.wav")
    shell.fail(5, "play", "--replace", "None")
    for pattern in ("*.ogg", "n*.wav"):
        assert shell.fail(1, "play", "--replace", f"/etc/audioclips/{pattern}") == [
            f"No supported file(s) found at '/etc/audioclips/{pattern}'.",
            "to find out why a matching file is not played: sonobrikctl check FILE"]
    shell.fail(5, "play", "--replace", "/etc/none/*.wav")
    shell.fail(1, "play", "--replace", "--output", "3", long.path)
    player.fence()
    assert player.events[-1][0] == "CurrentlyPlaying"
    assert "playing" in shell.ok("outputs")


# Names


def test_a_clip_plays_by_the_name_of_its_file(shell, sandbox, player):
    door = sandbox.write_clip("rooms/door.wav", clips.noise(480))
    shell.ok("add", door.path, "--name", "Front")
    for text in ("rooms/door.wav", "Front"):
        shell.ok("play", "--wait", text)
    player.fence()
    assert [event[4] for event in player.events if event[0] == "CurrentlyPlaying"] == [
        door.path] * 2
    shell.ok("rename", "rooms/door.wav", "Back")
    shell.ok("add", door.path, "--name", "Twice")
    for words in (["play"], ["remove", "--yes"]):
        assert shell.fail(5, *words, "rooms/door.wav") == [
            "several clips have the file 'rooms/door.wav': 0, 1; use the number",
            "to list all clips: sonobrikctl list"]


def test_a_file_with_wildcards_that_several_clips_have_is_no_pattern(shell, sandbox, player):
    song = sandbox.write_clip("a*.wav", clips.noise(480))
    for name in ("one", "two"):
        shell.ok("add", song.path, "--name", name)
    assert shell.fail(5, "play", "a*.wav")[0] == (
        "several clips have the file 'a*.wav': 0, 1; use the number")


@pytest.mark.parametrize("typed, meant", [
    ("front door", "Front door"), ("Front dor", "Front door"), ("Frontd oor", "Front door"),
    ("Front doors", "Front door"), ("Frunt door", "Front door"), ("FRONT.WAV", "front.wav"),
    ("STRASSE", "Straße"), ("front", None), ("F", None), ("", None)])
def test_a_similar_name_is_suggested(shell, sandbox, player, typed, meant):
    sandbox.write_clip("front.wav", clips.noise(480))
    shell.ok("add", "/etc/audioclips/front.wav", "--name", "Front door")
    shell.ok("add", "/etc/audioclips/front.wav", "--name", "Straße")
    assert shell.fail(5, "play", typed) == (
        [f"no such clip: '{typed}'; did you mean '{meant}'?"] if meant else
        [f"no such clip: '{typed}'", "to list all clips: sonobrikctl list"])


# The command line


@pytest.mark.parametrize("words, line", [
    ([], "missing command"),
    (["sing"], "unknown command 'sing'"),
    (["play"], "play: missing argument"),
    (["play", "1", "2"], "play: too many arguments"),
    (["stop", "1"], "stop: too many arguments"),
    (["rename", "1"], "rename: missing argument"),
    (["play", "1", "--volume", "1001"], "--volume takes a number from 0 to 1000, not '1001'"),
    (["play", "1", "--volume", "x\n"], "--volume takes a number from 0 to 1000, not 'x\\x0a'"),
    (["play", "1", "-v1001"], "--volume takes a number from 0 to 1000, not '1001'"),
    (["play", "1", "-wv1001"], "--volume takes a number from 0 to 1000, not '1001'"),
    (["play", "1", "-wv", "1001"], "--volume takes a number from 0 to 1000, not '1001'"),
    (["play", "1", "-v=50"], "--volume takes a number from 0 to 1000, not '=50'"),
    (["play", "1", "-v", "-v50"], "--volume takes a number from 0 to 1000, not '-v50'"),
    (["play", "1", "--volume", "-v50"], "--volume takes a number from 0 to 1000, not '-v50'"),
    (["play", "1", "-w50"], "Unknown option -w50"),
    (["play", "1", "-x50"], "Unknown option -x50"),
    (["play", "1", "-v"], "Missing argument for -v"),
    (["play", "1", "2", "--", "-v50"], "play: too many arguments"),
    (["-H-oX", "list"], "--host takes the name of a machine, not '-oX'"),
    (["list", "-H-oX"], "--host takes the name of a machine, not '-oX'"),
    (["help", "sing"], "unknown command 'sing'"),
    (["play", "1", "--repeat", "-1"], "--repeat takes a number from 0 to 2147483647, not '-1'"),
    (["play", "1", "--output", "6"], "--output takes a number from 0 to 5, not '6'"),
    (["play", "1", "--device", "1"], "--device and --device-output must be used together"),
    (["play", "1", "--output", "1", "--device", "1", "--device-output", "1"],
     "--output cannot be combined with --device and --device-output"),
    (["list", "--json", "--names"], "--json and --names cannot be combined"),
    (["list", "--loud"], "Unknown option --loud"),
])
def test_an_invalid_command_line_is_refused(shell, words, line):
    assert shell.fail(2, *words)[0] == line


COMMANDS = ("add", "check", "list", "monitor", "outputs", "play", "remove", "rename", "status",
            "stop", "sync")


@pytest.mark.parametrize("command", COMMANDS)
def test_each_command_has_help(shell, command):
    assert f"  {command} " in shell.ok("--help")
    assert shell.ok(command, "--help").startswith(f"Usage:\n  sonobrikctl {command} ")


@pytest.mark.parametrize("words", [
    ["help"], ["help", "help"], ["help", "--help"], ["help", "-h"], ["help", "--host"], ["-h"],
    ["help", "--host", "shop"], ["help", "-Hshop"], ["--host", "shop", "help"]])
def test_help_has_help(shell, words):
    assert shell.ok(*words) == shell.ok("--help")


@pytest.mark.parametrize("words", [
    ["help", "play"], ["help", "--host", "shop", "play"], ["-Hshop", "help", "play"]])
def test_help_shows_the_help_of_a_command(shell, words):
    assert shell.ok(*words) == shell.ok("play", "--help")


def test_the_help_fits_a_terminal(shell):
    for words in [["--help"], *([name, "--help"] for name in COMMANDS)]:
        assert [line for line in shell.ok(*words).splitlines() if len(line) > 80] == []


def test_the_version_is_that_of_the_package_and_of_the_news(shell):
    package = re.match(r"sonobrik \((.*?)(-\d+)?\)", (ROOT / "debian/changelog").read_text())[1]
    assert shell.ok("--version") == f"sonobrikctl {package}\n"
    news = re.search(r"^## (\S+)( \(unreleased\))?$", (ROOT / "NEWS.md").read_text(), re.MULTILINE)
    assert package == news[1] + ("~pre" if news[2] else "")
