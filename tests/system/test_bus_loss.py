"""The bus drops connections of the daemon, one at a time, or restarts."""

import pytest
from sandbox import BusError, Player, Store, wait_until
from sandbox.connections import (
    cut_connection, fill_queue, find_connections, list_connections)
from sandbox.cards import SERVICE
from sandbox.controls import Controls
from sandbox.log_lines import NO_CONTROLS_AT_START, NO_CONTROLS_FOR_SYNC
from sandbox.player import EVENTS_NAME, NAME
from sandbox.store import LEGACY_NAME, subscribe_changes

SERVED = {"main": NAME, "legacy": LEGACY_NAME}

LOST = {purpose: f"error: The connection of {name} to the system bus was lost."
        for purpose, name in SERVED.items()}
LOST_EVENTS = ("warning: The platform's connection to the system bus was lost: "
               "Connection reset by peer.")
LOST_POLICY = ("warning: The access policy's connection to the system bus was lost: "
               "Connection reset by peer.")
LOST_CONTROLS = "warning: The connection to the on-screen controls was lost."


@pytest.fixture
def controls(sandbox):
    return Controls(sandbox)


@pytest.fixture
def playing(sandbox, player, long):
    """A pending PlayClip call whose clip is playing."""
    reply = player.send("PlayClip", long.location)
    wait_until(lambda: sandbox.card(0).frames > 0, what="the clip is playing")
    return reply


def cut(sandbox, purpose):
    connections = find_connections(sandbox)
    for served, name in {**SERVED, "events": EVENTS_NAME}.items():
        assert sandbox.bus.get_owner(name) == connections[served]
    cut_connection(sandbox, connections[purpose])


def wait_text(daemon, text):
    wait_until(lambda: text in daemon.texts, 20, f"'{text}' is logged")


# The connections that own the daemon's names


@pytest.mark.parametrize("purpose", SERVED)
def test_an_idle_daemon_that_lost_a_name_exits_with_1(sandbox, daemon, purpose):
    cut(sandbox, purpose)
    assert daemon.wait_exit() == 1
    assert daemon.texts[-1] == LOST[purpose]


@pytest.mark.parametrize("purpose", SERVED)
def test_a_playing_daemon_that_lost_a_name_exits_with_1(sandbox, daemon, playing, purpose):
    cut(sandbox, purpose)
    assert daemon.wait_exit() == 1
    assert LOST[purpose] in daemon.texts
    with pytest.raises(BusError) as error:
        playing.wait()
    assert error.value.name == "org.freedesktop.DBus.Error.NoReply"
    assert not sandbox.card(0).is_open


@pytest.mark.parametrize("purpose", SERVED)
def test_a_name_lost_while_the_controls_are_slow_ends_the_daemon_with_1(sandbox, controls,
                                                                        purpose):
    store = Store(sandbox).start()
    controls.hold()
    store.send("Sync")
    controls.wait_asked()
    cut(sandbox, purpose)
    controls.release()
    assert sandbox.daemon.wait_exit() == 1
    assert LOST[purpose] in sandbox.daemon.texts


# The other connections


def test_the_controls_are_reached_again_after_each_loss(sandbox, controls):
    store = Store(sandbox).start()
    name = find_connections(sandbox)["controls"]
    for count in (2, 3, 4):
        cut_connection(sandbox, name)
        wait_until(lambda: LOST_CONTROLS in store.take_log(), 10, "the loss is logged")
        store.call("Sync")
        assert (len(controls.calls), store.take_log()) == (count, [])
        name = list_connections(sandbox)[-1]


def test_controls_lost_during_a_call_are_reached_by_the_next(sandbox, controls):
    store = Store(sandbox).start()
    controls.hold()
    sync = store.send("Sync")
    controls.wait_asked()
    cut(sandbox, "controls")
    assert sync.wait() == ()
    failed, consequence, *_ = store.take_log()
    assert failed.startswith("error: Failed to execute sd-bus command (line 135): ")
    assert consequence == NO_CONTROLS_FOR_SYNC
    controls.release()
    store.call("Sync")
    assert store.take_log()[-1:] in ([], [LOST_CONTROLS])
    assert sandbox.daemon.texts.count(LOST_CONTROLS) == 1


def test_controls_lost_during_start_up_do_not_stop_the_start(sandbox, controls):
    controls.hold()
    daemon = sandbox.start_daemon(wait=False)
    controls.wait_asked()
    cut_connection(sandbox, list_connections(sandbox)[-1])
    wait_text(daemon, NO_CONTROLS_AT_START)
    controls.release()
    wait_until(lambda: sandbox.bus.get_owner(NAME), 20, "it has started")
    Store(sandbox).call("Sync")
    assert daemon.texts.count(LOST_CONTROLS) == 1


def test_events_are_served_again_after_a_loss(sandbox, daemon, player, clip):
    cut(sandbox, "events")
    wait_text(daemon, LOST_EVENTS)
    assert sandbox.bus.get_owner(EVENTS_NAME) is None
    assert player.call("PlayClip", clip.location) == "OK"
    player.fence()
    assert [event[0] for event in player.events] == ["Playing", "CurrentlyPlaying", "Playing"]


