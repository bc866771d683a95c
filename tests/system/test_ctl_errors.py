"""sonobrikctl: a missing bus or daemon, denied calls, and unexpected replies."""

import json
import os

import pytest
from gi.repository import Gio, GLib
from sandbox import Shell, clips, wait_until
from sandbox.controls import Monitor
from sandbox.player import EVENTS_NAME, NAME
from sandbox.shell import PROGRAM
from sandbox.store import LEGACY_NAME, Store, write_record

NOBODY = 65534
AUDIO = 29

# Each command that calls the daemon.
CALLS = [
    ["add", "/etc/audioclips/door.wav"], ["check", "/etc/audioclips/door.wav"], ["list"],
    ["list", "--json"], ["list", "--names"], ["outputs"], ["play", "0"],
    ["play", "/etc/audioclips/door.wav"], ["play", "--wait", "/etc/audioclips/door.wav"],
    ["remove", "--yes", "0"], ["rename", "0", "x"], ["stop"], ["sync"],
]

NEXT_LOGIN = "just added to the group? log out and back in"


@pytest.fixture(autouse=True)
def door(sandbox):
    return sandbox.write_clip("door.wav", clips.noise(4800))


# No bus or no daemon


@pytest.mark.parametrize("words", CALLS)
def test_a_missing_daemon_is_reported(shell, words):
    lines = shell.fail(3, *words)
    assert lines[0].startswith("cannot reach the daemon: ")
    assert lines[1:] == ["check the service: systemctl status sonobrik"]


@pytest.mark.parametrize("words", [*CALLS, ["monitor"]])
def test_a_missing_bus_is_reported(shell, words):
    assert shell.fail(3, *words, env={"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/tmp/no"}) == [
        "no connection to the system bus: No such file or directory",
        "check that the bus is running: systemctl status dbus"]


def test_the_wait_ends_when_the_daemon_exits(shell, sandbox, daemon):
    clip = sandbox.write_clip("a.wav", clips.noise(48000))
    waiting = shell.start("play", "--wait", clip.path, "--repeat", "forever")
    wait_until(lambda: sandbox.card(0).frames > 0, 20, "the clip is playing")
    daemon.kill()
    assert waiting.process.wait_exit() == 3
    assert waiting.process.lines[0].startswith("sonobrikctl: cannot reach the daemon: ")


def test_the_wait_ends_when_the_bus_exits(shell, sandbox):
    bus = sandbox.start_bus()
    daemon = sandbox.start_daemon()
    clip = sandbox.write_clip("a.wav", clips.noise(48000))
    waiting = shell.start("play", "--wait", clip.path, "--repeat", "forever")
    wait_until(lambda: sandbox.card(0).frames > 0, 20, "the clip is playing")
    bus.kill()
    assert waiting.process.wait_exit() == 3
    daemon.kill()


def test_a_slow_daemon_is_waited_for(shell, sandbox, daemon):
    calls = Monitor(sandbox, "member=GetConfigurations")
    daemon.pause()
    waiting = shell.start("list", "--json")
    calls.wait(1)
    assert waiting.process.is_running
    daemon.go_on()
    assert waiting.process.wait_exit() == 0
    assert waiting.lines == ["[]"]


# Denied calls


def test_a_denied_call_says_who_is_allowed(shell, sandbox, daemon, door):
    sandbox.set_access({NAME: {"users": "nobody", "groups": "audio"}})
    for words in (["stop"], ["play", door.path], ["play", "--wait", door.path], ["add", door.path],
                  ["check", door.path]):
        assert shell.fail(4, *words) == [
            "permission denied: only nobody and members of group 'audio' may do this", NEXT_LOGIN]


def test_a_denied_call_is_reported_if_the_policy_names_nobody(shell, sandbox, daemon):
    sandbox.set_access({NAME: {"users": ""}})
    assert shell.fail(4, "stop") == [
        "permission denied by the access policy: StopPlayingClip",
        "for details: journalctl -t sonobrik"]


@pytest.mark.needs_root
def test_members_of_the_group_are_allowed_and_others_denied(shell, sandbox, daemon):
    sandbox.set_access({NAME: {"users": "root", "groups": "audio"}})
    assert shell.fail(4, "stop", uid=NOBODY)[0] == (
        "permission denied: only root and members of group 'audio' may do this")
    assert shell.ok("stop", uid=NOBODY, groups=[AUDIO]) == ""


