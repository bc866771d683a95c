"""Many calls at once, and calls while GStreamer adds and removes sources of the main loop."""

import itertools

import pytest
from sandbox import BusError, Player, Sandbox, wait_until
from sandbox.bus import DRIVER

NAME = "com.vesk.Sonobrik"


def send_all(players, calls):
    """Sends all calls, each through the next player, and returns the replies when all are there.

    The bus allows a caller 128 pending calls, so this function keeps fewer than that.
    """
    replies = []
    for (method, text), player in zip(calls, itertools.cycle(players)):
        replies.append(player.send(method, text))
        if len(replies) % 50 == 0:
            wait_until(lambda: replies[-50].done, 60, "the older calls are answered")
    wait_until(lambda: all(reply.done for reply in replies), 60, "all are answered")
    return replies


def test_calls_are_answered_in_order_while_clips_start_and_stop(player, clip):
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


def test_single_calls_are_answered_while_a_clip_repeats(sandbox, player, clip):
    held = player.send("PlayClip", f"{clip.location}&repeat=-1")
    # Each call waits for the one before, so one lost wake-up would delay all of the rest.
    for _ in range(300):
        assert player.call("SupportedFile", clip.path) == "OK"
        player.bus.call(NAME, "/", "org.freedesktop.DBus.Peer", "Ping")
    assert not held.done
    assert player.call("StopPlayingClip") == "OK"
    assert held.wait() == ("OK",)


def test_several_callers_are_answered_at_the_same_time(sandbox, player, clip):
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


def test_a_flood_of_calls_does_not_starve_other_callers(sandbox, player, clip):
    flood = Player(sandbox.connect())
    for text in ("", "x" * 1000, clip.path):
        for _ in range(1000):
            flood.post("StopPlayingClip", text)
        assert player.call("SupportedFile", clip.path, timeout=60) == "OK"
    assert flood.call("StopPlayingClip", timeout=60) == "OK"
    # The line of a call is written after its reply.
    line = "info: sonobrik_stop_clip with options: "
    wait_until(lambda: sandbox.daemon.texts.count(line) >= 1001, what="the last call is logged")
    assert sandbox.daemon.texts.count(line) == 1001
    assert player.call("PlayClip", clip.location) == "OK"
    assert sandbox.card(0).takes[-1].find(clip.samples) >= 0
    flood.bus.close()


def test_a_flood_of_calls_does_not_keep_a_clip_from_ending(sandbox, player, clip):
    held = player.send("PlayClip", clip.location)
    flood = Player(sandbox.connect())
    replies = []

    def flooded():
        """Keeps 100 calls pending."""
        waiting = sum(not reply.done for reply in replies)
        replies.extend(flood.send("SupportedFile", "/etc/audioclips/missing.wav")
                       for _ in range(100 - waiting))
        return held.done

    wait_until(flooded, 60, "the clip ends")
    assert held.wait() == ("OK",)
    assert any(reply.done and reply.arrival < held.arrival for reply in replies)
    assert sandbox.card(0).takes[-1].find(clip.samples) >= 0
    flood.bus.close()


def test_replies_are_queued_while_the_bus_is_stopped(tmp_path, build_dir, cache):
    with Sandbox(tmp_path / "sandbox", build_dir, cache) as sandbox:
        bus = sandbox.start_bus()
        daemon = sandbox.start_daemon()
        player = Player(sandbox.bus)
        assert player.call("StopPlayingClip") == "OK"  # the daemon caches the caller's credentials
        daemon.pause()
        # Replies of 2 KB each, more than the daemon's socket holds.
        replies = [sandbox.bus.send(NAME, "/com/vesk/Sonobrik",
                                    "org.freedesktop.DBus.Introspectable", "Introspect")
                   for _ in range(120)]
        replies.append(player.send("StopPlayingClip", "last"))
        sandbox.bus.call(*DRIVER, "GetId")  # the bus has forwarded the calls
        bus.pause()
        daemon.go_on()
        daemon.wait_log("info", "sonobrik_stop_clip with options: last", 60)
        bus.go_on()
        wait_until(lambda: all(reply.done for reply in replies), 60, "all are answered")
        *descriptions, stopped = [reply.wait() for reply in replies]
        assert all("StopPlayingClip" in text for text, in descriptions)
        assert stopped == ("OK",)


def test_a_call_without_a_reply_is_executed(sandbox, player, clip):
    player.post("PlayClip", clip.location)
    wait_until(lambda: len(player.events) == 3, 20, "it has ended")
    assert sandbox.card(0).takes[0].find(clip.samples) >= 0
    player.post("PlayClip", "nonsense")
    assert player.call("PlayClip", clip.location) == "OK"


def test_callers_that_disconnect_before_the_reply_do_no_harm(sandbox, daemon, player, clip):
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


def test_an_option_string_with_many_options_is_answered(player):
    options = "&".join(f"{number}=x" for number in range(20000))
    assert player.fail("PlayClip", options, timeout=60) == (
        f"Failed to parse/validate option string: '{options}'")[:255]
