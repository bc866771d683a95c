"""The legacy configuration interface: its methods, replies and errors."""

import xml.etree.ElementTree

import pytest
from sandbox import BusError
from sandbox.log_lines import (NO_CONTROLS, NO_CONTROLS_FOR_SYNC, NO_FREE_INDEX, index_taken,
                               invalid_index, not_created, not_removed)
from sandbox.player import PATH
from sandbox.store import FOLDER, LEGACY_INTERFACE, LEGACY_NAME, write_record

METHODS = [
    ("AddConfiguration", "i", "i"),
    ("RemoveConfiguration", "i", ""),
    ("GetConfigurationEntry", "is", "v"),
    ("SetConfigurationEntry", "isv", ""),
    ("GetConfigurations", "", "a{ia{sv}}"),
    ("Sync", "", ""),
]

DOOR = write_record("/etc/audioclips/door.wav", "Door", "audio", {"volume": 7})


def no_such_file(index):
    return f"info: sonobrik_group_remove_group file '{FOLDER}/M{index}.json' does not exit"


# Introspection, and calls that reach no method


def split_signature(text):
    return {"is": ["i", "s"], "isv": ["i", "s", "v"]}.get(text, [text] if text else [])


def test_introspection_lists_the_methods_in_order(store):
    node = xml.etree.ElementTree.fromstring(store.bus.introspect(LEGACY_NAME, PATH))
    interface, = [child for child in node
                  if not child.get("name").startswith("org.freedesktop.DBus.")]
    assert interface.get("name") == LEGACY_INTERFACE
    assert [(method.tag, method.attrib) for method in interface] == [
        ("method", {"name": name}) for name, _, _ in METHODS]
    for method, (_, inwards, outwards) in zip(interface, METHODS):
        assert [(child.tag, child.attrib) for child in method] == (
            [("arg", {"type": kind, "direction": "in"}) for kind in split_signature(inwards)]
            + [("arg", {"type": kind, "direction": "out"}) for kind in split_signature(outwards)])


def test_arguments_of_another_type_are_refused(store):
    for member, wanted, _ in METHODS:
        with pytest.raises(BusError) as error:
            store.call(member, "(d)", 1.5)
        assert error.value.name == "org.freedesktop.DBus.Error.InvalidArgs"
        assert error.value.text == (f"Invalid arguments 'd' to call {LEGACY_INTERFACE}.{member}(), "
                                    f"expecting '{wanted}'.")


def test_other_methods_and_objects_are_unknown(store):
    store.write("M0.json", DOOR)
    for path, interface, member, name in [
            (PATH, LEGACY_INTERFACE, "getConfigurationEntry", "UnknownMethod"),
            (PATH, "com.vesk.Sonobrik", "GetConfigurationEntry", "UnknownMethod"),
            ("/com/vesk", LEGACY_INTERFACE, "GetConfigurationEntry", "UnknownObject"),
            (PATH + "/0", LEGACY_INTERFACE, "GetConfigurationEntry", "UnknownObject")]:
        with pytest.raises(BusError) as error:
            store.bus.call(LEGACY_NAME, path, interface, member, "(is)", 0, "Name")
        assert error.value.name == f"org.freedesktop.DBus.Error.{name}"


def test_a_string_that_sd_bus_rejects_gets_an_error(store):
    store.write("M0.json", DOOR)
    store.fail("GetConfigurationEntry", "(is)", 0, "Name\ufffe")
    store.fail("SetConfigurationEntry", "(isv)", 0, "Name\ufffe", store.make_bytes(b"a"))
    assert store.take_log() == [
        "warning: sonobrik_group_get_configuration, failed to parse incoming message",
        "warning: sonobrik_group_set_configuration, failed to parse incoming message"]
    assert store.read(0) == DOOR


def test_the_access_policy_does_not_apply(sandbox, store):
    sandbox.set_access({"com.vesk.Sonobrik": {"users": "nobody"}})
    assert store.call("AddConfiguration", "(i)", -1) == (0,)
    assert store.call("GetConfigurationEntry", "(is)", 0, "Name") == ("Name", "")
    store.rename(0, "Door")
    assert store.call("GetConfigurations") == (
        {0: {"Location": "", "Name": "Door", "Type": ""}},)
    assert store.call("RemoveConfiguration", "(i)", 0) == ()
    assert store.call("Sync") == ()


@pytest.mark.needs_root
def test_other_users_may_call(sandbox, store):
    def call(*words):
        return sandbox.run(["busctl", "--system", "call", *words], uid=65534).stdout
    legacy = (LEGACY_NAME, PATH, LEGACY_INTERFACE)
    assert call(*legacy, "AddConfiguration", "i", "--", "-1") == "i 0\n"
    assert call(*legacy, "SetConfigurationEntry", "isv", 0, "Name", "ay", 2, 72, 105) == ""
    assert call(*legacy, "GetConfigurationEntry", "is", 0, "Name") == 'sv "Name" s "Hi"\n'
    assert call(*legacy, "GetConfigurations") == (
        'a{ia{sv}} 1 0 3 "Location" s "" "Name" s "Hi" "Type" s ""\n')
    assert call(*legacy, "Sync") == ""
    assert call(*legacy, "RemoveConfiguration", "i", 0) == ""
    assert store.list() == []


def test_calls_without_a_reply_are_executed(store):
    legacy = (LEGACY_NAME, PATH, LEGACY_INTERFACE)
    store.bus.post(*legacy, "AddConfiguration", "(i)", -1)
    store.bus.post(*legacy, "GetConfigurationEntry", "(is)", 0, "Name")
    store.bus.post(*legacy, "GetConfigurationEntry", "(is)", 1, "Name")
    store.bus.post(*legacy, "SetConfigurationEntry", "(isv)", 0, "Name", store.make_bytes(b"Hi"))
    store.bus.post(*legacy, "GetConfigurations")
    assert store.call("GetConfigurationEntry", "(is)", 0, "Name") == ("Name", "Hi")
    assert store.take_log() == []


