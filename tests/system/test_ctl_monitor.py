"""sonobrikctl monitor: it prints events as they happen."""

import json
import re

import pytest
from sandbox import clips
from sandbox.player import EVENTS_NAME, EVENTS_PATH, NAME
from sandbox.shell import PROGRAM

WATCHING = "watching; press Ctrl-C to quit"


@pytest.fixture
def door(sandbox):
    return sandbox.write_clip("door.wav", clips.noise(4800))


def texts(lines):
    """Returns the lines without the time in front."""
    matches = [re.fullmatch(r"\d\d:\d\d:\d\d (.*)", line) for line in lines]
    assert all(matches), lines
    return [match[1] for match in matches]


def test_playback_and_added_clips_are_printed(shell, sandbox, daemon, door):
    monitor = shell.start("monitor")
    monitor.wait_error(WATCHING)
    shell.ok("add", door.path, "--name", "Do\nor")
    shell.ok("play", "--wait", "0")
    assert texts(monitor.wait_lines(4)) == [
        "clip 0 added: 'Do\\x0aor', /etc/audioclips/door.wav",
        "output 0 started playing",
        "output 0 is playing /etc/audioclips/door.wav",
        "output 0 is idle"]


def test_json_is_one_object_per_line(shell, sandbox, daemon, door):
    monitor = shell.start("monitor", "--json")
    monitor.wait_error(WATCHING)
    shell.ok("add", door.path, "--name", "Do\nor")
    shell.ok("play", "--wait", "0")
    events = [json.loads(line) for line in monitor.wait_lines(4)]
    times = [event.pop("time") for event in events]
    assert times == sorted(times)
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}[+-]\d\d:\d\d", times[0])
    output = {"output": 0, "device": 0, "deviceOutput": 0}
    assert events == [
        {"event": "clip", "clip": "0", "added": True,
         "values": {"Location": door.path, "Name": "Do\nor", "Type": "audio"}},
        {"event": "playing", "playing": True} | output,
        {"event": "file", "file": door.path} | output,
        {"event": "playing", "playing": False} | output]


def test_it_survives_a_restart_of_the_daemon(shell, sandbox, door):
    monitor = shell.start("monitor")
    monitor.wait_error("the daemon is not running; waiting for it to start")
    sandbox.start_daemon()
    monitor.wait_error("the daemon has started")
    shell.ok("play", "--wait", door.path)
    monitor.wait_lines(3)
    assert sandbox.daemon.stop() == 0
    monitor.wait_error("the daemon has stopped; waiting for it to start again")
    sandbox.start_daemon()
    shell.ok("play", "--wait", door.path)
    assert texts(monitor.wait_lines(6))[3:] == texts(monitor.lines)[:3]


def test_a_platform_without_events_is_reported(shell, sandbox):
    sandbox.bus.own_name(NAME)
    monitor = shell.start("monitor")
    monitor.wait_error("the daemon is running, but this platform sends no events on the bus; "
                       "waiting anyway")


def test_it_ends_when_the_bus_exits(shell, sandbox):
    bus = sandbox.start_bus()
    monitor = shell.start("monitor")
    monitor.wait_error("the daemon is not running; waiting for it to start")
    bus.kill()
    assert monitor.process.wait_exit() == 3
    assert monitor.process.lines[-1] == "sonobrikctl: lost the connection to the system bus"


def test_unexpected_events_are_skipped(shell, sandbox):
    peer = sandbox.connect()
    peer.own_name(EVENTS_NAME)
    monitor = shell.start("monitor")
    monitor.wait_error(WATCHING)
    sent = ("com.vesk.Events1.Event", "Sent")
    peer.emit(f"{EVENTS_PATH}/1", *sent, "(s)", "keys")
    peer.emit(f"{EVENTS_PATH}/1", *sent, "()")
    peer.emit(f"{EVENTS_PATH}/1", *sent, "(a{sv})", {})
    changes = ("/com/vesk/ConfigurationChanges1/SonoBrik", "com.vesk.ConfigurationChanges1",
               "EntryChanged")
    peer.emit(*changes, "(i)", 4)
    peer.emit(*changes, "(ssssb)", "", "", "", "", True)
    peer.emit(*changes, "(ssssba{si})", "", "", "", "", True, {"Name": 1})
    peer.emit(*changes, "(ssssba{ss})", "a", "b", "c", "no path", True, {"\x1b": "\x1b"})
    assert texts(monitor.wait_lines(1)) == ["clip no path changed: '', "]
    assert monitor.process.is_running
    peer.close()


def test_events_from_other_senders_are_ignored(shell, sandbox, daemon, door):
    monitor = shell.start("monitor")
    monitor.wait_error(WATCHING)
    sandbox.bus.emit("/com/vesk/ConfigurationChanges1/SonoBrik", "com.vesk.ConfigurationChanges1",
                     "EntryChanged", "(ssssba{ss})", "a", "b", "c", "/clip/9", False, {})
    shell.ok("add", door.path)
    assert texts(monitor.wait_lines(1))[0].startswith("clip 0 added")


def test_it_ends_when_the_reader_exits_without_an_event(sandbox, daemon):
    # head exits after the first line of the monitor. bash waits for both programs.
    result = sandbox.run(["bash", "-c", '"$0" monitor 2>&1 | head -n 1', PROGRAM])
    assert result.stdout == f"sonobrikctl: {WATCHING}\n"
