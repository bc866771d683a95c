"""The record files: how the daemon writes them, and how it reads files of other programs."""

import json
import os

import pytest
from sandbox.log_lines import NO_CONTROLS, NO_CONTROLS_FOR_SYNC, index_taken, invalid_index
from sandbox.store import FOLDER, write_record

NO_DOCUMENT = "error: sonobrik_group_from_file could not obtain json object from file '{}'"
NO_RECORD = "warning: sonobrik_group_from_file could not obtain a parameter object"
NOT_LISTED = "warning: sonobrik_group_get_parameter_list failed to create parameter from file {}"
LEFT_OUT = ("warning: Left out '/etc/dynamic/sonobrik/clip_data/{}', which contains text that "
            "D-Bus cannot transmit")
NO_INDEX = "error: No index value found in '{}'"

PLAIN = '{"location": "/x.wav", "name": "X", "type": "audio"}'


def not_loaded(line, reason):
    return f"warning: Failed to load JSON, line {line} error '{reason}'"


def not_unpacked(reason):
    return f"error: sonobrik_group_json_unpack Failed to unpack object, error '{reason}'"


# Broken files: the content, or a function that creates the file, and the log lines of an attempt to
# load it. {} stands for the file's path.
BROKEN = {
    "M1.json": ('{"location": "/x.wav",\n "na', [
        not_loaded(2, "premature end of input near '\"na'"), NO_DOCUMENT]),
    "M2.json": ("", [not_loaded(1, "'[' or '{{' expected near end of file"), NO_DOCUMENT]),
    "M3.json": (PLAIN + " more", [
        not_loaded(1, "end of file expected near 'more'"), NO_DOCUMENT]),
    "M4.json": (b'{"location": "/x", "name": "Gl\xe9", "type": "audio"}', [
        not_loaded(1, "unable to decode byte 0xe9 near '\"Gl'"), NO_DOCUMENT]),
    "M5.json": (os.mkdir, [
        not_loaded(1, "'[' or '{{' expected near end of file"), NO_DOCUMENT]),
    "M6.json": (os.mkfifo, [not_loaded(-1, "not a regular file"), NO_DOCUMENT]),
    "M7.json": (lambda path: os.symlink("nowhere", path), [
        not_loaded(-1, "unable to open {}: No such file or directory"), NO_DOCUMENT]),
    "M8.json": (lambda path: os.close(os.open(path, os.O_CREAT, 0)), [
        not_loaded(-1, "unable to open {}: Permission denied"), NO_DOCUMENT]),
    "M9.json": ("[" + PLAIN + "]", [
        not_unpacked("Expected object, got array"), NO_RECORD]),
    "M10.json": ('{"location": "/x", "name": "X"}', [
        not_unpacked("Object item not found: type"), NO_RECORD]),
    "M11.json": ('{"location": "/x", "name": 3, "type": "audio"}', [
        not_unpacked("Expected string, got integer"), NO_RECORD]),
    "M12.json": ("[" * 3000, [
        not_loaded(1, "maximum parsing depth reached near '['"), NO_DOCUMENT]),
    "M13.json": ('{"location": "/x", "name": "A\\u0000B", "type": ""}', [
        not_loaded(1, "\\u0000 is not allowed without JSON_ALLOW_NUL near '\"A\\u0000B\"'"),
        NO_DOCUMENT]),
    "M.json": (PLAIN, ["warning: Could not obtain parameter index from ''", NO_INDEX]),
    "Mx.json": (PLAIN, ["warning: Could not obtain parameter index from 'x'", NO_INDEX]),
    "M1 .json": (PLAIN, ["warning: Could not obtain parameter index from '1 '", NO_INDEX]),
    "M-1.json": (PLAIN, [NO_INDEX]),
    "M99999999999.json": (PLAIN, [
        "warning: Could not obtain parameter index from '99999999999'", NO_INDEX]),
    # The number leads to another file.
    "M030.json": (PLAIN, ["warning: Could not obtain parameter index from '030'", NO_INDEX]),
    "M+30.json": (PLAIN, ["warning: Could not obtain parameter index from '+30'", NO_INDEX]),
    # The name is not UTF-8.
    "M\udcff\udcf0.json": (PLAIN, [
        "warning: Could not obtain parameter index from '\\xff\\xf0'", NO_INDEX]),
}

# Files whose names the daemon's pattern does not match.
OTHERS = ("m20.json", ".M20.json.new", "M20.json~", "M20.jso\udcf0", "N20.json", "20.json")

GOOD = {
    "M0.json": write_record("/etc/audioclips/door.wav", "Door", "audio"),
    "M30.json": '{"z": 1, "type": "", "name": "Bell", "location": "/b", "x": {"type": 3}}',
    "M31.json": '{"location":"","name":"","type":"","metadata":7}',
}

LISTED = {
    0: {"Location": "/etc/audioclips/door.wav", "Name": "Door", "Type": "audio"},
    30: {"Location": "/b", "Name": "Bell", "Type": ""},
    31: {"Location": "", "Name": "", "Type": ""},
}


