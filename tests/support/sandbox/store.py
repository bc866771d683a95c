"""The daemon's clip store as its callers, its listeners and those who look at its files see it."""

import json

from gi.repository import GLib

from .bus import BusError
from .player import EVENTS_NAME, NAME, PATH

LEGACY_NAME = "com.vesk.Sonobrik.Legacy"
LEGACY_INTERFACE = "com.vesk.Configuration.Legacy"

FOLDER = "/etc/dynamic/sonobrik/clip_data"


def write_record(location="", name="", kind="", metadata=None):
    """The text of a clip's file, as the daemon writes it."""
    return json.dumps({"location": location, "name": name, "type": kind,
                       "metadata": metadata or {}}, indent=2, ensure_ascii=False)


class Store:
    """The clips of the daemon in `sandbox`, which start() starts."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.bus = sandbox.bus
        self.folder = sandbox.etc / FOLDER.removeprefix("/etc/")
        self._taken = 0

    def start(self, **options):
        """Starts the daemon, whose first lines take_log() then leaves out."""
        daemon = self.sandbox.start_daemon(**options)
        self._taken = len(daemon.texts)
        return self

    def take_log(self):
        """The daemon's log, as Daemon.texts has it, since the last time."""
        texts = self.sandbox.daemon.texts[self._taken:]
        self._taken += len(texts)
        return texts

    # The legacy interface

    def send(self, method, signature="()", *args):
        return self.bus.send(LEGACY_NAME, PATH, LEGACY_INTERFACE, method, signature, *args)

    def call(self, method, signature="()", *args):
        return self.send(method, signature, *args).wait(20)

    def fail(self, method, signature="()", *args):
        """Calls a method that must fail with its own error and an empty text."""
        expect_error(self.send(method, signature, *args), f"{LEGACY_NAME}.{method}", "")

    def rename(self, index, name):
        self.send_name(index, name).wait(20)

    def send_name(self, index, name):
        value = self.make_bytes(name if isinstance(name, bytes) else name.encode())
        return self.send("SetConfigurationEntry", "(isv)", index, "Name", value)

    @staticmethod
    def make_bytes(content):
        """The value with which a property is changed."""
        return GLib.Variant("ay", content)

    # The daemon's own interface

    def send_clip(self, location, name="", kind="audio"):
        return self.bus.send(NAME, PATH, NAME, "AddClip", "(sss)", location, name, kind)

    def add_clip(self, location, name="", kind="audio"):
        """Adds a clip and returns its number."""
        number, = self.send_clip(location, name, kind).wait(20)
        return number

    def refuse_clip(self, location, name="", kind="audio", text="NOK"):
        """Calls AddClip, which must fail with its own error and this text."""
        expect_error(self.send_clip(location, name, kind), f"{NAME}.AddClip", text)

    def get_metadata(self):
        """The text that GetMetadata answers."""
        text, = self.bus.call(NAME, PATH, NAME, "GetMetadata", timeout=20)
        return text

    # The files

    def write(self, name, content):
        """Writes a clip's file as somebody else, and returns the daemon's path of it."""
        path = self.folder / name
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        return f"{FOLDER}/{name}"

    def read(self, index):
        return (self.folder / f"M{index}.json").read_text()

    def list(self):
        """The names of all files, hidden ones too, in the order in which the folder has them."""
        return [path.name for path in self.folder.iterdir()]


def subscribe_changes(bus):
    """The list of change notices, from now on."""
    return bus.subscribe(interface="com.vesk.ConfigurationChanges1")


def fence_changes(bus):
    """Returns when all change notices of calls that were answered before have been delivered."""
    bus.call(EVENTS_NAME, "/", "org.freedesktop.DBus.Peer", "Ping")


def expect_error(reply, name, text):
    try:
        values = reply.wait(20)
    except BusError as error:
        if (error.name, error.text) != (name, text):
            raise
    else:
        raise AssertionError(f"answered {values} where {name} was expected")
