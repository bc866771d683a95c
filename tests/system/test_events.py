"""The playing events on the bus: their objects, their order, and what a late reader sees."""

from sandbox import BusError, Player, clips, read_events, wait_until
from sandbox.log_lines import START
from sandbox.player import EVENT_INTERFACE, EVENTS_NAME, EVENTS_PATH

PROPERTIES = "org.freedesktop.DBus.Properties"


def playing_event(output, device, device_output, playing=False):
    return {
        "Topics": [("tnsvesk", "SonoBrik"), ("tnsvesk", "Playing")],
        "Keys": {"topic0": "SonoBrik", "topic1": "Playing", "AudioOutput": output,
                 "AudioDeviceId": device, "AudioOutputId": device_output, "Playing": playing},
        "Tags": {"AudioOutput": "onvif-source", "Playing": "onvif-data"},
        "NiceNames": {"topic0": ("", "Sono Brik"), "topic1": ("", "Playing"),
                      "AudioOutput": ("Audio Output", ""), "AudioDeviceId": ("Audio Device Id", ""),
                      "AudioOutputId": ("Audio Output Id", ""), "Playing": ("Playing Status", "")},
        "StateKey": "Playing",
    }


def currently_playing_event(output, device, device_output, file_name=""):
    return {
        "Topics": [("tnsvesk", "SonoBrik"), ("tnsvesk", "CurrentlyPlaying")],
        "Keys": {"topic0": "SonoBrik", "topic1": "CurrentlyPlaying", "AudioOutput": output,
                 "AudioDeviceId": device, "AudioOutputId": device_output, "FileName": file_name},
        "Tags": {"AudioOutput": "onvif-source", "FileName": "onvif-data"},
        "NiceNames": {"topic0": ("", "Sono Brik"), "topic1": ("", "Currently Playing Sono Brik"),
                      "AudioOutput": ("Audio Output", ""), "AudioDeviceId": ("Audio Device Id", ""),
                      "AudioOutputId": ("Audio Output Id", ""), "FileName": ("File Name", "")},
        "StateKey": "",
    }


def test_each_output_has_its_two_events(sandbox):
    # Only the lowest output of a device has events.
    sandbox.set_outputs(["audiosink10", "audiosink2", "device2_output4", "device2_output1",
                         "audiosink0"])
    sandbox.start_daemon()
    outputs = [(1, 0, 0), (3, 2, 1), (11, 10, 0)]
    events = [playing_event(*output) for output in outputs]
    events += [currently_playing_event(*output) for output in outputs]
    assert read_events(sandbox.bus) == {
        f"{EVENTS_PATH}/{number}": event for number, event in enumerate(events, 1)}


def test_without_outputs_there_are_no_events(sandbox):
    sandbox.set_outputs([])
    sandbox.start_daemon()
    assert read_events(sandbox.bus) == {}


def test_the_values_have_their_types(sandbox, daemon):
    reply = sandbox.bus.send(EVENTS_NAME, f"{EVENTS_PATH}/1", PROPERTIES, "Get", "(ss)",
                             EVENT_INTERFACE, "Keys")
    reply.wait()
    assert reply.signature == "v"
    shown = sandbox.run(["busctl", "--system", "get-property", EVENTS_NAME, f"{EVENTS_PATH}/1",
                         EVENT_INTERFACE, "Keys"]).stdout.strip()
    assert shown == ('a{sv} 6 "topic0" s "SonoBrik" "topic1" s "Playing" "AudioOutput" i 1 '
                     '"AudioDeviceId" i 0 "AudioOutputId" i 0 "Playing" b false')


def test_the_properties_cannot_be_written(sandbox, daemon):
    for name, value in (("StateKey", '"x"'), ("Keys", "{}")):
        result = sandbox.run(["dbus-send", "--system", "--print-reply", f"--dest={EVENTS_NAME}",
                              f"{EVENTS_PATH}/1", f"{PROPERTIES}.Set", f"string:{EVENT_INTERFACE}",
                              f"string:{name}", f"variant:string:{value}"], check=False)
        assert "org.freedesktop.DBus.Error.PropertyReadOnly" in result.stderr


def test_events_are_sent_at_the_start_and_end_of_a_clip(sandbox, player, clip):
    assert player.call("PlayClip", clip.location) == "OK"
    player.fence()
    assert player.events == [
        ("Playing", 1, 0, 0, True),
        ("CurrentlyPlaying", 1, 0, 0, clip.path),
        ("Playing", 1, 0, 0, False),
    ]