def make(store, name, content):
    if callable(content):
        content(store.folder / name)
    else:
        store.write(name, content)


def log_of(name):
    """Returns the log of an attempt to load a file of BROKEN."""
    path = f"{FOLDER}/{name}".encode(errors="surrogateescape").decode(errors="backslashreplace")
    return [line.format(path) for line in (*BROKEN[name][1], NOT_LISTED)]


def write_all(store):
    """Writes all files, and returns the log of loading all of them."""
    for name, content in GOOD.items():
        make(store, name, content)
    for name, (content, _) in BROKEN.items():
        make(store, name, content)
    for name in OTHERS:
        make(store, name, PLAIN)
    return [line for name in store.list() if name in BROKEN for line in log_of(name)]


# Files of the daemon


def test_a_record_has_its_keys_in_order_and_is_indented_by_two(sandbox, store):
    sandbox.write_clip("door.wav", [1] * 2400)
    assert store.add_clip("/etc/audioclips/door.wav", "Tür \"A\\B/C\"\t\x01\x7f") == 0
    new = (store.folder / "M0.json").read_bytes()
    store.get_metadata()
    assert new == ('{\n'
                   '  "location": "/etc/audioclips/door.wav",\n'
                   '  "name": "Tür \\"A\\\\B/C\\"\\t\\u0001\x7f",\n'
                   '  "type": "audio",\n'
                   '  "metadata": {}\n'
                   '}').encode()
    assert (store.folder / "M0.json").read_bytes() == new.replace(
        b'"metadata": {}', b'"metadata": {\n'
                           b'    "mediaTypes": [\n'
                           b'      "audio/x-wav"\n'
                           b'    ],\n'
                           b'    "size": 5,\n'
                           b'    "duration": 50\n'
                           b'  }')


def test_a_record_is_world_readable(store):
    store.call("AddConfiguration", "(i)", -1)
    store.rename(0, "Door")
    assert (store.folder / "M0.json").stat().st_mode == 0o100644


# Files of other programs


def test_a_broken_file_affects_only_its_own_entry(store):
    log = write_all(store)
    assert store.call("GetConfigurations") == (LISTED,)
    assert store.take_log() == log


def test_broken_files_do_not_stop_the_on_screen_controls(store):
    log = write_all(store)
    store.call("Sync")
    assert store.take_log() == [*log, NO_CONTROLS, NO_CONTROLS_FOR_SYNC]


def test_broken_files_do_not_stop_the_metadata(store):
    log = write_all(store)
    for name, content in GOOD.items():
        record = json.loads(content) | {"metadata": {"mediaTypes": [], "size": 1, "duration": 2}}
        store.write(name, json.dumps(record))
    entries = {"M0.json": ("Door", "door.wav"), "M30.json": ("Bell", "b"), "M31.json": ("", ".")}
    assert store.get_metadata() == "[" + ",".join(
        f'{{"{name[1:-5]}":{{"name":"{entries[name][0]}","fileName":"{entries[name][1]}",'
        '"mediaTypes":[],"size":1,"duration":2}}'
        for name in store.list() if name in entries) + "]"
    assert store.take_log() == log


def test_a_broken_file_is_not_a_clip(store):
    for index in range(1, 14):
        name = f"M{index}.json"
        make(store, name, BROKEN[name][0])
        # A dangling link counts as a missing file.
        log = [] if name == "M7.json" else log_of(name)[:-1]
        store.fail("GetConfigurationEntry", "(is)", index, "Name")
        store.fail("SetConfigurationEntry", "(isv)", index, "Name", store.make_bytes(b"New"))
        assert store.take_log() == 2 * log


def test_a_store_of_broken_files_is_empty(store):
    store.write("Mx.json", PLAIN)
    store.fail("GetConfigurations")
    assert store.take_log() == log_of("Mx.json")


def test_a_file_of_any_kind_occupies_its_index(store):
    for index in (5, 6, 8):
        make(store, f"M{index}.json", BROKEN[f"M{index}.json"][0])
        store.fail("AddConfiguration", "(i)", index)
        assert store.take_log()[0] == index_taken(index)
        assert store.call("RemoveConfiguration", "(i)", index) == ()
        assert store.call("AddConfiguration", "(i)", index) == (index,)
        assert store.read(index) == write_record()


def test_a_renamed_clip_keeps_its_metadata_and_drops_unknown_keys(store):
    store.write("M0.json", '{"type": "t", "extra": [1], "metadata": {"b": 1.5, "a": [null]}, '
                           '"name": "Old", "location": "/l"}')
    store.rename(0, "New")
    assert store.read(0) == write_record("/l", "New", "t", {"b": 1.5, "a": [None]})


