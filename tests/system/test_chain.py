"""Chains of clips: "repeat" plays them without a gap."""

import itertools
import random
import time

import pytest
from sandbox import clips, wait_until
from sandbox.lease import leased
from sandbox.log_lines import START

pytestmark = pytest.mark.alone


def files_of(player):
    return [event[-1] for event in player.events if event[0] == "CurrentlyPlaying"]


def join(*parts):
    samples = clips.noise(0)
    for part in parts:
        samples.extend(part)
    return samples


def heard(sandbox, samples):
    return any(take.find(samples) >= 0 for take in sandbox.card(0).takes)


def play_without_gap(sandbox, player, options, *parts):
    """Plays the chain until it has no gap, and returns the number of attempts.

    A busy machine leaves a gap now and then, a faulty daemon each time.
    """
    for attempt in range(1, 6):
        assert player.call("PlayClip", options) == "OK"
        if heard(sandbox, join(*parts)):
            player.fence()
            return attempt
    raise AssertionError("there is a gap")


# Long enough for a busy machine to prepare the next clip before this one has ended.
FRAMES = 28800


@pytest.fixture
def three(sandbox):
    """Returns three clips of 600 ms, with their paths as keys."""
    written = [sandbox.write_clip(f"set-{i}.wav", clips.noise(FRAMES, seed=i)) for i in range(3)]
    return {clip.path: clip for clip in written}


@pytest.mark.parametrize("repeat", [1, 3])
def test_a_repeated_clip_reaches_the_card_without_a_gap(sandbox, player, repeat):
    clip = sandbox.write_clip("a.wav", clips.noise(FRAMES))
    chain = [clip.samples] * (repeat + 1)
    plays = play_without_gap(sandbox, player, f"{clip.location}&repeat={repeat}", *chain)
    assert files_of(player) == [clip.path] * (repeat + 1) * plays
    assert not heard(sandbox, join(*chain, clip.samples))


