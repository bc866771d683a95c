"""The audio control service: sound cards that come and go, and what it makes of them."""

import json
import os
import time

import pytest
from sandbox import clips, wait_until
from sandbox.cards import DEVICE, MANAGER, OUTPUTS, SERVICE
from sandbox.process import NotifySocket
from sandbox.strangers import send_largest

QUIET = 0.5  # seconds

ALSA = "/run/sonobrik-audiocontrol/alsa.conf"


@pytest.fixture
def seen(cards):
    """The signals of the service."""
    return cards.listen()


def wait_seen(seen, *signals, deadline=10):
    wait_until(lambda: len(seen.seen) >= len(signals), deadline, f"{signals} were sent")
    assert sorted(seen.seen) == sorted(signals)


def read_definitions(cards):
    """Returns the names that the ALSA file defines."""
    return [line.split()[0].removeprefix("pcm.?") for line in cards.alsa.read_text().splitlines()
            if line.startswith("pcm.")]


# The picture


def test_a_card_at_boot_is_served_without_a_signal(cards, seen):
    cards.add(0, "PCH", "pci", {0: "id: ALC\nname: Analog\n", 3: "id: HDMI 0\n"},
              ID_MODEL_FROM_DATABASE="Built-in Audio", ID_PATH="pci-0000:00:1f.3")
    cards.start()
    assert cards.read_objects() == {0: {
        "org.freedesktop.DBus.Introspectable": {}, "org.freedesktop.DBus.Peer": {},
        "org.freedesktop.DBus.Properties": {},
        DEVICE: {"Number": 0, "Name": "Built-in Audio", "Serial": "", "Path": "pci-0000:00:1f.3",
                 "CardId": "PCH", "PluggedIn": True},
        OUTPUTS: {"Outputs": [(0, "Analog", False), (1, "HDMI 0", False)]}}}
    assert read_definitions(cards) == ["audiosink0", "device0_output0", "device0_output1"]
    assert seen.seen == []
    assert cards.service.stop() == 0
    assert cards.service.texts == [
        "info: Audio device 0 is plugged in: Built-in Audio (serial=-, path=pci-0000:00:1f.3, "
        "card=PCH)"]


def test_the_definitions_are_there_when_the_name_is(cards, sandbox):
    cards.add(0)
    cards.start(wait=False)
    wait_until(lambda: sandbox.bus.get_owner(SERVICE) or cards.alsa.exists(), 10, "it started")
    assert cards.alsa.exists()


def test_a_card_that_is_plugged_in_and_unplugged_is_told_once(cards, seen):
    cards.add(0, name="First")
    cards.start()
    cards.add(1, name="Second")
    wait_seen(seen, ("InterfacesAdded", 1))
    assert seen.all[0].args[1].keys() == {DEVICE, OUTPUTS}
    assert read_definitions(cards) == [
        "audiosink0", "device0_output0", "audiosink1", "device1_output0"]
    assert cards.read_devices() == {0: "First", 1: "Second"}
    cards.remove(0)
    wait_seen(seen, ("InterfacesAdded", 1), ("InterfacesRemoved", 0))
    assert seen.all[1].args[1] == [OUTPUTS]
    assert cards.read_devices() == {0: "First (out)", 1: "Second"}
    assert read_definitions(cards) == ["audiosink1", "device1_output0"]


def test_the_definitions_change_before_the_signal(cards, sandbox, seen):
    cards.add(0)
    cards.start()
    texts = []
    sandbox.bus.connection.signal_subscribe(
        SERVICE, MANAGER[2], None, MANAGER[1], None, 0,
        lambda *_: texts.append(cards.alsa.read_text()))
    cards.add(1)
    wait_seen(seen, ("InterfacesAdded", 1))
    wait_until(lambda: texts, what="the second subscription")
    assert "pcm.?audiosink1 {" in texts[0]


