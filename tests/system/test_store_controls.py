"""Registration with the on-screen controls: its content, its times, and controls that fail.

The controls are a mock.
"""


import pytest
from sandbox import Player, Store, clips, wait_until
from sandbox.bus import DRIVER
from sandbox.controls import Controls, Monitor
from sandbox.log_lines import (NO_CONTROLS, NO_CONTROLS_AT_START, NO_CONTROLS_FOR_CLIP,
                               NO_CONTROLS_FOR_SYNC, NO_VENDOR_SINK, START)
from sandbox.player import EVENTS_NAME, NAME
from sandbox.store import LEGACY_NAME, write_record

FAILED = "error: Failed to execute sd-bus command (line 135): {}"

DOCUMENT = (
    '{"name":"playClip","niceName":"Play sono brik","featureGroups":[],"features":['
    '{"user":["operator"],"info":"Select clip","name":"sonobrik","niceName":"Select clip",'
    '"requestType":"GET","requestURL":"/vesk-cgi/sonobrik.cgi?action=play&clip={clip}",'
    '"parameters":{"clip":{"niceName":"Clip","type":"multiOptions","values":[%s]}}},'
    '{"user":["operator"],"info":"Stop clip","name":"stopclip","niceName":"Stop clip",'
    '"requestType":"GET","requestURL":"/vesk-cgi/sonobrik.cgi?action=stop"}]}')


@pytest.fixture
def controls(sandbox):
    return Controls(sandbox)


@pytest.fixture
def held_call(sandbox, controls, long):
    """Starts the daemon, plays a long clip, and makes the controls hold back their replies.

    Returns the store and the pending reply of PlayClip.
    """
    return play_and_hold(sandbox, controls, long)


def play_and_hold(sandbox, controls, clip):
    store = Store(sandbox).start()
    reply = Player(sandbox.bus).send("PlayClip", clip.location)
    wait_until(lambda: sandbox.card(0).frames > 0, 20, "the clip is playing")
    controls.hold()
    return store, reply


def fence(bus):
    """Waits until everything that the daemon has sent so far has been delivered."""
    bus.call(*DRIVER, "GetId")


# What is registered, and when


def test_the_start_registers_the_features(sandbox, controls):
    monitor = Monitor(sandbox, "member=AddFeatures")
    Store(sandbox).start()
    call, = monitor.wait(1)
    assert (call["type"], call["destination"], call["path"], call["interface"]) == (
        "method_call", "com.vesk.Onscreencontrols1", "/com/vesk/Onscreencontrols1",
        "com.vesk.Onscreencontrols1")
    assert call["payload"] == {
        "type": "sssa{sv}", "data": ["en-us", "English", DOCUMENT % "", {}]}
    assert sandbox.daemon.texts == [NO_VENDOR_SINK]


def test_all_clips_are_registered_in_directory_order(sandbox, controls):
    store = Store(sandbox)
    names = {4: "Door", 1: "Glöckchen \\\"♫\\\"", 12: "", 7: "Bell"}
    for index, name in names.items():
        store.write(f"M{index}.json", '{"location": "/x", "type": "", "name": "%s"}' % name)
    store.start()
    values = (f'{{"niceName":"{names[int(name[1:-5])]}","value":{name[1:-5]}}}'
              for name in store.list())
    assert controls.calls == [["en-us", "English", DOCUMENT % ",".join(values), {}]]


def test_a_clip_whose_name_cannot_be_sent_is_left_out(sandbox, controls):
    store = Store(sandbox)
    store.write("M0.json", write_record("/x", "Door\ufffe"))
    store.write("M1.json", write_record("/x", "Bell"))
    store.start()
    assert controls.clips == [("Bell", 1)]
    assert sandbox.daemon.texts == [
        NO_VENDOR_SINK,
        "warning: Left out '/etc/dynamic/sonobrik/clip_data/M0.json', which contains text that "
        "D-Bus cannot transmit"]


