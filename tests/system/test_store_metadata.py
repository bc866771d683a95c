"""GetMetadata: the metadata of the clips' files, which is computed once and saved."""

import json
import os

import pytest
from sandbox import clips
from sandbox.store import write_record

KNOWN = {"mediaTypes": ["audio/x-wav"], "size": 5, "duration": 50}
DOOR = ('{"name":"Door","fileName":"door.wav","mediaTypes":["audio/x-wav"],"size":5,'
        '"duration":50}')


def left_out(location):
    """Returns the log of a clip whose metadata cannot be computed."""
    return [f"warning: Could not obtain media info for: {location}",
            f"warning: Could not get metadata for location: {location}",
            f"warning: Failed to create metadata for clip at location: {location}",
            f"error: Could not obtain metadata for clip at location: {location}"]


@pytest.fixture
def door(sandbox):
    """A clip of 50 ms and 4844 bytes."""
    return sandbox.write_clip("door.wav", clips.noise(2400))


def stat(store, index):
    status = (store.folder / f"M{index}.json").stat()
    return status.st_ino, status.st_mtime_ns


def test_without_clips_the_list_is_empty(store):
    assert store.get_metadata() == "[]"
    assert store.take_log() == []


def test_the_metadata_of_a_new_clip_is_computed_and_saved(store, door):
    store.add_clip(door.path, "Door")
    store.take_log()
    assert store.get_metadata() == f'[{{"0":{DOOR}}}]'
    assert store.read(0) == write_record(door.path, "Door", "audio", KNOWN)
    assert store.list() == ["M0.json"]
    assert store.take_log() == []


def test_metadata_is_computed_once(sandbox, store, door):
    store.add_clip(door.path, "Door")
    first = store.get_metadata()
    kept = stat(store, 0)
    sandbox.write_clip("door.wav", clips.noise(48000), channels=2)
    assert store.get_metadata() == first
    door.file.unlink()
    assert store.get_metadata() == first
    assert stat(store, 0) == kept


def test_a_new_name_keeps_the_metadata(store, door):
    store.add_clip(door.path, "Bell")
    store.get_metadata()
    store.rename(0, "Door")
    door.file.unlink()
    assert store.get_metadata() == f'[{{"0":{DOOR}}}]'


def test_clips_are_listed_in_directory_order(store):
    for index in (9, 3, 14, 0, 27, 8, 61, 40, 2, 99, 100):
        store.write(f"M{index}.json", write_record("/x", "X", "audio", KNOWN))
    entries = json.loads(store.get_metadata())
    assert [f"M{index}.json" for entry in entries for index in entry] == store.list()


def test_the_file_name_is_the_last_component_of_the_location(store):
    names = {"/etc/audioclips/deep/er/Glöckchen \"1\".wav": 'Glöckchen \\"1\\".wav',
             "plain": "plain", "/etc/audioclips/": "audioclips", "": "."}
    for location, name in names.items():
        store.write("M7.json", write_record(location, "X", "audio", KNOWN))
        assert store.get_metadata() == (
            f'[{{"7":{{"name":"X","fileName":"{name}","mediaTypes":["audio/x-wav"],"size":5,'
            '"duration":50}}]')


@pytest.mark.parametrize("kind, media_types", [
    ("vorbis", ["audio/ogg", "audio/x-vorbis"]), ("mulaw", ["audio/x-wav", "audio/x-mulaw"]),
    ("flac", ["audio/x-flac"])])