def test_signals_wait_for_half_a_second_of_quiet(cards, seen):
    cards.start()
    cards.add(0)
    cards.add(1)
    began = time.monotonic_ns()
    wait_seen(seen, ("InterfacesAdded", 0), ("InterfacesAdded", 1))
    assert all(signal.time - began > 0.9 * QUIET * 1e9 for signal in seen.all)


def test_a_device_that_flaps_is_told_when_it_rests(cards, seen):
    cards.add(0)
    cards.start()
    for _ in range(15):
        cards.add(1)
        wait_until_passed(0.05)
        cards.remove(1)
        wait_until_passed(0.05)
    assert seen.seen == []
    cards.add(1)
    wait_seen(seen, ("InterfacesAdded", 1))
    for _ in range(10):
        cards.remove(1)
        wait_until_passed(0.05)
        cards.add(1)
        wait_until_passed(0.05)
    cards.add(2)
    # Card 1 came back as it was.
    wait_seen(seen, ("InterfacesAdded", 1), ("InterfacesAdded", 2))


def test_a_card_that_flaps_at_boot_does_not_hide_the_others(cards, sandbox):
    cards.add(0, name="First")
    cards.start(wait=False)
    end = time.monotonic() + 20
    while not sandbox.bus.get_owner(SERVICE):
        assert time.monotonic() < end, "the service waits for a card that keeps flapping"
        cards.add(1)
        wait_until_passed(0.05)
        cards.remove(1)
        wait_until_passed(0.05)
    assert cards.read_devices()[0] == "First"


def wait_until_passed(seconds):
    """Lets this much time pass, where the pace of the events is tested."""
    end = time.monotonic() + seconds
    wait_until(lambda: time.monotonic() >= end, seconds + 5)


def test_a_card_without_playback_is_no_device(cards, seen):
    cards.add(0, "Microphone", outputs=())
    cards.start()
    cards.add(1, "Speaker")
    wait_seen(seen, ("InterfacesAdded", 0))
    assert [interfaces[DEVICE]["CardId"] for interfaces in cards.read_objects().values()] == [
        "Speaker"]


def test_a_machine_without_cards_is_served(cards, seen):
    cards.start()
    assert cards.read_objects() == {}
    assert read_definitions(cards) == []
    assert cards.service.texts == ["info: No audio device is plugged in"]


# Numbers


def test_built_in_cards_come_first_and_hdmi_last(cards):
    cards.add(0, "HDMI", "pci", name="HDA NVidia HDMI")
    cards.add(1, "Speaker")
    cards.add(2, "PCH", "pci", name="HDA Intel PCH")
    cards.start()
    assert [interfaces[DEVICE]["CardId"]
            for _, interfaces in sorted(cards.read_objects().items())] == ["PCH", "Speaker", "HDMI"]


def test_numbers_stay_after_a_restart(cards, seen):
    cards.add(0, ID_SERIAL="M_A", ID_SERIAL_SHORT="A", ID_PATH="one", name="A")
    cards.add(1, ID_PATH="two", name="B")
    cards.start()
    assert cards.read_devices() == {0: "A", 1: "B"}
    cards.remove(0)
    cards.remove(1)
    wait_seen(seen, ("InterfacesRemoved", 0), ("InterfacesRemoved", 1))
    assert cards.service.stop() == 0
    # One at another place, the other at the same one, and all with other numbers of the kernel.
    cards.add(5, "New", ID_PATH="three", name="C")
    cards.add(6, ID_PATH="two", name="B")
    cards.add(7, ID_SERIAL="M_A", ID_SERIAL_SHORT="A", ID_PATH="four", name="A")
    cards.start()
    assert cards.read_devices() == {0: "A", 1: "B", 2: "C"}
    assert "CARD=Card7" in cards.alsa.read_text()


def test_known_cards_are_served_at_once_after_a_restart(cards):
    cards.add(0)
    cards.start()
    cards.service.stop()
    cards.add(1, "Other")
    cards.remove(1)
    cards.start()
    assert cards.read_devices() == {0: "Mocked card"}


