"""A sound card that fails: when it is opened, in a clip, in a chain and in a stop. Afterwards the next
clip plays."""

import time

import pytest
from sandbox import BusError, Player, clips, wait_until
from sandbox.log_lines import START

CANNOT_PLAY = "Error playing clip: Could not set receive pipeline to playing.."

DISCONNECTED = ("error: Error received from element 'alsasink': Error outputting to audio device. "
                "The device has been disconnected.")

STOPPED = "info: sonobrik_stop_clip with options: "

NO_CARD = "pcm.audiosink0 { type hw card 99 }\n"

once_and_chained = pytest.mark.parametrize("repeat", ["", "&repeat=-1"])


@pytest.fixture
def card(sandbox):
    return sandbox.card(0)


def wait_sounding(card):
    wait_until(lambda: card.frames > 0, what="it sounds")


def plays(sandbox, player, clip):
    """Returns true if the clip is played to its end and heard."""
    return player.call("PlayClip", clip.location) == "OK" and any(
        take.find(clip.samples) >= 0 for take in sandbox.card(0).takes)


@once_and_chained
@pytest.mark.parametrize("method", ["PlayClip", "StartPlayingClip"])
@pytest.mark.parametrize("trouble", ["busy", "gone", "not configured", "without a card"])
def test_a_card_that_cannot_be_opened(sandbox, player, card, clip, trouble, method, repeat):
    options = clip.location + repeat
    if trouble in ("busy", "gone"):
        card.set_trouble(trouble)
    elif trouble == "not configured":
        options += "&audiodeviceid=9&audiooutputid=9"
    else:
        sandbox.set_alsa(NO_CARD)
    assert player.fail(method, options) == CANNOT_PLAY
    line, = sandbox.daemon.texts[len(START):]
    assert line.startswith("error: Error received from element 'alsasink': Could not open audio ")
    assert player.call("StopPlayingClip") == "OK"
    player.fence()
    assert player.events == []
    card.set_trouble("busy", False)
    card.set_trouble("gone", False)
    sandbox.set_outputs(["audiosink0"])
    assert plays(sandbox, player, clip)


@once_and_chained
def test_a_card_that_goes_in_a_clip(sandbox, player, card, clip, long, repeat):
    held = player.send("PlayClip", long.location + repeat)
    wait_sounding(card)
    card.set_trouble("gone")
    assert held.wait() == ("OK",)
    assert sandbox.daemon.texts == [*START, DISCONNECTED]
    card.set_trouble("gone", False)
    assert plays(sandbox, player, clip)


def test_a_card_that_goes_while_short_clips_are_chained(sandbox, player, card, clip):
    held = player.send("PlayClip", f"{clip.location}&repeat=-1")
    wait_sounding(card)
    card.set_trouble("gone")
    assert held.wait() == ("OK",)
    assert DISCONNECTED in sandbox.daemon.texts
    card.set_trouble("gone", False)
    assert plays(sandbox, player, clip)


@once_and_chained
def test_a_card_that_goes_in_a_stop(sandbox, player, card, clip, long, repeat):
    held = player.send("PlayClip", long.location + repeat)
    wait_sounding(card)
    card.set_trouble("gone")
    began = time.monotonic()
    assert player.call("StopPlayingClip") == "OK"
    assert time.monotonic() - began < 3
    assert held.wait() == ("OK",)
    sandbox.daemon.wait_log(*STOPPED.split(": ", 1))
    # Whether the sink reports the loss before it is stopped is a matter of time.
    assert sandbox.daemon.texts[len(START):] in ([STOPPED], [DISCONNECTED, STOPPED],
                                                 [STOPPED, DISCONNECTED])
    card.set_trouble("gone", False)
    assert plays(sandbox, player, clip)


@once_and_chained
def test_a_stuck_card_ends_the_daemon_at_a_stop(sandbox, player, card, clip, long, repeat):
    card.set_trouble("stuck")
    held = player.send("PlayClip", long.location + repeat)
    wait_until(lambda: card.count("full") > 0, what="the card's buffer is full")
    began = time.monotonic()
    stop = player.send("StopPlayingClip")
    assert sandbox.daemon.wait_exit() == 1
    assert 3 <= time.monotonic() - began < 6
    for reply in (held, stop):
        with pytest.raises(BusError) as error:
            reply.wait()
        assert error.value.name == "org.freedesktop.DBus.Error.NoReply"
    # systemd would restart it.
    card.set_trouble("stuck", False)
    sandbox.start_daemon()
    assert plays(sandbox, Player(sandbox.bus), clip)


@once_and_chained
def test_a_stuck_card_that_recovers(sandbox, player, card, clip, long, repeat):
    card.set_trouble("stuck")
    held = player.send("PlayClip", long.location + repeat)
    wait_until(lambda: card.count("full") > 0, what="the card's buffer is full")
    card.set_trouble("stuck", False)
    wait_sounding(card)
    assert player.call("StopPlayingClip") == "OK"
    assert held.wait() == ("OK",)
    assert plays(sandbox, player, clip)


@pytest.mark.parametrize("pins", [
    {"rate": 44100, "channels": 2, "format": "S32_LE"}, {"rate": 8000, "channels": 1},
    {"rate": 192000, "channels": 8, "format": "S24_3LE"}])
def test_a_card_of_another_format(sandbox, pins):
    sandbox.set_outputs({"audiosink0": pins})
    sandbox.start_daemon()
    player = Player(sandbox.bus)
    tone = sandbox.write_clip("tone.wav", clips.tone(440, 1))
    for options in (tone.location, f"{tone.location}&repeat=1"):
        assert player.call("PlayClip", options) == "OK"
    held = player.send("PlayClip", f"{tone.location}&repeat=-1")
    wait_until(lambda: sandbox.card(0).count("start") == 3, what="the card plays")
    assert player.call("StopPlayingClip") == "OK"
    assert held.wait() == ("OK",)
    take, = sandbox.card(0).takes
    assert (take.rate, take.channels) == (pins["rate"], pins["channels"])
    assert take.seconds >= 3
    assert 0.4 < take.peak < 0.6
    sandbox.daemon.wait_log(*STOPPED.split(": ", 1))
    assert sandbox.daemon.texts == [*START, STOPPED]