@pytest.fixture
def guarded(sandbox):
    """A Shell on a bus whose policy denies the legacy interface to everyone."""
    configuration = sandbox.etc / "bus.conf"
    rule = f'<deny send_destination="{LEGACY_NAME}" send_interface="com.vesk.Configuration.Legacy"'
    configuration.write_text(configuration.read_text().replace(
        "  </policy>", f'    {rule} send_member="GetConfigurations"/>\n'
                       f'    {rule} send_member="RemoveConfiguration"/>\n'
                       f'    {rule} send_member="Sync"/>\n  </policy>'))
    sandbox.bus.close()
    sandbox.start_bus()
    sandbox.start_daemon()
    return Shell(sandbox)


def test_a_call_that_the_bus_denies_says_who_is_allowed(guarded):
    for words in (["list"], ["play", "0"], ["remove", "--yes", "0"]):
        assert guarded.fail(4, *words) == [
            "permission denied: only root and members of groups 'sonobrik-play', "
            "'sonobrik-config' may list clips", NEXT_LOGIN]
    assert guarded.fail(4, "sync") == [
        "permission denied: only root and members of group 'sonobrik-config' may change clips",
        NEXT_LOGIN]


def test_the_list_shows_what_the_user_may_see(shell, sandbox, daemon, door):
    shell.ok("add", door.path)
    sandbox.set_access({NAME: {"users": "*"}, f"{NAME}.GetMetadata": {"groups": "audio"}})
    result = shell.run("list")
    assert result.returncode == 0
    assert [line.split() for line in result.stdout.splitlines()[1:]] == [
        ["0", "door", "door.wav", "-", "-", "-"]]
    assert result.stderr == (
        "sonobrikctl: you may not read formats, lengths and sizes, so they are left out\n")
    assert shell.on_terminal("play", "--wait", "door")[1] == 0


def test_the_list_shows_what_metadata_tells(guarded, sandbox):
    door = sandbox.write_clip("door.wav", clips.tone(440, 0.2))
    sandbox.write_clip("low/bell.wav", clips.tone(440, 0.2))
    guarded.ok("add", door.path, "/etc/audioclips/low/bell.wav")
    result = guarded.run("list")
    assert [line.split() for line in result.stdout.splitlines()] == [
        ["NUMBER", "NAME", "FILE", "FORMAT", "LENGTH", "SIZE"],
        ["0", "door", "door.wav", "wav", "0:00.2", "19", "KiB"],
        ["1", "bell", "bell.wav", "wav", "0:00.2", "19", "KiB"]]
    assert (result.returncode, result.stderr) == (0, (
        "sonobrikctl: you may only read metadata; directories, and clips whose file is missing or "
        "damaged, are left out\n"))
    assert [(clip["number"], clip["name"], clip["location"], clip["durationMs"])
            for clip in json.loads(guarded.run("list", "--json").stdout)] == [
        (0, "door", None, 200), (1, "bell", None, 200)]
    assert guarded.ok("list", "--names") == "door\nbell\n"


# Files that the daemon's user cannot read


@pytest.mark.needs_root
def test_a_file_that_the_daemons_user_cannot_read_is_explained(shell, sandbox, door):
    sandbox.start_daemon(uid=NOBODY)
    os.chmod(sandbox.folder, 0o755)
    door.file.chmod(0o640)
    reason = ("the daemon's user 'nobody' cannot read it; to allow everyone: chmod a+r "
              f"'{door.path}'")
    assert shell.fail(1, "play", door.path)[1:] == [reason]
    assert shell.fail(1, "add", door.path)[1:] == [reason]
    assert shell.run("check", door.path).stdout.endswith(f"; {reason}\n")
    door.file.chmod(0o644)
    door.file.parent.chmod(0o700)
    reason = ("the daemon's user 'nobody' cannot access directory '/etc/audioclips'; put clips "
              "under /etc/audioclips, in directories with mode 755")
    assert shell.fail(1, "play", door.path)[1:] == [reason]
    assert shell.fail(1, "play", "/etc/audioclips/*.wav")[1:] == [reason]


@pytest.mark.needs_root
def test_the_groups_of_the_daemon_are_considered(shell, sandbox, door):
    door.file.chmod(0o640)
    os.chown(door.file, 0, AUDIO)
    sandbox.start_daemon(uid=NOBODY, groups=[AUDIO])
    assert shell.ok("check", door.path) == f"{door.path}: can be played\n"


# Unexpected replies


class OddDaemon:
    """Owns the daemon's names and answers every call with `reply`: a variant, or an error's name."""

    def __init__(self, bus, reply):
        self._connection = bus.connection
        self._reply = reply
        self._filter = self._connection.add_filter(self._answer)
        for name in (NAME, LEGACY_NAME, EVENTS_NAME):
            bus.own_name(name)

    def _answer(self, connection, message, incoming):
        if not incoming or message.get_message_type() != Gio.DBusMessageType.METHOD_CALL:
            return message
        if isinstance(self._reply, str):
            reply = message.new_method_error_literal(self._reply, "odd\n\x1b[2J")
        else:
            reply = message.new_method_reply()
            reply.set_body(self._reply)
        connection.send_message(reply, Gio.DBusSendMessageFlags.NONE)
        return None


