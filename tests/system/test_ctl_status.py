"""sonobrikctl status and outputs, in a pipe."""

import json
import re

import pytest
from sandbox import clips, wait_until


@pytest.fixture
def door(sandbox, shell, player):
    """A clip of one second, named Front, that the daemon has inspected."""
    clip = sandbox.write_clip("door.wav", clips.noise(48000))
    shell.ok("add", clip.path, "--name", "Front\x1b")
    return clip


def wait_sound(sandbox, output=0):
    wait_until(lambda: sandbox.card(output).frames > 0, 20, "the clip is playing")


def test_nothing_is_playing(shell, daemon):
    assert shell.ok("status") == "nothing is playing\n"
    assert json.loads(shell.ok("status", "--json")) == []


def test_the_status_names_clip_file_output_and_length(shell, sandbox, door):
    shell.ok("play", "0", "--repeat", "forever")
    wait_sound(sandbox)
    assert re.fullmatch(
        r"Clip:      0 Front\\x1b\n"
        r"File:      door\.wav\n"
        r"Output:    0\n"
        r"Position:  0:0[01]\.\d\n"
        r"Length:    0:01\.0\n", shell.ok("status"))
    status, = json.loads(shell.ok("status", "--json"))
    assert 0 <= status.pop("positionMs") <= 1000
    assert status == {
        "output": 0, "outputName": None, "clip": 0, "name": "Front\x1b", "location": door.path,
        "durationMs": 1000}
    shell.ok("stop")
    assert shell.ok("status") == "nothing is playing\n"


def test_a_file_that_is_no_clip_has_neither_name_nor_length(shell, sandbox, player, long):
    shell.ok("play", long.path)
    wait_sound(sandbox)
    status, = json.loads(shell.ok("status", "--json"))
    assert (status["clip"], status["name"], status["durationMs"]) == (None, None, None)
    assert shell.ok("status").startswith("File:      long.wav\nOutput:    0\n")


@pytest.mark.needs_root
def test_who_may_not_list_clips_sees_the_file(shell, sandbox, installation):
    user = installation.make_users(sandbox)
    installation.set_bus(sandbox)
    sandbox.start_bus()
    long = sandbox.write_clip("long.wav", clips.noise(480000))
    sandbox.start_daemon(**user.options)
    shell.ok("play", long.path)
    wait_sound(sandbox)
    assert shell.ok("status", uid=65534).startswith("File:      long.wav\n")


def test_the_watch_prints_a_line_for_each_change(shell, sandbox, player, door):
    watch = shell.start("status", "--watch")
    watch.wait_lines(1)
    shell.ok("play", "--wait", "0")
    assert watch.wait_lines(3) == [
        "nothing is playing", "Front\\x1b  on output 0", "nothing is playing"]
    sandbox.daemon.stop()
    sandbox.start_daemon()
    shell.ok("play", "--wait", "0")
    assert watch.wait_lines(5)[3:] == ["Front\\x1b  on output 0", "nothing is playing"]


def test_the_watch_shows_a_new_name(shell, sandbox, player, door):
    watch = shell.start("status", "--watch")
    watch.wait_lines(1)
    shell.ok("play", "--wait", "0")
    watch.wait_lines(3)
    shell.ok("rename", "0", "Back")
    shell.ok("play", "--wait", "0")
    assert watch.wait_lines(5)[3] == "Back  on output 0"


def test_the_position_is_the_time_since_the_file_began(shell, sandbox, player, long):
    shell.ok("play", long.path)
    wait_sound(sandbox)
    first, = json.loads(shell.ok("status", "--json"))
    wait_until(lambda: sandbox.card(0).frames > 48000, 20, "a second has been played")
    second, = json.loads(shell.ok("status", "--json"))
    assert 0 <= first["positionMs"] < second["positionMs"]
    assert second["positionMs"] >= 1000


def test_the_watch_in_json_has_the_position(shell, sandbox, player, door):
    watch = shell.start("status", "--watch", "--json")
    watch.wait_lines(1)
    shell.ok("play", "--wait", "0")
    lines = [json.loads(line) for line in watch.wait_lines(3)]
    assert lines[0] == [] and lines[2] == []
    assert lines[1][0]["clip"] == 0
    assert 0 <= lines[1][0]["positionMs"] <= 1000


# Outputs


def test_an_output_has_its_name_and_may_be_unplugged(shell, sandbox):
    sandbox.set_alsa("""
pcm.audiosink0 { type null }
pcm.audiosink1 { type hw card 30 hint.description "Hall\x1b[2J" }
pcm.audiosink2 "plughw:CARD=Headset"
pcm.audiosink3 { type plug slave.pcm "hw:29" }
pcm.audiosink4 { type plug slave.pcm "audiosink4" }
""")
    sandbox.start_daemon()
    assert [line.split()[3:] for line in shell.ok("outputs").splitlines()[1:]] == [
        ["-", "idle"], ["Hall\\x1b[2J", "unplugged"], ["-", "unplugged"], ["-", "unplugged"],
        ["-", "idle"]]
    assert [(row["name"], row["unplugged"]) for row in json.loads(shell.ok("outputs", "--json"))] == [
        (None, False), ("Hall\x1b[2J", True), (None, True), (None, True), (None, False)]


def test_the_status_has_the_name_of_the_output(shell, sandbox, long):
    sandbox.set_outputs(["audiosink0"])
    text = (sandbox.etc / "asound.conf").read_text()
    sandbox.set_alsa(text + 'pcm.audiosink0.hint.description "Hall"\n')
    sandbox.start_daemon()
    shell.ok("play", long.path)
    wait_sound(sandbox)
    assert "Output:    0, Hall\n" in shell.ok("status")
    assert json.loads(shell.ok("status", "--json"))[0]["outputName"] == "Hall"
