"""sonobrikctl: a bus or a daemon that is away, refuses, or answers what nobody expects."""

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

NEXT_LOGIN = "who was just added to a group is a member from the next log-in on"


@pytest.fixture(autouse=True)
def door(sandbox):
    return sandbox.write_clip("door.wav", clips.noise(4800))


# Nobody there


@pytest.mark.parametrize("words", CALLS)
def test_a_daemon_that_is_away_is_told(shell, words):
    lines = shell.fail(3, *words)
    assert lines[0].startswith("the daemon does not answer: ")
    assert lines[1:] == ["is the service running? See: systemctl status sonobrik"]


@pytest.mark.parametrize("words", [*CALLS, ["monitor"]])
def test_a_bus_that_is_away_is_told(shell, words):
    assert shell.fail(3, *words, env={"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/tmp/no"}) == [
        "no system bus: No such file or directory",
        "is it running? See: systemctl status dbus"]


def test_a_daemon_that_ends_meanwhile_ends_the_wait(shell, sandbox, daemon):
    clip = sandbox.write_clip("a.wav", clips.noise(48000))
    waiting = shell.start("play", "--wait", clip.path, "--repeat", "forever")
    wait_until(lambda: sandbox.card(0).frames > 0, 20, "it sounds")
    daemon.kill()
    assert waiting.process.wait_exit() == 3
    assert waiting.process.lines[0].startswith("sonobrikctl: the daemon does not answer: ")


def test_a_bus_that_ends_meanwhile_ends_the_wait(shell, sandbox):
    bus = sandbox.start_bus()
    daemon = sandbox.start_daemon()
    clip = sandbox.write_clip("a.wav", clips.noise(48000))
    waiting = shell.start("play", "--wait", clip.path, "--repeat", "forever")
    wait_until(lambda: sandbox.card(0).frames > 0, 20, "it sounds")
    bus.kill()
    assert waiting.process.wait_exit() == 3
    daemon.kill()


def test_a_silent_daemon_is_waited_for(shell, sandbox, daemon):
    calls = Monitor(sandbox, "member=GetConfigurations")
    daemon.pause()
    waiting = shell.start("list", "--json")
    calls.wait(1)
    assert waiting.process.is_running
    daemon.go_on()
    assert waiting.process.wait_exit() == 0
    assert waiting.lines == ["[]"]


# Refusals


def test_a_refusal_says_who_may(shell, sandbox, daemon, door):
    sandbox.set_access({NAME: {"users": "nobody", "groups": "audio"}})
    for words in (["stop"], ["play", door.path], ["play", "--wait", door.path], ["list"],
                  ["add", door.path], ["check", door.path]):
        if words == ["list"]:
            Store(sandbox).write("M0.json", write_record(door.path, "Door", "audio"))
        assert shell.fail(4, *words) == [
            "not allowed; nobody, and members of the group audio are, on this machine", NEXT_LOGIN]


def test_a_refusal_is_told_where_the_policy_cannot_be_read(shell, sandbox, daemon):
    sandbox.set_access({NAME: {"users": ""}})
    assert shell.fail(4, "stop") == [
        "not allowed to call StopPlayingClip",
        "the device's access policy decides; the daemon's log says why: journalctl -t sonobrik"]


@pytest.mark.needs_root
def test_a_user_of_no_group_is_refused_and_one_of_audio_is_not(shell, sandbox, daemon):
    sandbox.set_access({NAME: {"users": "root", "groups": "audio"}})
    assert shell.fail(4, "stop", uid=NOBODY)[0] == (
        "not allowed; root, and members of the group audio are, on this machine")
    assert shell.ok("stop", uid=NOBODY, groups=[AUDIO]) == ""


@pytest.fixture
def guarded(sandbox):
    """A bus that guards the legacy interface from everybody; returns a Shell on it."""
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


