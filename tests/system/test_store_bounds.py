"""The bound of the store: the parameter that limits the number of clips."""

import pytest
from sandbox import Store
from sandbox.log_lines import (NO_CONTROLS, NO_CONTROLS_FOR_CLIP, NO_FREE_INDEX, index_taken,
                               invalid_index, not_created, not_removed)
from sandbox.store import write_record

PARAMETER = "root.SonoBrik.MaxGroups"

MISSING = f"warning: Failed to get parameter = {PARAMETER}, errcode = 2"
UNKNOWN = (f"warning: sonobrik_group_conf_get_max_group_index can not determine the value of "
           f"'{PARAMETER}'")


@pytest.fixture
def bounded(sandbox):
    """Returns a function that starts the daemon with this text as the bound; None sets no bound."""
    def start(value):
        sandbox.set_parameters({} if value is None else {PARAMETER: value})
        return Store(sandbox).start()
    return start


def add(store):
    return store.call("AddConfiguration", "(i)", -1)[0]


@pytest.mark.parametrize("bound", [1, 3])
def test_a_full_store_logs_its_last_index(bounded, bound):
    store = bounded(str(bound))
    assert [add(store) for _ in range(bound)] == list(range(bound))
    store.fail("AddConfiguration", "(i)", -1)
    assert store.take_log() == [index_taken(bound - 1), not_created(-1)]
    assert sorted(store.list()) == [f"M{index}.json" for index in range(bound)]


def test_the_last_free_index_is_found(bounded):
    store = bounded("3")
    for index in (0, 1):
        store.write(f"M{index}.json", write_record())
    assert add(store) == 2


def test_a_full_store_refuses_a_clip(bounded):
    store = bounded("1")
    assert store.add_clip("/etc/audioclips/a.wav") == 0
    store.refuse_clip("/etc/audioclips/b.wav")
    assert store.take_log() == [NO_CONTROLS, NO_CONTROLS_FOR_CLIP, index_taken(0)]


def test_indexes_end_below_the_bound(bounded):
    store = bounded("3")
    store.fail("AddConfiguration", "(i)", 3)
    assert store.take_log() == [NO_FREE_INDEX, not_created(3)]
    assert store.call("AddConfiguration", "(i)", 2) == (2,)


def test_a_bound_of_zero_is_read_at_each_call(sandbox, bounded):
    store = bounded("0")
    store.write("M0.json", write_record())
    for index in (-1, 0):
        store.fail("AddConfiguration", "(i)", index)
        assert store.take_log() == [NO_FREE_INDEX, not_created(index)]
    store.fail("GetConfigurationEntry", "(is)", 0, "Name")
    assert store.take_log() == [invalid_index(0)]
    sandbox.set_parameters({PARAMETER: "2"})
    assert store.call("GetConfigurationEntry", "(is)", 0, "Name") == ("Name", "")
    assert add(store) == 1


def test_a_bound_below_zero_leaves_no_index(bounded):
    store = bounded("-3")
    for index in (-1, 0, -4):
        store.fail("AddConfiguration", "(i)", index)
        assert store.take_log() == [NO_FREE_INDEX, not_created(index)]


@pytest.mark.parametrize("value, reason", [
    (None, [MISSING]), ("many", []), ("", []), ("3x", []), ("2.5", []), ("0x10", []),
    ("99999999999", [])])
def test_without_a_bound_no_index_is_valid_until_there_is_one(sandbox, bounded, value, reason):
    store = bounded(value)
    store.write("M0.json", write_record("/x", "Door", "audio"))
    once = [*reason, UNKNOWN]
    store.fail("AddConfiguration", "(i)", -1)
    assert store.take_log() == [*once, *once, NO_FREE_INDEX, not_created(-1)]
    store.fail("AddConfiguration", "(i)", 1)
    assert store.take_log() == [*once, NO_FREE_INDEX, not_created(1)]
    store.fail("RemoveConfiguration", "(i)", 0)
    assert store.take_log() == [*once, invalid_index(0), not_removed(0)]
    store.refuse_clip("/etc/audioclips/a.wav")
    assert store.take_log() == [*once, *once, NO_FREE_INDEX]
    # Existing clips are still listed.
    assert store.call("GetConfigurations") == (
        {0: {"Location": "/x", "Name": "Door", "Type": "audio"}},)
    assert store.take_log() == []
    sandbox.set_parameters({PARAMETER: "+2"})
    assert add(store) == 1


def test_a_bound_is_cached_until_the_next_start(sandbox, bounded):
    store = bounded("2")
    # The daemon has not read the parameter yet.
    sandbox.set_parameters({PARAMETER: "1"})
    assert add(store) == 0
    sandbox.set_parameters({PARAMETER: "3"})
    store.fail("AddConfiguration", "(i)", -1)
    assert store.take_log() == [index_taken(0), not_created(-1)]
    sandbox.set_parameters(None)
    store.fail("AddConfiguration", "(i)", 1)
    assert store.take_log() == [NO_FREE_INDEX, not_created(1)]
    sandbox.set_parameters({PARAMETER: "3"})
    assert sandbox.daemon.stop() == 0
    store.start()
    assert [add(store), add(store)] == [1, 2]
