"""Limits on the texts of a clip, on record files, and on messages with all clips.

dbus-daemon disconnects the sender of a message of more than 32 MiB.
"""

import json
import time

import pytest
from sandbox import Store
from sandbox.controls import Controls
from sandbox.log_lines import NO_CONTROLS, NO_CONTROLS_FOR_CLIP, NO_CONTROLS_FOR_SYNC
from sandbox.store import FOLDER, subscribe_changes, write_record

BUDGET = 16 * 1024 * 1024

PREFIX = "/etc/audioclips/"
LONGEST_LOCATION = PREFIX + "x" * (4095 - len(PREFIX))

NOT_PACKED = "error: sonobrik_group_json_pack Failed to create object, error 'It {}'"
NOT_CREATED = ["error: sonobrik_group_save failed to pack json object",
               "warning: sonobrik_group_create_group Failed to save the new parameter group"]

KNOWN = {"mediaTypes": ["audio/x-wav"], "size": 5, "duration": 50}


def left_out(name, reason):
    return f"warning: Left out '{FOLDER}/{name}', which {reason}"


def no_room(count, message):
    return f"warning: Left out {count} clips, because {message} would exceed {BUDGET} bytes"


# AddClip


@pytest.mark.parametrize("location, name", [
    (LONGEST_LOCATION, ""), (PREFIX, "x" * 255), (PREFIX, "\1" * 255), (PREFIX, "é" * 127 + "x")],
    ids=["location", "name", "escaped name", "name of long characters"])
def test_the_longest_texts_are_stored(store, location, name):
    assert store.add_clip(location, name) == 0
    assert store.take_log() == [NO_CONTROLS, NO_CONTROLS_FOR_CLIP]
    assert store.read(0) == write_record(location, name, "audio").replace("\1", "\\u0001")
    assert store.call("GetConfigurations") == (
        {0: {"Location": location, "Name": name, "Type": "audio"}},)


@pytest.mark.parametrize("location, name, reason", [
    (LONGEST_LOCATION + "x", "", "has a location of more than 4095 bytes"),
    (PREFIX, "x" * 256, "has a name of more than 255 bytes"),
    (PREFIX, "é" * 128, "has a name of more than 255 bytes"),
    # Two of these fill more than one message, and so does one of those after JSON escaped it.
    (PREFIX, "x" * (17 << 20), "has a name of more than 255 bytes"),
    (PREFIX, "\1" * 6000000, "has a name of more than 255 bytes"),
    (PREFIX + "\1" * 6000000, "", "has a location of more than 4095 bytes")],
    ids=["location", "name", "name of long characters", "17 MiB", "escaped name",
         "escaped location"])
def test_longer_texts_are_refused(sandbox, store, location, name, reason):
    controls = Controls(sandbox)
    changes = subscribe_changes(sandbox.bus)
    for _ in range(2):
        store.refuse_clip(location, name)
        assert store.take_log() == [NOT_PACKED.format(reason), *NOT_CREATED]
    assert store.list() == []
    assert (controls.calls, changes) == ([], [])
    assert store.add_clip(PREFIX + "a.wav", "A") == 0
    assert store.call("GetConfigurations") == (
        {0: {"Location": PREFIX + "a.wav", "Name": "A", "Type": "audio"}},)


# Records of other programs


@pytest.mark.parametrize("record, reason", [
    (write_record("/" + "x" * 4095, "A", "audio", KNOWN), "has a location of more than 4095 bytes"),
    (write_record("/a", "x" * 256, "audio", KNOWN), "has a name of more than 255 bytes"),
    (write_record("/a", "A", "x" * 256, KNOWN), "has a type of more than 255 bytes"),
    (write_record("/a", "A", "audio", KNOWN | {"mediaTypes": ["x" * 16384]}),
     "has metadata of more than 16384 bytes"),
    (write_record("/a", "A", "audio", KNOWN | {"mediaTypes": [[[0] * 9000]]}),
     "has metadata of more than 16384 bytes")],
    ids=["location", "name", "type", "metadata of text", "metadata of numbers"])