def test_two_cards_of_one_make_are_told_apart(cards, seen):
    for index, path in enumerate(("left", "right")):
        cards.add(index, f"Twin{index}", ID_PATH=path, ID_SERIAL="Maker_Twin", name="Twin")
    cards.start()
    assert cards.read_devices() == {0: "Twin", 1: "Twin"}
    cards.remove(0)
    cards.remove(1)
    wait_seen(seen, ("InterfacesRemoved", 0), ("InterfacesRemoved", 1))
    # Plugged in in the other order, each has the id of the other one.
    cards.add(0, "Twin0", ID_PATH="right", ID_SERIAL="Maker_Twin", name="Twin")
    cards.add(1, "Twin1", ID_PATH="left", ID_SERIAL="Maker_Twin", name="Twin")
    wait_until(lambda: len(seen.seen) == 4, 10, "both are back")
    text = cards.alsa.read_text()
    assert text.index("CARD=Twin1") < text.index("pcm.?audiosink1 ") < text.index("CARD=Twin0")


def test_a_damaged_state_is_replaced(cards):
    cards.state.parent.mkdir()
    cards.state.write_text('{"version": 1,')
    cards.add(0)
    cards.start()
    assert cards.service.texts[0].startswith(
        "warning: /run/audiocontrol-state/devices.json: line 1: ")
    assert cards.service.texts[0].endswith("; the devices get new numbers")
    assert [device["number"] for device in json.loads(cards.state.read_text())["devices"]] == [0]


def test_a_state_that_cannot_be_written_is_a_warning(cards):
    cards.state.mkdir(parents=True)
    cards.add(0)
    cards.start()
    assert cards.read_devices() == {0: "Mocked card"}
    assert [text.partition(": ")[0] for text in cards.service.texts] == [
        "warning", "info", "warning"]
    cards.state.rmdir()
    cards.configure("")
    wait_until(cards.state.exists, 10, "the state is written when the cards are read again")


# Udev

EXAMINED = {"ID_PATH": "port", "ID_SERIAL": "M_A", "ID_SERIAL_SHORT": "A", "SOUND_INITIALIZED": "1"}


def test_the_name_waits_until_udev_has_examined_the_cards(cards, sandbox):
    cards.add(0, ID_PATH="")
    cards.set_udev(is_busy=True)
    cards.examine(0)  # as after the first of its events
    cards.start(wait=False)
    wait_until_passed(3 * QUIET)
    assert not sandbox.bus.get_owner(SERVICE)
    cards.examine(0, **EXAMINED)
    cards.set_udev(is_busy=False)
    wait_until(lambda: sandbox.bus.get_owner(SERVICE), 10, "the name is taken")
    (number, interfaces), = cards.read_objects().items()
    assert (number, interfaces[DEVICE]["Serial"], interfaces[DEVICE]["Path"]) == (0, "M_A", "port")


def test_a_card_that_udev_is_examining_gets_no_number(cards, sandbox, seen):
    cards.set_udev(is_busy=False)
    cards.add(0, ID_PATH="")
    cards.examine(0, **EXAMINED)
    cards.start()
    cards.set_udev(is_busy=True)
    cards.examine(1)
    cards.add(1, ID_PATH="")
    wait_until_passed(3 * QUIET)
    assert seen.seen == []
    cards.examine(1, **EXAMINED | {"ID_SERIAL": "M_B", "ID_SERIAL_SHORT": "B"})
    cards.set_udev(is_busy=False)
    wait_seen(seen, ("InterfacesAdded", 1))
    assert [interfaces[DEVICE]["Serial"] for _, interfaces in sorted(cards.read_objects().items())
            ] == ["M_A", "M_B"]


# The configuration