def test_events_lost_while_a_clip_plays_report_its_end(sandbox, player, playing):
    cut(sandbox, "events")
    wait_text(sandbox.daemon, LOST_EVENTS)
    assert player.call("StopPlayingClip") == "OK"
    assert playing.wait() == ("OK",)
    player.fence()
    assert player.events[-1][0] == "Playing"
    assert player.events[-1][-1] is False


def test_events_lost_during_start_up_are_served_again(sandbox, controls, clip):
    controls.hold()
    daemon = sandbox.start_daemon(wait=False)
    controls.wait_asked()
    cut_connection(sandbox, list_connections(sandbox)[0])
    controls.release()
    wait_text(daemon, LOST_EVENTS)
    player = Player(sandbox.bus)
    wait_until(lambda: sandbox.bus.get_owner(NAME), 20, "it has started")
    assert player.call("PlayClip", clip.location) == "OK"
    player.fence()
    assert [event[0] for event in player.events] == ["Playing", "CurrentlyPlaying", "Playing"]


def test_change_notices_are_sent_after_a_loss(sandbox, daemon):
    cut(sandbox, "events")
    wait_text(daemon, LOST_EVENTS)
    notices = subscribe_changes(sandbox.bus)
    Store(sandbox).add_clip("/etc/audioclips/a.wav")
    sandbox.bus.call(NAME, "/", "org.freedesktop.DBus.Peer", "Ping")
    wait_until(lambda: notices, 10, "the notice has arrived")
    assert [notice.args[3] for notice in notices] == ["/com/vesk/Sonobrik/0"]


def test_callers_are_identified_after_each_loss(sandbox, daemon, player):
    assert player.call("StopPlayingClip") == "OK"
    name = find_connections(sandbox)["policy"]
    for count in (1, 2, 3):
        cut_connection(sandbox, name)
        wait_until(lambda: daemon.texts.count(LOST_POLICY) == count, 10, "the loss is logged")
        before = list_connections(sandbox)
        for caller in (Player(sandbox.connect()), player):
            assert caller.call("StopPlayingClip") == "OK"
        name, = set(list_connections(sandbox)) - set(before)


# The whole bus


def test_a_bus_that_ends_while_a_clip_plays_ends_the_daemon_with_1(sandbox, long):
    bus = sandbox.start_bus()
    daemon = sandbox.start_daemon()
    Player(sandbox.bus).send("PlayClip", long.location)
    wait_until(lambda: sandbox.card(0).frames > 0, what="the clip is playing")
    bus.kill()
    assert daemon.wait_exit() == 1
    assert not sandbox.card(0).is_open
    sandbox.start_bus()
    sandbox.start_daemon()
    assert Player(sandbox.bus).call("StopPlayingClip") == "OK"


def test_a_bus_that_ends_during_a_call_ends_the_daemon_with_1(sandbox):
    bus = sandbox.start_bus()
    controls = Controls(sandbox)
    store = Store(sandbox).start()
    controls.hold()
    store.send("Sync")
    controls.wait_asked()
    bus.kill()
    assert sandbox.daemon.wait_exit() == 1
    controls.release()


def test_a_bus_that_ends_during_start_up_ends_the_daemon_with_1(sandbox):
    bus = sandbox.start_bus()
    controls = Controls(sandbox)
    controls.hold()
    daemon = sandbox.start_daemon(wait=False)
    controls.wait_asked()
    bus.kill()
    assert daemon.wait_exit() == 1
    controls.release()


# A bus that does not read


@pytest.mark.parametrize("purpose, path", [
    ("main", "/com/vesk/Sonobrik"), ("legacy", "/com/vesk/Sonobrik"),
    ("events", "/com/vesk/Events1/SonoBrikEvents/1")])
def test_a_daemon_with_unsent_answers_ends(sandbox, purpose, path):
    bus = sandbox.start_bus()
    daemon = sandbox.start_daemon()
    fill_queue(sandbox, bus, daemon, find_connections(sandbox)[purpose], path)
    try:
        assert daemon.stop() == 0
    finally:
        bus.go_on()


@pytest.mark.parametrize("purpose", SERVED)
def test_a_daemon_whose_answers_the_bus_does_not_read_ends_with_1(sandbox, full, purpose):
    if not full:
        pytest.skip("takes 45 s; the unit tests have a shorter interval")
    bus = sandbox.start_bus()
    daemon = sandbox.start_daemon()
    fill_queue(sandbox, bus, daemon, find_connections(sandbox)[purpose], "/com/vesk/Sonobrik")
    try:
        assert daemon.wait_exit(60) == 1
        assert LOST[purpose] in daemon.texts
    finally:
        bus.go_on()


def test_an_audio_control_service_with_unsent_answers_ends(cards, sandbox):
    bus = sandbox.start_bus()
    cards.add(0)
    service = cards.start()
    name = sandbox.bus.get_owner(SERVICE)
    fill_queue(sandbox, bus, service, name, "/com/vesk/AudioControl/0")
    try:
        assert service.stop() == 0
    finally:
        bus.go_on()
