"""systemd's watchdog."""

import os
import time as clock

import pytest
from sandbox import BusError, Player, Store, clips, wait_until
from sandbox.log_lines import START
from sandbox.player import NAME, PATH
from sandbox.store import write_record

PING = "WATCHDOG=1"


def texts(sandbox):
    return [text for _, text in sandbox.notify.messages]


def test_the_watchdog_is_pinged_twice_per_period(sandbox):
    sandbox.start_daemon(watchdog_usec=4000000)
    wait_until(lambda: len(sandbox.notify.messages) >= 3, 60, "it is pinged three times")
    assert set(texts(sandbox)) == {PING}
    times = [time for time, _ in sandbox.notify.messages]
    gaps = [(later - earlier) / 1e9 for earlier, later in zip(times, times[1:])]
    # A busy machine may delay a ping, which makes the next gap shorter.
    assert min(gaps) < 3
    assert sum(gaps) > 3


def test_a_period_of_an_odd_number_of_seconds_is_halved_and_rounded_down(sandbox):
    sandbox.start_daemon(watchdog_usec=3999999)
    wait_until(lambda: len(sandbox.notify.messages) >= 4, 60, "it is pinged four times")
    times = [time for time, _ in sandbox.notify.messages]
    assert min(later - earlier for earlier, later in zip(times, times[1:])) < 1.5e9
    assert times[3] - times[0] > 2e9


def test_it_is_pinged_while_a_clip_plays(sandbox):
    sandbox.start_daemon(watchdog_usec=2000000)
    clip = sandbox.write_clip("a.wav", clips.noise(24000))
    player = Player(sandbox.bus)
    assert player.call("StartPlayingClip", f"{clip.location}&repeat=-1") == "OK"
    pinged = len(texts(sandbox))
    wait_until(lambda: len(texts(sandbox)) >= pinged + 2, 30, "it is pinged twice more")
    assert sandbox.card(0).is_open


def test_a_watchdog_of_another_process_is_not_pinged(sandbox):
    sandbox.start_daemon(watchdog_usec=2000000, env={"WATCHDOG_PID": "1"})
    # 1.5 s, longer than the interval between two pings.
    clip = sandbox.write_clip("a.wav", clips.noise(72000))
    assert Player(sandbox.bus).call("PlayClip", clip.location) == "OK"
    assert sandbox.daemon.stop() == 0
    assert texts(sandbox) == []
    assert sandbox.daemon.texts == START


def test_an_invalid_watchdog_period_is_logged_and_ignored(sandbox):
    daemon = sandbox.start_daemon(watchdog_usec="soon")
    daemon.wait_log("warning", "Failed to setup watchdog.")
    assert Player(sandbox.bus).call("StopPlayingClip") == "OK"
    assert daemon.stop() == 0
    assert daemon.texts == [
        *START,
        "warning: Failed checking if watchdog is enabled, error code -22.",
        "warning: Failed to setup watchdog.",
        "info: sonobrik_stop_clip with options: ",
    ]
    assert texts(sandbox) == []


# Files that take seconds

# The discoverer gives up after 5 s. A busy machine needs some time more.
LONGEST_GAP = 8


def write_slow_clip(sandbox, name):
    """Writes a file that keeps the discoverer busy until its time-out."""
    clip = sandbox.write_clip(name, clips.noise(2400))
    os.truncate(clip.file, 200 * 2**30)
    return clip


def measure(sandbox, reply):
    """Waits for a reply. Returns how long it took and the longest time without a ping until then,
    in seconds."""
    begin = clock.monotonic_ns()
    # A ping gets its time when `messages` is read.
    wait_until(lambda: sandbox.notify.messages is not None and reply.done, 60, "it is answered")
    end = clock.monotonic_ns()
    times = [begin, *(time for time, _ in sandbox.notify.messages if time > begin), end]
    gaps = [(later - earlier) / 1e9 for earlier, later in zip(times, times[1:])]
    return (end - begin) / 1e9, max(gaps)


# Without pings between the files, two slow files are a gap of 10 s.


def test_it_is_pinged_between_the_files_of_a_listing(sandbox):
    store = Store(sandbox).start(watchdog_usec=4000000)
    for name in ("a.wav", "b.wav"):
        store.add_clip(write_slow_clip(sandbox, name).path)
    reply = sandbox.bus.send(NAME, PATH, NAME, "GetMetadata")
    duration, gap = measure(sandbox, reply)
    assert reply.wait() == ("[]",)
    assert duration > 9
    assert gap < LONGEST_GAP


def test_it_is_pinged_between_the_files_of_a_wildcard(sandbox):
    sandbox.start_daemon(watchdog_usec=4000000)
    for name in ("a.wav", "b.wav"):
        write_slow_clip(sandbox, name)
    reply = Player(sandbox.bus).send("StartPlayingClip", "location=/etc/audioclips/*.wav")
    duration, gap = measure(sandbox, reply)
    with pytest.raises(BusError, match="No supported file"):
        reply.wait()
    assert duration > 9
    assert gap < LONGEST_GAP


def test_a_location_that_many_clips_share_is_inspected_once(sandbox, store):
    clip = write_slow_clip(sandbox, "slow.wav")
    for index in range(100):
        store.write(f"M{index}.json", write_record(clip.path, "A", "audio"))
    begin = clock.monotonic_ns()
    assert store.get_metadata() == "[]"
    assert clock.monotonic_ns() - begin < LONGEST_GAP * 1e9
    log = store.take_log()
    # What is logged about each clip does not depend on the others.
    for line in ("warning: Could not obtain media info for: ",
                 "warning: Could not get metadata for location: ",
                 "warning: Failed to create metadata for clip at location: ",
                 "error: Could not obtain metadata for clip at location: "):
        assert log.count(line + clip.path) == 100
