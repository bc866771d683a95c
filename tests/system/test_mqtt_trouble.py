"""sonobrik-mqtt when the broker, the daemon or itself goes away, and when commands come late."""

import json
import pathlib
import re
import signal
import time

import pytest
from sandbox import wait_until
from sandbox.broker import Bridge, Broker, expire_certificate

# paho-mqtt 1 and 2 warn about different calls; the tests run with both.
pytestmark = pytest.mark.filterwarnings("error::DeprecationWarning:(paho|sandbox)")


@pytest.fixture
def bridge(sandbox, broker, operator, song):
    node = Bridge(sandbox, broker, operator).start()
    yield node
    if node.process.is_running:
        node.stop()


def now_ms():
    return time.time_ns() // 1000000


def count_plays(sandbox):
    return sandbox.card(0).count("start")


# Time


def test_a_scheduled_clip_plays_at_its_time(bridge, sandbox):
    at = now_ms() + 2000
    assert bridge.ask("play", {"clip": 0, "id": "a", "at": at})["status"] == "scheduled"
    assert count_plays(sandbox) == 0
    answer = bridge.wait_result(status="playing")
    assert answer["at"] == at
    wait_until(lambda: count_plays(sandbox) == 1, 20, "the card has started")
    start = next(event for event in sandbox.card(0).events if event.name == "start")
    # The clock of the card is the monotonic one. The machine may be busy; bench/fleet measures.
    started = start.time / 1e6 + time.time() * 1e3 - time.monotonic() * 1e3
    assert -500 < started - at < 1500
    assert abs(answer["soundsAt"] - at) < 1500


def test_the_kernel_holds_the_time_in_utc(bridge):
    """The kernel moves an absolute timer of CLOCK_REALTIME when the clock is set."""
    assert bridge.ask("play", {"clip": 0, "at": now_ms() + 600000})["status"] == "scheduled"
    wait_until(lambda: has_timer(bridge.process.pid, 500, 600), 20, "the timer is set")


def has_timer(pid, shortest, longest):
    """Returns True if the process has an absolute timer of CLOCK_REALTIME with so many seconds left."""
    for entry in pathlib.Path(f"/proc/{pid}/fdinfo").iterdir():
        try:
            text = entry.read_text()
        except OSError:
            continue
        # TFD_TIMER_ABSTIME is 1; clock 0 is CLOCK_REALTIME.
        left = re.search(r"clockid: 0\n(?:.*\n)*settime flags: 01\n.*it_value: \((\d+),", text)
        if left and shortest < int(left[1]) <= longest:
            return True
    return False


def test_what_cannot_be_played_is_known_early(bridge, sandbox):
    sandbox.write_file("text.wav", b"no audio")
    answer = bridge.ask("play", {"location": "text.wav", "at": now_ms() + 60000})
    assert answer["status"] == "failed"
    assert answer["text"] not in ("", "OK")


@pytest.mark.parametrize("age", [11000, 3600000])
def test_a_late_command_plays_nothing(bridge, sandbox, age):
    answer = bridge.ask("play", {"clip": 0, "at": now_ms() - age})
    assert answer["status"] == "late"
    assert answer["text"].endswith(" late; nothing was played.")
    assert count_plays(sandbox) == 0


def test_a_command_within_the_grace_time_plays_at_once(bridge, sandbox):
    assert bridge.ask("play", {"clip": 0, "at": now_ms() - 1000})["status"] == "playing"


def test_a_command_for_next_month_is_refused(bridge):
    answer = bridge.ask("play", {"clip": 0, "at": now_ms() + 30 * 86400000})
    assert (answer["status"], answer["text"]) == ("refused", "'at' is more than 7 days away.")


def test_too_many_scheduled_commands_are_refused(bridge):
    at = now_ms() + 60000
    for number in range(64):
        assert bridge.ask("play", {"clip": 0, "at": at, "id": number})["status"] == "scheduled"
    assert bridge.ask("play", {"clip": 0, "at": at})["text"] == "Too many commands are waiting."


