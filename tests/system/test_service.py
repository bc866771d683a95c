"""The daemon as a service: its names, its introspection, its start and its exit."""

import os
import signal
import xml.etree.ElementTree

import pytest
from sandbox import BusError, Player, wait_until
from sandbox.bus import DRIVER
from sandbox.log_lines import NO_CONTROLS_AT_START, NO_VENDOR_SINK, START
from sandbox.player import EVENTS_NAME, NAME, PATH

STORE_CRITICAL = "critical: Failed to initialize sonobrik parameters."
CRITICAL = "critical: Failed to setup the audioclip dbus service."

DEVICES = ("/com/vesk/AudioControl", "org.freedesktop.DBus.ObjectManager")

METHODS = [
    ("AddClip", "sss", "i"),
    ("GetMetadata", "", "s"),
    ("StartPlayingClip", "s", "s"),
    ("PlayClip", "s", "s"),
    ("StopPlayingClip", "s", "s"),
    ("SupportedFile", "s", "s"),
]


def assert_still_serves(player):
    # These calls arrive after all earlier messages. A main loop that is quitting answers neither.
    for _ in range(2):
        assert player.call("StopPlayingClip") == "OK"


@pytest.fixture
def audio_control(sandbox):
    """A connection that owns the name of the audio control service."""
    bus = sandbox.connect()
    bus.own_name("com.vesk.AudioControl")
    yield bus
    bus.close()


@pytest.fixture
def playing(sandbox, player, long):
    """A pending PlayClip call whose clip is playing."""
    reply = player.send("PlayClip", long.location)
    wait_until(lambda: sandbox.card(0).frames > 0, what="the clip is playing")
    return reply


def assert_left_without_answer(reply):
    with pytest.raises(BusError) as error:
        reply.wait()
    assert error.value.name == "org.freedesktop.DBus.Error.NoReply"


# Names and introspection


def test_one_process_owns_the_daemons_names(sandbox, daemon):
    for name in (NAME, EVENTS_NAME):
        assert sandbox.bus.call(*DRIVER, "GetConnectionUnixProcessID", "(s)", name) == (daemon.pid,)


@pytest.mark.parametrize("users", ["*", "nobody"])
def test_everybody_can_introspect_the_methods(sandbox, users):
    sandbox.set_access({NAME: {"users": users}})
    sandbox.start_daemon()
    node = xml.etree.ElementTree.fromstring(sandbox.bus.introspect(NAME, PATH))
    interface, = node.findall(f"interface[@name='{NAME}']")
    assert [(child.tag, child.attrib) for child in interface] == [
        ("method", {"name": name}) for name, _, _ in METHODS]
    for method, (_, inwards, outwards) in zip(interface, METHODS):
        assert [(child.tag, child.attrib) for child in method] == [
            *(("arg", {"type": argument, "direction": "in"}) for argument in inwards),
            ("arg", {"type": outwards, "direction": "out"})]


@pytest.mark.parametrize("interface, member", [
    (NAME, "Play"), (NAME, "playclip"), ("com.vesk.Other", "PlayClip")])
def test_an_unknown_method_is_refused(sandbox, player, interface, member):
    with pytest.raises(BusError) as error:
        sandbox.bus.call(NAME, PATH, interface, member, "(s)", "")
    assert error.value.name == "org.freedesktop.DBus.Error.UnknownMethod"
    assert error.value.text == f"Unknown method {member} or interface {interface}."


def test_another_object_has_no_methods(sandbox, player):
    with pytest.raises(BusError) as error:
        sandbox.bus.call(NAME, "/com/vesk/Other", NAME, "StopPlayingClip", "(s)", "")
    assert error.value.name == "org.freedesktop.DBus.Error.UnknownObject"


@pytest.mark.parametrize("signature, values", [("(i)", (1,)), ("()", ()), ("(ss)", ("a", "b"))])
def test_arguments_of_another_type_are_refused(sandbox, player, signature, values):
    for member, inwards, _ in METHODS:
        if signature == f"({inwards})":
            continue
        with pytest.raises(BusError) as error:
            sandbox.bus.call(NAME, PATH, NAME, member, signature, *values)
        assert error.value.name == "org.freedesktop.DBus.Error.InvalidArgs"
        assert error.value.text == (f"Invalid arguments '{signature[1:-1]}' to call "
                                    f"{NAME}.{member}(), expecting '{inwards}'.")


def test_a_string_that_sd_bus_rejects_gets_an_error(player):
    for member, inwards, _ in METHODS:
        if inwards == "s":
            assert player.fail(member, "location=\ufffe") == (
                "Failed to parse parameter(s): Bad message.")


# Exit with success


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_ends_the_idle_daemon_with_success(sandbox, daemon, number):
    assert daemon.stop(number) == 0
    assert daemon.texts == START
    assert sandbox.bus.get_owner(NAME) is None
    assert sandbox.bus.get_owner(EVENTS_NAME) is None


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_ends_the_playing_daemon_with_success(sandbox, daemon, player, playing, number):
    wait_until(lambda: len(player.events) == 2, what="two events arrived")
    assert daemon.stop(number) == 0
    assert daemon.texts == START
    assert_left_without_answer(playing)
    assert not sandbox.card(0).is_open
    # The events end with their producer, so there is no event for the stop.
    assert [event[0] for event in player.events] == ["Playing", "CurrentlyPlaying"]


