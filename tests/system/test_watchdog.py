"""systemd's watchdog."""

from sandbox import Player, clips, wait_until
from sandbox.log_lines import START

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
