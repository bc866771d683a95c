"""Failed and interrupted writes leave either the old file or the new one."""

import json
import os
import random
import time

import pytest
from sandbox import Store, clips, wait_until
from sandbox.log_lines import NO_CONTROLS, NO_CONTROLS_FOR_CLIP, not_created, not_removed
from sandbox.store import FOLDER, write_record

# The longest one. JSON makes six bytes of each control character, so its record has 24.6 kB.
LOCATION = "/etc/audioclips/" + "\1" * 4079

MISSING = f"info: The specified directory of '{FOLDER}/M*.json' does not exist"
NOT_SAVED = "error: sonobrik_group_save failed to save json object"
NOT_RENAMED = "warning: sonobrik_group_set_enum_property Failed to update parameter"
NOT_CREATED = "warning: sonobrik_group_create_group Failed to save the new parameter group"


def not_written(index):
    return (f"warning: json_utils_save_to_file failed to save json data to file "
            f"'{FOLDER}/M{index}.json'")


def assert_cannot_write(store):
    """Checks that each method that writes fails with its warning. Clip 0 must exist, clip 1 not."""
    store.fail("SetConfigurationEntry", "(isv)", 0, "Name", store.make_bytes(b"New"))
    assert store.take_log() == [not_written(0), NOT_SAVED, NOT_RENAMED]
    store.fail("AddConfiguration", "(i)", 1)
    assert store.take_log() == [not_written(1), NOT_SAVED, NOT_CREATED, not_created(1)]
    store.refuse_clip("/etc/audioclips/a.wav", "A")
    assert store.take_log() == [not_written(1), NOT_SAVED, NOT_CREATED]


# A missing or read-only folder


def test_without_its_folder_the_store_is_empty_and_cannot_be_written(store):
    store.folder.rmdir()
    store.fail("AddConfiguration", "(i)", -1)
    assert store.take_log() == [not_written(0), NOT_SAVED, NOT_CREATED, not_created(-1)]
    store.refuse_clip("/etc/audioclips/a.wav", "A")
    assert store.take_log() == [not_written(0), NOT_SAVED, NOT_CREATED]
    store.fail("SetConfigurationEntry", "(isv)", 0, "Name", store.make_bytes(b"New"))
    store.fail("GetConfigurationEntry", "(is)", 0, "Name")
    assert store.take_log() == []
    store.fail("GetConfigurations")
    assert store.get_metadata() == "[]"
    assert store.take_log() == [MISSING, MISSING]
    store.fail("RemoveConfiguration", "(i)", 0)
    assert not store.folder.exists()
    # Once the folder exists, writes succeed.
    store.folder.mkdir()
    assert store.add_clip("/etc/audioclips/a.wav", "A") == 0


def test_a_read_only_folder_keeps_its_files(store):
    old = write_record("/etc/audioclips/door.wav", "Door", "audio")
    store.write("M0.json", old)
    store.folder.chmod(0o555)
    assert_cannot_write(store)
    store.fail("RemoveConfiguration", "(i)", 0)
    assert store.take_log() == [
        f"info: sonobrik_group_remove_group failed to remove file '{FOLDER}/M0.json'",
        not_removed(0)]
    assert (store.list(), store.read(0)) == (["M0.json"], old)


def test_metadata_that_cannot_be_saved_is_left_out(sandbox, store):
    clip = sandbox.write_clip("door.wav", clips.noise(2400))
    known = {"mediaTypes": [], "size": 1, "duration": 2}
    store.write("M0.json", write_record(clip.path, "New", "audio"))
    store.write("M1.json", write_record(clip.path, "Known", "audio", known))
    store.folder.chmod(0o555)
    assert store.get_metadata() == (
        '[{"1":{"name":"Known","fileName":"door.wav","mediaTypes":[],"size":1,"duration":2}}]')
    assert store.take_log() == [
        not_written(0), NOT_SAVED, "error: Failed to save valid media metadata",
        f"warning: Failed to create metadata for clip at location: {clip.path}",
        f"error: Could not obtain metadata for clip at location: {clip.path}"]


# Folders that fail while the daemon runs


@pytest.fixture
def door(store):
    """A store with one clip."""
    store.write("M0.json", write_record("/etc/audioclips/door.wav", "Door", "audio"))
    return store


def test_a_folder_that_is_removed_and_comes_back(door):
    away = door.folder.with_name("away")
    door.folder.rename(away)
    door.fail("GetConfigurations")
    assert door.take_log() == [MISSING]
    door.fail("AddConfiguration", "(i)", 1)
    assert door.take_log() == [not_written(1), NOT_SAVED, NOT_CREATED, not_created(1)]
    away.rename(door.folder)
    assert set(door.call("GetConfigurations")[0]) == {0}
    assert door.call("AddConfiguration", "(i)", -1) == (1,)