def test_a_signal_between_the_end_of_a_clip_and_the_reply_ends_with_success(sandbox, daemon, player,
                                                                            clip):
    reply = player.send("PlayClip", clip.location)
    wait_until(lambda: any(take.find(clip.samples) >= 0 for take in sandbox.card(0).takes),
               what="the clip has played")
    assert daemon.stop() == 0
    assert daemon.texts == START
    assert_left_without_answer(reply)


def test_a_daemon_that_lost_its_bus_exits_with_1(sandbox):
    bus = sandbox.start_bus()
    daemon = sandbox.start_daemon()
    bus.kill()
    bus.wait_exit()
    assert daemon.wait_exit() == 1
    lines = [line for line in daemon.texts if "was lost" in line]
    assert any(line == f"error: The connection of {name} to the system bus was lost."
               for line in lines for name in ("com.vesk.Sonobrik", "com.vesk.Sonobrik.Legacy"))


# Failed start


def test_without_a_bus_it_does_not_start(sandbox):
    os.unlink(sandbox.folder / "run/dbus/system_bus_socket")
    assert sandbox.fail_to_start() == [
        "warning: Events cannot be sent: The system bus cannot be reached: "
        "No such file or directory",
        "warning: Unable to create param event object",
        NO_VENDOR_SINK,
        "error: Failed to connect to the system bus.",
        NO_CONTROLS_AT_START,
        "error: Failed to connect to system bus: No such file or directory.",
        "error: Failed to connect to the system bus",
        STORE_CRITICAL,
    ]


def test_it_does_not_start_if_its_name_is_taken(sandbox):
    sandbox.bus.own_name(NAME)
    assert sandbox.fail_to_start() == [
        *START,
        "error: Failed to acquire service name com.vesk.Sonobrik: File exists.",
        "error: Failed to connect to the system bus",
        CRITICAL,
    ]
    assert sandbox.bus.get_owner(NAME) == sandbox.bus.unique_name


@pytest.mark.parametrize("policy, reason", [
    ("nonsense\n", "Key file contains line “nonsense” which is not a key-value pair, group, or "
                   "comment"),
    ("users=root\n", "Key file does not start with a group"),
])
def test_it_does_not_start_with_a_broken_policy(sandbox, policy, reason):
    sandbox.set_access(policy)
    assert sandbox.fail_to_start() == [
        *START,
        f"error: access_policy_init failed, error /etc/vesk/access.conf: {reason}",
        CRITICAL,
    ]


def test_it_does_not_start_with_an_unreadable_policy(sandbox):
    (sandbox.etc / "vesk/access.conf").chmod(0)
    assert sandbox.fail_to_start() == [
        *START,
        "error: access_policy_init failed, error /etc/vesk/access.conf: Permission denied",
        CRITICAL,
    ]


# Requested restart


@pytest.mark.parametrize("member, signature, values", [
    ("InterfacesAdded", "(oa{sa{sv}})", ("/com/vesk/AudioControl/1", {"com.vesk.Device": {}})),
    ("InterfacesRemoved", "(oas)", ("/com/vesk/AudioControl/1", ["com.vesk.Device"])),
    ("InterfacesRemoved", "(i)", (7,)),
])
def test_a_device_change_requests_a_restart(daemon, audio_control, member, signature, values):
    audio_control.emit(*DEVICES, member, signature, *values)
    assert daemon.wait_exit() == 75
    assert daemon.texts == START


@pytest.mark.parametrize("member", ["InterfacesAdded", "InterfacesRemoved"])
def test_a_device_change_requests_a_restart_while_a_clip_plays(sandbox, daemon, playing,
                                                                audio_control, member):
    for _ in range(2):
        audio_control.emit(*DEVICES, member)
    assert daemon.wait_exit() == 75
    assert_left_without_answer(playing)
    assert not sandbox.card(0).is_open


def test_a_signal_from_another_sender_is_ignored(player, audio_control):
    other = player.bus
    for member in ("InterfacesAdded", "InterfacesRemoved"):
        other.emit(*DEVICES, member)
    assert_still_serves(player)


@pytest.mark.parametrize("path, interface, member", [
    ("/com/vesk/AudioControl/1", DEVICES[1], "InterfacesAdded"),
    ("/", DEVICES[1], "InterfacesRemoved"),
    (DEVICES[0], "com.vesk.AudioControl", "InterfacesAdded"),
    (DEVICES[0], DEVICES[1], "InterfacesChanged"),
])
def test_another_signal_of_the_service_is_ignored(audio_control, daemon, path, interface,
                                                            member):
    audio_control.emit(path, interface, member)
    assert_still_serves(Player(audio_control))


def test_a_signal_with_a_destination_is_ignored(sandbox, player, audio_control):
    for bus in (player.bus, audio_control):
        for destination in (NAME, sandbox.bus.get_owner(NAME)):
            for member in ("InterfacesAdded", "InterfacesRemoved"):
                bus.emit(*DEVICES, member, destination=destination)
        assert_still_serves(Player(bus))


def test_an_audio_control_service_that_comes_and_goes_does_no_harm(sandbox, player, audio_control):
    files = sandbox.daemon.count_descriptors()
    for _ in range(100):
        audio_control.release_name("com.vesk.AudioControl")
        audio_control.own_name("com.vesk.AudioControl")
    assert_still_serves(player)
    wait_until(lambda: sandbox.daemon.count_descriptors() <= files, 10, "nothing else is open")
    for member in 50 * ["InterfacesRemoved", "InterfacesAdded"]:
        audio_control.emit(*DEVICES, member)
    assert sandbox.daemon.wait_exit() == 75
