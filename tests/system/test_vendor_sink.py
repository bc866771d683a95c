"""On a device with a vendor sink element, the daemon plays through that instead of ALSA."""

import pytest
from sandbox import Player, clips, wait_until
from sandbox.log_lines import START, VENDOR_START


@pytest.fixture
def clip(sandbox):
    """50 ms."""
    return sandbox.write_clip("a.wav", clips.noise(2400))


@pytest.fixture
def vendor(sandbox):
    """Starts the daemon on such a device and returns its player."""
    sandbox.start_daemon(vendor_sink=True)
    return Player(sandbox.bus)


def opened(sandbox):
    return [event.fields for event in sandbox.vendor_sink.events if event.name == "open"]


def test_a_clip_plays_through_the_sink_of_the_device(sandbox, vendor, clip):
    assert vendor.call("PlayClip", clip.location) == "OK"
    take, = sandbox.vendor_sink.takes
    assert take.find(clip.samples) >= 0
    assert opened(sandbox) == [{"source-id": "BRIMOSonoBrik"}]
    params, = [event.fields for event in sandbox.vendor_sink.events if event.name == "params"]
    assert params["latency-time"] == "20000"
    assert not sandbox.vendor_sink.is_open
    assert sandbox.card(0).events == []
    assert sandbox.daemon.stop() == 0
    assert sandbox.daemon.texts == VENDOR_START


def test_without_such_a_sink_the_log_says_so_and_alsa_plays(sandbox, player, clip):
    assert player.call("PlayClip", clip.location) == "OK"
    assert sandbox.card(0).takes[0].find(clip.samples) >= 0
    assert sandbox.vendor_sink.events == []
    assert sandbox.daemon.texts == START


@pytest.mark.parametrize("options", [
    "&audiooutput=3", "&audiooutput=x", "&audiodeviceid=7&audiooutputid=2",
    "&audiodeviceid=x&audiooutputid=-1"])
def test_the_options_that_choose_an_output_are_ignored(sandbox, vendor, clip, options):
    assert vendor.call("PlayClip", clip.location + options) == "OK"
    assert sandbox.vendor_sink.takes[0].find(clip.samples) >= 0
    vendor.fence()
    assert vendor.events == [
        ("Playing", 1, 0, 0, True), ("CurrentlyPlaying", 1, 0, 0, clip.path),
        ("Playing", 1, 0, 0, False)]


def test_no_audio_device_is_needed_but_for_the_events(sandbox, clip):
    sandbox.set_outputs(["audiosink2"])
    daemon = sandbox.start_daemon(vendor_sink=True)
    player = Player(sandbox.bus)
    assert player.call("PlayClip", clip.location) == "OK"
    assert sandbox.vendor_sink.takes[0].find(clip.samples) >= 0
    where = ("Failed to find event id for audio output 0 or audio device id -1 and audio output id "
             "-1")
    assert daemon.texts == VENDOR_START + [f"warning: {operation} {where}" for operation in (
        "sonobrik_events_set_file_state", "event_set_file_mainloop",
        "sonobrik_events_set_file_state")]


def test_the_other_options_hold(sandbox, vendor, clip):
    assert vendor.fail("PlayClip", f"{clip.location}&volume=1001") == (
        f"Failed to parse/validate option string: '{clip.location}&volume=1001'")
    assert vendor.call("PlayClip", f"{clip.location}&volume=0") == "OK"
    assert not any(sandbox.vendor_sink.takes[0].samples)


def test_the_sink_serves_one_request_after_the_other(sandbox, vendor, clip):
    other = sandbox.write_clip("b.wav", clips.noise(2400, seed=1))
    order = [clip, other, clip, other]
    for played in order:
        assert vendor.call("PlayClip", played.location) == "OK"
    take, = sandbox.vendor_sink.takes
    at = 0
    for played in order:
        at = take.find(played.samples, at)
        assert at >= 0
        at += played.frames
    assert opened(sandbox) == [{"source-id": "BRIMOSonoBrik"}] * 4


@pytest.mark.alone
def test_a_chain_through_the_sink_has_no_gap(sandbox, vendor):
    clip = sandbox.write_clip("a.wav", clips.noise(28800))
    chain = clips.noise(0)
    for _ in range(3):
        chain.extend(clip.samples)
    for attempt in range(1, 6):
        assert vendor.call("PlayClip", f"{clip.location}&repeat=2") == "OK"
        if sandbox.vendor_sink.takes[0].find(chain) >= 0:
            break  # a busy machine may leave a gap, so try again
    assert sandbox.vendor_sink.takes[0].find(chain) >= 0
    vendor.fence()
    assert [event[-1] for event in vendor.events] == [True, *[clip.path] * 3, False] * attempt


def test_a_clip_through_the_sink_is_stopped(sandbox, vendor, clip):
    long = sandbox.write_clip("long.wav", clips.noise(480000, seed=1))
    for _ in range(3):
        held = vendor.send("PlayClip", long.location)
        wait_until(lambda: sandbox.vendor_sink.is_open, what="the sink is open")
        stop = vendor.send("StopPlayingClip")
        assert (held.wait(), stop.wait()) == (("OK",), ("OK",))
        assert not sandbox.vendor_sink.is_open
    assert vendor.call("PlayClip", clip.location) == "OK"
    assert any(take.find(clip.samples) >= 0 for take in sandbox.vendor_sink.takes)


def test_a_signal_ends_the_daemon_well_while_the_sink_plays(sandbox, vendor):
    long = sandbox.write_clip("long.wav", clips.noise(480000, seed=1))
    assert vendor.call("StartPlayingClip", long.location) == "OK"
    wait_until(lambda: sandbox.vendor_sink.frames > 0, what="it sounds")
    assert sandbox.daemon.stop() == 0
    assert not sandbox.vendor_sink.is_open