def test_an_announcement_of_an_hour_ago_does_not_sound(bridge, operator, sandbox):
    """The node was away for longer than the grace time, and the broker has kept the commands."""
    bridge.stop()
    alive = sandbox.folder / "run/home/mqtt-runtime-node1/alive"
    alive.write_text(f"{max(1, int(alive.read_text()) - 3600000)}\n")
    operator.publish(bridge.topic("play"), {"clip": 0, "id": "plain"})
    operator.publish(bridge.topic("play"), {"clip": 0, "id": "at", "at": now_ms() - 3600000})
    operator.publish(bridge.topic("play"), {"clip": 0, "id": "old", "at": now_ms() - 11000})
    bridge.start()
    wait_until(lambda: len(bridge.results) == 3, 20, "all are answered")
    assert [answer["status"] for answer in bridge.results] == ["late"] * 3
    assert [answer["id"] for answer in bridge.results] == ["plain", "at", "old"]
    assert count_plays(sandbox) == 0
    # What comes afterwards is new.
    assert bridge.ask("play", {"clip": 0})["status"] == "playing"


def test_what_the_broker_kept_for_a_moment_is_played(bridge, operator, sandbox):
    bridge.process.kill(signal.SIGKILL)
    bridge.process.wait_exit()
    operator.publish(bridge.topic("play"), {"clip": 0, "id": "a"})
    bridge.start()
    assert bridge.wait_result()["status"] == "playing"


def test_an_expiry_overrides_the_doubt_about_the_age(bridge, operator, sandbox):
    bridge.stop()
    (sandbox.folder / "run/home/mqtt-runtime-node1/alive").unlink()
    operator.publish(bridge.topic("play"), {"clip": 0, "id": "no expiry"})
    operator.publish(bridge.topic("play"), {"clip": 0, "id": "valid"}, expiry=600)
    bridge.start()
    wait_until(lambda: len(bridge.results) == 2, 20, "both are answered")
    assert {answer["id"]: answer["status"] for answer in bridge.results} == {
        "no expiry": "late", "valid": "playing"}


def test_what_came_while_the_bridge_was_held_up_is_late(bridge, operator, sandbox):
    """As after a suspend of the machine. The broker sends at most 20 messages at a time."""
    bridge.set_conf(play={"grace": "1000"})
    bridge.stop()
    bridge.start()
    bridge.process.pause()
    paused = time.monotonic()
    for number in range(30):
        operator.publish(bridge.topic("play"), {"clip": 0, "id": number})
    wait_until(lambda: time.monotonic() - paused > 4, 10, "the commands are old")
    bridge.process.go_on()
    wait_until(lambda: len(bridge.results) == 30, 20, "all are answered")
    assert {answer["status"] for answer in bridge.results} == {"late"}
    assert count_plays(sandbox) == 0
    # What comes afterwards is new.
    assert bridge.ask("play", {"clip": 0})["status"] == "playing"


def test_an_expired_command_plays_nothing(bridge, operator, sandbox):
    """The daemon does not answer until the message has expired."""
    sandbox.daemon.pause()
    operator.publish(bridge.topic("play"), {"clip": 0, "id": "a"}, expiry=1)
    published = time.monotonic()
    wait_until(lambda: time.monotonic() - published > 1.5, 10, "the message has expired")
    sandbox.daemon.go_on()
    assert bridge.wait_result()["status"] == "expired"
    assert count_plays(sandbox) == 0


# Restarts


def test_a_scheduled_command_survives_the_end_of_the_process(bridge, sandbox):
    at = now_ms() + 6000
    assert bridge.ask("play", {"clip": 0, "id": "a", "at": at}, correlation=b"c",
                      response=bridge.topic("result"))["status"] == "scheduled"
    bridge.process.kill(signal.SIGKILL)
    bridge.process.wait_exit()
    bridge.start()
    answer = bridge.wait_result(status="playing")
    assert answer["at"] == at
    assert bridge.operator.get(bridge.topic("result"))[-1].correlation == b"c"
    # The broker repeats nothing, and neither does the bridge.
    assert bridge.ask("play", {"clip": 0, "id": "a"})["status"] == "duplicate"
    wait_until(lambda: count_plays(sandbox) == 1, 20, "it is played once")


