"""The audio control service and the daemon together, as cards are plugged in and unplugged."""

import pathlib

import pytest
from sandbox import BusError, Player, clips, read_events, wait_until
from sandbox.cards import DEVICE
from sandbox.log_lines import START

ROOT = pathlib.Path(__file__).resolve().parents[2]

DAEMON = "com.vesk.Sonobrik"


@pytest.fixture
def start(sandbox, cards):
    """Returns a function that starts the service and the daemon, which restarts like under
    systemd, and returns the daemon's player."""
    def start():
        cards.start()
        sandbox.start_daemon(is_supervised=True)
        return Player(sandbox.bus)
    return start


@pytest.fixture
def clip(sandbox):
    """50 ms."""
    return sandbox.write_clip("a.wav", clips.noise(2400))


def is_heard(cards, card_id, clip):
    return any(take.find(clip.samples) >= 0 for take in cards.recording(card_id).takes)


def wait_for_restart(sandbox, owner, deadline=10):
    wait_until(lambda: sandbox.bus.get_owner(DAEMON) not in (owner, None), deadline,
               "the daemon is back")
    sandbox.bus.call(DAEMON, "/", "org.freedesktop.DBus.Peer", "Ping")


def read_outputs(bus):
    """Returns the devices and outputs that have events."""
    return sorted({(event["Keys"]["AudioDeviceId"], event["Keys"]["AudioOutputId"])
                   for event in read_events(bus).values()})


def test_a_card_at_boot_plays(sandbox, cards, start, clip):
    cards.add(0, "Speaker")
    player = start()
    assert player.call("PlayClip", clip.location) == "OK"
    assert is_heard(cards, "Speaker", clip)
    assert sandbox.daemon.stop() == 0
    assert sandbox.daemon.texts == START


def test_a_second_card_plays_after_a_restart(sandbox, cards, start, clip):
    cards.add(0, "First")
    player = start()
    owner = sandbox.bus.get_owner(DAEMON)
    cards.add(1, "Second", outputs=(0, 3))
    wait_for_restart(sandbox, owner)
    assert player.call("PlayClip", f"{clip.location}&audiooutput=1") == "OK"
    assert is_heard(cards, "Second", clip) and not is_heard(cards, "First", clip)
    assert player.call("PlayClip", f"{clip.location}&audiodeviceid=1&audiooutputid=1") == "OK"
    assert is_heard(cards, "Second.3", clip)
    assert read_outputs(sandbox.bus) == [(0, 0), (1, 0)]


def test_a_card_that_is_unplugged_while_it_plays(sandbox, cards, start, clip, long):
    cards.add(0, "First")
    cards.add(1, "Second")
    player = start()
    owner = sandbox.bus.get_owner(DAEMON)
    held = player.send("PlayClip", long.location)
    wait_until(lambda: cards.recording("First").frames > 0, what="it sounds")
    cards.recording("First").set_trouble("gone")
    cards.remove(0)
    assert held.wait() == ("OK",)
    wait_for_restart(sandbox, owner)
    assert read_outputs(sandbox.bus) == [(1, 0)]
    assert player.call("PlayClip", clip.location) == "OK"
    assert is_heard(cards, "Second", clip)


def test_a_clip_on_another_card_ends_with_the_restart(sandbox, cards, start, long):
    cards.add(0, "First")
    cards.add(1, "Second")
    player = start()
    owner = sandbox.bus.get_owner(DAEMON)
    held = player.send("PlayClip", long.location)
    wait_until(lambda: cards.recording("First").frames > 0, what="it sounds")
    cards.remove(1)
    with pytest.raises(BusError) as error:
        held.wait()
    assert error.value.name == "org.freedesktop.DBus.Error.NoReply"
    wait_for_restart(sandbox, owner)


def test_each_output_of_a_card_without_a_first_pcm_plays(sandbox, cards, start, clip):
    cards.add(0, "HDMI", "pci", outputs=(3, 7, 8, 9))
    player = start()
    assert player.call("PlayClip", clip.location) == "OK"
    assert is_heard(cards, "HDMI.3", clip)
    for output, pcm in enumerate((3, 7, 8, 9)):
        before = cards.recording(f"HDMI.{pcm}").count("close")
        options = f"{clip.location}&audiodeviceid=0&audiooutputid={output}"
        assert player.call("PlayClip", options) == "OK"
        assert cards.recording(f"HDMI.{pcm}").count("close") == before + 1


