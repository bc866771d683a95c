"""Which output plays a clip, and what callers get if their sound card misbehaves."""

import time

import pytest
from sandbox import BusError, Player, clips, wait_until
from sandbox.log_lines import START

CANNOT_PLAY = "Error playing clip: Could not set receive pipeline to playing.."


def find_nothing(device, output, number=-1):
    """Returns the log lines of a clip that plays on an output without events."""
    where = (f"Failed to find event id for audio output {number} or audio device id {device} and "
             f"audio output id {output}")
    return [f"warning: {operation} {where}" for operation in (
        "sonobrik_events_set_file_state", "event_set_file_mainloop",
        "sonobrik_events_set_file_state")]


@pytest.fixture
def clip(sandbox):
    """50 ms."""
    return sandbox.write_clip("a.wav", clips.noise(2400))


@pytest.fixture
def serve(sandbox):
    """Returns a function that starts the daemon with these outputs and returns its player."""
    def start(*outputs):
        sandbox.set_outputs(list(outputs))
        sandbox.start_daemon()
        return Player(sandbox.bus)
    return start


def heard_on(sandbox, clip):
    """Returns the cards that have played the clip, as (device, output)."""
    return [(device, output) for device in range(8) for output in range(3)
            if any(take.find(clip.samples) >= 0 for take in sandbox.card(device, output).takes)]


# The choice


@pytest.mark.parametrize("option, card", [
    ("", (1, 0)),
    ("&audiooutput=", (1, 0)),
    ("&audiodeviceid=3", (1, 0)),
    ("&audiooutputid=1", (1, 0)),
    ("&audiooutput=1", (1, 0)),
    ("&audiooutput=3", (3, 0)),
    ("&audiooutput=5", (5, 0)),
    ("&audiooutput=%2B3", (3, 0)),
    ("&audiooutput=3&audiodeviceid=5&audiooutputid=0", (3, 0)),
    ("&audiooutput=3&audiodeviceid=x", (3, 0)),
    ("&audiodeviceid=5&audiooutputid=0", (5, 0)),
    ("&audiodeviceid=7&audiooutputid=0", (7, 0)),
])
def test_a_clip_sounds_where_its_options_say(sandbox, serve, clip, option, card):
    player = serve("audiosink1", "audiosink3", "device3_output1", "device3_output0", "audiosink5",
                   "device5_output0", "audiosink7", "device7_output0")
    assert player.call("PlayClip", clip.location + option) == "OK"
    assert heard_on(sandbox, clip) == [card]
    device, output = card
    player.fence()
    output_keys = (device + 1, device, output)
    assert player.events == [("Playing", *output_keys, True),
                             ("CurrentlyPlaying", *output_keys, clip.path),
                             ("Playing", *output_keys, False)]
    assert sandbox.daemon.stop() == 0
    assert sandbox.daemon.texts == START


@pytest.mark.parametrize("value", ["0", "2", "6", "7", "-1", "4294967297", "one", "1x", "0x1"])
def test_an_output_that_does_not_exist_is_refused(sandbox, serve, clip, value):
    player = serve("audiosink1", "audiosink7")
    options = f"{clip.location}&audiooutput={value}"
    assert player.fail("PlayClip", options) == (
        f"Failed to parse/validate option string: '{options}'")
    assert sandbox.daemon.texts == START + [f"info: Invalid 'audiooutput' option index: '{value}'."]


@pytest.mark.parametrize("pair", [
    "audiodeviceid=x&audiooutputid=0", "audiodeviceid=1&audiooutputid=x",
    "audiodeviceid=-1&audiooutputid=0", "audiodeviceid=0&audiooutputid=-1",
    "audiodeviceid=2147483648&audiooutputid=0"])
def test_a_bad_pair_is_refused_without_a_word(sandbox, serve, clip, pair):
    player = serve("audiosink0", "device0_output0")
    options = f"{clip.location}&{pair}"
    assert player.fail("StartPlayingClip", options) == (
        f"Failed to parse/validate option string: '{options}'")
    assert sandbox.daemon.texts == START


@pytest.mark.parametrize("outputs, lines", [
    ([], ["info: No audio devices found"] * 6),
    (["audiosink6"], []),
    (["device0_output0"], ["info: No audio devices found"] * 6),
])
def test_without_a_suitable_output_none_is_chosen(sandbox, serve, clip, outputs, lines):
    player = serve(*outputs)
    started = len(sandbox.daemon.texts)
    assert player.fail("PlayClip", clip.location) == (
        f"Failed to parse/validate option string: '{clip.location}'")
    assert sandbox.daemon.texts[started:] == [
        *lines, "info: No audiooutput was specified, could not find a suitable device."]


def test_a_pair_that_does_not_exist_cannot_be_played(sandbox, serve, clip):
    player = serve("audiosink0")
    options = f"{clip.location}&audiodeviceid=9&audiooutputid=9"
    assert player.fail("PlayClip", options) == CANNOT_PLAY
    assert player.call("PlayClip", clip.location) == "OK"
    assert heard_on(sandbox, clip) == [(0, 0)]


def test_a_play_on_a_second_output_finds_no_events(sandbox, serve, clip):
    player = serve("audiosink0", "device0_output0", "device0_output1")
    assert player.call("PlayClip", f"{clip.location}&audiodeviceid=0&audiooutputid=1") == "OK"
    assert heard_on(sandbox, clip) == [(0, 1)]
    wait_until(lambda: len(sandbox.daemon.texts) == len(START) + 3,
               what="the log has three more lines")
    assert sandbox.daemon.texts == START + find_nothing(0, 1)
    player.fence()
    assert player.events == []