# AddConfiguration


def test_an_added_clip_is_empty(store):
    assert store.call("AddConfiguration", "(i)", -1) == (0,)
    assert store.read(0) == (
        '{\n  "location": "",\n  "name": "",\n  "type": "",\n  "metadata": {}\n}')
    assert store.list() == ["M0.json"]
    assert store.take_log() == []


def test_a_clip_is_added_at_the_lowest_free_index(store):
    store.write("M0.json", DOOR)
    store.write("M2.json", DOOR)
    assert [store.call("AddConfiguration", "(i)", -1) for _ in range(3)] == [(1,), (3,), (4,)]


def test_a_clip_is_added_at_the_requested_index(store):
    assert store.call("AddConfiguration", "(i)", 99) == (99,)
    assert store.call("AddConfiguration", "(i)", 7) == (7,)
    assert sorted(store.list()) == ["M7.json", "M99.json"]


def test_a_clip_is_not_added_at_a_taken_index(store):
    store.write("M7.json", DOOR)
    store.fail("AddConfiguration", "(i)", 7)
    assert store.take_log() == [index_taken(7), not_created(7)]
    assert store.read(7) == DOOR


def test_a_clip_is_not_added_out_of_bounds(store):
    for index in (-2, 100, -2**31, 2**31 - 1):
        store.fail("AddConfiguration", "(i)", index)
        assert store.take_log() == [NO_FREE_INDEX, not_created(index)]
    assert store.list() == []


# RemoveConfiguration


def test_a_removed_clip_is_gone(store):
    store.write("M0.json", DOOR)
    store.write("M1.json", DOOR)
    reply = store.send("RemoveConfiguration", "(i)", 0)
    assert (reply.wait(), reply.signature) == ((), "")
    assert store.list() == ["M1.json"]
    assert store.take_log() == []
    store.fail("GetConfigurationEntry", "(is)", 0, "Name")


def test_a_missing_clip_is_not_removed(store):
    store.fail("RemoveConfiguration", "(i)", 3)
    assert store.take_log() == [no_such_file(3), not_removed(3)]


def test_a_clip_out_of_bounds_is_not_removed(store):
    for index in (-1, 100):
        store.write(f"M{index}.json", DOOR)
        store.fail("RemoveConfiguration", "(i)", index)
        assert store.take_log() == [invalid_index(index), not_removed(index)]
        assert store.read(index) == DOOR


def test_a_clip_that_cannot_be_removed_is_an_error(store):
    (store.folder / "M4.json").mkdir()
    (store.folder / "M4.json/kept").touch()
    store.fail("RemoveConfiguration", "(i)", 4)
    assert store.take_log() == [
        f"info: sonobrik_group_remove_group failed to remove file '{FOLDER}/M4.json'",
        not_removed(4)]


# GetConfigurationEntry


def test_a_property_is_returned_with_its_name(store):
    store.write("M0.json", DOOR)
    for name, value in [("Location", "/etc/audioclips/door.wav"), ("Name", "Door"),
                        ("Type", "audio")]:
        reply = store.send("GetConfigurationEntry", "(is)", 0, name)
        assert (reply.wait(), reply.signature) == ((name, value), "sv")
    assert store.take_log() == []


def test_an_unknown_property_is_an_error(store):
    store.write("M0.json", DOOR)
    for name in ("name", "NAME", "Name ", "Metadata", ""):
        store.fail("GetConfigurationEntry", "(is)", 0, name)
        assert store.take_log() == [f"warning: Invalid property '{name}'"]


def test_reading_a_missing_clip_is_an_error(store):
    store.fail("GetConfigurationEntry", "(is)", 5, "name")
    assert store.take_log() == []


def test_reading_a_clip_out_of_bounds_is_an_error(store):
    for index in (-1, 100):
        store.write(f"M{index}.json", DOOR)
        store.fail("GetConfigurationEntry", "(is)", index, "Name")
        assert store.take_log() == [invalid_index(index)]


# GetConfigurations


def test_an_empty_store_is_an_error(store):
    store.fail("GetConfigurations")
    assert store.take_log() == []


def test_all_clips_are_listed_with_their_properties_in_order(store):
    store.write("M0.json", DOOR)
    store.write("M3.json", write_record("/x", "Glöckchen \"♫\"\n", ""))
    reply = store.send("GetConfigurations")
    listed, = reply.wait()
    assert reply.signature == "a{ia{sv}}"
    assert {index: list(properties.items()) for index, properties in listed.items()} == {
        0: [("Location", "/etc/audioclips/door.wav"), ("Name", "Door"), ("Type", "audio")],
        3: [("Location", "/x"), ("Name", "Glöckchen \"♫\"\n"), ("Type", "")]}
    assert store.take_log() == []


def test_clips_are_listed_in_directory_order(store):
    for index in (9, 3, 14, 0, 27, 8, 61, 40, 2, 99):
        store.write(f"M{index}.json", DOOR)
    listed, = store.call("GetConfigurations")
    assert [f"M{index}.json" for index in listed] == store.list()


# Sync


def test_sync_succeeds_without_on_screen_controls(store):
    reply = store.send("Sync")
    assert (reply.wait(), reply.signature) == ((), "")
    assert store.take_log() == [NO_CONTROLS, NO_CONTROLS_FOR_SYNC]