def test_a_record_over_a_limit_is_left_out(sandbox, store, record, reason):
    controls = Controls(sandbox)
    store.write("M0.json", write_record("/good", "Good", "audio", KNOWN))
    store.write("M1.json", record)
    assert store.call("GetConfigurations") == (
        {0: {"Location": "/good", "Name": "Good", "Type": "audio"}},)
    assert [list(entry) for entry in json.loads(store.get_metadata())] == [["0"]]
    store.call("Sync")
    assert controls.clips == [("Good", 0)]
    assert store.take_log() == 3 * [left_out("M1.json", reason)]
    assert store.read(1) == record


def test_a_name_that_is_too_long_can_be_replaced(store):
    store.write("M0.json", write_record("/a", "x" * 256, "audio"))
    store.rename(0, "x" * 255)
    assert store.read(0) == write_record("/a", "x" * 255, "audio")
    assert store.take_log() == []


def test_a_huge_file_is_not_read(store):
    path = store.write("M0.json", b" " * (2 << 20))
    with (store.folder / "M0.json").open("r+b") as file:
        file.truncate(64 << 30)
    assert store.get_metadata() == "[]"
    assert store.take_log() == [
        "warning: Failed to load JSON, line -1 error 'more than 1048576 bytes'",
        f"error: sonobrik_group_from_file could not obtain json object from file '{path}'",
        f"warning: sonobrik_group_get_parameter_list failed to create parameter from file {path}"]


# Messages with all clips


def write_largest(store, count):
    """Writes `count` records, each as large as a record may be."""
    known = KNOWN | {"mediaTypes": ["x" * 16300]}
    text = write_record("\1" * 4095, "\1" * 255, "\1" * 255, known)
    for index in range(count):
        store.write(f"M{index}.json", text)


def test_100_clips_of_the_largest_kind_are_all_listed(sandbox, store):
    controls = Controls(sandbox)
    write_largest(store, 100)
    assert len(store.call("GetConfigurations")[0]) == 100
    assert len(json.loads(store.get_metadata())) == 100
    store.call("Sync")
    assert len(controls.clips) == 100
    assert store.take_log() == []


def test_many_clips_of_the_largest_kind_do_not_exceed_a_message(sandbox, full):
    # 500 are too many for GetMetadata only.
    count = 10000 if full else 500
    store = Store(sandbox)
    write_largest(store, count)
    store.start(deadline=120)
    deadline = 120
    reply = store.send("GetConfigurations")
    listed = len(reply.wait(deadline)[0])
    if full:
        assert listed == BUDGET // (4095 + 255 + 255 + 128)
        assert store.take_log() == [no_room(count - listed, "the reply to GetConfigurations")]
    else:
        assert (listed, store.take_log()) == (count, [])
    text, = store.bus.call("com.vesk.Sonobrik", "/com/vesk/Sonobrik", "com.vesk.Sonobrik",
                           "GetMetadata", timeout=deadline)
    assert len(text.encode()) <= BUDGET
    listed = len(json.loads(text))
    assert listed > 390
    assert store.take_log() == [no_room(count - listed, "the reply to GetMetadata")]
    store.send("Sync").wait(deadline)
    assert store.take_log() == [NO_CONTROLS, NO_CONTROLS_FOR_SYNC]


def test_many_clips_are_all_handled(sandbox, full):
    count = 10000 if full else 2000
    sandbox.set_parameters({"root.SonoBrik.MaxGroups": str(2 * count)})
    store = Store(sandbox)
    for index in range(count):
        store.write(f"M{index}.json", write_record(PREFIX + f"{index}.wav", f"Clip {index}",
                                                   "audio", KNOWN))
    store.start(deadline=120)

    def measure(method):
        begin = time.monotonic()
        result = method()
        print(f"{time.monotonic() - begin:.2f} s")
        return result

    listed, = measure(lambda: store.send("GetConfigurations").wait(60))
    assert len(listed) == count
    assert len(json.loads(measure(store.get_metadata))) == count
    assert measure(lambda: store.send("Sync").wait(60)) == ()
    assert measure(lambda: store.add_clip(PREFIX + "a.wav", "A")) == count
    assert store.list().count(f"M{count}.json") == 1