def test_a_hub_that_is_unplugged_restarts_the_daemon_once(sandbox, cards, start, clip, long):
    cards.add(0, "First")
    for index in range(1, 30):
        cards.add(index, f"Hub{index}", outputs=(0, 3))
    player = start()
    names = sandbox.bus.subscribe("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                  "org.freedesktop.DBus", "NameOwnerChanged")
    seen = cards.listen()
    number = next(number for number, interfaces in cards.read_objects().items()
                  if interfaces[DEVICE]["CardId"] == "Hub9")
    held = player.send("PlayClip", f"{long.location}&audiodeviceid={number}&audiooutputid=1")
    wait_until(lambda: cards.recording("Hub9.3").frames > 0, what="it sounds")
    cards.recording("Hub9.3").set_trouble("gone")
    for index in range(1, 30):
        cards.remove(index)
    assert held.wait() == ("OK",)
    wait_until(lambda: len(seen.seen) == 29, 10, "each card is told")
    wait_until(lambda: len([1 for signal in names if signal.args[0] == DAEMON]) >= 2, 10,
               "the daemon restarted")
    assert player.call("PlayClip", clip.location) == "OK"
    assert is_heard(cards, "First", clip)
    assert len([1 for signal in names if signal.args[0] == DAEMON]) == 2


def test_a_card_that_flaps_restarts_the_daemon_once(sandbox, cards, start):
    cards.add(0, "First")
    start()
    names = sandbox.bus.subscribe("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                  "org.freedesktop.DBus", "NameOwnerChanged")
    for _ in range(20):
        cards.add(1, "Loose")
        cards.remove(1)
    cards.add(1, "Loose")
    seen = cards.listen()
    wait_until(lambda: seen.seen, 10, "the card is told")
    wait_until(lambda: len([1 for signal in names if signal.args[0] == DAEMON]) == 2, 10,
               "the daemon restarted")
    cards.add(2, "Last")
    wait_until(lambda: len([1 for signal in names if signal.args[0] == DAEMON]) == 4, 10,
               "the daemon restarted again")
    assert seen.seen == [("InterfacesAdded", 1), ("InterfacesAdded", 2)]


def test_a_daemon_that_was_started_first_learns_the_cards(sandbox, cards):
    cards._make_folder("0")
    sandbox.start_daemon(is_supervised=True)
    owner = sandbox.bus.get_owner(DAEMON)
    cards.add(0, "First")
    cards.add(1, "Second")
    cards.start()
    wait_for_restart(sandbox, owner)
    assert read_outputs(sandbox.bus) == [(0, 0), (1, 0)]


def test_a_service_that_was_stopped_tells_all_cards(sandbox, cards, start):
    cards.add(0, "First")
    cards.add(1, "Second")
    start()
    owner = sandbox.bus.get_owner(DAEMON)
    assert cards.service.stop() == 0
    cards.alsa.unlink()  # as systemd does
    cards.remove(1)
    cards.add(2, "Third")
    cards.start()
    wait_for_restart(sandbox, owner)
    assert read_outputs(sandbox.bus) == [(0, 0), (2, 0)]


REFUSAL = "Failed to parse/validate option string: '{}'"


def test_without_a_card_a_play_is_refused_and_the_log_says_why(sandbox, cards, start, clip):
    player = start()
    assert player.fail("PlayClip", clip.location) == REFUSAL.format(clip.location)
    assert sandbox.daemon.texts == [
        *["info: No audio devices found"] * 2, *START, *["info: No audio devices found"] * 6,
        "info: No audiooutput was specified, could not find a suitable device."]
    assert cards.service.texts == ["info: No audio device is plugged in"]


def test_after_the_only_card_is_unplugged_a_play_is_refused(sandbox, cards, start, clip):
    cards.add(0, "Only")
    player = start()
    owner = sandbox.bus.get_owner(DAEMON)
    cards.remove(0)
    wait_for_restart(sandbox, owner)
    options = f"{clip.location}&audiooutput=0"
    assert player.fail("PlayClip", options) == REFUSAL.format(options)
    assert sandbox.daemon.texts[-2:] == ["info: No audio devices found",
                                         "info: Invalid 'audiooutput' option index: '0'."]
    assert cards.service.texts[-2:] == ["info: Audio device 0 is unplugged: Mocked card",
                                        "info: No audio device is plugged in"]


def test_what_the_administrator_defines_wins(sandbox, cards, start, clip):
    cards.add(0, "First")
    cards._make_folder("Other")
    cards.define('pcm.audiosink0 "sysdefault:CARD=Other"\n')
    player = start()
    assert player.call("PlayClip", clip.location) == "OK"
    assert is_heard(cards, "Other", clip) and not is_heard(cards, "First", clip)


def test_without_the_service_the_shipped_definition_plays(sandbox, cards, clip):
    shipped = sandbox.etc / "alsa/conf.d/sonobrik.conf"
    shipped.write_text(shipped.read_text().replace("/usr/share/sonobrik", str(ROOT / "data/alsa")))
    cards._make_folder("0")
    sandbox.start_daemon()
    assert Player(sandbox.bus).call("PlayClip", clip.location) == "OK"
    assert is_heard(cards, "0", clip)
