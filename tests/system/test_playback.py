"""Single clips: what callers are answered, and what reaches the sound card."""

import contextlib
import os
import random
import re
import threading
import time
import urllib.parse

import pytest
from sandbox import Player, clips, wait_until
from sandbox.lease import leased
from sandbox.log_lines import START

BUSY = "A clip is already playing."

START_CLIP = "sonobrik_play_clip_asynchronous with options: "
PLAY_CLIP = "sonobrik_play_clip_synchronous with options: "
STOP_CLIP = "sonobrik_stop_clip with options: "


def heard(sandbox, samples):
    return any(take.find(samples) >= 0 for take in sandbox.card(0).takes)


def wait_heard(sandbox, samples):
    wait_until(lambda: heard(sandbox, samples), 20, "the clip was heard")


def wait_sounding(sandbox, opened=1):
    """Waits until the card has been started `opened` times."""
    card = sandbox.card(0)
    wait_until(lambda: card.count("start") == opened, what="the card plays")


@pytest.fixture
def short(sandbox):
    """50 ms."""
    return sandbox.write_clip("short.wav", clips.noise(2400, seed=1))


@pytest.fixture
def long(sandbox):
    """10 s."""
    return sandbox.write_clip("long.wav", clips.noise(480000, seed=2))


# Replies


def test_play_clip_is_answered_when_the_clip_has_ended(sandbox, daemon, player, short):
    reply = player.send("PlayClip", short.location)
    assert reply.wait(20) == ("OK",)
    assert not sandbox.card(0).is_open
    start, = [event for event in sandbox.card(0).events if event.name == "start"]
    # The length of the clip, and 300 ms in which the output plays what it has buffered.
    assert reply.time - start.time >= (0.05 + 0.3) * 1e9
    assert heard(sandbox, short.samples)
    assert daemon.stop() == 0
    assert daemon.texts == START


def test_start_playing_clip_is_answered_at_once(sandbox, daemon, player, long):
    assert player.call("StartPlayingClip", long.location) == "OK"
    assert not heard(sandbox, long.samples)
    wait_sounding(sandbox)
    assert player.call("StopPlayingClip", "whatever") == "OK"
    assert not sandbox.card(0).is_open
    assert daemon.stop() == 0
    assert daemon.texts == [
        *START, f"info: {START_CLIP}{long.location}", f"info: {STOP_CLIP}whatever"]


def test_a_stop_answers_the_held_caller_first(sandbox, player, long):
    held = player.send("PlayClip", long.location)
    wait_sounding(sandbox)
    stop = player.send("StopPlayingClip")
    assert (held.wait(), stop.wait()) == (("OK",), ("OK",))
    assert held.arrival < stop.arrival
    assert not heard(sandbox, long.samples)


def test_a_second_play_clip_is_answered_at_once_and_plays_nothing(sandbox, daemon, player, short,
                                                                  long):
    held = player.send("PlayClip", long.location)
    wait_sounding(sandbox)
    for _ in range(2):
        assert player.call("PlayClip", short.location) == "OK"
    assert not held.done
    assert player.call("StopPlayingClip") == "OK"
    assert held.wait() == ("OK",)
    assert daemon.count("info", f"{PLAY_CLIP}{short.location}") == 2
    assert sandbox.card(0).count("open") == 1
    assert not heard(sandbox, short.samples)
    assert daemon.count("info", f"{PLAY_CLIP}{long.location}") == 0


def test_a_second_play_clip_is_told_ok_whatever_it_asks_for(sandbox, player, long):
    player.send("PlayClip", long.location)
    wait_sounding(sandbox)
    assert player.call("PlayClip", "nonsense") == "OK"
    assert player.call("PlayClip", "") == "OK"


@pytest.mark.parametrize("method", ["PlayClip", "StartPlayingClip"])
def test_nothing_is_played_beside_a_clip_that_nobody_waits_for(sandbox, daemon, player, short,
                                                              long, method):
    assert player.call("StartPlayingClip", long.location) == "OK"
    assert player.fail(method, short.location) == BUSY
    assert player.fail(method, "nonsense") == BUSY
    wait_sounding(sandbox)
    assert player.call("StopPlayingClip") == "OK"
    assert sandbox.card(0).count("open") == 1
    assert daemon.count("info", f"{START_CLIP}{short.location}") == 0


def test_start_playing_clip_is_refused_while_a_caller_is_held(sandbox, player, short, long):
    held = player.send("PlayClip", long.location)
    assert player.fail("StartPlayingClip", short.location) == BUSY
    assert not held.done


def test_a_caller_who_was_answered_leaves_nothing_behind(sandbox, player, short, long):
    assert player.call("PlayClip", short.location) == "OK"
    assert player.call("StartPlayingClip", long.location) == "OK"
    assert player.fail("PlayClip", short.location) == BUSY