def test_metadata_of_any_kind_is_kept(store):
    for metadata, written in [("", "{}"), (', "metadata": null', "null"), (', "metadata": 7', "7"),
                              (', "metadata": "x"', '"x"'), (', "metadata": []', "[]")]:
        store.write("M0.json", f'{{"location": "/l", "name": "Old", "type": "t"{metadata}}}')
        store.rename(0, "New")
        assert store.read(0) == ('{\n  "location": "/l",\n  "name": "New",\n  "type": "t",\n'
                                 f'  "metadata": {written}\n}}')
        assert store.take_log() == []


def test_a_clip_beyond_the_bound_is_listed_but_not_changed(sandbox, store):
    clip = sandbox.write_clip("door.wav", [1] * 2400)
    record = write_record(clip.path, "Door", "audio")
    store.write("M100.json", record)
    assert store.call("GetConfigurations") == (
        {100: {"Location": clip.path, "Name": "Door", "Type": "audio"}},)
    assert store.take_log() == []
    # Its metadata can be computed but not saved.
    assert store.get_metadata() == "[]"
    assert store.take_log() == [
        invalid_index(100),
        "error: sonobrik_group_save failed to save json object",
        "error: Failed to save valid media metadata",
        f"warning: Failed to create metadata for clip at location: {clip.path}",
        f"error: Could not obtain metadata for clip at location: {clip.path}"]
    assert store.read(100) == record


@pytest.mark.parametrize("name", ["M007.json", "M+7.json", "M07.json"])
def test_a_copy_of_a_clip_under_another_spelling_of_its_number_is_not_a_clip(sandbox, store, name):
    clip = sandbox.write_clip("door.wav", [1] * 2400)
    store.write("M7.json", write_record("/etc/audioclips/missing.wav", "Seven", "audio"))
    store.write(name, write_record(clip.path, "Copy", "audio"))
    kept = {file: (store.folder / file).read_text() for file in ("M7.json", name)}
    path = f"{FOLDER}/{name}"
    log = [f"warning: Could not obtain parameter index from '{name[1:-5]}'",
           NO_INDEX.format(path), NOT_LISTED.format(path)]
    assert store.get_metadata() == "[]"
    assert [line for line in store.take_log() if "missing.wav" not in line] == log
    assert {file: (store.folder / file).read_text() for file in store.list()} == kept
    assert store.call("GetConfigurations") == (
        {7: {"Location": "/etc/audioclips/missing.wav", "Name": "Seven", "Type": "audio"}},)
    assert store.take_log() == log
    assert store.call("RemoveConfiguration", "(i)", 7) == ()
    assert store.list() == [name]


# Strings that a file may contain but D-Bus cannot transmit


@pytest.mark.parametrize("character", ["\\ufffe", "\uffff", "\ufdd0"])
def test_a_string_that_cannot_be_sent_affects_only_its_own_entry(store, character):
    store.write("M0.json", write_record("/x", "X", "audio"))
    store.write("M3.json", write_record("/x", "X", "audio"))
    for name in ("Location", "Name", "Type"):
        record = json.loads(PLAIN) | {name.lower(): "?"}
        bad = json.dumps(record).replace("?", character)
        store.write("M1.json", bad)
        listed, = store.call("GetConfigurations")
        assert sorted(listed) == [0, 3]
        assert store.take_log() == [LEFT_OUT.format("M1.json")]
        for property_name in ("Location", "Name", "Type"):
            if property_name == name:
                store.fail("GetConfigurationEntry", "(is)", 1, name)
            else:
                assert store.call("GetConfigurationEntry", "(is)", 1, property_name) == (
                    property_name, record[property_name.lower()])
        if name != "Name":
            store.fail("SetConfigurationEntry", "(isv)", 1, "Name", store.make_bytes(b"New"))
            assert store.take_log() == [
                "error: sonobrik_group_json_pack Failed to create object, "
                "error 'It contains text that D-Bus cannot transmit'",
                "error: sonobrik_group_save failed to pack json object",
                "warning: sonobrik_group_set_enum_property Failed to update parameter"]
        assert store.read(1) == bad


def test_a_name_that_cannot_be_sent_can_be_replaced(store):
    store.write("M1.json", write_record("/x", "X\ufffe", "audio"))
    store.rename(1, "New")
    assert store.read(1) == write_record("/x", "New", "audio")


def test_a_string_that_cannot_be_sent_does_not_stop_the_metadata(store):
    metadata = {"mediaTypes": ["audio/x-wav"], "size": 1, "duration": 2}
    store.write("M0.json", write_record("/x", "X", "audio", metadata))
    store.write("M1.json", write_record("/name", "B\ufffe", "audio", metadata))
    store.write("M2.json", write_record("/types", "C", "audio",
                                        metadata | {"mediaTypes": {"\uffff": 1}}))
    assert store.get_metadata() == (
        '[{"0":{"name":"X","fileName":"x","mediaTypes":["audio/x-wav"],"size":1,"duration":2}}]')
    assert sorted(store.take_log()) == [
        LEFT_OUT.format("M1.json"), LEFT_OUT.format("M2.json")]