def test_a_command_is_not_lost_if_the_disk_is_full(bridge, sandbox):
    """A restart of the bridge finds it in the runtime folder."""
    # As with a full disk, the file cannot be written.
    (sandbox.folder / "run/home/mqtt-state-node1/commands.json.new").mkdir()
    at = now_ms() + 6000
    assert bridge.ask("play", {"clip": 0, "id": "a", "at": at})["status"] == "scheduled"
    bridge.wait_log("cannot save /run/home/mqtt-state-node1/commands.json: Is a directory; "
                    "/run/home/mqtt-runtime-node1/commands.json: saved until the machine restarts")
    bridge.process.kill(signal.SIGKILL)
    bridge.process.wait_exit()
    bridge.start()
    assert bridge.wait_result(status="playing")["at"] == at
    assert bridge.ask("play", {"clip": 0, "id": "a"})["status"] == "duplicate"
    wait_until(lambda: count_plays(sandbox) == 1, 20, "it is played once")


def test_a_call_of_the_daemon_is_not_repeated_after_the_end_of_the_process(bridge, operator,
                                                                           sandbox):
    sandbox.daemon.pause()
    operator.publish(bridge.topic("play"), {"location": "song.wav", "id": "a"})
    saved = sandbox.folder / "run/home/mqtt-state-node1/commands.json"
    wait_until(lambda: saved.exists() and any(command["calledAt"] for command in json.loads(
        saved.read_text())["commands"]), 20, "the call is saved")
    # The bridge has sent the call before it reads the next command.
    assert bridge.ask("ping")["status"] == "pong"
    bridge.process.kill(signal.SIGKILL)
    bridge.process.wait_exit()
    sandbox.daemon.go_on()
    bridge.start()
    assert bridge.wait_result(status="failed")["text"] == (
        "The bridge restarted before the daemon answered; the clip may have played.")
    assert bridge.ask("play", {"clip": 0, "id": "a"})["status"] == "duplicate"
    wait_until(lambda: count_plays(sandbox) == 1, 20, "it is played once")


def test_a_scheduled_command_is_late_after_a_long_absence(bridge, operator, sandbox):
    bridge.set_conf(play={"grace": "100"})
    bridge.stop()
    bridge.start()
    at = now_ms() + 1500
    assert bridge.ask("play", {"clip": 0, "id": "a", "at": at})["status"] == "scheduled"
    bridge.process.kill(signal.SIGKILL)
    bridge.process.wait_exit()
    wait_until(lambda: now_ms() > at + 200, 10, "its time has passed")
    bridge.start()
    assert bridge.wait_result(status="late")["id"] == "a"
    assert count_plays(sandbox) == 0


def test_a_damaged_store_is_reported(bridge, sandbox):
    bridge.stop()
    (sandbox.folder / "run/home/mqtt-state-node1/commands.json").write_text("{")
    bridge.start()
    bridge.wait_log("cannot load /run/home/mqtt-state-node1/commands.json: Bad message")


def test_a_lost_store_does_not_bring_back_a_finished_command(bridge, sandbox):
    assert bridge.ask("play", {"clip": 0, "id": "a"})["status"] == "playing"
    bridge.stop()
    (sandbox.folder / "run/home/mqtt-state-node1/commands.json").unlink()
    before = len(bridge.results)
    bridge.start()
    assert bridge.ask("ping", {"id": "b"})["id"] == "b"
    assert [answer["id"] for answer in bridge.results[before:]] == ["b"]


def test_the_will_reports_a_killed_node(bridge, operator):
    bridge.process.kill(signal.SIGKILL)
    will = operator.wait_last(bridge.topic("availability"), lambda m: m.payload == b"offline")
    assert not will.retain  # it is retained at the broker; a subscriber gets it as news
    bridge.process.wait_exit()
    bridge.start()
    operator.wait_last(bridge.topic("availability"), lambda m: m.payload == b"online")