def test_a_folder_that_becomes_a_link_to_a_folder_is_followed(sandbox, door):
    other = sandbox.etc / "other"
    door.folder.rename(other)
    door.folder.symlink_to("/etc/other")
    assert set(door.call("GetConfigurations")[0]) == {0}
    door.rename(0, "New")
    assert json.loads((other / "M0.json").read_text())["name"] == "New"
    assert [path.name for path in other.iterdir()] == ["M0.json"]


@pytest.mark.parametrize("target", ["nowhere", "clip_data", "/etc/machine-id"])
def test_a_folder_that_becomes_a_broken_link_is_a_missing_folder(door, target):
    door.folder.rename(door.folder.with_name("away"))
    door.folder.symlink_to(target)
    door.fail("GetConfigurations")
    assert door.take_log() == [MISSING]
    door.fail("AddConfiguration", "(i)", 1)
    assert door.take_log() == [not_written(1), NOT_SAVED, NOT_CREATED, not_created(1)]


def test_a_record_that_becomes_a_link_is_replaced_and_its_target_kept(sandbox, door):
    target = sandbox.etc / "target.json"
    (door.folder / "M0.json").rename(target)
    kept = target.read_text()
    (door.folder / "M0.json").symlink_to("/etc/target.json")
    door.rename(0, "New")
    assert not (door.folder / "M0.json").is_symlink()
    assert json.loads(door.read(0))["name"] == "New"
    assert target.read_text() == kept


def test_permissions_that_are_lost_and_restored(door):
    door.folder.chmod(0o555)
    assert_cannot_write(door)
    door.folder.chmod(0o444)  # it can be listed, but its files cannot be opened
    door.fail("GetConfigurations")
    assert any("Permission denied" in line for line in door.take_log())
    door.folder.chmod(0o755)
    (door.folder / "M0.json").chmod(0)
    door.fail("GetConfigurations")
    assert any("Permission denied" in line for line in door.take_log())
    (door.folder / "M0.json").chmod(0o644)
    door.rename(0, "New")
    assert door.list() == ["M0.json"]


def test_a_read_only_file_system_keeps_its_files(sandbox):
    source = sandbox.folder / "tmp/readonly"
    source.mkdir()
    (source / "M0.json").write_text(write_record("/etc/audioclips/door.wav", "Door", "audio"))
    sandbox.bind(source, FOLDER)
    store = Store(sandbox).start()
    assert_cannot_write(store)
    store.fail("RemoveConfiguration", "(i)", 0)
    assert store.call("GetConfigurationEntry", "(is)", 0, "Name") == ("Name", "Door")
    assert os.listdir(source) == ["M0.json"]


# A full disk


@pytest.fixture
def small(sandbox):
    """A store with one clip, on a file system of 128 KiB."""
    sandbox.set_disk(FOLDER, 128 * 1024)
    store = Store(sandbox).start()
    store.folder = sandbox.daemon.open_folder(FOLDER)
    store.add_clip("/etc/audioclips/door.wav", "Door")
    store.take_log()
    return store


def fill(path):
    """Writes to `path` until the disk is full."""
    with open(path, "wb", buffering=0) as file:
        try:
            while file.write(b"x" * 4096) == 4096:
                pass
        except OSError:
            return


def test_a_full_disk_leaves_the_old_files_and_nothing_else(small):
    old = small.read(0)
    fill(small.folder / "ballast")
    assert_cannot_write(small)
    assert (sorted(small.list()), small.read(0)) == (["M0.json", "ballast"], old)
    assert small.call("GetConfigurationEntry", "(is)", 0, "Name") == ("Name", "Door")
    (small.folder / "ballast").unlink()
    small.rename(0, "New")
    assert small.add_clip("/etc/audioclips/a.wav", "A") == 1
    assert small.take_log() == [NO_CONTROLS, NO_CONTROLS_FOR_CLIP]
    assert sorted(small.list()) == ["M0.json", "M1.json"]


def test_a_record_that_fits_only_in_part_is_not_stored(small):
    # 128 KiB have room for the old file and five more of 24.6 kB, but not for six.
    assert [small.add_clip(LOCATION) for _ in range(5)] == [1, 2, 3, 4, 5]
    small.refuse_clip(LOCATION)
    small.fail("SetConfigurationEntry", "(isv)", 1, "Name", small.make_bytes(b"New"))
    assert small.take_log() == 5 * [NO_CONTROLS, NO_CONTROLS_FOR_CLIP] + [
        not_written(6), NOT_SAVED, NOT_CREATED, not_written(1), NOT_SAVED, NOT_RENAMED]
    assert sorted(small.list()) == [f"M{index}.json" for index in range(6)]
    assert small.read(1) == write_record(LOCATION, "", "audio")
    small.call("RemoveConfiguration", "(i)", 2)
    small.rename(1, "New")
    assert small.read(1) == write_record(LOCATION, "New", "audio")


