"""The MQTT bridge under its unit, with a broker on the same machine."""

import os
import pathlib
import shutil
import signal
import subprocess
import types

import pytest
from machine import BRIDGE, CLIP, prepare_clip, run, wait_until
from sandbox.broker import Client

BROKER = "mosquitto.service"

CONF = pathlib.Path("/etc/vesk/mqtt.conf")
CREDENTIAL = pathlib.Path("/etc/credstore/sonobrik-mqtt.password")
PORT = 1883
PASSWORDS = {"operator": "one", "machine": "two"}


class Operator(Client):
    def __init__(self):
        address = types.SimpleNamespace(port=PORT, tls=False)
        super().__init__(address, user="operator", password=PASSWORDS["operator"])

    def is_connected(self):
        return self._client.is_connected()

    def ask(self, command, **keys):
        """Sends a command and returns its answer."""
        seen = len(self.get("sonobrik/machine/result"))
        self.publish(f"sonobrik/machine/{command}", keys)
        return wait_until(lambda: self.get("sonobrik/machine/result")[seen:], 60,
                          f"an answer to {command}")[0].json


def count_connections():
    return len(BRIDGE.read_times("connected to the broker"))


def wait_connected(before=0):
    wait_until(lambda: count_connections() > before, 90, "the bridge has reached the broker")


@pytest.fixture(scope="module")
def operator():
    """A client of a broker that lets in nobody else but the bridge."""
    passwords = pathlib.Path("/etc/mosquitto/passwords")
    passwords.write_text("".join(f"{name}:{text}\n" for name, text in PASSWORDS.items()))
    run("mosquitto_passwd", "-U", passwords)
    shutil.chown(passwords, "mosquitto")
    pathlib.Path("/etc/mosquitto/conf.d/machine.conf").write_text(
        f"allow_anonymous false\npassword_file {passwords}\nlistener {PORT} 127.0.0.1\n")
    run("systemctl", "restart", BROKER)
    client = Operator()
    yield client
    client.close()


@pytest.fixture(scope="module")
def node(operator):
    """Sets the bridge up like docs/fleet.md, and starts it."""
    conf = CONF.read_text()
    CREDENTIAL.parent.mkdir(mode=0o700, exist_ok=True)
    CREDENTIAL.write_text(PASSWORDS["machine"] + "\n")
    CREDENTIAL.chmod(0o600)
    CONF.write_text(f"[broker]\nhost=127.0.0.1\nport={PORT}\ntls=no\nusername=machine\n"
                    "[node]\nname=machine\n")
    run("systemctl", "start", BRIDGE.name)
    wait_connected()
    yield operator
    run("systemctl", "stop", BRIDGE.name)
    CREDENTIAL.unlink()
    CONF.write_text(conf)


def test_the_package_neither_enables_nor_starts_it():
    assert BRIDGE.show("UnitFileState") == "disabled"
    assert BRIDGE.show("ActiveState") == "inactive"


def test_without_a_broker_in_its_configuration_it_is_not_restarted():
    assert subprocess.run(["systemctl", "start", BRIDGE.name], check=False,
                          capture_output=True).returncode != 0
    wait_until(lambda: BRIDGE.show("ActiveState") == "failed", 20, "it failed")
    assert BRIDGE.show("ExecMainStatus") == "78"
    assert "Scheduled restart job" not in BRIDGE.read_log()
    assert str(CONF) in BRIDGE.read_log()
    run("systemctl", "reset-failed", BRIDGE.name)


def test_it_runs_as_its_own_user_in_its_sandbox(node):
    assert BRIDGE.user == "sonobrik-mqtt"
    BRIDGE.check_confinement()
    writable = {path for path in BRIDGE.list_writable() if not path.startswith("/usr/")}
    assert writable == {"/tmp", "/var/tmp", "/var/lib/sonobrik-mqtt"}
    assert PASSWORDS["machine"] not in pathlib.Path(f"/proc/{BRIDGE.pid}/environ").read_text()


def test_it_answers(node):
    answer = node.ask("ping")
    assert (answer["status"], answer["node"]) == ("pong", "machine")


def check_play(node):
    is_heard = prepare_clip()
    assert node.ask("play", location=str(CLIP))["status"] == "playing"
    wait_until(is_heard, 20, "the clip is heard")
    assert node.ask("stop")["status"] == "stopped"


def test_it_plays(node):
    check_play(node)


def test_it_stops_and_says_so(node):
    before = count_connections()
    run("systemctl", "stop", BRIDGE.name)
    node.wait_last("sonobrik/machine/availability", lambda message: message.payload == b"offline")
    assert BRIDGE.show("Result") == "success"
    run("systemctl", "start", BRIDGE.name)
    wait_connected(before)


def test_it_restarts_without_the_broker_and_finds_it_later(node):
    old, before = BRIDGE.pid, count_connections()
    run("systemctl", "stop", BROKER)
    os.kill(old, signal.SIGKILL)
    new = BRIDGE.wait_restarted(old)
    assert count_connections() == before
    run("systemctl", "start", BROKER)
    wait_connected(before)
    wait_until(node.is_connected, 60, "the operator has reached the broker")
    assert node.ask("ping")["status"] == "pong"
    assert BRIDGE.pid == new


def test_a_restart_of_the_bus_is_survived(node):
    old, before = BRIDGE.pid, count_connections()
    run("systemctl", "restart", "dbus.service")
    BRIDGE.wait_restarted(old)
    wait_connected(before)
    check_play(node)
