"""sonobrik-mqtt with a real broker: commands, answers, and what it reports."""

import json
import pathlib
import re
import signal
import time

import pytest
from sandbox import clips, wait_until
from sandbox.broker import Bridge
from sandbox.home_assistant import check_discovery, check_siren_state


@pytest.fixture
def door(sandbox, store):
    """A stored clip of 50 ms."""
    clip = sandbox.write_clip("door.wav", clips.noise(2400))
    store.add_clip(clip.path, "Front door")
    return clip


@pytest.fixture
def song(sandbox, store, door):
    """A stored clip of 10 s, number 1."""
    clip = sandbox.write_clip("song.wav", clips.noise(480000))
    store.add_clip(clip.path, "Song")
    return clip


@pytest.fixture
def bridge(sandbox, broker, operator, song):
    node = Bridge(sandbox, broker, operator).start()
    yield node
    if node.process.is_running:
        node.stop()


def now_ms():
    return time.time_ns() // 1000000


def wait_idle(bridge):
    bridge.operator.wait_last(bridge.topic("state"), lambda m: not m.json["playing"])


def count_plays(sandbox):
    return sandbox.card(0).count("start")


@pytest.mark.parametrize("what", [{"clip": 0}, {"clip": "0"}, {"clip": "Front door"},
                                  {"name": "Front door"}, {"location": "door.wav"},
                                  {"location": "/etc/audioclips/door.wav"}])
def test_a_clip_is_named_in_each_way(bridge, sandbox, door, what):
    answer = bridge.ask("play", what | {"id": "a", "volume": 100})
    assert (answer["ok"], answer["status"], answer["text"]) == (True, "playing", "OK")
    assert (answer["node"], answer["command"], answer["id"]) == ("node1", "play", "a")
    assert answer["file"] == door.path
    assert abs(answer["time"] - now_ms()) < 60000
    assert set(answer["clock"]) == {"synchronized", "errorMs", "maxErrorMs"}
    wait_until(lambda: any(take.find(door.samples) >= 0 for take in sandbox.card(0).takes), 20,
               "the clip was played")


def test_an_answer_goes_where_the_command_says(bridge, operator):
    operator.publish(bridge.topic("ping"), {"id": 7}, response="answers/x", correlation=b"\0\xff")
    answer = operator.wait("answers/x")
    assert answer.correlation == b"\0\xff"
    assert (answer.json["status"], answer.json["id"], answer.json["ok"]) == ("pong", 7, True)
    assert not answer.retain
    assert operator.get(bridge.topic("result")) == []


def test_no_answer_goes_to_a_topic_of_commands(bridge, operator):
    operator.publish(bridge.topic("ping"), response="sonobrik/group/all/play")
    assert bridge.wait_result()["status"] == "pong"
    assert operator.get("sonobrik/group/all/play") == []


def test_a_group_is_addressed(bridge, operator):
    operator.publish("sonobrik/group/shop/ping", {"id": "g"})
    assert bridge.wait_result()["group"] == "shop"
    operator.publish("sonobrik/group/other/ping")
    assert bridge.ask("ping", {"id": "last"})["id"] == "last"
    assert len(bridge.results) == 2


def test_the_daemons_texts_are_passed_on(bridge, song):
    assert bridge.ask("play", {"clip": 1})["status"] == "playing"
    answer = bridge.ask("play", {"clip": 1, "id": "b"})
    assert (answer["ok"], answer["status"]) == (False, "failed")
    assert answer["text"] == "A clip is already playing."
    assert bridge.ask("stop")["status"] == "stopped"
    answer = bridge.ask("play", {"location": "none.wav"})
    assert answer["text"] == "No supported file(s) found at '/etc/audioclips/none.wav'."
    assert bridge.ask("play", {"clip": 9})["text"] == "no such clip: '9'"


def test_a_stop_stops_what_plays_and_what_waits(bridge, sandbox, operator):
    bridge.ask("play", {"clip": 1, "id": "long"})
    later = bridge.ask("play", {"clip": 0, "id": "later", "at": now_ms() + 60000})
    assert later["status"] == "scheduled"
    operator.publish(bridge.topic("stop"), {"id": "s"})
    assert bridge.wait_result(status="cancelled")["id"] == "later"
    assert bridge.wait_result(status="stopped")["id"] == "s"
    wait_idle(bridge)


