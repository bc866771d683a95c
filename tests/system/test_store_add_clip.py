"""AddClip: which clips are accepted, what is stored, and which notices are sent."""

import pytest
from sandbox import BusError
from sandbox.controls import Controls, Monitor
from sandbox.log_lines import NO_CONTROLS, NO_CONTROLS_FOR_CLIP
from sandbox.player import EVENTS_NAME, NAME, PATH
from sandbox.store import Store, fence_changes, subscribe_changes, write_record

NO_CONTROLS_TO_TELL = [NO_CONTROLS, NO_CONTROLS_FOR_CLIP]


def change(number, location, name):
    """Returns the arguments of the change notice for a new clip."""
    return ("com.vesk.Sonobrik.Legacy", PATH, "com.vesk.Configuration.Legacy", f"{PATH}/{number}",
            False, {"Location": location, "Name": name, "Type": "audio"})


def test_a_clip_is_stored_and_its_number_returned(store):
    reply = store.send_clip("/etc/audioclips/door.wav", "Tür \"1\"")
    assert (reply.wait(), reply.signature) == ((0,), "i")
    assert store.read(0) == ('{\n  "location": "/etc/audioclips/door.wav",\n'
                             '  "name": "Tür \\"1\\"",\n  "type": "audio",\n  "metadata": {}\n}')
    assert store.take_log() == NO_CONTROLS_TO_TELL


def test_a_clip_gets_the_lowest_free_number(store):
    store.write("M0.json", write_record())
    store.write("M2.json", write_record())
    assert [store.add_clip("/etc/audioclips/a.wav") for _ in range(3)] == [1, 3, 4]


def test_only_the_beginning_of_a_location_is_checked(store):
    # The file need not exist.
    locations = ["/etc/audioclips", "/etc/audioclips/", "/etc/audioclips2/a.wav",
                 "/etc/audioclips/../a.wav", "/etc/audioclips/ä*?.wav"]
    assert [store.add_clip(location) for location in locations] == list(range(5))
    for index, location in enumerate(locations):
        assert store.read(index) == write_record(location, "", "audio")


@pytest.mark.parametrize("location, kind", [
    ("/etc/audioclips/a.wav", "video"), ("/etc/audioclips/a.wav", ""),
    ("/etc/audioclips/a.wav", "Audio"), ("/etc/audioclips/a.wav", "audio "),
    ("/etc/audioclip/a.wav", "audio"), ("/tmp/a.wav", "audio"), ("", "audio"),
    ("etc/audioclips/a.wav", "audio"), (" /etc/audioclips/a.wav", "audio"),
    ("/ETC/audioclips/a.wav", "audio"), ("//etc/audioclips/a.wav", "audio")])
def test_a_clip_of_another_kind_or_place_is_refused(sandbox, store, location, kind):
    changes = subscribe_changes(sandbox.bus)
    store.refuse_clip(location, "A", kind)
    assert store.list() == []
    assert store.take_log() == []
    fence_changes(sandbox.bus)
    assert changes == []


def test_a_string_that_sd_bus_rejects_gets_an_error(store):
    for texts in [("/etc/audioclips/\ufffe", "A", "audio"),
                  ("/etc/audioclips/a", "\uffff", "audio"),
                  ("/etc/audioclips/a", "A", "audio\ufdd0")]:
        store.refuse_clip(*texts, text="Failed to parse parameter(s): Bad message.")
    assert store.list() == []


def test_arguments_of_another_type_are_refused(store):
    for signature, values in [("(ss)", ("/etc/audioclips/a", "A")), ("(ssi)", ("/a", "A", 1)),
                              ("()", ())]:
        with pytest.raises(BusError) as error:
            store.bus.call(NAME, PATH, NAME, "AddClip", signature, *values)
        assert error.value.name == "org.freedesktop.DBus.Error.InvalidArgs"
        assert error.value.text == (f"Invalid arguments '{signature[1:-1]}' to call "
                                    f"{NAME}.AddClip(), expecting 'sss'.")


def test_a_denied_caller_cannot_add_or_read_clips(sandbox, store):
    sandbox.set_access({NAME: {"users": "*"}, f"{NAME}.AddClip": {"users": "nobody"},
                        f"{NAME}.GetMetadata": {"users": "nobody"}})
    for member, signature, values in [("AddClip", "(sss)", ("/etc/audioclips/a", "A", "audio")),
                                      ("GetMetadata", "()", ())]:
        with pytest.raises(BusError) as error:
            store.bus.call(NAME, PATH, NAME, member, signature, *values)
        assert error.value.name == "org.freedesktop.DBus.Error.AccessDenied"
    assert store.list() == []


# Change notices


def test_an_added_clip_is_announced_on_the_wire(sandbox):
    monitor = Monitor(sandbox, "interface=com.vesk.ConfigurationChanges1")
    store = Store(sandbox).start()
    store.add_clip("/etc/audioclips/a.wav", "A")
    signal, = monitor.wait(1)
    assert (signal["type"], signal["path"], signal["member"], signal["payload"]["type"]) == (
        "signal", "/com/vesk/ConfigurationChanges1/SonoBrik", "EntryChanged", "ssssba{ss}")
    assert "destination" not in signal
    assert signal["sender"] == sandbox.bus.get_owner(EVENTS_NAME)
    *about, values = signal["payload"]["data"]
    assert (*about, values) == change(0, "/etc/audioclips/a.wav", "A")
    assert list(values) == ["Location", "Name", "Type"]


def test_each_added_clip_is_announced_once(sandbox, store):
    changes = subscribe_changes(sandbox.bus)
    store.write("M1.json", write_record())
    for name in ("A", "", "Glöckchen ♫"):
        store.add_clip(f"/etc/audioclips/{name}.wav", name)
    fence_changes(sandbox.bus)
    assert [(signal.path, signal.interface, signal.member) for signal in changes] == 3 * [
        ("/com/vesk/ConfigurationChanges1/SonoBrik", "com.vesk.ConfigurationChanges1",
         "EntryChanged")]
    assert [signal.args for signal in changes] == [
        change(0, "/etc/audioclips/A.wav", "A"), change(2, "/etc/audioclips/.wav", ""),
        change(3, "/etc/audioclips/Glöckchen ♫.wav", "Glöckchen ♫")]


def test_the_legacy_interface_announces_nothing(sandbox, store):
    changes = subscribe_changes(sandbox.bus)
    store.call("AddConfiguration", "(i)", 0)
    store.rename(0, "Door")
    store.call("GetConfigurations")
    store.call("Sync")
    store.call("RemoveConfiguration", "(i)", 0)
    store.get_metadata()
    fence_changes(sandbox.bus)
    assert changes == []


def test_a_clip_that_cannot_be_stored_is_not_announced(sandbox):
    controls = Controls(sandbox)
    store = Store(sandbox).start()
    changes = subscribe_changes(sandbox.bus)
    store.folder.chmod(0o555)
    store.refuse_clip("/etc/audioclips/a.wav", "A")
    store.folder.chmod(0o755)
    fence_changes(sandbox.bus)
    assert changes == []
    assert len(controls.calls) == 1  # the call at the start


def test_the_notice_arrives_before_the_reply(sandbox, store):
    changes = subscribe_changes(sandbox.bus)
    added = store.send_clip("/etc/audioclips/a.wav", "A")
    assert added.wait() == (0,)
    assert changes[0].arrival < added.arrival