def test_the_configuration_pins_names_and_leaves_out(cards, seen):
    cards.configure("[path=path-1]\nnumber=0\nname=Küche\n[card=Loopback]\nleave-out=yes\n")
    cards.add(0)
    cards.add(1)
    cards.add(2, "Loopback")
    cards.start()
    assert cards.read_devices() == {0: "Küche", 1: "Mocked card"}


def test_an_edit_of_the_configuration_counts_at_once(cards, seen):
    cards.add(0)
    cards.start()
    cards.configure("[path=path-0]\nnumber=3\n")
    wait_seen(seen, ("InterfacesRemoved", 0), ("InterfacesAdded", 3))
    assert read_definitions(cards) == ["audiosink3", "device3_output0"]
    cards.configure(None)
    cards.add(1)
    wait_until(lambda: ("InterfacesAdded", 0) in seen.seen, 10, "the new card is number 0")
    assert cards.read_devices() == {0: "Mocked card", 3: "Mocked card"}


def test_a_configuration_in_a_new_folder_counts_at_once(cards, seen):
    folder = cards.sandbox.etc / "vesk"
    folder.rename(folder.with_name("away"))
    cards.add(0)
    cards.start()
    folder.mkdir()
    cards.configure("[path=path-0]\nnumber=3\n")
    wait_seen(seen, ("InterfacesRemoved", 0), ("InterfacesAdded", 3))
    # Only the watch of the new folder shows this edit.
    cards.configure("[path=path-0]\nnumber=4\n")
    wait_until(lambda: ("InterfacesAdded", 4) in seen.seen, 10, "the edit is seen")


def test_an_edit_behind_a_link_counts_at_once(cards, seen):
    target = cards.sandbox.etc / "elsewhere/audio-control.conf"
    target.parent.mkdir()
    target.write_text("[path=path-0]\nnumber=3\n")
    (cards.sandbox.etc / "vesk/audio-control.conf").symlink_to("../elsewhere/audio-control.conf")
    cards.add(0)
    cards.start()
    assert cards.read_devices() == {3: "Mocked card"}
    target.write_text("[path=path-0]\nnumber=4\n")
    wait_seen(seen, ("InterfacesRemoved", 3), ("InterfacesAdded", 4))


def test_numbers_that_two_devices_exchange_are_logged(cards):
    cards.add(0, name="First")
    cards.add(1, name="Second")
    cards.start()
    cards.configure("[path=path-0]\nnumber=1\n[path=path-1]\nnumber=0\n")
    wait_until(lambda: cards.read_devices() == {0: "Second", 1: "First"}, 10, "the edit is seen")
    assert cards.service.texts[2:] == [
        "info: Audio device 0 is plugged in: Second (serial=-, path=path-1, card=Card1)",
        "info: Audio device 1 is plugged in: First (serial=-, path=path-0, card=Card0)"]


def test_a_configuration_that_becomes_readable_counts(cards, seen):
    cards.configure("[path=path-0]\nnumber=3\n")
    conf = cards.sandbox.etc / "vesk/audio-control.conf"
    conf.chmod(0)
    cards.add(0)
    cards.start()
    assert cards.service.texts[0] == (
        "warning: /etc/vesk/audio-control.conf: Permission denied; the defaults apply")
    conf.chmod(0o644)
    wait_seen(seen, ("InterfacesRemoved", 0), ("InterfacesAdded", 3))


def test_a_broken_configuration_is_a_warning_with_its_line(cards):
    cards.configure("[path=path-0]\nnumber=4\nnames=x\n")
    cards.add(0)
    cards.start()
    assert cards.read_devices() == {0: "Mocked card"}
    assert cards.service.texts[0] == (
        "warning: /etc/vesk/audio-control.conf:3: the keys are number, name and leave-out; the "
        "defaults apply")
    assert len(cards.service.texts) == 2