def test_the_state_is_retained(bridge, broker, song):
    before = now_ms()
    bridge.ask("play", {"clip": 1, "output": 0})
    bridge.operator.wait_last(
        bridge.topic("state"), lambda m: m.json["playing"] and m.json["outputs"][0]["file"])
    late = broker.connect("late")
    state = late.wait(bridge.topic("state"))
    assert state.retain
    output, = state.json["outputs"]
    assert before - 1000 <= output.pop("since") <= now_ms()
    assert output == {"output": 0, "device": 0, "deviceOutput": 0, "playing": True,
                      "file": song.path, "clip": 1, "name": "Song"}
    assert (state.json["daemon"], state.json["text"]) == ("running", "Song")
    assert late.wait(bridge.topic("availability")).payload == b"online"
    info = late.wait(bridge.topic("info")).json
    assert info["groups"] == ["all", "shop"]
    assert info["outputs"] == [{"output": 0, "device": 0, "deviceOutput": 0}]
    assert set(info["versions"]) == {"sonobrik-mqtt", "libmosquitto"}
    late.close()


def find_keys(value):
    """Returns the keys of all objects in a JSON value."""
    if isinstance(value, list):
        return set().union(*(find_keys(item) for item in value))
    if isinstance(value, dict):
        return set(value) | find_keys(list(value.values()))
    return set()


def test_the_manual_names_each_member(bridge, operator):
    bridge.ask("play", {"clip": 1, "at": now_ms() + 500}, status="playing")
    operator.publish("sonobrik/group/shop/ping")
    bridge.wait_result(status="pong")
    info = operator.get(bridge.topic("info"))[-1].json
    info["versions"] = {}  # its keys are the names of programs
    keys = find_keys([*bridge.results, info, operator.get(bridge.topic("state"))[-1].json,
                      operator.wait(bridge.topic("clips")).json])
    manual = (pathlib.Path(__file__).resolve().parents[2] / "man/sonobrik-mqtt.8").read_text()
    words = " ".join(re.findall(r"^\.(?:It )?Sy (.*)$", manual, re.MULTILINE))
    named = set(re.findall(r"\w+", words))
    assert keys <= named, keys - named


def test_the_state_never_names_the_previous_clip(bridge, operator, store, song):
    """Two events tell that a clip plays, and which one."""
    other = bridge.sandbox.write_clip("other.wav", song.samples)
    store.add_clip(other.path, "Other song")
    operator.wait_last(bridge.topic("clips"), lambda m: len(m.json["clips"]) == 3)
    for number, name in ((1, "Song"), (2, "Other song")):
        assert bridge.ask("play", {"clip": number})["status"] == "playing"
        operator.wait_last(bridge.topic("state"), lambda m, name=name: m.json["text"] == name)
        bridge.ask("stop", status="stopped")
        wait_idle(bridge)
    # On a busy machine, the event with the first file may come later than the bridge waits for it.
    texts = [message.json["text"] for message in operator.get(bridge.topic("state"))]
    assert [text for text in texts if text not in ("idle", "playing")] == [
        "Song", "Other song"], texts
    tones = [message.json["tone"] for message in operator.get(bridge.topic("siren/state"))
             if "tone" in message.json]
    assert tones == ["Song", "Other song"]


def test_the_clips_are_retained_and_follow_each_change(bridge, sandbox, operator, store, door):
    listed = operator.wait_last(bridge.topic("clips"), lambda m: len(m.json["clips"]) == 2)
    first = listed.json["clips"][0]
    assert (first["clip"], first["name"], first["file"], first["durationMs"]) == (
        0, "Front door", door.path, 50)
    store.rename(0, "Back door")
    operator.wait_last(bridge.topic("clips"), lambda m: m.json["clips"][0]["name"] == "Back door")
    store.add_clip(door.path, "Third")
    operator.wait_last(bridge.topic("clips"), lambda m: len(m.json["clips"]) == 3)
    store.call("RemoveConfiguration", "(i)", 2)
    operator.wait_last(bridge.topic("clips"), lambda m: len(m.json["clips"]) == 2)


