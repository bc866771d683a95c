"""The installed bus policy: who may own the daemon's names and send messages to them."""

import concurrent.futures
import itertools
import xml.etree.ElementTree as ElementTree

import pytest
from sandbox import LEGACY, PLAYBACK, Player, Sandbox, Store, clips, wait_until
from sandbox.controls import Controls
from sandbox.installation import User, allow_peer, find_id, send_as
from sandbox.store import fence_changes, subscribe_changes

EVENTS = "com.vesk.Events1.SonoBrikEvents"
NAMES = (PLAYBACK[0], LEGACY[0], EVENTS)
PATHS = {PLAYBACK[0]: PLAYBACK[1], LEGACY[0]: LEGACY[1], EVENTS: "/com/vesk/Events1/SonoBrikEvents"}
STANDARD = "org.freedesktop.DBus"
DEVICES_NAME = "com.vesk.AudioControl"
DEVICES = ("/com/vesk/AudioControl", f"{STANDARD}.ObjectManager")

READING = ("GetConfigurations", "GetConfigurationEntry")
CHANGING = ("AddConfiguration", "RemoveConfiguration", "SetConfigurationEntry", "Sync")

# Arguments that no method accepts, so a call that the bus allows changes nothing.
WRONG = ("(d)", (0.5,))

USERS = ("root", "stranger", "audio", "play", "config")

pytestmark = pytest.mark.needs_root


@pytest.fixture(scope="module")
def box(tmp_path_factory, build_dir, cache, installation):
    """A sandbox with the installed bus policy, whose daemon runs as its own user."""
    with Sandbox(tmp_path_factory.mktemp("policy") / "sandbox", build_dir, cache) as box:
        start(box, installation)
        yield box


def start(box, installation, extra=""):
    user = installation.make_users(box)
    installation.set_bus(box, extra)
    box.start_bus()
    box.start_daemon(**user.options)
    return user


@pytest.fixture(scope="module")
def users(box):
    audio, play, config = (find_id(box, "group", name)
                           for name in ("audio", "sonobrik-play", "sonobrik-config"))
    return {"root": User(0), "stranger": User(65534), "audio": User(1, (audio,)),
            "play": User(3, (play,)), "config": User(2, (config,)),
            "daemon": User(find_id(box, "passwd", "sonobrik"))}


def make_calls(destinations, interface, members, path):
    return [("call", destination, path, interface, member, *WRONG)
            for destination, member in itertools.product(destinations, members)]


def find_refused(box, user, messages):
    """Returns (destination, interface, member) of each message that the bus refuses."""
    refused = send_as(box, user, messages)
    return {(message[1], message[3], message[4])
            for message, is_refused in zip(messages, refused) if is_refused}


def as_rows(messages):
    return {(message[1], message[3], message[4]) for message in messages}


def both_names(box, name):
    """Returns the name and the unique name of its owner."""
    return name, box.bus.get_owner(name)


@pytest.mark.parametrize("who", USERS)
def test_the_main_interface_is_open_to_all(box, users, who):
    calls = make_calls(both_names(box, PLAYBACK[0]), PLAYBACK[2],
                       ("PlayClip", "StartPlayingClip", "StopPlayingClip", "SupportedFile",
                        "AddClip", "GetMetadata"), PLAYBACK[1])
    assert find_refused(box, users[who], calls) == set()


@pytest.mark.parametrize("who", USERS)
def test_everybody_may_introspect_and_read_properties(box, users, who):
    calls = [call for name in NAMES for call in (
        *make_calls(both_names(box, name), f"{STANDARD}.Introspectable", ["Introspect"],
                    PATHS[name]),
        *make_calls(both_names(box, name), f"{STANDARD}.Peer", ["Ping", "GetMachineId"],
                    PATHS[name]),
        *make_calls(both_names(box, name), f"{STANDARD}.Properties", ["Get", "GetAll"],
                    PATHS[name]))]
    calls += make_calls(both_names(box, EVENTS), f"{STANDARD}.ObjectManager", ["GetManagedObjects"],
                        PATHS[EVENTS])
    assert find_refused(box, users[who], calls) == set()


@pytest.mark.parametrize("who", USERS)
def test_only_root_may_set_the_properties_of_the_log(box, users, who):
    calls = make_calls(both_names(box, PLAYBACK[0]), f"{STANDARD}.Properties", ["Set"],
                       "/org/freedesktop/LogControl1")
    assert find_refused(box, users[who], calls) == (set() if who == "root" else as_rows(calls))