def test_what_the_administrator_defines_is_shown(cards):
    cards.define('pcm.audiosink0 { type null }\npcm.device1_output1 "null"\n')
    cards.add(0)
    cards.add(1, outputs=(0, 3))
    cards.start()
    objects = cards.read_objects()
    assert objects[0][OUTPUTS]["Outputs"] == [(0, "Output 0", True)]
    assert objects[1][OUTPUTS]["Outputs"] == [(0, "Output 0", False), (1, "Output 3", True)]
    cards.define("")
    wait_until(lambda: cards.read_objects()[0][OUTPUTS]["Outputs"] == [(0, "Output 0", False)],
               10, "the edit is seen")


def test_only_an_output_whose_definition_changes_is_told(cards, sandbox):
    cards.add(0)
    cards.add(1)
    cards.start()
    changes = sandbox.bus.subscribe(SERVICE, None, "org.freedesktop.DBus.Properties")
    cards.define('pcm.audiosink1 "null"\n')
    wait_until(lambda: cards.read_objects()[1][OUTPUTS]["Outputs"] == [(0, "Output 0", True)],
               10, "the edit is seen")
    # The signals arrive in the order in which they are sent.
    cards.configure("[path=path-1]\nname=Last\n")
    wait_until(lambda: any("Name" in signal.args[1] for signal in changes), 10, "the name is told")
    assert [(signal.path, *signal.args[1]) for signal in changes] == [
        (MANAGER[1] + "/1", "Outputs"), (MANAGER[1] + "/1", "Name")]


# Hardware


def test_a_card_whose_outputs_appear_later(cards, seen):
    cards.add(0, outputs=())
    cards.add(1, outputs=(3,))
    cards.start()
    assert cards.read_devices() == {0: "Mocked card"}
    cards.add_output(0, 0)
    wait_seen(seen, ("InterfacesAdded", 1))
    cards.add_output(1, 0)
    wait_seen(seen, ("InterfacesAdded", 1), ("InterfacesRemoved", 0), ("InterfacesAdded", 0))
    assert cards.read_objects()[0][OUTPUTS]["Outputs"] == [
        (0, "Output 0", False), (1, "Output 3", False)]


HOSTILE = {
    "control": 'a\x1b[31m\x07\x7fb\r',
    "quotes": '" }\tpcm.!default { type null } "',
    "not UTF-8": b"\xff\xfe\xc3(".decode(errors="surrogateescape"),
    "newline": 'a\n}\npcm.!default { type null }\n 0 [Card]: Mock - b',
    "dollar": "${HOME}$(id)`id`%s",
    "backslashes": '\\"\\',
    "direction": "\u202egnp.wav",
    "long": "x" * 2000,
}


@pytest.mark.parametrize("name", HOSTILE.values(), ids=HOSTILE)
def test_a_hostile_name_breaks_nothing(cards, sandbox, name):
    cards.add(0, "PCH", name=name, outputs={0: f"id: x\nname: {name}\n"})
    cards.start()
    interfaces, = cards.read_objects().values()
    for text in (interfaces[DEVICE]["Name"], interfaces[OUTPUTS]["Outputs"][0][1]):
        assert 0 < len(text.encode()) <= 255 and text.isprintable()
    clip = sandbox.write_clip("a.wav", clips.noise(2400))
    for pcm in ("audiosink0", "device0_output0"):
        sandbox.run(["aplay", "-q", "-D", pcm, clip.path])
    assert cards.recording("PCH").count("close") == 2
    assert all(line.isprintable() for line in cards.service.lines)


@pytest.mark.parametrize("card_id", ["x,DEV=7", '"', "1", "$x", "\x1b"])
def test_a_hostile_id_is_not_written_to_the_definitions(cards, card_id):
    cards.add(5, card_id, outputs={0: ""}, make_folders=False)
    cards.start()
    assert cards.alsa.read_text().count('"sysdefault:CARD=5"') == 2
    assert "CARD=" + card_id not in cards.alsa.read_text()