def test_a_stop_while_nothing_plays_is_fine(sandbox, daemon, player):
    for options in ("", "a=b", "ä\n"):
        assert player.call("StopPlayingClip", options) == "OK"
    player.fence()
    assert player.events == []
    assert daemon.texts == START + [
        f"info: {STOP_CLIP}{options}" for options in ("", "a=b", "ä\\x0a")]


def test_a_clip_plays_on_when_its_caller_gives_up(sandbox, daemon, player):
    clip = sandbox.write_clip("a.wav", clips.noise(24000))
    caller = sandbox.connect()
    caller.send("com.vesk.Sonobrik", "/com/vesk/Sonobrik", "com.vesk.Sonobrik", "PlayClip", "(s)",
                clip.location)
    wait_sounding(sandbox)
    caller.close()
    wait_until(lambda: len(player.events) == 3, 20, "it has ended")
    assert heard(sandbox, clip.samples)
    assert player.call("PlayClip", clip.location) == "OK"
    assert daemon.stop() == 0
    assert daemon.texts == START


# Files that change


def test_a_path_that_changes_between_clip_and_fifo_blocks_nothing(sandbox, player, long):
    path = long.file.with_name("changing.wav")
    new = long.file.with_name("new")
    ended = threading.Event()

    def change():
        while not ended.is_set():
            os.link(long.file, new)
            os.rename(new, path)
            os.mkfifo(new)
            os.rename(new, path)

    changer = threading.Thread(target=change)
    changer.start()
    try:
        for _ in range(60):
            reply = player.send("StartPlayingClip", f"location=/etc/audioclips/{path.name}")
            wait_until(lambda: reply.done, 10, "the call is answered")
            assert player.call("StopPlayingClip") == "OK"
    finally:
        ended.set()
        changer.join()
    starts = sandbox.card(0).count("start")
    assert player.call("StartPlayingClip", long.location) == "OK"
    wait_sounding(sandbox, starts + 1)


def test_a_lease_at_any_moment_of_a_start_blocks_nothing(sandbox, player, long):
    moments = random.Random(5)
    for _ in range(40):
        reply = player.send("StartPlayingClip", long.location)
        time.sleep(moments.uniform(0, 0.03))
        with contextlib.suppress(BlockingIOError), leased(long.file):
            wait_until(lambda: reply.done, 10, "the call is answered")
        wait_until(lambda: reply.done, 10, "the call is answered")
        assert player.call("StopPlayingClip") == "OK"
    starts = sandbox.card(0).count("start")
    assert player.call("StartPlayingClip", long.location) == "OK"
    wait_sounding(sandbox, starts + 1)


def test_a_file_cannot_be_leased_while_it_plays(sandbox, player, long):
    assert player.call("StartPlayingClip", long.location) == "OK"
    wait_sounding(sandbox)
    with pytest.raises(BlockingIOError), leased(long.file):
        pass
    assert player.call("StopPlayingClip") == "OK"
    with leased(long.file):
        pass


# The 300 ms between the end of a clip and its answer


def test_the_end_of_a_stopped_clip_does_not_end_the_next(sandbox, short):
    # GStreamer's own log is the only place that shows the end of the stream before the stop.
    log = sandbox.folder / "run/gstreamer.log"
    sandbox.start_daemon(env={"GST_DEBUG": "GST_BUS:5", "GST_DEBUG_NO_COLOR": "1",
                              "GST_DEBUG_FILE": "/run/gstreamer.log"})
    player = Player(sandbox.bus)
    following = sandbox.write_clip("next.wav", clips.noise(28800, seed=3))  # 600 ms
    held = player.send("PlayClip", short.location)
    wait_until(lambda: re.search(r"posting on bus eos message.*element 'play audio clip'",
                                 log.read_text(errors="replace")), what="the stream has ended")
    stop = player.send("StopPlayingClip")
    start = player.send("PlayClip", following.location)
    assert [reply.wait() for reply in (held, stop, start)] == [("OK",)] * 3
    assert heard(sandbox, following.samples)


def test_a_clip_that_has_ended_plays_until_it_is_answered(sandbox, player, short):
    held = player.send("PlayClip", short.location)
    wait_heard(sandbox, short.samples)
    second = player.send("PlayClip", short.location)
    assert (held.wait(), second.wait()) == (("OK",), ("OK",))
    # The second call either came before the first was answered and played nothing, or it played.
    assert (second.arrival < held.arrival) == (sandbox.card(0).count("open") == 1)


# Samples


@pytest.mark.parametrize("volume, gain", [("", 1), ("&volume=", 1), ("&volume=100", 1),
                                          ("&volume=50", 0.5), ("&volume=1000", 10)])