def test_a_refusal_of_the_bus_says_who_may(guarded):
    for words in (["list"], ["play", "0"], ["remove", "--yes", "0"]):
        assert guarded.fail(4, *words) == [
            "not allowed: root, and members of the group audio, may list the clips", NEXT_LOGIN]
    assert guarded.fail(4, "sync") == [
        "not allowed: root, and members of the group sonobrik-config, may change the clips",
        NEXT_LOGIN]


# Files that the daemon's user cannot read


@pytest.mark.needs_root
def test_a_file_that_the_daemons_user_cannot_read_is_explained(shell, sandbox, door):
    sandbox.start_daemon(uid=NOBODY)
    os.chmod(sandbox.folder, 0o755)
    door.file.chmod(0o640)
    reason = ("the daemon's user, nobody, may not read it; let everybody: chmod a+r "
              f"'{door.path}'")
    assert shell.fail(1, "play", door.path)[1:] == [reason]
    assert shell.fail(1, "add", door.path)[1:] == [reason]
    assert shell.run("check", door.path).stdout.endswith(f"; {reason}\n")
    door.file.chmod(0o644)
    door.file.parent.chmod(0o700)
    reason = ("the daemon's user, nobody, may not look into the folder '/etc/audioclips'; clips "
              "belong below /etc/audioclips, where all folders are open")
    assert shell.fail(1, "play", door.path)[1:] == [reason]
    assert shell.fail(1, "play", "/etc/audioclips/*.wav")[1:] == [reason]


@pytest.mark.needs_root
def test_the_groups_of_the_daemon_count(shell, sandbox, door):
    door.file.chmod(0o640)
    os.chown(door.file, 0, AUDIO)
    sandbox.start_daemon(uid=NOBODY, groups=[AUDIO])
    assert shell.ok("check", door.path) == f"{door.path}: can be played\n"


# Answers that nobody expects


class OddDaemon:
    """Owns the daemon's names, and answers every call with `reply`, a variant or an error."""

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
    """Runs each of CALLS against a daemon that answers so, and returns their results."""
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
def test_an_answer_of_other_types_is_told(odd, reply):
    results = odd(reply)
    assert_sane(results)
    assert results["list"].returncode == 1
    assert "the answer is not what was expected" in results["list"].stderr
    assert results["outputs"].returncode == 1
    assert "the answer is not what was expected" in results["outputs"].stderr


def test_metadata_that_is_none_is_told(sandbox, shell):
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
def test_an_error_of_any_kind_is_told(odd, name, status):
    results = odd(name)
    assert_sane(results)
    assert {result.returncode for result in results.values()} == {status}


def test_a_platform_that_lists_no_outputs_is_told(shell, sandbox):
    sandbox.bus.own_name(NAME)
    assert shell.fail(1, "outputs") == [
        "the daemon runs, and this platform does not list its outputs on the bus"]


def test_no_outputs_at_all_say_how_to_make_one(shell, sandbox):
    sandbox.set_outputs([])
    sandbox.start_daemon()
    result = shell.run("outputs")
    assert (result.returncode, result.stdout) == (0, "")
    assert "audiosink0" in result.stderr
    assert json.loads(shell.ok("outputs", "--json")) == []


# Output that nobody takes


@pytest.fixture
def many(sandbox):
    """A list that no pipe holds at once."""
    store = Store(sandbox)
    for number in range(100):
        store.write(f"M{number}.json", write_record("", "n" * 2000, "audio"))
    sandbox.start_daemon()


@pytest.mark.parametrize("words", ["list", "list --json", "list --names"])
def test_a_reader_who_has_enough_ends_it_without_a_word(sandbox, many, words):
    result = sandbox.run(["bash", "-c", f'"$0" {words} | head -c 10; echo "${{PIPESTATUS[0]}}"',
                          PROGRAM])
    assert result.stderr == ""
    assert words != "list" or result.stdout.endswith("141\n")


def test_a_full_disk_is_told(sandbox, many):
    result = sandbox.run(["sh", "-c", '"$0" list >/dev/full', PROGRAM], check=False)
    assert result.returncode == 1
    assert result.stderr == "sonobrikctl: cannot write: No space left on device\n"
