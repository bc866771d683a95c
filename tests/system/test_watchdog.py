"""The service manager's watchdog."""

from sandbox import Player, clips, wait_until
from sandbox.log_lines import START

FEED = "WATCHDOG=1"


def texts(sandbox):
    return [text for _, text in sandbox.notify.messages]


def test_the_watchdog_is_fed_twice_in_its_period(sandbox):
    sandbox.start_daemon(watchdog_usec=4000000)
    wait_until(lambda: len(sandbox.notify.messages) >= 3, 60, "it is fed three times")
    assert set(texts(sandbox)) == {FEED}
    times = [time for time, _ in sandbox.notify.messages]
    gaps = [(later - earlier) / 1e9 for earlier, later in zip(times, times[1:])]
    # A busy machine delays a meal now and then, which shortens the next gap.
    assert min(gaps) < 3
    assert sum(gaps) > 3


def test_a_period_of_an_odd_number_of_seconds_is_halved_and_rounded_down(sandbox):
    sandbox.start_daemon(watchdog_usec=3999999)
    wait_until(lambda: len(sandbox.notify.messages) >= 4, 60, "it is fed four times")
    times = [time for time, _ in sandbox.notify.messages]
    assert min(later - earlier for earlier, later in zip(times, times[1:])) < 1.5e9
    assert times[3] - times[0] > 2e9


def test_it_is_fed_while_a_clip_plays(sandbox):
    sandbox.start_daemon(watchdog_usec=2000000)
    clip = sandbox.write_clip("a.wav", clips.noise(24000))
    player = Player(sandbox.bus)
    assert player.call("StartPlayingClip", f"{clip.location}&repeat=-1") == "OK"
    fed = len(texts(sandbox))
    wait_until(lambda: len(texts(sandbox)) >= fed + 2, 30, "it is fed twice more")
    assert sandbox.card(0).is_open


def test_a_watchdog_of_another_process_is_not_fed(sandbox):
    sandbox.start_daemon(watchdog_usec=2000000, env={"WATCHDOG_PID": "1"})
    # Longer than an interval between two feeds.
    clip = sandbox.write_clip("a.wav", clips.noise(72000))
    assert Player(sandbox.bus).call("PlayClip", clip.location) == "OK"
    assert sandbox.daemon.stop() == 0
    assert texts(sandbox) == []
    assert sandbox.daemon.texts == START


def test_a_watchdog_that_cannot_be_read_is_told_and_done_without(sandbox):
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