def test_the_will_of_another_client_does_not_last(bridge, operator):
    """A second bridge has the same name, or the client identifier was changed."""
    operator.publish(bridge.topic("availability"), b"offline", retain=True)
    operator.wait_last(bridge.topic("availability"), lambda m: m.payload == b"online")
    assert [m.payload for m in operator.get(bridge.topic("availability"))][-2:] == [
        b"offline", b"online"]


def test_a_stop_reports_offline(bridge, operator, broker):
    bridge.stop()
    operator.wait_last(bridge.topic("availability"), lambda m: m.payload == b"offline")
    late = broker.connect("late")
    assert late.wait(bridge.topic("availability")).payload == b"offline"
    late.close()


def test_it_reconnects_to_a_restarted_broker(bridge, broker, operator, sandbox):
    assert bridge.ask("play", {"clip": 0, "at": now_ms() + 4000})["status"] == "scheduled"
    broker.stop()
    bridge.wait_log("no connection to the broker")
    # What is scheduled plays without the broker.
    wait_until(lambda: count_plays(sandbox) == 1, 20, "the clip is played")
    broker.start()
    assert bridge.wait_result(status="playing", deadline=60)
    assert bridge.ask("ping", deadline=60)["status"] == "pong"


def test_it_waits_for_a_broker_that_is_not_there(sandbox, broker, song):
    node = Bridge(sandbox, broker)
    broker.stop()
    node.spawn()
    node.wait_log("Connection refused; trying again")
    broker.start()
    operator = broker.connect()
    operator.wait(node.topic("availability"), lambda m: m.payload == b"online")
    # Each reason is logged once.
    assert sum("trying again" in line for line in node.process.lines) == 1
    node.stop()
    operator.close()


def test_it_follows_a_restart_of_the_daemon(bridge, operator, sandbox):
    assert bridge.ask("play", {"clip": 0})["status"] == "playing"
    assert sandbox.daemon.stop() == 0
    operator.wait_last(bridge.topic("state"), lambda m: m.json["daemon"] == "away")
    answer = bridge.ask("play", {"clip": 0, "id": "away"})
    assert (answer["status"], answer["ok"]) == ("failed", False)
    sandbox.start_daemon()
    operator.wait_last(bridge.topic("state"), lambda m: m.json["daemon"] == "running")
    assert bridge.ask("play", {"clip": 0, "id": "back"})["status"] == "playing"


def test_a_command_survives_a_restart_of_the_daemon(bridge, operator, sandbox):
    """The daemon restarts when a sound card is plugged in."""
    sandbox.daemon.pause()
    operator.publish(bridge.topic("play"), {"clip": 0, "id": "a", "at": now_ms() + 8000})
    saved = sandbox.folder / "run/home/mqtt-state-node1/commands.json"
    wait_until(lambda: saved.exists() and json.loads(saved.read_text())["commands"], 20,
               "the daemon is asked")
    # Outside the sandbox, the bus starts the daemon again. Here, the bridge has to wait for it.
    bridge.process.pause()
    sandbox.daemon.kill()
    sandbox.daemon.wait_exit()
    sandbox.start_daemon()
    bridge.process.go_on()
    assert bridge.wait_result(status="playing")["id"] == "a"
    # On a busy machine, the daemon may come back only after the given time.
    assert {answer["status"] for answer in bridge.results} <= {"scheduled", "playing"}


