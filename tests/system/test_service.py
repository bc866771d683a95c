"""The daemon as a service: its names, how it describes itself, and how it ends."""

import os
import signal
import xml.etree.ElementTree

import pytest
from sandbox import BusError, Player, clips, wait_until
from sandbox.bus import DRIVER
from sandbox.log_lines import NO_CONTROLS_AT_START, NO_VENDOR_SINK, START

NAME = "com.vesk.Sonobrik"
PATH = "/com/vesk/Sonobrik"
EVENTS_NAME = "com.vesk.Events1.SonoBrikEvents"

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


def fail_to_start(sandbox):
    """Starts a daemon that cannot, and returns its log."""
    daemon = sandbox.start_daemon(wait=False)
    assert daemon.wait_exit() == 1
    return daemon.texts


def assert_still_serves(player):
    # The calls come after what was sent to the daemon before, and a loop that ends answers neither.
    for _ in range(2):
        assert player.call("StopPlayingClip") == "OK"


@pytest.fixture
def audio_control(sandbox):
    """The owner of the audio control service's name."""
    bus = sandbox.connect()
    bus.own_name("com.vesk.AudioControl")
    yield bus
    bus.close()


@pytest.fixture
def playing(sandbox, player):
    """A held PlayClip call of a clip of 10 s that sounds."""
    clip = sandbox.write_clip("long.wav", clips.noise(480000))
    reply = player.send("PlayClip", clip.location)
    wait_until(lambda: sandbox.card(0).frames > 0, what="it sounds")
    return reply


def assert_left_without_answer(reply):
    with pytest.raises(BusError) as error:
        reply.wait()
    assert error.value.name == "org.freedesktop.DBus.Error.NoReply"


# Names and self-description


def test_one_process_owns_the_daemons_names(sandbox, daemon):
    for name in (NAME, EVENTS_NAME):
        assert sandbox.bus.call(*DRIVER, "GetConnectionUnixProcessID", "(s)", name) == (daemon.pid,)


@pytest.mark.parametrize("users", ["*", "nobody"])
def test_everybody_reads_the_methods_in_their_order(sandbox, users):
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
def test_an_unknown_method_is_refused_as_one(sandbox, player, interface, member):
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


def test_a_text_that_the_bus_passes_and_its_library_does_not_is_answered(player):
    for member, inwards, _ in METHODS:
        if inwards == "s":
            assert player.fail(member, "location=\ufffe") == (
                "Failed to parse parameter(s): Bad message.")


# Ends well


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_ends_the_idle_daemon_well(sandbox, daemon, number):
    assert daemon.stop(number) == 0
    assert daemon.texts == START
    assert sandbox.bus.get_owner(NAME) is None
    assert sandbox.bus.get_owner(EVENTS_NAME) is None


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_ends_the_playing_daemon_well(sandbox, daemon, player, playing, number):
    wait_until(lambda: len(player.events) == 2, what="two events arrived")
    assert daemon.stop(number) == 0
    assert daemon.texts == START
    assert_left_without_answer(playing)
    assert not sandbox.card(0).is_open
    # The events end with the producer; nobody is told that it stopped.
    assert [event[0] for event in player.events] == ["Playing", "CurrentlyPlaying"]


def test_a_signal_between_the_end_of_a_clip_and_its_answer_ends_the_daemon_well(sandbox, daemon,
                                                                                player):
    clip = sandbox.write_clip("a.wav", clips.noise(2400))
    reply = player.send("PlayClip", clip.location)
    wait_until(lambda: any(take.find(clip.samples) >= 0 for take in sandbox.card(0).takes),
               what="it sounded")
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


# Fails to start


def test_without_a_bus_it_does_not_start(sandbox):
    os.unlink(sandbox.folder / "run/dbus/system_bus_socket")
    assert fail_to_start(sandbox) == [
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


def test_it_does_not_start_where_another_has_its_name(sandbox):
    sandbox.bus.own_name(NAME)
    assert fail_to_start(sandbox) == [
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
    assert fail_to_start(sandbox) == [
        *START,
        f"error: access_policy_init failed, error /etc/vesk/access.conf: {reason}",
        CRITICAL,
    ]


def test_it_does_not_start_with_a_policy_that_it_may_not_read(sandbox):
    (sandbox.etc / "vesk/access.conf").chmod(0)
    assert fail_to_start(sandbox) == [
        *START,
        "error: access_policy_init failed, error /etc/vesk/access.conf: Permission denied",
        CRITICAL,
    ]


# Asks for a restart


@pytest.mark.parametrize("member, signature, values", [
    ("InterfacesAdded", "(oa{sa{sv}})", ("/com/vesk/AudioControl/1", {"com.vesk.Device": {}})),
    ("InterfacesRemoved", "(oas)", ("/com/vesk/AudioControl/1", ["com.vesk.Device"])),
    ("InterfacesRemoved", "(i)", (7,)),
])
def test_a_changed_device_asks_for_a_restart(daemon, audio_control, member, signature, values):
    audio_control.emit(*DEVICES, member, signature, *values)
    assert daemon.wait_exit() == 75
    assert daemon.texts == START


@pytest.mark.parametrize("member", ["InterfacesAdded", "InterfacesRemoved"])
def test_a_changed_device_asks_for_a_restart_while_a_clip_plays(sandbox, daemon, playing,
                                                                audio_control, member):
    for _ in range(2):
        audio_control.emit(*DEVICES, member)
    assert daemon.wait_exit() == 75
    assert_left_without_answer(playing)
    assert not sandbox.card(0).is_open


def test_somebody_elses_signal_is_no_changed_device(player, audio_control):
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
def test_another_signal_of_the_service_is_no_changed_device(audio_control, daemon, path, interface,
                                                            member):
    audio_control.emit(path, interface, member)
    assert_still_serves(Player(audio_control))


def test_a_signal_to_the_daemon_alone_is_no_changed_device(sandbox, player, audio_control):
    for bus in (player.bus, audio_control):
        for destination in (NAME, sandbox.bus.get_owner(NAME)):
            for member in ("InterfacesAdded", "InterfacesRemoved"):
                bus.emit(*DEVICES, member, destination=destination)
        assert_still_serves(Player(bus))
