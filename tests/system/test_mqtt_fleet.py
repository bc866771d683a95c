"""docs/fleet.md: its commands set up a broker that lets each node speak for itself only."""

import pathlib
import re
import shutil

import pytest
from sandbox import clips, wait_until
from sandbox.broker import BROKER, Bridge, Client, find_port
from sandbox.documents import read_indented, read_section

ROOT = pathlib.Path(__file__).resolve().parents[2]

# These need the network, a running systemd or the operator.
LEFT_OUT = re.compile(r"^apt .*| && systemctl restart mosquitto$")

# What Debian's package has in its own configuration.
DEBIAN = """\
persistence true
persistence_location /var/lib/mosquitto/
include_dir /etc/mosquitto/conf.d
"""


def read_commands(title):
    """Returns the commands of the first block of a section."""
    return read_indented(read_section((ROOT / "docs/fleet.md").read_text(), title))[0]


class Documented:
    """The broker of the document, in the form of broker.Broker."""

    tls = True

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.port = find_port()
        self.folder = sandbox.etc / "mosquitto"
        for name in ("certs", "conf.d"):
            (self.folder / name).mkdir(parents=True)
        (sandbox.etc / "ssl").mkdir()
        shutil.copy("/etc/ssl/openssl.cnf", sandbox.etc / "ssl")
        commands = [LEFT_OUT.sub("", line) for line in read_commands("Set up Mosquitto")]
        script = "\n".join(commands).replace("broker.example", "localhost")
        # With capabilities, because the files get another owner.
        result = sandbox.run(["bash", "-euc", script], launcher=["env"])
        assert "error" not in result.stderr.lower(), result.stderr
        conf = self.folder / "conf.d/sonobrik.conf"
        conf.write_text(conf.read_text().replace("listener 8883", f"listener {self.port}"))
        (self.folder / "mosquitto.conf").write_text(DEBIAN)
        sandbox.set_disk("/var/lib/mosquitto", 1048576)
        self.process = sandbox.spawn([BROKER, "-c", "/etc/mosquitto/mosquitto.conf"],
                                     launcher=["env"])
        self.passwords = dict(line.split(":") for line in
                              (self.folder / "certs/fleet").read_text().splitlines())
        self.ca_file = self.folder / "certs/ca.crt"

    def connect(self, name, **options):
        return Client(self, name, user=name, password=self.passwords[name], **options)


@pytest.fixture
def broker(sandbox):
    return Documented(sandbox)


@pytest.fixture
def operator(broker):
    wait_until(lambda: not broker.process.is_running or _listens(broker), 20, "it listens")
    assert broker.process.is_running, broker.process.lines
    client = broker.connect("operator", topics=("sonobrik/#", "answers/#"))
    yield client
    client.close()


def _listens(broker):
    return any("running" in line for line in broker.process.lines)


def start(sandbox, broker, operator, name):
    password = sandbox.etc / f"vesk/password-{name}"
    password.write_text(broker.passwords[name])
    password.chmod(0o600)
    return Bridge(sandbox, broker, operator, node={"name": name, "groups": "all;west"},
                  broker={"username": name, "password_file": f"/etc/vesk/password-{name}",
                          "ca_file": "/etc/mosquitto/certs/ca.crt"},
                  homeassistant={"discovery": "no"}).start()


def test_there_are_ten_commands():
    assert len(read_commands("Set up Mosquitto")) == 10


@pytest.mark.needs_root
def test_a_node_is_reached_and_answers(sandbox, store, broker, operator):
    clip = sandbox.write_clip("a.wav", clips.noise(2400))
    store.add_clip(clip.path, "Hello")
    node = start(sandbox, broker, operator, "shop7")
    assert node.ask("play", {"name": "Hello"})["status"] == "playing"
    operator.publish("sonobrik/shop7/ping", {"id": "one"}, response="answers/shop7/anna")
    assert operator.wait("answers/shop7/anna").json["id"] == "one"
    # All nodes of a group get the same response topic, which none of them may write.
    seen = len(node.results)
    operator.publish("sonobrik/group/west/ping", {"id": "west"}, response="answers/anna")
    assert node.wait_result(seen)["id"] == "west"
    assert operator.get("answers/anna") == []
    node.stop()


@pytest.mark.needs_root
def test_a_node_is_only_in_the_groups_of_the_rules(sandbox, store, broker, operator):
    node = start(sandbox, broker, operator, "shop8")
    operator.publish("sonobrik/group/west/ping", {"id": "west"})
    operator.publish("sonobrik/group/all/ping", {"id": "all"})
    assert node.wait_result()["id"] == "all"
    node.stop()


@pytest.mark.needs_root
def test_a_node_cannot_take_over_the_session_of_another(sandbox, store, broker, operator):
    node = start(sandbox, broker, operator, "shop7")
    thief = Client(broker, "sonobrik-shop7", topics=(), user="shop8",
                   password=broker.passwords["shop8"])
    assert node.ask("ping")["status"] == "pong"
    assert len(operator.get(node.topic("availability"))) == 1
    thief.close()
    node.stop()


@pytest.mark.needs_root
def test_a_node_speaks_for_itself_only(broker, operator):
    thief = broker.connect("shop8", topics=("sonobrik/shop7/#", "sonobrik/group/all/#"))
    for topic in ("sonobrik/shop7/play", "sonobrik/shop7/state", "sonobrik/group/all/play",
                  "sonobrik/shop8/play", "answers/shop7/anna", "other"):
        thief.publish(topic, {"clip": 0})
    thief.publish("sonobrik/shop8/state", {})
    operator.publish("sonobrik/shop7/play", {"id": "secret"})
    operator.publish("sonobrik/group/all/play", {"id": "public"})
    operator.wait("sonobrik/shop8/state")
    assert {message.topic for message in operator.messages} == {
        "sonobrik/shop8/state", "sonobrik/shop7/play", "sonobrik/group/all/play"}
    thief.wait("sonobrik/group/all/play")
    assert [message.topic for message in thief.messages] == ["sonobrik/group/all/play"]
    thief.close()