# A killed daemon


def kill_after(sandbox, replies, count):
    """Kills the daemon once the first `count` replies have arrived."""
    for reply in replies[:count]:
        reply.wait(20)
    sandbox.daemon.kill()
    assert sandbox.daemon.wait_exit() == 128 + 9


@pytest.mark.parametrize("seed", range(8))
def test_a_kill_leaves_the_old_name_or_the_new_one(sandbox, seed):
    store = Store(sandbox)
    names = [f"Name {number}" * (1 + number % 5) for number in range(60)]
    texts = [write_record(LOCATION, name, "audio") for name in names]
    store.write("M0.json", texts[0])
    # A temporary file that a crash left must be replaced.
    store.write(".M0.json.new", texts[0][:1000])
    store.start()
    replies = [store.send_name(0, name) for name in names]
    answered = random.Random(seed).randrange(1, 50)
    kill_after(sandbox, replies, answered)
    # The file has the name of the last call that was answered, or of a later call.
    assert store.read(0) in texts[answered - 1:]
    assert {"M0.json"} <= set(store.list()) <= {"M0.json", ".M0.json.new"}
    store.start()
    store.rename(0, "Last")
    assert store.list() == ["M0.json"]
    assert store.read(0) == write_record(LOCATION, "Last", "audio")


@pytest.mark.parametrize("seed", range(3))
def test_a_kill_leaves_whole_clips_only(sandbox, seed):
    store = Store(sandbox).start()
    replies = [store.send_clip(LOCATION, str(number)) for number in range(40)]
    answered = random.Random(seed).randrange(1, 35)
    kill_after(sandbox, replies, answered)
    whole = [name for name in store.list() if not name.startswith(".")]
    assert sorted(whole) == sorted(f"M{number}.json" for number in range(len(whole)))
    assert len(whole) >= answered
    for number in range(len(whole)):
        assert store.read(number) == write_record(LOCATION, str(number), "audio")
    assert len(store.list()) - len(whole) <= 1


def send_load(store, source, count):
    """Sends random calls that write, and returns the replies and the names that they may leave."""
    names = {""}
    replies = []
    for number in range(count):
        index = source.randrange(12)
        name = f"Name {number}" * source.randint(1, 8)
        names.add(name)
        choice = source.random()
        if choice < 0.4:
            replies.append(store.send_name(index, name))
        elif choice < 0.7:
            replies.append(store.send_clip(LOCATION[:source.randint(20, 4000)], name))
        elif choice < 0.85:
            replies.append(store.send("AddConfiguration", "(i)", -1))
        else:
            replies.append(store.send("RemoveConfiguration", "(i)", index))
    return replies, names


def list_temporary_files(store):
    return {name for name in store.list() if name.startswith(".")}


def check_records(store, names):
    """Checks that each record is whole, and returns their indexes."""
    records = [name for name in store.list() if not name.startswith(".")]
    for name in records:
        record = json.loads((store.folder / name).read_text())
        assert list(record) == ["location", "name", "type", "metadata"]
        assert record["name"] in names
        assert record["location"] == "" or LOCATION.startswith(record["location"])
    return {int(name[1:-5]) for name in records}


def test_kills_at_random_moments_leave_whole_records(sandbox, full):
    # 500 kills take about 3 minutes.
    source = random.Random(1)
    store = Store(sandbox)
    names = {""}
    for _ in range(500 if full else 20):
        store.start()
        left = list_temporary_files(store)
        replies, new_names = send_load(store, source, 150)
        names |= new_names
        # After a random number of replies, a random part of a write's time.
        answered = source.randrange(1, 120)
        wait_until(lambda: sum(reply.done for reply in replies) >= answered, 60, "some are done")
        time.sleep(source.random() * 0.002)
        sandbox.daemon.kill()
        assert sandbox.daemon.wait_exit() == 128 + 9
        # A temporary file stays until its clip is written again.
        assert len(list_temporary_files(store) - left) <= 1
        indexes = check_records(store, names)
        store.start()
        if indexes:
            assert set(store.call("GetConfigurations")[0]) == indexes
        assert store.take_log() == []
        assert sandbox.daemon.stop() == 0
