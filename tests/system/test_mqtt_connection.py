"""sonobrik-mqtt when the connection to the broker breaks, on a broker that the test plays."""

import signal
import time

import pytest
from sandbox import wait_until
from sandbox.broker import Bridge
from sandbox.scripted_broker import ScriptedBroker

PLAY = "sonobrik/node1/play"


@pytest.fixture
def scripted():
    broker = ScriptedBroker()
    yield broker
    broker.close()


@pytest.fixture
def bridge(sandbox, scripted, song):
    node = Bridge(sandbox, scripted, scripted)
    yield node
    if node.process.is_running:
        node.process.kill(signal.SIGKILL)
        node.process.wait_exit()


def has_state(bridge, playing):
    last = bridge.operator.get(bridge.topic("state"))[-1:]
    return bool(last) and last[0].json["playing"] == playing


def test_an_old_state_does_not_follow_the_new_one(bridge, scripted, sandbox):
    """The broker keeps the last message of a topic, and libmosquitto repeats unconfirmed ones."""
    bridge.start()
    scripted.acknowledges = False
    scripted.publish(PLAY, {"clip": 0}, 1)
    wait_until(lambda: has_state(bridge, True), 20, "the clip is playing")
    scripted.accepts = False
    scripted.cut()
    sandbox.bus.call("com.vesk.Sonobrik", "/com/vesk/Sonobrik", "com.vesk.Sonobrik",
                     "StopPlayingClip", "(s)", "")
    bridge.wait_log("no connection to the broker")
    before = len(scripted.get(bridge.topic("state")))
    infos = len(scripted.get(bridge.topic("info")))
    scripted.acknowledges = scripted.has_session = True
    scripted.accepts = True
    wait_until(lambda: len(scripted.get(bridge.topic("info"))) > infos, 60, "it is connected again")
    bridge.stop()
    states = scripted.get(bridge.topic("state"))[before:]
    assert [state.json["playing"] for state in states][-2:] == [True, False]


def test_the_rest_of_what_the_broker_kept_is_as_old_as_the_first(bridge, scripted, sandbox):
    """The connection breaks while the broker sends the commands of an hour."""
    hour_ago = int(time.clock_gettime(time.CLOCK_BOOTTIME) * 1000) - 3600000
    alive = sandbox.folder / "run/home/mqtt-runtime-node1/alive"
    alive.write_text(f"{max(1, hour_ago)}\n")
    scripted.has_session = True
    for number in (1, 2):
        infos = len(scripted.get(bridge.topic("info")))
        scripted.after_connect = scripted.make_publish(PLAY, {"clip": 0, "id": number}, number)
        if number == 1:
            bridge.start()
        else:
            scripted.cut()
        wait_until(lambda count=infos: len(scripted.get(bridge.topic("info"))) > count, 20,
                   "it is connected")
        assert bridge.wait_result(number - 1)["status"] == "late"
    assert sandbox.card(0).count("start") == 0


def test_an_answer_that_the_broker_refuses_goes_to_the_nodes_own_topic(bridge, scripted):
    """The broker's rules may not let the node write to every response topic."""
    bridge.start()
    scripted.refused["answers/anna"] = 0x87  # not authorized
    scripted.publish("sonobrik/node1/ping", {"id": 1}, 1, response="answers/anna",
                     correlation=b"c\0")
    assert bridge.wait_result()["id"] == 1
    answer, = scripted.get(bridge.topic("result"))
    assert answer.correlation == b"c\0"
    bridge.wait_log("the broker refused a message: Not authorized")


def test_an_answer_that_ends_each_connection_goes_to_the_nodes_own_topic(bridge, scripted, sandbox):
    """Some brokers disconnect a client that publishes where it may not. libmosquitto repeats the
    message at each connection."""
    bridge.start()
    scripted.has_session = True
    scripted.forbidden.add("answers/anna")
    scripted.publish(PLAY, {"clip": 0, "id": 1}, 1, response="answers/anna", correlation=b"c")
    assert bridge.wait_result(deadline=40)["id"] == 1
    answer, = scripted.get(bridge.topic("result"))
    assert answer.correlation == b"c"
    assert answer.json["status"] == "playing"
    assert len(scripted.get("answers/anna")) == 3
    bridge.wait_log("the broker ended 3 connections before it confirmed an answer; sending the "
                    "answer to sonobrik/node1/result instead")
    # The connection stays, and the command is executed once.
    connections = scripted.connections
    scripted.publish(PLAY, {"clip": 0, "id": 1}, 2)
    assert bridge.wait_result(1)["status"] == "duplicate"
    scripted.publish("sonobrik/node1/ping", {"id": 2}, 3)
    assert bridge.wait_result(2)["status"] == "pong"
    assert scripted.connections == connections
    assert sandbox.card(0).count("start") == 1


def test_a_broker_that_does_not_answer_is_reported(sandbox, scripted, song):
    scripted.answers_pings = False
    node = Bridge(sandbox, scripted, scripted, broker={"keepalive": 5}).start()
    node.wait_log(f"no connection to the broker localhost, port {scripted.port}: it does not "
                  "answer; trying again", 60)
    node.stop()