def test_only_an_added_clip_and_a_sync_register_again(sandbox, controls):
    store = Store(sandbox).start()
    assert store.call("AddConfiguration", "(i)", 3) == (3,)
    store.rename(3, "Three")
    store.call("GetConfigurations")
    store.refuse_clip("/elsewhere", "x")
    store.get_metadata()
    assert len(controls.calls) == 1
    store.call("Sync")
    assert (len(controls.calls), controls.clips) == (2, [("Three", 3)])
    store.call("RemoveConfiguration", "(i)", 3)
    assert len(controls.calls) == 2
    assert store.add_clip("/etc/audioclips/a.wav", "Zero") == 0
    assert (len(controls.calls), controls.clips) == (3, [("Zero", 0)])
    store.call("Sync")
    assert len(controls.calls) == 4
    assert NO_CONTROLS not in store.take_log()


def test_all_registrations_use_one_connection(sandbox, controls):
    monitor = Monitor(sandbox, "member=AddFeatures")
    store = Store(sandbox).start()
    store.call("Sync")
    store.add_clip("/etc/audioclips/a.wav")
    assert len({call["sender"] for call in monitor.wait(3)}) == 1


# Controls that are absent or fail


def test_the_daemon_works_without_the_controls(sandbox):
    store = Store(sandbox).start()
    assert sandbox.daemon.texts == START
    assert store.add_clip("/etc/audioclips/a.wav", "A") == 0
    assert store.take_log() == [NO_CONTROLS, NO_CONTROLS_FOR_CLIP]
    assert store.call("Sync") == ()
    assert store.take_log() == [NO_CONTROLS, NO_CONTROLS_FOR_SYNC]
    # Controls that start later are called at the next registration.
    late = Controls(sandbox)
    store.call("Sync")
    assert late.clips == [("A", 0)]
    assert store.take_log() == []


def test_a_refused_registration_changes_no_reply(sandbox, controls):
    controls.refuse()
    store = Store(sandbox).start()
    refused = FAILED.format("Input/output error")
    assert sandbox.daemon.texts == [
        NO_VENDOR_SINK, refused, NO_CONTROLS_AT_START]
    assert store.add_clip("/etc/audioclips/a.wav") == 0
    assert store.call("Sync") == ()
    assert store.take_log() == [refused, NO_CONTROLS_FOR_CLIP, refused, NO_CONTROLS_FOR_SYNC]


def test_controls_that_end_before_replying_change_no_reply(sandbox, controls):
    store = Store(sandbox).start()
    controls.hold()
    sync = store.send("Sync")
    controls.wait_asked()
    controls.process.kill()
    assert sync.wait() == ()
    assert store.take_log()[-1] == NO_CONTROLS_FOR_SYNC


def test_a_registration_without_a_reply_times_out(sandbox, controls):
    # The default time-out is 25 s.
    store = Store(sandbox).start(env={"SYSTEMD_BUS_TIMEOUT": "1"})
    controls.hold()
    assert store.add_clip("/etc/audioclips/a.wav") == 0
    assert store.take_log() == [FAILED.format("Connection timed out"), NO_CONTROLS_FOR_CLIP]
    controls.release()
    store.call("Sync")
    assert store.take_log() == []


@pytest.mark.parametrize("size", [0, 10000000])
def test_the_text_of_a_refusal_is_not_used(sandbox, controls, size):
    store = Store(sandbox).start()
    controls.reply_with_error(size)
    for _ in range(3):
        assert store.call("Sync") == ()
        assert store.take_log() == [FAILED.format("Input/output error"), NO_CONTROLS_FOR_SYNC]
    assert Player(sandbox.bus).call("StopPlayingClip") == "OK"


@pytest.mark.parametrize("signature, code", [
    ("i", "7"), ("s", "'x' * 10000000"), ("a{sv}", "{'a': 1}"), ("as", "['x'] * 100000")])
def test_values_in_the_reply_are_ignored(sandbox, controls, signature, code):
    store = Store(sandbox).start()
    controls.reply_with_values(signature, code)
    for _ in range(3):
        assert store.call("Sync") == ()
    assert store.take_log() == []
    assert Player(sandbox.bus).call("StopPlayingClip") == "OK"