def test_cards_that_cannot_be_listed_are_not_taken_for_unplugged(cards, seen):
    cards.add(0)
    cards.start()
    definitions = cards.alsa.read_text()
    folder = cards.folder / "sys/class/sound"
    folder.rename(folder.with_name("hidden"))
    folder.symlink_to(folder.name)
    cards.configure("")
    assert cards.service.wait_exit() == 1
    assert cards.service.texts[-1] == (
        "error: Cannot list the sound cards: Too many levels of symbolic links")
    assert cards.alsa.read_text() == definitions
    folder.unlink()
    folder.with_name("hidden").rename(folder)
    cards.start()
    cards.add(1)
    wait_seen(seen, ("InterfacesAdded", 1))


# The bus


def test_the_service_ends_with_the_bus(cards, sandbox):
    cards.add(0)
    cards.start()
    sandbox.bus.close()
    sandbox.bus = None
    sandbox._processes[0].kill()
    assert cards.service.wait_exit() == 1
    assert cards.service.texts[-1] == (
        "error: The connection of com.vesk.AudioControl to the system bus was lost.")
    sandbox.start_bus()
    seen = cards.listen()
    cards.start()
    assert cards.read_devices() == {0: "Mocked card"}
    assert seen.seen == []


def test_a_restarted_service_tells_what_changed_meanwhile(cards, seen):
    cards.add(0)
    cards.add(1)
    cards.start()
    cards.service.kill()
    cards.service.wait_exit()
    cards.remove(0)
    cards.add(2)
    cards.start()
    wait_seen(seen, ("InterfacesRemoved", 0), ("InterfacesAdded", 2))


def test_a_restarted_service_tells_what_it_could_not_tell_before(cards, seen):
    cards.add(0)
    cards.start()
    definitions = cards.alsa.read_text()
    # The service ends after it has numbered the second card, and before it sends a signal.
    cards.alsa.unlink()
    cards.alsa.mkdir()
    cards.add(1)
    assert cards.service.wait_exit() == 1
    assert cards.service.texts[-1].startswith(f"critical: Cannot write {ALSA}: ")
    cards.alsa.rmdir()
    cards.alsa.write_text(definitions)
    cards.start()
    wait_seen(seen, ("InterfacesAdded", 1))


def test_a_restarted_service_with_the_same_cards_is_silent(cards, seen):
    cards.add(0)
    cards.start()
    cards.service.kill()
    cards.service.wait_exit()
    cards.start()
    cards.add(1)
    wait_seen(seen, ("InterfacesAdded", 1))


def test_nobody_can_start_it_twice(cards):
    cards.start()
    first = cards.service
    second = cards.start(wait=False)
    assert second.wait_exit() == 1
    assert second.texts[-1] == (
        "error: Cannot serve com.vesk.AudioControl: another program owns the name")
    cards.service = first
    assert first.is_running


def test_calls_of_the_largest_size_do_not_end_it(cards, sandbox):
    cards.add(0)
    cards.start()
    name = sandbox.bus.get_owner(SERVICE)  # shorter, so the text can be longer
    assert send_largest(sandbox, [(name, "/com/vesk/AudioControl/0")]) == ["Error.UnknownInterface"]
    assert cards.read_devices().keys() == {0}


def test_it_pings_the_watchdog(cards, sandbox):
    notify = NotifySocket(f"/proc/self/fd/{sandbox._run_fd}/notify")
    try:
        cards.start(NOTIFY_SOCKET="/run/notify", WATCHDOG_USEC=str(1_000_000))
        wait_until(lambda: [text for _, text in notify.messages].count("WATCHDOG=1") >= 2, 10,
                   "it pings")
    finally:
        notify.close()


def test_the_files_are_readable_for_everybody(cards):
    cards.add(0)
    cards.start()
    for file in (cards.alsa, cards.state):
        assert os.stat(file).st_mode & 0o777 == 0o644
        assert os.stat(file.parent).st_mode & 0o777 == 0o755
