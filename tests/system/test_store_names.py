"""Renaming a clip: which values are accepted, and which change nothing."""

import pytest
from gi.repository import GLib
from sandbox.log_lines import invalid_index
from sandbox.store import write_record

RECORD = {"location": "/etc/audioclips/door.wav", "kind": "audio",
          "metadata": {"mediaTypes": ["audio/x-wav"], "size": 5, "duration": 50}}
OLD = write_record(name="Door", **RECORD)

TOO_LONG = "warning: The value of property '{}' exceeds the limit of 256 characters"
NOT_PACKED = "error: sonobrik_group_json_pack Failed to create object, error '{}'"
NOT_SAVED = ["error: sonobrik_group_save failed to pack json object",
             "warning: sonobrik_group_set_enum_property Failed to update parameter"]


def unchangeable(name, index):
    return f"warning: Unable to change value of property called '{name}' for group number {index}"


@pytest.fixture
def door(store):
    """A store with one clip."""
    store.write("M0.json", OLD)
    return store


def test_the_bytes_of_the_value_become_the_name(door):
    for value, name in [
            (b"Bell", "Bell"),
            (b"", ""),
            (b"x" * 255, "x" * 255),
            ("é".encode() * 127 + b"e", "é" * 127 + "e"),
            (b"Bell\0Door", "Bell"),
            (b"\0Bell", ""),
            (b"Bell\0", "Bell"),
            (b"Bell\0\xff\xfe", "Bell"),
            ("Türglocke ♫ \U0001f514".encode(), "Türglocke ♫ \U0001f514"),
            (b"\"\\/\t\n", "\"\\/\t\n"),
            ("\ufdcf\ufffd".encode(), "\ufdcf\ufffd")]:
        reply = door.send_name(0, value)
        assert (reply.wait(), reply.signature) == ((), "")
        assert door.read(0) == write_record(name=name, **RECORD)
        assert door.call("GetConfigurationEntry", "(is)", 0, "Name") == ("Name", name)
    assert door.list() == ["M0.json"]
    assert door.take_log() == []


def test_a_value_of_another_type_empties_the_name(door):
    for value in (GLib.Variant("s", "Bell"), GLib.Variant("i", 1), GLib.Variant("as", ["Bell"]),
                  GLib.Variant("ai", [66]), GLib.Variant("v", GLib.Variant("ay", b"Bell")),
                  GLib.Variant("(ay)", (b"Bell",))):
        door.write("M0.json", OLD)
        assert door.call("SetConfigurationEntry", "(isv)", 0, "Name", value) == ()
        assert door.read(0) == write_record(name="", **RECORD)
    assert door.take_log() == []


def test_256_bytes_are_too_many(door):
    for value in (b"x" * 256, b"\0" * 256, b"x" * 100000):
        door.fail("SetConfigurationEntry", "(isv)", 0, "Name", door.make_bytes(value))
        assert door.take_log() == [TOO_LONG.format("Name")]
    assert door.read(0) == OLD


@pytest.mark.parametrize("reason, values", [
    ("Invalid UTF-8 string", [b"\xff", b"Glocke\xe9", b"\xed\xa0\x80",
                              "é".encode() * 127 + b"\xc3"]),
    ("It contains text that D-Bus cannot transmit", ["\ufffe".encode(), "Bell\uffff".encode(),
                                           "\ufdd0".encode(), "\U0010fffe".encode()])])
def test_a_name_that_cannot_be_stored_or_sent_is_refused(door, reason, values):
    for value in values:
        door.fail("SetConfigurationEntry", "(isv)", 0, "Name", door.make_bytes(value))
        assert door.take_log() == [NOT_PACKED.format(reason), *NOT_SAVED]
        assert door.read(0) == OLD
    assert door.list() == ["M0.json"]


def test_only_the_name_can_be_changed(door):
    for name in ("Location", "Type", "name", "Name ", "Metadata", ""):
        for index in (0, 5, -1):
            door.fail("SetConfigurationEntry", "(isv)", index, name, door.make_bytes(b"x"))
            assert door.take_log() == [unchangeable(name, index)]
    assert door.read(0) == OLD


def test_the_value_is_checked_before_the_property_name(door):
    door.fail("SetConfigurationEntry", "(isv)", 0, "Type", door.make_bytes(b"x" * 256))
    assert door.take_log() == [TOO_LONG.format("Type")]


def test_a_missing_clip_is_not_renamed(door):
    door.fail("SetConfigurationEntry", "(isv)", 1, "Name", door.make_bytes(b"x"))
    assert door.take_log() == []
    assert door.list() == ["M0.json"]


@pytest.mark.parametrize("index", [-1, 100])
def test_a_clip_out_of_bounds_is_not_renamed(door, index):
    door.write(f"M{index}.json", OLD)
    door.fail("SetConfigurationEntry", "(isv)", index, "Name", door.make_bytes(b"x"))
    assert door.take_log() == [invalid_index(index)]
    assert door.read(index) == OLD