def test_a_repeated_clip_keeps_its_volume(sandbox, player):
    clip = sandbox.write_clip("a.wav", [2 * (i % 15000 + 1) for i in range(FRAMES)])
    half = [sample // 2 for sample in clip.samples]
    play_without_gap(sandbox, player, f"{clip.location}&repeat=1&volume=50", half, half)


@pytest.mark.parametrize("repeat", ["", "&repeat=", "&repeat=0"])
def test_a_clip_is_played_once_without_repeat(sandbox, player, repeat):
    clip = sandbox.write_clip("a.wav", clips.noise(2400))
    assert player.call("PlayClip", clip.location + repeat) == "OK"
    assert heard(sandbox, clip.samples)
    player.fence()
    assert files_of(player) == [clip.path]


def test_a_chain_of_three_files_plays_no_file_twice_in_a_row(sandbox, player, three):
    in_order = 0
    for _ in range(2):
        before = len(player.events)
        assert player.call("PlayClip", "location=/etc/audioclips/set-*.wav&repeat=2") == "OK"
        player.fence()
        assert [event[0] for event in player.events[before:]] == [
            "Playing", *["CurrentlyPlaying"] * 3, "Playing"]
        played = files_of(player)[-3:]
        assert all(first != second for first, second in itertools.pairwise(played))
        in_order += heard(sandbox, join(*(three[path].samples for path in played)))
    # The card plays them in the order of the events. Only a busy machine leaves a gap.
    assert in_order > 0


def test_an_escaped_name_is_chained_too(sandbox, player):
    clip = sandbox.write_clip("a b.wav", clips.noise(FRAMES))
    plays = play_without_gap(sandbox, player, "location=/etc/audioclips/a+b.wav&repeat=1",
                             clip.samples, clip.samples)
    assert files_of(player) == [clip.path] * 2 * plays


def test_an_endless_chain_plays_until_it_is_stopped(sandbox, player, three):
    reply = player.send("PlayClip", "location=/etc/audioclips/set-*.wav&repeat=-1")
    wait_until(lambda: len(files_of(player)) >= 4, 30, "four clips have begun")
    assert not reply.done
    assert player.call("StopPlayingClip") == "OK"
    assert reply.wait() == ("OK",)
    played = files_of(player)
    assert all(first != second for first, second in itertools.pairwise(played))
    assert player.call("PlayClip", next(iter(three.values())).location) == "OK"
    assert files_of(player)[len(played):] == [next(iter(three))]


def test_a_chain_that_runs_counts_down_while_a_start_is_refused(sandbox, player, three):
    reply = player.send("PlayClip", "location=/etc/audioclips/set-0.wav&repeat=2")
    wait_until(lambda: sandbox.card(0).count("start") == 1, what="the card plays")
    assert player.fail("StartPlayingClip", "location=/etc/audioclips/set-1.wav&repeat=-1") == (
        "A clip is already playing.")
    assert reply.wait() == ("OK",)
    assert files_of(player) == ["/etc/audioclips/set-0.wav"] * 3


def test_clips_of_several_formats_are_chained(sandbox, player):
    written = [sandbox.write_clip("set-1.wav", clips.noise(44100, channels=2), 44100, 2),
               sandbox.write_clip("set-2.wav", clips.noise(48000), 48000, 1)]
    assert player.call("PlayClip", "location=/etc/audioclips/set-*.wav&repeat=1") == "OK"
    first, second = sorted(written, key=lambda clip: files_of(player).index(clip.path))
    # Between them the card is set up again and drops its buffer of up to 200 ms.
    takes = sandbox.card(0).takes
    assert [take.rate for take in takes] == [first.rate, second.rate]
    assert takes[0].find(first.samples[:len(first.samples) // 2]) >= 0
    assert takes[1].find(second.samples) >= 0


def test_a_chain_ends_with_its_error_when_the_next_file_has_gone(sandbox, daemon, player):
    clip = sandbox.write_clip("a.wav", clips.noise(48000))
    reply = player.send("PlayClip", f"{clip.location}&repeat=-1")
    wait_until(lambda: sandbox.card(0).count("start") == 1, what="the card plays")
    clip.file.unlink()
    assert reply.wait(20) == ("OK",)
    wait_until(lambda: ("Playing", 1, 0, 0, False) in player.events, what="it has ended")
    other = sandbox.write_clip("b.wav", clips.noise(2400, seed=1))
    assert player.call("PlayClip", other.location) == "OK"
    assert daemon.stop() == 0
    assert daemon.texts == [
        *START, "error: Error received from element 'source': Resource not found."]


def test_the_error_of_a_chain_names_a_file_that_may_not_be_read_any_more(sandbox, daemon, player):
    clip = sandbox.write_clip("a.wav", clips.noise(48000))
    reply = player.send("PlayClip", f"{clip.location}&repeat=-1")
    wait_until(lambda: sandbox.card(0).count("start") == 1, what="the card plays")
    clip.file.chmod(0)
    assert reply.wait(20) == ("OK",)
    assert daemon.stop() == 0
    assert daemon.texts == [
        *START, "error: Error received from element 'source': "
                f'Could not open file "{clip.path}" for reading.']


def test_a_chain_ends_with_its_error_when_the_next_file_has_a_write_lease(sandbox, daemon, player):
    """The source that opens the next clip must not block: a stop waits for it."""
    pair = [sandbox.write_clip(f"{name}.wav", clips.noise(96000)) for name in "ab"]
    reply = player.send("PlayClip", "location=/etc/audioclips/?.wav&repeat=-1")
    wait_until(lambda: files_of(player), what="the first clip is known")
    following, = (clip for clip in pair if clip.path not in files_of(player))
    with leased(following.file):
        assert reply.wait(20) == ("OK",)
        other = sandbox.write_clip("other.wav", clips.noise(2400, seed=1))
        assert player.call("PlayClip", other.location) == "OK"
    assert daemon.stop() == 0
    assert daemon.texts == [
        *START, "error: Error received from element 'source': "
                f'Could not open file "{following.path}" for reading.']


def test_a_chain_keeps_its_volume(sandbox, player):
    clip = sandbox.write_clip("a.wav", [i % 3000 + 1 for i in range(FRAMES)])
    loud = [sample * 10 for sample in clip.samples]
    play_without_gap(sandbox, player, f"{clip.location}&repeat=1&volume=1000", loud, loud)
    assert player.call("PlayClip", f"{clip.location}&repeat=1&volume=0") == "OK"
    silence = clips.noise(0)
    silence.extend([0] * FRAMES)
    assert heard(sandbox, silence)


def test_a_chain_of_clips_without_samples_switches_50_times_a_second(sandbox, player):
    clip = sandbox.write_clip("empty.wav", [])
    began = time.monotonic()
    held = player.send("PlayClip", f"{clip.location}&repeat=-1")
    wait_until(lambda: len(files_of(player)) >= 50, 30, "50 clips have begun")
    assert time.monotonic() - began >= (len(files_of(player)) - 1) / 50
    stopped = time.monotonic()
    assert player.call("StopPlayingClip") == "OK"
    assert time.monotonic() - stopped < 1
    assert held.wait() == ("OK",)


# Stops at any moment

LENGTH = 72000


def test_chains_are_stopped_at_any_moment(sandbox, daemon, player):
    sandbox.write_clip("set-0.wav", clips.noise(LENGTH))
    sandbox.write_clip("set-1.wav", clips.noise(LENGTH))
    for number in range(30):
        start = player.send("StartPlayingClip", "location=/etc/audioclips/set-*.wav&repeat=-1")
        if number % 3:
            start.wait()
        if number % 3 == 2:
            opened = number // 3 + 1
            wait_until(lambda: len(files_of(player)) >= 2 * opened, what="the next clip is chained")
        assert player.call("StopPlayingClip") == "OK"
        assert start.wait() == ("OK",)
    player.fence()
    states = [event[-1] for event in player.events if event[0] == "Playing"]
    assert states == [True, False] * 30
    assert daemon.stop() == 0
    assert {text.split(":")[0] for text in daemon.texts[len(START):]} == {"info"}


def test_held_chains_are_stopped_at_any_moment(sandbox, player):
    clip = sandbox.write_clip("a.wav", clips.noise(LENGTH))
    for _ in range(30):
        held = player.send("PlayClip", f"{clip.location}&repeat=-1")
        stop = player.send("StopPlayingClip")
        assert (held.wait(), stop.wait()) == (("OK",), ("OK",))
        assert held.arrival < stop.arrival


@pytest.mark.parametrize("milliseconds", [0, 20, 50, 200])
def test_chains_of_short_clips_are_stopped_at_any_moment(sandbox, player, milliseconds):
    """playbin of GStreamer 1.22 can lock up when its state changes while it switches clips; the
    daemon would then end after 3 s."""
    moment = random.Random(milliseconds)
    for number in range(2):
        sandbox.write_clip(f"set-{number}.wav", clips.noise(48 * milliseconds, seed=number))
    for _ in range(40):
        before = len(files_of(player))
        switches = moment.randint(1, 12)
        assert player.call("StartPlayingClip", "location=/etc/audioclips/set-*.wav&repeat=-1") == "OK"
        wait_until(lambda: len(files_of(player)) > before + switches, what="it is chained")
        end = time.monotonic() + moment.uniform(0, 0.02)
        while time.monotonic() < end:
            pass
        assert player.call("StopPlayingClip") == "OK"