@pytest.mark.parametrize("who", USERS)
def test_nobody_may_set_properties_of_the_other_objects(box, users, who):
    calls = [call for name in NAMES
             for call in make_calls(both_names(box, name), f"{STANDARD}.Properties", ["Set"],
                                    PATHS[name])]
    assert find_refused(box, users[who], calls) == as_rows(calls)


@pytest.mark.parametrize("who, open_members", [
    ("root", [*READING, *CHANGING]),
    ("config", [*READING, *CHANGING]),
    ("play", [*READING]),
    ("audio", []),
    ("stranger", []),
])
def test_the_legacy_interface_is_open_by_group(box, users, who, open_members):
    names = both_names(box, LEGACY[0])
    calls = make_calls(names, LEGACY[2], [*READING, *CHANGING], LEGACY[1])
    closed = [call for call in calls if call[4] not in open_members]
    assert find_refused(box, users[who], calls) == as_rows(closed)


@pytest.mark.parametrize("who", USERS)
def test_the_legacy_interface_is_open_only_at_its_own_name(box, users, who):
    calls = make_calls([*both_names(box, PLAYBACK[0]), *both_names(box, EVENTS)], LEGACY[2],
                       [*READING, *CHANGING], LEGACY[1])
    assert find_refused(box, users[who], calls) == as_rows(calls)


@pytest.mark.parametrize("who", USERS)
def test_a_call_without_an_interface_is_refused(box, users, who):
    calls = [call for name in NAMES
             for call in make_calls(both_names(box, name), None,
                                    ["PlayClip", "Sync", "GetConfigurations", "Introspect"],
                                    PATHS[name])]
    assert find_refused(box, users[who], calls) == as_rows(calls)


@pytest.mark.parametrize("who", USERS)
def test_nobody_may_send_a_signal_to_the_daemons_names(box, users, who):
    signals = [("signal", destination, DEVICES[0], interface, member, "()", ())
               for name in NAMES for destination in both_names(box, name)
               for interface, member in ((DEVICES[1], "InterfacesAdded"),
                                         (PLAYBACK[2], "PlayClip"), (LEGACY[2], "Sync"),
                                         (LEGACY[2], "GetConfigurations"))]
    assert find_refused(box, users[who], signals) == as_rows(signals)


def test_a_signal_to_another_connection_passes(box, users):
    """Shows that the test above sees refusals for those names, not for all signals."""
    other = box.bus.unique_name
    signals = [("signal", other, *DEVICES, "InterfacesAdded", "()", ())]
    assert find_refused(box, users["stranger"], signals) == set()


@pytest.mark.parametrize("who", USERS)
def test_other_users_may_not_own_the_daemons_names(box, users, who):
    requests = [("call", STANDARD, "/org/freedesktop/DBus", STANDARD, "RequestName", "(su)",
                 (name, 4)) for name in NAMES]
    assert send_as(box, users[who], requests) == [True] * len(NAMES)


def test_the_daemons_user_may_own_only_the_daemons_names(box, users):
    requests = [("call", STANDARD, "/org/freedesktop/DBus", STANDARD, "RequestName", "(su)",
                 (name, 4))
                for name in (*NAMES, "com.vesk.Sonobrik.Other", "com.vesk.AudioControl")]
    assert send_as(box, users["daemon"], requests) == [False, False, False, True, True]


@pytest.mark.parametrize("who", [*USERS, "daemon", "devices"])
def test_only_its_user_may_own_the_name_of_the_audio_control_service(box, users, who):
    users = users | {"devices": User(find_id(box, "passwd", "sonobrik-audiocontrol"))}
    requests = [("call", STANDARD, "/org/freedesktop/DBus", STANDARD, "RequestName", "(su)",
                 (name, 4)) for name in (DEVICES_NAME, NAMES[0], "com.vesk.AudioControl.Other")]
    assert send_as(box, users[who], requests) == [who != "devices", who != "daemon", True]