def test_each_kind_of_file_is_described(sandbox, store, kind, media_types):
    clip = sandbox.write_clip("tone", clips.tone(440, 0.5, rate=8000), rate=8000, kind=kind)
    store.add_clip(clip.path, "Tone")
    entry = json.loads(store.get_metadata())[0]["0"]
    assert list(entry) == ["name", "fileName", "mediaTypes", "size", "duration"]
    size = clip.file.stat().st_size
    assert entry == {"name": "Tone", "fileName": "tone", "mediaTypes": media_types,
                     "size": (size + 512) // 1024, "duration": 500}


def test_a_clip_whose_file_is_missing_is_left_out(store, door):
    store.add_clip("/etc/audioclips/missing.wav", "Missing")
    store.add_clip(door.path, "Door")
    store.add_clip("/etc/audioclips", "Folder")
    store.take_log()
    log = {"M0.json": left_out("/etc/audioclips/missing.wav"), "M1.json": [],
           "M2.json": ["info: Discoverer error: '\"/etc/audioclips\" is a directory.'.",
                       *left_out("/etc/audioclips")]}
    for _ in range(2):
        assert store.get_metadata() == f'[{{"1":{DOOR}}}]'
        assert store.take_log() == [line for name in store.list() for line in log[name]]
    assert store.read(0) == write_record("/etc/audioclips/missing.wav", "Missing", "audio")


def test_a_named_pipe_is_left_out(sandbox, store, door):
    os.mkfifo(sandbox.etc / "audioclips/pipe.wav")
    store.add_clip("/etc/audioclips/pipe.wav", "Pipe")
    store.add_clip(door.path, "Door")
    store.take_log()
    assert store.get_metadata() == f'[{{"1":{DOOR}}}]'
    assert store.take_log() == left_out("/etc/audioclips/pipe.wav")


def test_a_file_that_is_not_audio_is_left_out(sandbox, store, door):
    path = sandbox.write_file("text.wav", b"This is a text.\n" * 20)
    store.add_clip(path, "Text")
    store.add_clip(door.path, "Door")
    store.take_log()
    assert store.get_metadata() == f'[{{"1":{DOOR}}}]'
    assert store.take_log() == ["info: Discoverer error: 'This appears to be a text file'.",
                                *left_out(path)]


def test_a_file_that_appears_later_is_described(sandbox, store):
    store.add_clip("/etc/audioclips/door.wav", "Door")
    assert store.get_metadata() == "[]"
    sandbox.write_clip("door.wav", clips.noise(2400))
    assert store.get_metadata() == f'[{{"0":{DOOR}}}]'


# Invalid metadata in a record file


NOT_VALID = "error: The metadata object is not valid, error '{}'"


def test_broken_metadata_is_computed_again(store, door):
    for metadata, log in [
            (KNOWN | {"size": "5"}, [NOT_VALID.format("Expected integer, got string")]),
            (KNOWN | {"size": 5.5}, [NOT_VALID.format("Expected integer, got real")]),
            (KNOWN | {"duration": None}, [NOT_VALID.format("Expected integer, got null")]),
            ({"size": 5, "duration": 50}, [NOT_VALID.format("Object item not found: mediaTypes")]),
            ({"mediaTypes": [], "duration": 50}, [NOT_VALID.format("Object item not found: size")]),
            ({}, []), ([1], []), ("x", []), (7, []), (None, [])]:
        store.write("M0.json", json.dumps({"location": door.path, "name": "Door", "type": "audio",
                                           "metadata": metadata}))
        assert store.get_metadata() == f'[{{"0":{DOOR}}}]'
        assert store.take_log() == log
        assert store.read(0) == write_record(door.path, "Door", "audio", KNOWN)


def test_broken_metadata_of_a_missing_file_stays(store):
    broken = write_record("/etc/audioclips/missing.wav", "Missing", "audio", KNOWN | {"size": "5"})
    store.write("M0.json", broken)
    assert store.get_metadata() == "[]"
    assert store.take_log() == [NOT_VALID.format("Expected integer, got string"),
                                *left_out("/etc/audioclips/missing.wav")]
    assert store.read(0) == broken


def test_stored_metadata_is_returned_unchanged(store):
    for metadata in ({"mediaTypes": None, "size": 1, "duration": 2},
                     {"mediaTypes": {"a": [1.5, True]}, "size": -1, "duration": -2**63},
                     {"duration": 2**63 - 1, "extra": "x", "size": 0, "mediaTypes": "ä"}):
        store.write("M0.json", write_record("/missing/door.wav", "Door", "", metadata))
        kept = stat(store, 0)
        wanted = {"name": "Door", "fileName": "door.wav", "mediaTypes": metadata["mediaTypes"],
                  "size": metadata["size"], "duration": metadata["duration"]}
        assert store.get_metadata() == json.dumps([{"0": wanted}], ensure_ascii=False,
                                                  separators=(",", ":"))
        assert stat(store, 0) == kept
    assert store.take_log() == []


# The store as a whole


def test_a_store_that_cannot_be_read_looks_empty(store, door):
    store.add_clip(door.path, "Door")
    store.folder.chmod(0)
    assert store.get_metadata() == "[]"
    store.folder.chmod(0o755)
    assert store.get_metadata() == f'[{{"0":{DOOR}}}]'


def test_a_store_that_does_not_exist_is_empty(store):
    store.folder.rmdir()
    assert store.get_metadata() == "[]"
    assert store.take_log() == [
        "info: The specified directory of '/etc/dynamic/sonobrik/clip_data/M*.json' does not exist"]