def test_each_sample_reaches_the_card_at_the_volume_asked_for(sandbox, player, short, volume, gain):
    assert player.call("PlayClip", short.location + volume) == "OK"
    take, = sandbox.card(0).takes
    at = next(i for i, sample in enumerate(take.samples) if sample)
    expected = [max(-32768, min(32767, sample * gain)) for sample in short.samples]
    played = take.samples[at:at + short.frames]
    assert max(abs(a - b) for a, b in zip(played, expected, strict=True)) <= (gain != 1)
    assert not any(take.samples[:at])
    assert not any(take.samples[at + short.frames:])


def test_volume_0_is_silence(sandbox, player, short):
    assert player.call("PlayClip", f"{short.location}&volume=0") == "OK"
    take, = sandbox.card(0).takes
    assert take.frames >= short.frames
    assert not any(take.samples)


@pytest.mark.parametrize("name", [
    "a b.wav", "a+b&c=d.wav", "50%.wav", "%41.wav", "[a]*?.wav", "Übung ♪.wav", "#?x;.wav",
    "'\"\\.wav", "line\nfeed.wav"])
def test_a_clip_of_any_name_is_played_by_its_escaped_name(sandbox, player, name):
    clip = sandbox.write_clip(name, clips.noise(480))
    # The third of the names above would match this file if it were taken for a pattern.
    sandbox.write_clip("[a]xx.wav", clips.noise(480, seed=1))
    assert player.call("PlayClip", f"location={urllib.parse.quote(clip.path)}") == "OK"
    assert heard(sandbox, clip.samples)
    assert player.events[1] == ("CurrentlyPlaying", 1, 0, 0, clip.path)


def test_an_escape_in_another_encoding_is_understood(sandbox, player):
    clip = sandbox.write_clip("café.wav", clips.noise(480))
    assert player.call("PlayClip", "location=/etc/audioclips/caf%E9.wav") == "OK"
    assert heard(sandbox, clip.samples)


@pytest.mark.parametrize("name", [b"n\xe9.wav", b"n.wa\xe9", b"n\xff\xfe"])
def test_a_clip_whose_name_is_no_text_is_played_by_wildcards(sandbox, player, name):
    clip = sandbox.write_clip("n.wav", clips.noise(480))
    os.rename(clip.file, os.path.join(os.fsencode(clip.file.parent), name))
    assert player.call("PlayClip", "location=/etc/audioclips/n*") == "OK"
    assert heard(sandbox, clip.samples)
    shown = "/etc/audioclips/" + name.decode(errors="replace")
    assert player.events[1] == ("CurrentlyPlaying", 1, 0, 0, shown)


@pytest.mark.parametrize("name", [b"n.wa\xe9", b"\xfc", b"\xe9\xe9\xe9"])
def test_a_name_that_is_no_text_does_no_harm(sandbox, player, name):
    open(os.path.join(os.fsencode(sandbox.etc / "audioclips"), name), "w").close()
    for pattern in ("n*.wav", "?*xyz", "*é", "??*"):
        player.fail("PlayClip", f"location=/etc/audioclips/{pattern}")


def test_wildcards_leave_out_what_cannot_be_played(sandbox, daemon, player, short):
    sandbox.write_file("set-0.wav", b"no sound\n")
    sandbox.write_clip("set-1.wav", short.samples)
    sandbox.write_clip("other.wav", clips.noise(480))
    os.mkfifo(sandbox.etc / "audioclips/set-2.wav")
    (sandbox.etc / "audioclips/set-3.wav").mkdir()
    assert player.call("PlayClip", "location=/etc/audioclips/set-?.*") == "OK"
    assert heard(sandbox, short.samples)
    texts = daemon.texts
    assert texts[:len(START)] == START
    # The files are probed in the directory's order.
    assert sorted(texts[len(START):]) == [
        "info: Discoverer error: '\"/etc/audioclips/set-3.wav\" is a directory.'.",
        "info: Discoverer error: 'Could not determine type of stream.'."]


def test_wildcards_leave_out_a_file_with_a_write_lease(sandbox, daemon, player, short):
    other = sandbox.write_clip("set-1.wav", clips.noise(480))
    sandbox.write_clip("set-2.wav", short.samples)
    with leased(other.file):
        assert player.call("PlayClip", "location=/etc/audioclips/set-?.wav") == "OK"
        assert heard(sandbox, short.samples)
        assert player.fail("PlayClip", other.location) == (
            f"No supported file(s) found at '{other.path}'.")
    # The second location is tried as a file and then as a pattern.
    assert daemon.texts == [
        *START, *[f"warning: Could not open '{other.path}': Resource temporarily unavailable"] * 3]


def test_unknown_options_are_ignored(sandbox, player, short):
    options = f"x=y&{short.location}&&=&%FF=1&Volume=0&bare"
    assert player.call("PlayClip", options) == "OK"
    assert heard(sandbox, short.samples)
