"""sonobrikctl monitor: what happens, as it happens."""

import json
import re

import pytest
from sandbox import clips
from sandbox.player import EVENTS_NAME, EVENTS_PATH, NAME
from sandbox.shell import PROGRAM

WATCHING = "watching; Ctrl-C ends"


@pytest.fixture
def door(sandbox):
    return sandbox.write_clip("door.wav", clips.noise(4800))


def texts(lines):
    """The lines without their times."""
    matches = [re.fullmatch(r"\d\d:\d\d:\d\d (.*)", line) for line in lines]
    assert all(matches), lines
    return [match[1] for match in matches]


def test_what_plays_and_what_is_added_is_printed(shell, sandbox, daemon, door):
    monitor = shell.start("monitor")
    monitor.wait_error(WATCHING)
    shell.ok("add", door.path, "--name", "Do\nor")
    shell.ok("play", "--wait", "0")
    assert texts(monitor.wait_lines(4)) == [
        "clip 0 is added: 'Do\\x0aor', /etc/audioclips/door.wav",
        "output 0 begins to play",
        "output 0 plays /etc/audioclips/door.wav",
        "output 0 is idle"]


def test_programs_get_an_object_a_line(shell, sandbox, daemon, door):
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


def test_a_restart_of_the_daemon_does_not_end_it(shell, sandbox, door):
    monitor = shell.start("monitor")
    monitor.wait_error("the daemon does not run; waiting for its start")
    sandbox.start_daemon()
    monitor.wait_error("the daemon has started")
    shell.ok("play", "--wait", door.path)
    monitor.wait_lines(3)
    assert sandbox.daemon.stop() == 0
    monitor.wait_error("the daemon has ended; waiting for its next start")
    sandbox.start_daemon()
    shell.ok("play", "--wait", door.path)
    assert texts(monitor.wait_lines(6))[3:] == texts(monitor.lines)[:3]


def test_a_platform_without_events_is_told(shell, sandbox):
    sandbox.bus.own_name(NAME)
    monitor = shell.start("monitor")
    monitor.wait_error("the daemon runs, and this platform announces no events on the bus; "
                       "waiting all the same")


def test_a_bus_that_ends_ends_it(shell, sandbox):
    bus = sandbox.start_bus()
    monitor = shell.start("monitor")
    monitor.wait_error("the daemon does not run; waiting for its start")
    bus.kill()
    assert monitor.process.wait_exit() == 3
    assert monitor.process.lines[-1] == "sonobrikctl: the system bus is gone"


def test_events_that_nobody_expects_are_left_out(shell, sandbox):
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
    assert texts(monitor.wait_lines(1)) == ["clip no path is changed: '', "]
    assert monitor.process.is_running
    peer.close()


def test_another_who_sends_such_events_is_not_heard(shell, sandbox, daemon, door):
    monitor = shell.start("monitor")
    monitor.wait_error(WATCHING)
    sandbox.bus.emit("/com/vesk/ConfigurationChanges1/SonoBrik", "com.vesk.ConfigurationChanges1",
                     "EntryChanged", "(ssssba{ss})", "a", "b", "c", "/clip/9", False, {})
    shell.ok("add", door.path)
    assert texts(monitor.wait_lines(1))[0].startswith("clip 0 is added")


def test_a_reader_who_goes_ends_it_though_nothing_happens(sandbox, daemon):
    # The reader takes what the monitor says first, and goes. bash waits for both.
    result = sandbox.run(["bash", "-c", '"$0" monitor 2>&1 | head -n 1', PROGRAM])
    assert result.stdout == f"sonobrikctl: {WATCHING}\n"