def test_clips_of_all_names(bridge, sandbox, operator, store, door):
    names = ["", "3", "Tür \"1\"", "a\nb\x1b[31m", "\u202egnp", "𝄞" * 60, "{{ 7*7 }}", "/+#"]
    for name in names:
        store.add_clip(door.path, name)
    listed = operator.wait_last(bridge.topic("clips"), lambda m: len(m.json["clips"]) == 10)
    assert [clip["name"] for clip in listed.json["clips"][2:]] == names
    for number, name in enumerate(names, 2):
        wanted = {"name": name} if name else {"clip": number}
        answer = bridge.ask("play", wanted | {"id": number})
        assert (answer["status"], answer["clip"]) == ("playing", number), answer
        wait_idle(bridge)
        bridge.ask("stop")


def test_a_duplicate_plays_once(bridge, sandbox, operator, broker):
    other = broker.connect("other")
    for client, topic in ((operator, bridge.topic("play")), (other, "sonobrik/group/all/play"),
                          (operator, "sonobrik/group/shop/play")):
        client.publish(topic, {"clip": 0, "id": "once"})
    wait_until(lambda: len(bridge.results) == 3, 20, "all commands are answered")
    assert sorted(answer["status"] for answer in bridge.results) == ["duplicate", "duplicate",
                                                                     "playing"]
    other.close()


@pytest.mark.parametrize("location", ["/etc/passwd", "../passwd", "/etc/audioclips/../passwd"])
def test_a_location_outside_the_folder_is_refused(bridge, location):
    answer = bridge.ask("play", {"location": location})
    assert (answer["status"], answer["text"]) == ("refused",
                                                  "The location is not in /etc/audioclips.")


def test_a_line_allows_other_locations(sandbox, broker, operator, song):
    node = Bridge(sandbox, broker, operator, play={"allow_any_location": "yes"}).start()
    answer = node.ask("play", {"location": "/etc/audioclips/../passwd"})
    assert answer["status"] == "failed"
    assert answer["text"].startswith("No supported file(s) found at")
    node.stop()


NONSENSE = [b"", b"{", b"[]", b"\xff\xfe", b"null", b'{"clip":0,"vol":1}', b'{"clip":0,"at":"now"}',
            b'{"clip":{}}', b'{"clip":0,"volume":-1}', b'{"id":"x"}', b"[" * 16000,
            b'{"name":"\\u0000"}', b"a" * 65536, b"\0" * 65536]


def test_nonsense_is_answered_and_logged_once(bridge, operator):
    for number, payload in enumerate(NONSENSE):
        operator.publish(bridge.topic("play"), payload)
        wait_until(lambda count=number + 1: len(bridge.results) == count, 20, "an answer")
    assert {answer["status"] for answer in bridge.results} == {"refused"}
    assert bridge.results[9]["id"] == "x"
    assert bridge.results[-1]["text"] == "The payload is larger than 16384 bytes."
    refusals = [line for line in bridge.process.lines if "refused a command" in line]
    assert len(refusals) == 1, refusals
    assert bridge.ask("ping")["status"] == "pong"


def test_a_retained_command_is_not_executed(sandbox, broker, operator, song):
    operator.publish("sonobrik/node1/play", {"clip": 1}, retain=True)
    node = Bridge(sandbox, broker, operator).start()
    assert node.ask("ping")["status"] == "pong"
    assert count_plays(sandbox) == 0
    node.stop()


def test_a_flood_is_answered_and_bounded(bridge, operator, full):
    count = 20000 if full else 400  # each command is written to the disk before its answer
    for number in range(count):
        operator.publish_later(bridge.topic("play"), {"clip": 1, "id": number})
    wait_until(lambda: len(bridge.operator.get(bridge.topic("result"))) >= count, 300,
               "all commands are answered")
    statuses = {answer["status"] for answer in bridge.results}
    assert "playing" in statuses and statuses <= {"playing", "failed", "refused"}, statuses
    status = (f"/proc/{bridge.process.pid}/status")
    with open(status, encoding="ascii") as file:
        rss, = [int(line.split()[1]) for line in file if line.startswith("VmRSS")]
    assert bridge.process.keeps_freed_memory or rss < 65536, rss
    assert bridge.ask("stop", {"id": "s"}, status="stopped")


# Home Assistant


def test_home_assistant_finds_the_node(bridge, operator, store, door):
    topic = "homeassistant/device/sonobrik_node1/config"
    for name in ("Fire", "Fire", "", "\x1b[31m"):
        store.add_clip(door.path, name)
    found = operator.wait_last(topic, lambda m: len(
        m.json["components"]["siren"]["available_tones"]) == 6)
    components = check_discovery(topic, found.json)
    assert {component["platform"] for component in components.values()} == {
        "siren", "sensor", "binary_sensor", "button"}
    tones = components["siren"]["available_tones"]
    assert tones == ["Front door", "Song", "Fire (2)", "Fire (3)", "Clip 4", "\x1b[31m"]
    seen = len(operator.get(topic))
    operator.publish("homeassistant/status", b"online")
    wait_until(lambda: len(operator.get(topic)) == seen + 1, 20, "it is announced again")