def test_the_signals_come_from_the_objects_and_carry_all_keys(sandbox, daemon, clip):
    signals = sandbox.bus.subscribe(sender=EVENTS_NAME, interface=EVENT_INTERFACE, member="Sent")
    assert Player(sandbox.bus).call("PlayClip", clip.location) == "OK"
    wait_until(lambda: len(signals) == 3, what="three events arrived")
    assert [(signal.path, signal.args) for signal in signals] == [
        (f"{EVENTS_PATH}/1", (playing_event(1, 0, 0, True)["Keys"],)),
        (f"{EVENTS_PATH}/2", (currently_playing_event(1, 0, 0, clip.path)["Keys"],)),
        (f"{EVENTS_PATH}/1", (playing_event(1, 0, 0, False)["Keys"],)),
    ]


def test_the_end_event_is_sent_after_the_card_is_closed(sandbox, daemon, clip):
    player = Player(sandbox.bus)
    signals = sandbox.bus.subscribe(interface=EVENT_INTERFACE, member="Sent")
    player.send("PlayClip", clip.location)
    closed = []

    def ended():
        if len(signals) == 3 and not closed:
            closed.append(not sandbox.card(0).is_open)
        return closed

    wait_until(ended, what="the end event arrived")
    assert closed == [True]


def test_a_late_reader_sees_what_is_playing(sandbox, player, long):
    assert player.call("StartPlayingClip", f"{long.location}") == "OK"
    wait_until(lambda: len(player.events) == 2, what="the event with the file name arrived")
    late = sandbox.connect()
    assert read_events(late) == {
        f"{EVENTS_PATH}/1": playing_event(1, 0, 0, True),
        f"{EVENTS_PATH}/2": currently_playing_event(1, 0, 0, long.path),
    }
    assert player.call("StopPlayingClip") == "OK"
    # CurrentlyPlaying is not stateful, so it keeps the last file name.
    assert read_events(late) == {
        f"{EVENTS_PATH}/1": playing_event(1, 0, 0, False),
        f"{EVENTS_PATH}/2": currently_playing_event(1, 0, 0, long.path),
    }
    late.close()


def test_the_first_clip_after_the_start_sends_events_too(sandbox, clip):
    daemon = sandbox.start_daemon(wait=False)
    player = Player(sandbox.bus)

    def called():
        try:
            return player.call("PlayClip", clip.location)
        except BusError as error:
            assert error.name == "org.freedesktop.DBus.Error.ServiceUnknown"
            return None

    assert wait_until(called, 30, "the daemon answers") == "OK"
    player.fence()
    assert [event[-1] for event in player.events] == [True, clip.path, False]
    assert daemon.stop() == 0


def test_a_refused_request_sends_no_events(sandbox, player, clip, long):
    player.fail("PlayClip", "location=/etc/audioclips/missing.wav")
    assert player.call("StartPlayingClip", long.location) == "OK"
    player.fail("StartPlayingClip", clip.location)
    assert player.call("StopPlayingClip") == "OK"
    assert player.call("StopPlayingClip") == "OK"
    player.fence()
    # The file name is sent when the main loop is idle, so the stop event may come before it.
    wait_until(lambda: len(player.events) == 3, what="three events arrived")
    assert sorted(map(str, player.events)) == sorted(map(str, [
        ("Playing", 1, 0, 0, True), ("CurrentlyPlaying", 1, 0, 0, long.path),
        ("Playing", 1, 0, 0, False)]))


def test_without_the_events_name_clips_play_without_events(sandbox, clip):
    sandbox.bus.own_name(EVENTS_NAME)
    daemon = sandbox.start_daemon()
    player = Player(sandbox.bus)
    assert player.call("PlayClip", clip.location) == "OK"
    assert sandbox.card(0).takes[0].find(clip.samples) >= 0
    assert daemon.stop() == 0
    not_found = ("warning: sonobrik_events_set_file_state Failed to find event id for audio output "
                 "0 or audio device id -1 and audio output id -1")
    # The file name waits for a declaration that never completes, and is dropped without a log line.
    assert daemon.texts == [
        "warning: Events cannot be sent: com.vesk.Events1.SonoBrikEvents cannot be served on the "
        "system bus: File exists",
        "warning: Unable to create param event object",
        *START,
        not_found,
        not_found,
    ]


def test_invalid_characters_in_a_file_name_are_replaced(sandbox, player):
    clip = sandbox.write_clip("a\ufffe\ufdd0.wav", clips.noise(480))
    assert player.call("PlayClip", "location=/etc/audioclips/a%EF%BF%BE*") == "OK"
    assert sandbox.card(0).takes[0].find(clip.samples) >= 0
    assert player.events[1][-1] == "/etc/audioclips/a\ufffd\ufffd.wav"
