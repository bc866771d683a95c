"""The installed interface files, for code generators, match the running daemon."""

import pathlib
import xml.etree.ElementTree

import pytest
from gi.repository import Gio
from sandbox import LEGACY, PLAYBACK, Store
from sandbox.cards import DEVICE, OUTPUTS, SERVICE
from sandbox.player import EVENT_INTERFACE, EVENTS_NAME, EVENTS_PATH
from sandbox.store import fence_changes

FOLDER = pathlib.Path(__file__).resolve().parents[2] / "data/dbus/interfaces"

NOTICE_PATH = "/com/vesk/ConfigurationChanges1/SonoBrik"

# Where each interface is served: bus name, object, interface.
SERVED = [PLAYBACK, LEGACY,
          *((EVENTS_NAME, f"{EVENTS_PATH}/1", name)
            for name in (EVENT_INTERFACE, "com.vesk.Events1.Time"))]

# The prefix of the standard interfaces, which sd-bus adds to every object.
LIBRARY = "org.freedesktop.DBus."


def read_file(name):
    """Returns the only interface in a file, and the object path in the file."""
    node = xml.etree.ElementTree.parse(FOLDER / f"{name}.xml").getroot()
    interface, = node
    assert interface.get("name") == name
    return interface, node.get("name")


def describe(interface):
    """Returns everything in an interface element, in order, except the names of arguments."""
    return [(member.tag, member.attrib,
             [(child.tag, child.get("type"), child.get("direction")) if child.tag == "arg"
              else (child.tag, child.attrib) for child in member])
            for member in interface]


def name_arguments(interface):
    """Returns the argument names by member; None for an argument without a name."""
    return {member.get("name"): [arg.get("name") for arg in member.findall("arg")]
            for member in interface}


def test_each_interface_of_the_daemon_has_its_file():
    names = {interface for _, _, interface in SERVED}
    names |= {DEVICE, OUTPUTS, "com.vesk.ConfigurationChanges1"}
    assert {path.name for path in FOLDER.glob("*.xml")} == {f"{name}.xml" for name in names}


@pytest.mark.parametrize("name, path, interface", SERVED)
def test_a_file_matches_the_daemons_introspection(shared, name, path, interface):
    written, written_path = read_file(interface)
    assert written_path in (path, None)  # an event has many objects
    served = xml.etree.ElementTree.fromstring(shared.bus.introspect(name, path))
    own = [element for element in served.findall("interface")
           if not element.get("name").startswith(LIBRARY)]
    assert {element.get("name") for element in own} == {
        served_interface for served_name, _, served_interface in SERVED if served_name == name}
    running, = [element for element in own if element.get("name") == interface]
    assert describe(written) == describe(running)


@pytest.mark.parametrize("name, path, interface", SERVED)
def test_a_file_names_every_argument_and_agrees_with_the_daemon(shared, name, path,
                                                                          interface):
    written = name_arguments(read_file(interface)[0])
    served = xml.etree.ElementTree.fromstring(shared.bus.introspect(name, path))
    running = name_arguments(served.find(f"interface[@name='{interface}']"))
    for member, names in running.items():
        assert all(written[member]), member
        assert [own or other for own, other in zip(names, written[member])] == written[member]


def test_the_files_match_the_audio_control_service(sandbox, cards):
    cards.add(0)
    cards.start()
    served = xml.etree.ElementTree.fromstring(
        sandbox.bus.introspect(SERVICE, "/com/vesk/AudioControl/0"))
    for interface in (DEVICE, OUTPUTS):
        written, _ = read_file(interface)
        running = served.find(f"interface[@name='{interface}']")
        assert describe(written) == describe(running)


def test_the_change_notices_have_the_arguments_of_their_file(sandbox, daemon):
    interface, path = read_file("com.vesk.ConfigurationChanges1")
    assert path == NOTICE_PATH
    signals = []

    def deliver(_connection, _sender, _path, name, member, values):
        signals.append((name, member, values.get_type_string()))

    sandbox.bus.connection.signal_subscribe(None, None, None, NOTICE_PATH, None,
                                            Gio.DBusSignalFlags.NONE, deliver)
    # The bus handles the messages of a connection in order, so the match is active before AddClip.
    Store(sandbox).add_clip("/etc/audioclips/a.wav", "a")
    fence_changes(sandbox.bus)
    assert signals == [(interface.get("name"), member.get("name"),
                        "(" + "".join(arg.get("type") for arg in member) + ")")
                       for member in interface]


def test_the_reply_with_two_values_is_documented():
    # The declared signature has one value. A comment must tell users of the file about the second.
    text = (FOLDER / f"{LEGACY[2]}.xml").read_text()
    assert '"sv"' in text.partition('<method name="GetConfigurationEntry">')[0]