def test_controls_that_die_in_each_of_many_calls_leave_nothing(sandbox):
    store = Store(sandbox).start()
    files = None
    for _ in range(5):
        controls = Controls(sandbox)
        controls.hold()
        sync = store.send("Sync")
        controls.wait_asked()
        controls.process.kill()
        assert sync.wait() == ()
        wait_until(lambda: sandbox.bus.get_owner("com.vesk.Onscreencontrols1") is None, 10,
                   "the name is free")
        assert store.take_log()[-1] == NO_CONTROLS_FOR_SYNC
        files = files or sandbox.daemon.count_descriptors()
        # More are open while the daemon rehearses a clip after its start.
        wait_until(lambda: sandbox.daemon.count_descriptors() <= files, 10, "nothing else is open")


# Controls that are slow to reply


def test_the_daemon_owns_no_name_until_the_controls_reply(sandbox, controls):
    controls.hold()
    sandbox.start_daemon(wait=False)
    controls.wait_asked()
    assert sandbox.bus.get_owner(EVENTS_NAME)
    assert sandbox.bus.get_owner(LEGACY_NAME) is None
    assert sandbox.bus.get_owner(NAME) is None
    controls.release()
    for name in (LEGACY_NAME, NAME):
        wait_until(lambda: sandbox.bus.get_owner(name), 20, f"{name} has an owner")


def test_add_clip_replies_after_the_controls(sandbox, controls):
    store = Store(sandbox).start()
    controls.hold()
    added = store.send_clip("/etc/audioclips/a.wav", "A")
    controls.wait_asked()
    fence(sandbox.bus)
    assert not added.done
    assert store.read(0) == write_record("/etc/audioclips/a.wav", "A", "audio")
    controls.release()
    assert added.wait() == (0,)


def test_the_change_notice_is_sent_before_the_registration(sandbox, controls):
    monitor = Monitor(sandbox, "member=AddFeatures", "member=EntryChanged")
    store = Store(sandbox).start()
    controls.hold()
    added = store.send_clip("/etc/audioclips/a.wav", "A")
    controls.wait_asked()
    assert [message["member"] for message in monitor.wait(3)] == [
        "AddFeatures", "EntryChanged", "AddFeatures"]
    assert not added.done
    controls.release()
    assert added.wait() == (0,)


def test_sync_replies_after_the_controls(sandbox, controls):
    store = Store(sandbox).start()
    controls.hold()
    sync = store.send("Sync")
    controls.wait_asked()
    fence(sandbox.bus)
    assert not sync.done
    controls.release()
    assert sync.wait() == ()


def test_play_clip_replies_while_sync_waits_for_the_controls(sandbox, controls, held_call):
    store, played = held_call
    daemon = sandbox.daemon
    daemon.pause()
    # All three calls have arrived when the daemon continues. The first one delays Sync on its
    # connection, so the daemon handles StopPlayingClip before Sync.
    first = store.send("GetConfigurations")
    stopped = Player(sandbox.bus).send("StopPlayingClip")
    sync = store.send("Sync")
    fence(sandbox.bus)
    daemon.go_on()
    controls.wait_asked()
    assert (played.wait(), stopped.wait()) == (("OK",), ("OK",))
    assert first.done
    assert not sync.done
    controls.release()
    assert sync.wait() == ()


def test_play_clip_replies_while_add_clip_waits_for_the_controls(sandbox, controls,
                                                                         held_call):
    store, played = held_call
    daemon = sandbox.daemon
    daemon.pause()
    stopped = Player(sandbox.bus).send("StopPlayingClip")
    added = store.send_clip("/etc/audioclips/a.wav")
    fence(sandbox.bus)
    daemon.go_on()
    controls.wait_asked()
    assert (played.wait(), stopped.wait()) == (("OK",), ("OK",))
    assert not added.done
    controls.release()
    assert added.wait() == (0,)


def test_a_clip_keeps_playing_while_sync_waits_for_the_controls(sandbox, controls):
    clip = sandbox.write_clip("a.wav", clips.noise(24000))
    store, played = play_and_hold(sandbox, controls, clip)
    sync = store.send("Sync")
    controls.wait_asked()
    wait_until(lambda: sandbox.card(0).takes[0].find(clip.samples) >= 0, 20, "the clip has played")
    assert not played.done
    controls.release()
    assert (sync.wait(), played.wait()) == ((), ("OK",))