def test_a_late_reply_does_not_bring_the_daemon_back(sandbox, broker, operator):
    """The daemon gives up the name that plays before the one that lists the clips."""
    def reply_with(code):
        sandbox.bus.call("com.vesk.Sonobrik.Legacy", "/com/vesk/Sonobrik", "org.freedesktop.DBus.Mock",
                         "AddMethod", "(sssss)", "com.vesk.Configuration.Legacy",
                         "GetConfigurations", "", "a{ia{sv}}", f"ret = {code}")

    sandbox.start_mock("com.vesk.Sonobrik.Legacy", "/com/vesk/Sonobrik",
                       "com.vesk.Configuration.Legacy")
    reply_with("dbus.Dictionary({}, signature='ia{sv}')")
    playing = sandbox.start_mock("com.vesk.Sonobrik", "/com/vesk/Sonobrik", "com.vesk.Sonobrik")
    node = Bridge(sandbox, broker, operator).start()
    operator.wait_last(node.topic("state"), lambda m: m.json["daemon"] == "running")
    playing.kill()
    operator.wait_last(node.topic("state"), lambda m: m.json["daemon"] == "away")
    reply_with("{dbus.Int32(3): dbus.Dictionary({}, signature='sv')}")
    (sandbox.etc / "dynamic/sonobrik/clip_data/M3.json").write_text("{}")
    operator.wait_last(node.topic("clips"), lambda m: len(m.json["clips"]) == 1)
    assert node.ask("ping")["status"] == "pong"
    assert operator.get(node.topic("state"))[-1].json["daemon"] == "away"
    node.stop()


def test_it_ends_with_the_bus(sandbox, broker, operator):
    bus = sandbox.start_bus()
    node = Bridge(sandbox, broker, operator).start()
    bus.kill()
    assert node.process.wait_exit() == 1
    assert node.process.lines[-1].endswith("error: lost the connection to the system bus")


# Security


def test_tls_with_the_authority_of_the_configuration(sandbox, song):
    broker = Broker(sandbox, tls=True).start()
    operator = broker.connect()
    node = Bridge(sandbox, broker, operator).start()
    assert node.ask("play", {"clip": 0})["status"] == "playing"
    assert node.ask("stop")["status"] == "stopped"
    node.stop()
    operator.close()


def test_a_certificate_of_another_authority_is_refused(sandbox, daemon):
    broker = Broker(sandbox, tls=True).start()
    (sandbox.etc / "ssl/certs").mkdir(parents=True)
    node = Bridge(sandbox, broker, broker={"ca_file": ""}).spawn()
    node.wait_log("certificate verify failed")
    assert node.process.is_running
    node.stop()


def test_an_expired_certificate_is_refused(sandbox, daemon):
    broker = Broker(sandbox, tls=True)
    expire_certificate(sandbox.etc / "mosquitto/tls")
    node = Bridge(sandbox, broker.start()).spawn()
    node.wait_log("certificate verify failed")
    node.stop()


def test_a_certificate_of_another_name_is_refused(sandbox, daemon):
    broker = Broker(sandbox, tls=True).start()
    node = Bridge(sandbox, broker, broker={"host": "127.0.0.1"}).spawn()
    node.wait_log("certificate verify failed")
    node.stop()


def test_a_client_certificate_is_shown(sandbox, song):
    broker = Broker(sandbox, tls=True, lines=["require_certificate true"]).start()
    refused = Bridge(sandbox, broker).spawn()
    refused.wait_log("no connection to the broker")
    refused.stop()
    keys = {"cert_file": "/etc/mosquitto/tls/client.crt",
            "key_file": "/etc/mosquitto/tls/client.key"}
    node = Bridge(sandbox, broker, broker=keys).spawn()
    node.wait_log("connected to the broker")
    node.stop()
    (sandbox.etc / "mosquitto/tls/client.key").chmod(0o644)
    node.spawn()
    assert node.process.wait_exit() == 78
    assert "other users can read it" in node.process.lines[-1]


@pytest.fixture
def closed(sandbox):
    """A broker that asks for passwords and lets each node speak for itself only."""
    folder = sandbox.etc / "mosquitto"
    folder.mkdir()
    (folder / "passwords").write_text("node1:secret\noperator:secret\n")
    sandbox.run(["mosquitto_passwd", "-U", "/etc/mosquitto/passwords"])
    (folder / "acl").write_text("""\
user operator
topic readwrite #
pattern read sonobrik/%u/#
pattern write sonobrik/%u/#
user node1
topic read sonobrik/group/all/#
""")
    broker = Broker(sandbox, lines=["allow_anonymous false",
                                    "password_file /etc/mosquitto/passwords",
                                    "acl_file /etc/mosquitto/acl"]).start()
    return broker


