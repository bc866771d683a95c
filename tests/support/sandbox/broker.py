"""An MQTT broker, clients of it, and sonobrik-mqtt in a sandbox."""

import dataclasses
import json
import shutil
import signal
import socket
import ssl
import subprocess

import paho.mqtt.client
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties
from paho.mqtt.subscribeoptions import SubscribeOptions

from .process import Process
from .wait import wait_until

PROGRAM = "/run/build/tools/mqtt/sonobrik-mqtt"

# Many users do not have /usr/sbin in their PATH.
BROKER = shutil.which("mosquitto", path="/usr/sbin:/usr/bin:/sbin:/bin")


def find_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def _run_openssl(folder, *words):
    subprocess.run(["openssl", *words], cwd=folder, check=True, capture_output=True)


def _sign(folder, name, days):
    _run_openssl(folder, "x509", "-req", "-days", str(days), "-in", f"{name}.csr", "-CA", "ca.crt",
                 "-CAkey", "ca.key", "-CAcreateserial", "-extfile", "extensions",
                 "-out", f"{name}.crt")


def make_certificates(folder):
    """Writes a certificate authority, and certificates of it for a server and a client."""
    def openssl(*words):
        _run_openssl(folder, *words)

    folder.mkdir(parents=True, exist_ok=True)
    openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
            "-days", "2", "-subj", "/CN=Test CA", "-keyout", "ca.key", "-out", "ca.crt")
    for name in ("server", "client"):
        openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                "-subj", "/CN=localhost" if name == "server" else "/CN=node1",
                "-keyout", f"{name}.key", "-out", f"{name}.csr")
        (folder / "extensions").write_text("subjectAltName=DNS:localhost\n")
        _sign(folder, name, 2)
    for key in folder.glob("*.key"):
        key.chmod(0o640)


def expire_certificate(folder):
    """Replaces the server's certificate by one that ended yesterday."""
    _sign(folder, "server", -1)


class Broker:
    """A real broker in `sandbox`, on a port of this machine. `lines` are more lines of its
    configuration."""

    def __init__(self, sandbox, tls=False, lines=()):
        self.sandbox = sandbox
        self.port = find_port()
        self.tls = tls
        folder = sandbox.etc / "mosquitto"
        folder.mkdir(exist_ok=True)
        if tls and not (folder / "tls").exists():
            make_certificates(folder / "tls")
        security = ["cafile /etc/mosquitto/tls/ca.crt", "certfile /etc/mosquitto/tls/server.crt",
                    "keyfile /etc/mosquitto/tls/server.key"] if tls else []
        (folder / "mosquitto.conf").write_text("\n".join([
            # The listener's lines come last: the others are for all listeners.
            "user root", "persistence true", "persistence_location /run/home/",
            "log_type error", "log_type warning", "log_type notice",
            # Beyond its default of 1,000, the broker drops messages for a slow client.
            "max_queued_messages 100000",
            *(line for line in lines if not line.startswith("require_certificate")),
            *([] if any("allow_anonymous" in line for line in lines) else ["allow_anonymous true"]),
            f"listener {self.port} 127.0.0.1", *security,
            *(line for line in lines if line.startswith("require_certificate")), ""]))
        self.process = None

    @property
    def ca_file(self):
        """The host's path of the authority's certificate."""
        return self.sandbox.etc / "mosquitto/tls/ca.crt"

    def start(self):
        self.process = self.sandbox.spawn([BROKER, "-c", "/etc/mosquitto/mosquitto.conf"])
        wait_until(lambda: not self.process.is_running or self._answers(), 20,
                   "the broker is listening")
        assert self.process.is_running, self.process.lines
        return self

    def stop(self):
        """Stops the broker, which saves its sessions."""
        self.process.kill(signal.SIGTERM)
        self.process.wait_exit()

    def _answers(self):
        try:
            socket.create_connection(("127.0.0.1", self.port), 1).close()
        except OSError:
            return False
        return True

    def connect(self, name="operator", **options):
        return Client(self, name, **options)


@dataclasses.dataclass(frozen=True)
class Message:
    topic: str
    payload: bytes
    retain: bool
    correlation: bytes

    @property
    def json(self):
        return json.loads(self.payload)


