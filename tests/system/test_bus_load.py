"""Many calls, while GStreamer's threads add and remove sources of the loop that answers them."""

import itertools
import os
import signal

import pytest
from sandbox import BusError, Player, Sandbox, clips, wait_until
from sandbox.bus import DRIVER

NAME = "com.vesk.Sonobrik"


@pytest.fixture
def clip(sandbox):
    """50 ms."""
    return sandbox.write_clip("a.wav", clips.noise(2400))


def send_all(players, calls):
    """Sends all calls, each through the next player, and waits for all replies, which it returns.

    A bus has a limit for the calls of one caller that wait for an answer, 128.
    """
    replies = []
    for (method, text), player in zip(calls, itertools.cycle(players)):
        replies.append(player.send(method, text))
        if len(replies) % 50 == 0:
            wait_until(lambda: replies[-50].done, 60, "the older ones are answered")
    wait_until(lambda: all(reply.done for reply in replies), 60, "all are answered")
    return replies


def test_calls_are_answered_in_their_order_while_clips_start_and_stop(player, clip):
    replies = send_all([player], 100 * [
        ("StartPlayingClip", clip.location),
        ("SupportedFile", clip.path),
        ("StopPlayingClip", ""),
        ("SupportedFile", "/etc/audioclips/missing.wav"),
    ])
    assert [reply.arrival for reply in replies] == sorted(reply.arrival for reply in replies)
    for start, supported, stop, missing in zip(*[iter(replies)] * 4):
        assert (start.wait(), supported.wait(), stop.wait()) == (("OK",), ("OK",), ("OK",))
        with pytest.raises(BusError) as error:
            missing.wait()
        assert error.value.text == (
            "Could not determine the media format of file: '/etc/audioclips/missing.wav'")


def test_single_calls_are_answered_while_a_chain_churns_the_loop(sandbox, player, clip):
    held = player.send("PlayClip", f"{clip.location}&repeat=-1")
    # Each waits for the one before, so that a wake-up that is lost holds up all that follow.
    for _ in range(300):
        assert player.call("SupportedFile", clip.path) == "OK"
        player.bus.call(NAME, "/", "org.freedesktop.DBus.Peer", "Ping")
    assert not held.done
    assert player.call("StopPlayingClip") == "OK"
    assert held.wait() == ("OK",)


def test_several_callers_are_answered_at_a_time(sandbox, player, clip):
    callers = [Player(sandbox.connect()) for _ in range(8)]
    calls = 50 * [
        *[("SupportedFile", clip.path)] * 5,
        ("StartPlayingClip", clip.location),
        ("SupportedFile", clip.path),
        ("StopPlayingClip", ""),
        ("StartPlayingClip", clip.location),
    ]
    for (method, _), reply in zip(calls, send_all(callers, calls)):
        try:
            assert reply.wait() == ("OK",)
        except BusError as error:
            assert (method, error.text) == ("StartPlayingClip", "A clip is already playing.")
    for caller in callers:
        caller.bus.close()


def test_a_caller_who_floods_does_not_keep_others_from_being_answered(sandbox, player, clip):
    flood = Player(sandbox.connect())
    for text in ("", "x" * 1000, clip.path):
        for _ in range(1000):
            flood.post("StopPlayingClip", text)
        assert player.call("SupportedFile", clip.path, timeout=60) == "OK"
    assert flood.call("StopPlayingClip", timeout=60) == "OK"
    assert sandbox.daemon.texts.count("info: sonobrik_stop_clip with options: ") == 1001
    assert player.call("PlayClip", clip.location) == "OK"
    assert sandbox.card(0).takes[-1].find(clip.samples) >= 0
    flood.bus.close()


def test_a_flood_does_not_keep_a_clip_from_ending(sandbox, player, clip):
    held = player.send("PlayClip", clip.location)
    flood = Player(sandbox.connect())
    answered = 0
    while not held.done:
        replies = [flood.send("SupportedFile", "/etc/audioclips/missing.wav") for _ in range(100)]
        wait_until(lambda: all(reply.done for reply in replies), 60, "the flood is answered")
        answered += len(replies)
    assert held.wait() == ("OK",)
    assert answered > 100
    assert sandbox.card(0).takes[-1].find(clip.samples) >= 0
    flood.bus.close()


def test_answers_that_the_bus_does_not_take_at_once_leave_when_it_does(tmp_path, build_dir, cache):
    with Sandbox(tmp_path / "sandbox", build_dir, cache) as sandbox:
        bus = sandbox.start_bus()
        daemon = sandbox.start_daemon()
        player = Player(sandbox.bus)
        assert player.call("StopPlayingClip") == "OK"  # so that the daemon knows who calls
        os.kill(daemon.pid, signal.SIGSTOP)
        # Answers of 2 KB each: more than the daemon's socket holds.
        replies = [sandbox.bus.send(NAME, "/com/vesk/Sonobrik",
                                    "org.freedesktop.DBus.Introspectable", "Introspect")
                   for _ in range(120)]
        replies.append(player.send("StopPlayingClip", "last"))
        sandbox.bus.call(*DRIVER, "GetId")  # the bus has passed on what came before
        os.kill(bus.pid, signal.SIGSTOP)
        os.kill(daemon.pid, signal.SIGCONT)
        daemon.wait_log("info", "sonobrik_stop_clip with options: last", 60)
        os.kill(bus.pid, signal.SIGCONT)
        wait_until(lambda: all(reply.done for reply in replies), 60, "all are answered")
        assert replies[-1].wait() == ("OK",)


def test_a_call_that_wants_no_answer_is_carried_out(sandbox, player, clip):
    player.post("PlayClip", clip.location)
    wait_until(lambda: len(player.events) == 3, 20, "it has ended")
    assert sandbox.card(0).takes[0].find(clip.samples) >= 0
    player.post("PlayClip", "nonsense")
    assert player.call("PlayClip", clip.location) == "OK"


def test_callers_who_leave_without_an_answer_do_no_harm(sandbox, daemon, player, clip):
    for _ in range(30):
        caller = Player(sandbox.connect())
        for _ in range(10):
            caller.send("SupportedFile", clip.path)
        caller.send("PlayClip", clip.location)
        caller.bus.connection.flush_sync(None)
        caller.bus.close()
    assert player.call("StopPlayingClip", timeout=60) == "OK"
    assert player.call("PlayClip", clip.location) == "OK"
    assert daemon.stop() == 0


@pytest.mark.parametrize("size", [100000, 10000000])
def test_a_large_argument_is_answered(player, size):
    assert player.fail("PlayClip", "x" * size, timeout=60) == (
        f"Failed to parse/validate option string: '{'x' * size}'")[:255]
    assert player.call("StopPlayingClip", "&" * size, timeout=60) == "OK"
    path = "/" + "x" * size
    assert player.fail("SupportedFile", path, timeout=60) == (
        f"Could not determine the media format of file: '{path}'")[:255]


def test_an_option_string_of_many_pieces_is_answered(player):
    options = "&".join(f"{number}=x" for number in range(20000))
    assert player.fail("PlayClip", options, timeout=60) == (
        f"Failed to parse/validate option string: '{options}'")[:255]