def test_the_policy_lists_every_legacy_method(box, installation):
    introspected = ElementTree.fromstring(box.bus.introspect(LEGACY[0], LEGACY[1]))
    methods = {method.get("name")
               for method in introspected.findall(f"interface[@name='{LEGACY[2]}']/method")}
    assert methods == {*READING, *CHANGING}
    policy = ElementTree.parse(
        installation.find("usr/share/dbus-1/system.d/com.vesk.Sonobrik.conf"))
    for who in ("policy[@user='root']", "policy[@group='sonobrik-config']"):
        assert {allow.get("send_member")
                for allow in policy.findall(
                    f"{who}/allow[@send_interface='{LEGACY[2]}']")} == methods


# What works under the policy


@pytest.fixture
def served(tmp_path, build_dir, cache, installation):
    """Returns a function that starts the daemon under the installed policy, as its own user.

    `peer` is the name of a service to mock.
    """
    with Sandbox(tmp_path / "sandbox", build_dir, cache) as box:
        def serve(peer=""):
            start(box, installation, allow_peer(peer) if peer else "")
            return box
        yield serve


def test_it_plays_and_stores_and_sends_signals(served):
    box = served()
    player, store = Player(box.bus), Store(box)
    clip = box.write_clip("a.wav", clips.noise(4800))
    assert player.call("PlayClip", clip.location) == "OK"
    assert box.card(0).takes[0].find(clip.samples) >= 0
    player.fence()
    assert [event[0] for event in player.events] == ["Playing", "CurrentlyPlaying", "Playing"]
    notices = subscribe_changes(box.bus)
    number = store.add_clip(clip.path, "Door")
    store.rename(number, "Bell")
    assert store.call("GetConfigurationEntry", "(is)", number, "Name") == ("Name", "Bell")
    fence_changes(box.bus)
    assert [notice.args[3] for notice in notices] == [f"/com/vesk/Sonobrik/{number}"]


# Prints the paths of the clips that change notices announce, until a signal named End arrives.
LISTENER = """
from gi.repository import Gio, GLib
flags = (Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
         | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION)
bus = Gio.DBusConnection.new_for_address_sync("unix:path=/run/dbus/system_bus_socket", flags)
loop = GLib.MainLoop()

def receive(_connection, _sender, _path, _interface, member, args):
    if member == "End":
        loop.quit()
    else:
        print(args.unpack()[3], flush=True)

for interface in ("com.vesk.ConfigurationChanges1", "com.vesk.Test"):
    bus.signal_subscribe(None, interface, None, None, None, 0, receive)
bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
              None, None, 0, 20000)
open("/tmp/listening", "w").close()
loop.run()
"""


@pytest.mark.parametrize("who, is_told", [
    ("root", True), ("play", True), ("config", True), ("audio", False), ("stranger", False)])
def test_a_change_notice_reaches_only_those_who_may_list_the_clips(box, users, who, is_told):
    (box.folder / "tmp/listening").unlink(missing_ok=True)
    with concurrent.futures.ThreadPoolExecutor() as threads:
        listener = threads.submit(box.run, ["/usr/bin/python3", "-c", LISTENER],
                                  **users[who].options)
        wait_until(lambda: (box.folder / "tmp/listening").exists() or listener.done(), 20,
                   "the listener has subscribed")
        number = Store(box).add_clip("/etc/audioclips/a.wav", "Door")
        fence_changes(box.bus)
        box.bus.emit("/com/vesk/Test", "com.vesk.Test", "End")
        told = listener.result(20).stdout.split()
    assert told == ([f"/com/vesk/Sonobrik/{number}"] if is_told else [])


def test_it_receives_device_signals(served):
    box = served("com.vesk.AudioControl")
    box.bus.own_name("com.vesk.AudioControl")
    # The bus must refuse these unicast signals: the daemon would exit if one arrived.
    for name in NAMES:
        box.bus.emit(*DEVICES, "InterfacesRemoved", destination=name)
    Player(box.bus).fence()
    assert box.daemon.is_running
    box.bus.emit(*DEVICES, "InterfacesRemoved")
    assert box.daemon.wait_exit() == 75


def test_it_calls_the_on_screen_controls(served):
    box = served("com.vesk.Onscreencontrols1")
    controls = Controls(box)
    Store(box).call("Sync")
    assert len(controls.calls) == 1
    refused = ("call", "com.vesk.Onscreencontrols1", "/com/vesk/Onscreencontrols1",
               "com.vesk.Onscreencontrols1", "AddFeatures", *WRONG)
    assert send_as(box, User(65534), [refused]) == [True]