@pytest.fixture
def odd(sandbox, shell):
    """Runs each of CALLS against a daemon with this reply, and returns the results."""
    def run(reply):
        peer = sandbox.connect()
        OddDaemon(peer, reply)
        try:
            return {" ".join(words): shell.run(*words) for words in CALLS}
        finally:
            peer.close()
    return run


def assert_sane(results):
    for words, result in results.items():
        assert result.returncode in (0, 1, 2, 3, 4, 5), (words, result)
        assert "\x1b" not in result.stdout + result.stderr, (words, result)
        assert (result.returncode == 0) == (result.stderr == ""), (words, result)


@pytest.mark.parametrize("reply", [
    GLib.Variant("()", ()), GLib.Variant("(s)", ("\x1b[2J",)), GLib.Variant("(i)", (-7,)),
    GLib.Variant("(a{sv})", ({"a": GLib.Variant("i", 1)},)),
    GLib.Variant("(a{sa{sv}})", ({},)), GLib.Variant("(v)", (GLib.Variant("s", "x"),)),
], ids=lambda reply: reply.get_type_string())
def test_a_reply_of_unexpected_type_is_reported(odd, reply):
    results = odd(reply)
    assert_sane(results)
    assert results["list"].returncode == 1
    assert "unexpected reply" in results["list"].stderr
    assert results["outputs"].returncode == 1
    assert "unexpected reply" in results["outputs"].stderr


def test_invalid_metadata_is_reported(sandbox, shell):
    class Half(OddDaemon):
        def _answer(self, connection, message, incoming):
            if incoming and message.get_member() == "GetConfigurations":
                entry = {0: {"Name": GLib.Variant("s", "\x1b[2J"), "Size": GLib.Variant("i", 1)}}
                self._reply = GLib.Variant("(a{ia{sv}})", (entry,))
            elif incoming:
                self._reply = GLib.Variant("(s)", ("[{",))
            return super()._answer(connection, message, incoming)

    peer = sandbox.connect()
    Half(peer, None)
    assert "not a JSON array" in shell.fail(1, "list")[0]
    assert shell.ok("list", "--names") == ""
    assert shell.fail(5, "play", "0") == ["clip 0 has no file"]
    peer.close()


@pytest.mark.parametrize("name, status", [
    ("org.freedesktop.DBus.Error.UnknownMethod", 1),
    ("org.freedesktop.DBus.Error.NoReply", 3),
    ("org.freedesktop.DBus.Error.AccessDenied", 4),
    ("com.other.Error", 1),
])
def test_each_kind_of_error_is_reported(odd, name, status):
    results = odd(name)
    assert_sane(results)
    assert {result.returncode for result in results.values()} == {status}


def test_a_platform_that_lists_no_outputs_is_reported(shell, sandbox):
    sandbox.bus.own_name(NAME)
    assert shell.fail(1, "outputs") == [
        "the daemon is running, but this platform does not list its outputs on the bus"]


def test_an_empty_list_of_outputs_says_how_to_create_one(shell, sandbox):
    sandbox.set_outputs([])
    sandbox.start_daemon()
    result = shell.run("outputs")
    assert (result.returncode, result.stdout) == (0, "")
    assert "audiosink0" in result.stderr
    assert json.loads(shell.ok("outputs", "--json")) == []


# Output that cannot be written


@pytest.fixture
def many(sandbox):
    """A list that is larger than the buffer of a pipe."""
    store = Store(sandbox)
    for number in range(500):
        store.write(f"M{number}.json", write_record("", "n" * 255, "audio"))
    sandbox.start_daemon()


@pytest.mark.parametrize("words", ["list", "list --json", "list --names"])
def test_it_ends_silently_when_the_reader_exits(sandbox, many, words):
    result = sandbox.run(["bash", "-c", f'"$0" {words} | head -c 10; echo "${{PIPESTATUS[0]}}"',
                          PROGRAM])
    assert result.stderr == ""
    assert words != "list" or result.stdout.endswith("141\n")


@pytest.mark.parametrize("words", ["list", "status", "status --watch", "status --watch --json",
                                   "--help"])
def test_a_full_disk_is_reported(sandbox, many, words):
    result = sandbox.run(["sh", "-c", f'"$0" {words} >/dev/full', PROGRAM], check=False)
    assert result.returncode == 1
    assert result.stderr == "sonobrikctl: cannot write to standard output: No space left on device\n"