def test_a_password_from_a_credential(sandbox, closed, song):
    operator = closed.connect(user="operator", password="secret")
    credentials = sandbox.folder / "run/home/credentials"
    credentials.mkdir()
    (credentials / "sonobrik-mqtt.password").write_text("secret\n")
    (credentials / "sonobrik-mqtt.password").chmod(0o400)  # as systemd does
    node = Bridge(sandbox, closed, operator, broker={"username": "node1"})
    node.start(env={"CREDENTIALS_DIRECTORY": "/run/home/credentials"})
    assert node.ask("ping")["status"] == "pong"
    # The broker's rules do not let it read the second group of its configuration.
    operator.publish("sonobrik/group/shop/ping", {"id": "shop"})
    operator.publish("sonobrik/group/all/ping", {"id": "all"})
    assert node.wait_result(1)["id"] == "all"
    node.stop()
    operator.close()


def test_a_wrong_password_is_reported(sandbox, closed, daemon):
    (sandbox.etc / "vesk/password").write_text("wrong")
    (sandbox.etc / "vesk/password").chmod(0o600)
    node = Bridge(sandbox, closed, broker={"username": "node1",
                                           "password_file": "/etc/vesk/password"}).spawn()
    node.wait_log("Not authorized; trying again")
    node.stop()


def test_a_password_that_others_can_read_is_refused(sandbox, closed, daemon):
    (sandbox.etc / "vesk/password").write_text("secret")
    (sandbox.etc / "vesk/password").chmod(0o644)
    node = Bridge(sandbox, closed, broker={"username": "node1",
                                           "password_file": "/etc/vesk/password"}).spawn()
    assert node.process.wait_exit() == 78
    assert node.process.lines == [
        "sonobrik-mqtt: error: /etc/vesk/password: other users can read it; run "
        "'chmod o= /etc/vesk/password'"]


def test_a_distant_broker_without_tls_is_refused(sandbox, broker):
    node = Bridge(sandbox, broker, broker={"host": "broker.example"}).spawn()
    assert node.process.wait_exit() == 78
    assert "without TLS" in node.process.lines[-1]


def test_the_configuration_can_be_checked(sandbox, broker):
    node = Bridge(sandbox, broker)
    assert sandbox.run([*node.command, "--check"]).stderr == ""
    node.set_conf(broker={"hots": "a"})
    result = sandbox.run([*node.command, "--check"], check=False)
    assert result.returncode == 78
    assert result.stderr == ("sonobrik-mqtt: error: /etc/vesk/mqtt-node1.conf: there is no key "
                             "'hots' in [broker]\n")


def test_the_help_is_printed_in_the_charset_of_the_locale(sandbox, broker):
    result = sandbox.run([*Bridge(sandbox, broker).command, "--help"], env={"LANG": "C.UTF-8"})
    assert result.stdout.startswith("Usage:\n  sonobrik-mqtt [OPTION…]\n")


def test_a_response_topic_of_too_many_levels_does_not_end_the_connection(bridge, operator):
    """Mosquitto accepts such a response topic, but disconnects a client that publishes there."""
    operator.publish(bridge.topic("ping"), {"id": "deep"}, response="a/" * 201 + "x")
    assert bridge.wait_result()["id"] == "deep"
    assert bridge.ask("ping", {"id": "next"})["id"] == "next"
    assert not any("no connection" in line for line in bridge.process.lines)


def test_a_packet_beyond_the_limit_of_mqtt_does_not_end_it(bridge, operator):
    operator.publish(bridge.topic("play"), b"x" * 300000)
    assert bridge.wait_result()["status"] == "refused"
    assert bridge.ask("ping")["status"] == "pong"