def test_an_output_that_is_added_while_the_daemon_runs_is_played(sandbox, serve, clip):
    player = serve("audiosink0")
    assert "Failed to parse" in player.fail("PlayClip", f"{clip.location}&audiooutput=2")
    sandbox.set_outputs(["audiosink0", "audiosink2"])
    assert player.call("PlayClip", f"{clip.location}&audiooutput=2") == "OK"
    assert heard_on(sandbox, clip) == [(2, 0)]
    assert player.events == []  # only the outputs at start-up have events
    assert sandbox.daemon.texts[len(START) + 1:] == find_nothing(-1, -1, 2)


def test_an_output_that_is_removed_while_the_daemon_runs_is_refused(sandbox, serve, clip):
    player = serve("audiosink0", "audiosink2")
    assert player.call("PlayClip", f"{clip.location}&audiooutput=2") == "OK"
    sandbox.set_outputs(["audiosink2"])
    options = f"{clip.location}&audiooutput=0"
    assert player.fail("PlayClip", options) == (
        f"Failed to parse/validate option string: '{options}'")
    assert player.call("PlayClip", clip.location) == "OK"
    assert heard_on(sandbox, clip) == [(2, 0)]


# Sound cards that misbehave


OPEN_ERRORS = {
    "busy": "Could not open audio device for playback. Device is being used by another application.",
    "gone": "Could not open audio device for playback.",
}


@pytest.mark.parametrize("trouble", OPEN_ERRORS)
def test_a_card_that_cannot_be_opened_is_told_and_forgotten(sandbox, serve, clip, trouble):
    player = serve("audiosink0")
    sandbox.card(0).set_trouble(trouble)
    for method in ("PlayClip", "StartPlayingClip"):
        for _ in range(2):
            assert player.fail(method, clip.location) == CANNOT_PLAY
    assert sandbox.daemon.texts == START + [
        f"error: Error received from element 'alsasink': {OPEN_ERRORS[trouble]}"] * 4
    assert player.call("StopPlayingClip") == "OK"
    player.fence()
    assert player.events == []
    sandbox.card(0).set_trouble(trouble, False)
    assert player.call("PlayClip", clip.location) == "OK"
    assert heard_on(sandbox, clip) == [(0, 0)]


def test_a_card_that_goes_while_it_plays_ends_the_clip(sandbox, serve, clip):
    player = serve("audiosink0")
    long = sandbox.write_clip("long.wav", clips.noise(480000, seed=1))
    held = player.send("PlayClip", long.location)
    wait_until(lambda: sandbox.card(0).frames > 0, what="it sounds")
    sandbox.card(0).set_trouble("gone")
    assert held.wait() == ("OK",)
    player.fence()
    assert [event[-1] for event in player.events] == [True, long.path, False]
    assert sandbox.daemon.texts == START + [
        "error: Error received from element 'alsasink': Error outputting to audio device. "
        "The device has been disconnected."]
    sandbox.card(0).set_trouble("gone", False)
    assert player.call("PlayClip", clip.location) == "OK"
    assert heard_on(sandbox, clip) == [(0, 0)]


@pytest.fixture
def stuck(sandbox, serve):
    """A player with a clip that is playing on a card that has stopped consuming samples."""
    player = serve("audiosink0")
    long = sandbox.write_clip("long.wav", clips.noise(480000, seed=1))
    sandbox.card(0).set_trouble("stuck")
    assert player.call("StartPlayingClip", long.location) == "OK"
    # The sink now waits for room in the buffer of the card.
    wait_until(lambda: sandbox.card(0).count("full") > 0, what="the card's buffer is full")
    assert sandbox.card(0).frames == 0
    return player


def test_callers_are_served_while_a_card_is_stuck(sandbox, stuck, clip):
    assert stuck.call("SupportedFile", clip.path) == "OK"
    assert stuck.fail("PlayClip", clip.location) == "A clip is already playing."
    sandbox.card(0).set_trouble("stuck", False)
    wait_until(lambda: sandbox.card(0).frames > 0, what="it sounds")
    assert stuck.call("StopPlayingClip") == "OK"
    assert stuck.call("PlayClip", clip.location) == "OK"
    assert heard_on(sandbox, clip) == [(0, 0)]


TOO_LONG = ["warning: It took too long to set the pipeline to GST_STATE_NULL.",
            "error: Could not set the pipeline to GST_STATE_NULL."]


def test_a_stop_that_a_stuck_card_prevents_ends_the_daemon(sandbox, stuck):
    began = time.monotonic()
    stop = stuck.send("StopPlayingClip")
    assert sandbox.daemon.wait_exit() == 1
    # One limit of 3 s, not one for the state change and another one for the wait.
    assert 3 <= time.monotonic() - began < 6
    assert sandbox.daemon.texts[len(START) + 1:] == TOO_LONG
    with pytest.raises(BusError) as error:
        stop.wait()
    assert error.value.name == "org.freedesktop.DBus.Error.NoReply"


def test_a_stuck_card_does_not_keep_the_daemon_from_ending_well(sandbox, stuck):
    assert sandbox.daemon.stop() == 0
    assert sandbox.daemon.texts[len(START) + 1:] == TOO_LONG
