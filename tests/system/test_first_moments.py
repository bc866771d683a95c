"""Calls in the first moments after the start, while the daemon loads plugins and rehearses a clip."""

import random
import time

import pytest
from sandbox import Player, clips
from sandbox.log_lines import START

# When a call is sent at the latest. The rehearsal ends about 60 ms after the start.
LATEST = 0.15

NOT_OPENED = ("error: Error received from element 'alsasink': Could not open audio device for "
              "playback.")


def play(sandbox, player, clip):
    assert player.call("PlayClip", clip.location) == "OK"
    return []


def stop(sandbox, player, clip):
    assert player.call("StopPlayingClip", "stop") == "OK"
    return ["info: sonobrik_stop_clip with options: stop"]


def play_stop_and_play(sandbox, player, clip):
    calls = [player.send("PlayClip", clip.location), player.send("StopPlayingClip", "stop"),
             player.send("PlayClip", f"{clip.location}&volume=50")]
    assert [call.wait() for call in calls] == [("OK",)] * 3
    assert [call.arrival for call in calls] == sorted(call.arrival for call in calls)
    return ["info: sonobrik_stop_clip with options: stop"]


def play_without_a_card(sandbox, player, clip):
    sandbox.card(0).set_trouble("gone")
    error = player.fail("PlayClip", clip.location)
    sandbox.card(0).set_trouble("gone", False)
    assert error == "Error playing clip: Could not set receive pipeline to playing.."
    return [NOT_OPENED]


def start_and_end(sandbox, player, clip):
    assert player.call("StartPlayingClip", clip.location) == "OK"
    return [f"info: sonobrik_play_clip_asynchronous with options: {clip.location}"]


def end(sandbox, player, clip):
    return []


@pytest.mark.parametrize("call", [play, stop, play_stop_and_play, play_without_a_card,
                                  start_and_end, end])
def test_a_call_at_any_moment_after_the_start(sandbox, full, call):
    clip = sandbox.write_clip("a.wav", clips.noise(4800))
    moments = random.Random(call.__name__)
    for number in range(40 if full else 3):
        daemon = sandbox.start_daemon()
        player = Player(sandbox.bus)
        moment = moments.uniform(0, LATEST)
        time.sleep(moment)  # the moment that this round tries, not the time that something takes
        lines = call(sandbox, player, clip)
        what = f"round {number}: {moment:.3f} s after the start"
        assert daemon.stop() == 0, what
        # What has been answered has been logged, even if the daemon is stopped at once.
        assert daemon.texts == [*START, *lines], what