class Client:
    """A client of another kind than sonobrik-mqtt. Subscribes to `topics`."""

    def __init__(self, broker, name="operator", topics=("#",), user=None, password=None):
        self.messages = []
        self._topics = topics
        self._granted = 0  # subscriptions since the last connection
        # Version 2 of the library requires the version of its own callbacks.
        versions = getattr(paho.mqtt.client, "CallbackAPIVersion", None)
        extra = [versions.VERSION2] if versions else []
        self._client = paho.mqtt.client.Client(*extra, client_id=name,
                                               protocol=paho.mqtt.client.MQTTv5)
        self._client.on_message = self._on_message
        self._client.on_connect = self._on_connect
        self._client.on_subscribe = self._on_subscribe
        self._client.max_inflight_messages_set(1000)
        if user:
            self._client.username_pw_set(user, password)
        if broker.tls:
            # Not create_default_context(): from Python 3.13 on, it requires extensions that the
            # certificates of make_certificates() do not have.
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
            context.load_verify_locations(broker.ca_file)
            self._client.tls_set_context(context)
        # The broker keeps messages for it while the connection is interrupted.
        session = Properties(PacketTypes.CONNECT)
        session.SessionExpiryInterval = 600
        self._client.connect("localhost" if broker.tls else "127.0.0.1", broker.port, 60,
                             clean_start=False, properties=session)
        self._client.loop_start()
        wait_until(lambda: self._granted == len(topics), 20, f"{name} has subscribed")

    def _on_connect(self, client, *_rest):
        self._granted = 0
        for topic in self._topics:
            client.subscribe(topic, options=SubscribeOptions(qos=1))

    def _on_subscribe(self, *_rest):
        self._granted += 1

    def _on_message(self, _client, _data, message):
        correlation = getattr(message.properties, "CorrelationData", None)
        self.messages.append(Message(message.topic, message.payload, message.retain, correlation))

    def publish(self, topic, payload=b"", qos=1, retain=False, response=None, correlation=None,
                expiry=None):
        """Publishes a message and waits until the broker has it. `payload` may be an object."""
        if isinstance(payload, (dict, list)):
            payload = json.dumps(payload)
        properties = Properties(PacketTypes.PUBLISH)
        if response is not None:
            properties.ResponseTopic = response
        if correlation is not None:
            properties.CorrelationData = correlation
        if expiry is not None:
            properties.MessageExpiryInterval = expiry
        info = self._client.publish(topic, payload, qos, retain, properties)
        wait_until(info.is_published, 20, f"the broker has the message to {topic}")

    def publish_later(self, topic, payload):
        """Publishes an object without waiting for the broker."""
        self._client.publish(topic, json.dumps(payload), 1)

    def get(self, topic):
        """Returns the messages on a topic so far."""
        return [message for message in list(self.messages) if message.topic == topic]

    def wait(self, topic, condition=lambda message: True, deadline=20):
        """Returns the first message on a topic for which `condition` is true."""
        return wait_until(
            lambda: next((m for m in self.get(topic) if condition(m)), None), deadline,
            f"a message on {topic}; there are: {[m.payload[:300] for m in self.get(topic)][-5:]}")

    def wait_last(self, topic, condition, deadline=20):
        """Waits until `condition` is true for the last message on a topic, and returns it."""
        def find():
            last = self.get(topic)[-1:]
            return last[0] if last and condition(last[0]) else None
        return wait_until(find, deadline, f"the last message on {topic}")

    def close(self):
        self._client.disconnect()
        self._client.loop_stop()


class Bridge:
    """sonobrik-mqtt in `sandbox`, as the node "node1" unless the configuration says otherwise."""

    def __init__(self, sandbox, broker, operator=None, /, **groups):
        self.sandbox = sandbox
        self.broker = broker
        self.operator = operator
        self.process = None
        self.name = groups.get("node", {}).get("name", "node1")
        for name in ("state", "runtime"):
            (sandbox.folder / "run/home" / f"mqtt-{name}-{self.name}").mkdir(exist_ok=True)
        # For the name in the certificate of the broker.
        (sandbox.etc / "hosts").write_text("127.0.0.1 localhost\n")
        self.set_conf(**groups)

    def set_conf(self, **groups):
        """Writes /etc/vesk/mqtt.conf: keys by group, with "_" for "-"."""
        conf = {"broker": {"host": "localhost", "port": self.broker.port,
                           "tls": "yes" if self.broker.tls else "no"},
                "node": {"name": self.name, "groups": "all;shop"}}
        if self.broker.tls:
            conf["broker"]["ca-file"] = "/etc/mosquitto/tls/ca.crt"
        for group, keys in groups.items():
            conf.setdefault(group, {}).update(
                {key.replace("_", "-"): value for key, value in keys.items()})
        (self.sandbox.etc / f"vesk/mqtt-{self.name}.conf").write_text("".join(
            f"[{group}]\n" + "".join(f"{key}={value}\n" for key, value in keys.items())
            for group, keys in conf.items()))

    @property
    def command(self):
        return [PROGRAM, "--config", f"/etc/vesk/mqtt-{self.name}.conf"]

    @property
    def environment(self):
        return {"STATE_DIRECTORY": f"/run/home/mqtt-state-{self.name}",
                "RUNTIME_DIRECTORY": f"/run/home/mqtt-runtime-{self.name}"}

    def spawn(self, **options):
        env = self.environment | options.pop("env", {})
        self.process = self.sandbox.spawn(self.command, env=env, kind=Process, **options)
        return self

    def start(self, **options):
        """Starts it, and waits until it has said that it is online."""
        before = len(self.operator.get(self.topic("info")))
        self.spawn(**options)
        wait_until(lambda: not self.process.is_running
                   or len(self.operator.get(self.topic("info"))) > before, 20, "the node is online")
        assert self.process.is_running, self.process.lines
        return self

    def stop(self):
        self.process.kill(signal.SIGTERM)
        status = self.process.wait_exit()
        assert status == 0, self.process.lines

    def topic(self, leaf):
        return f"sonobrik/{self.name}/{leaf}"

    @property
    def results(self):
        return [message.json for message in self.operator.get(self.topic("result"))]

    def ask(self, leaf, payload=b"", status=None, deadline=20, **options):
        """Sends a command and returns the first new answer, or the first with `status`."""
        seen = len(self.operator.get(self.topic("result")))
        self.operator.publish(self.topic(leaf), payload, **options)
        return self.wait_result(seen, status, deadline)

    def wait_result(self, seen=0, status=None, deadline=20):
        return wait_until(
            lambda: next((answer for answer in self.results[seen:]
                          if status in (None, answer["status"])), None),
            deadline, f"an answer; there are: {self.results[seen:]}")

    def wait_log(self, text, deadline=20):
        wait_until(lambda: any(text in line for line in self.process.lines), deadline,
                   f"{text!r} is logged")