def test_home_assistant_plays_and_stops(bridge, operator, song):
    operator.publish(bridge.topic("siren/set"),
                     {"state": "ON", "tone": "Song", "volume_level": 0.5, "duration": 600})
    assert bridge.wait_result()["clip"] == 1
    state = operator.wait_last(bridge.topic("siren/state"), lambda m: m.json.get("tone") == "Song")
    check_siren_state(state.json, ["Song"])
    assert state.json["state"] == "ON"
    operator.publish(bridge.topic("siren/set"), {"state": "OFF"})
    operator.wait_last(bridge.topic("siren/state"), lambda m: m.json == {"state": "OFF"})
    operator.publish(bridge.topic("siren/set"), b"what?")
    assert bridge.wait_result(status="refused")


def test_a_siren_ends_after_its_duration(bridge, operator, sandbox):
    begin = time.monotonic()
    operator.publish(bridge.topic("siren/set"), {"state": "ON", "tone": "Song", "duration": 1})
    operator.wait_last(bridge.topic("siren/state"), lambda m: m.json["state"] == "ON")
    operator.wait_last(bridge.topic("siren/state"), lambda m: m.json["state"] == "OFF")
    assert time.monotonic() - begin < 9


def test_a_siren_ends_after_its_duration_although_the_bridge_was_killed(bridge, operator, sandbox):
    begin = time.monotonic()
    operator.publish(bridge.topic("siren/set"), {"state": "ON", "tone": "Song", "duration": 4})
    assert bridge.wait_result()["status"] == "playing"
    operator.wait_last(bridge.topic("siren/state"), lambda m: m.json["state"] == "ON")
    bridge.process.kill(signal.SIGKILL)
    bridge.process.wait_exit()
    bridge.start()
    operator.wait_last(bridge.topic("siren/state"), lambda m: m.json["state"] == "OFF")
    assert time.monotonic() - begin >= 4
    # The clip alone takes 10 s.
    assert any(text.startswith("info: sonobrik_stop_clip ") for text in sandbox.daemon.texts)


def test_a_siren_with_a_duration_ends_without_the_bridge(bridge, operator, sandbox):
    """A bridge that is stopped cannot stop the siren."""
    operator.wait_last(bridge.topic("clips"),
                       lambda m: all(clip["durationMs"] for clip in m.json["clips"]))
    operator.publish(bridge.topic("siren/set"),
                     {"state": "ON", "tone": "Front door", "duration": 2})
    assert bridge.wait_result()["status"] == "playing"
    bridge.stop()
    sandbox.daemon.wait_log("info", "sonobrik_play_clip_asynchronous with options: "
                            "location=/etc/audioclips/door.wav&repeat=40")


def test_home_assistant_is_off_by_one_line(sandbox, broker, operator, bridge):
    topic = "homeassistant/device/sonobrik_node1/config"
    operator.wait(topic)
    bridge.stop()
    bridge.set_conf(homeassistant={"discovery": "no"})
    bridge.start()
    # It removes what it had announced before.
    assert operator.wait_last(topic, lambda m: m.payload == b"")
    operator.publish(bridge.topic("siren/set"), {"state": "ON"})
    assert bridge.ask("ping")["status"] == "pong"
    assert len(bridge.results) == 1


def test_the_clip_list_without_clips(sandbox, broker, operator, store):
    node = Bridge(sandbox, broker, operator).start()
    assert json.loads(operator.wait(node.topic("clips")).payload) == {"clips": []}
    operator.publish(node.topic("siren/set"), {"state": "ON"})
    assert node.wait_result()["text"] == "no such clip: ''"
    node.stop()


def test_a_caller_without_rights_is_told(sandbox, broker, operator, daemon):
    sandbox.set_access({"com.vesk.Sonobrik": {"users": "4242"}})
    node = Bridge(sandbox, broker, operator).start()
    answer = node.ask("play", {"location": "a.wav"})
    assert answer["status"] == "failed"
    assert answer["text"]
    node.stop()
