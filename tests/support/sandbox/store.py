"""The daemon's clip store: its bus interfaces, its change notices and its files."""

import json

from gi.repository import GLib

from .bus import BusError
from .player import EVENTS_NAME, NAME, PATH

LEGACY_NAME = "com.vesk.Sonobrik.Legacy"
LEGACY_INTERFACE = "com.vesk.Configuration.Legacy"

FOLDER = "/etc/dynamic/sonobrik/clip_data"


def write_record(location="", name="", kind="", metadata=None):
    """Returns the text of a clip's record file, as the daemon writes it."""
    return json.dumps({"location": location, "name": name, "type": kind,
                       "metadata": metadata or {}}, indent=2, ensure_ascii=False)


class Store:
    """The clip store of the daemon in `sandbox`; start() starts the daemon."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.bus = sandbox.bus
        self.folder = sandbox.etc / FOLDER.removeprefix("/etc/")
        self._taken = 0

    def start(self, **options):
        """Starts the daemon; take_log() leaves out the log lines of the start."""
        daemon = self.sandbox.start_daemon(**options)
        self._taken = len(daemon.texts)
        return self

    def take_log(self):
        """Returns the log lines since the last call, in the form of Daemon.texts."""
        texts = self.sandbox.daemon.texts[self._taken:]
        self._taken += len(texts)
        return texts

    # The legacy interface

    def send(self, method, signature="()", *args):
        return self.bus.send(LEGACY_NAME, PATH, LEGACY_INTERFACE, method, signature, *args)

    def call(self, method, signature="()", *args):
        return self.send(method, signature, *args).wait(20)

    def fail(self, method, signature="()", *args):
        """Calls a method that must fail with its own error name and an empty text."""
        expect_error(self.send(method, signature, *args), f"{LEGACY_NAME}.{method}", "")

    def rename(self, index, name):
        self.send_name(index, name).wait(20)

    def send_name(self, index, name):
        value = self.make_bytes(name if isinstance(name, bytes) else name.encode())
        return self.send("SetConfigurationEntry", "(isv)", index, "Name", value)

    @staticmethod
    def make_bytes(content):
        """Returns bytes as the variant that SetConfigurationEntry takes."""
        return GLib.Variant("ay", content)

    # The daemon's own interface

    def send_clip(self, location, name="", kind="audio"):
        return self.bus.send(NAME, PATH, NAME, "AddClip", "(sss)", location, name, kind)

    def add_clip(self, location, name="", kind="audio"):
        """Adds a clip and returns its number."""
        number, = self.send_clip(location, name, kind).wait(20)
        return number

    def refuse_clip(self, location, name="", kind="audio", text="NOK"):
        """Calls AddClip, which must fail with its own error name and this text."""
        expect_error(self.send_clip(location, name, kind), f"{NAME}.AddClip", text)

    def get_metadata(self):
        """Returns the reply of GetMetadata."""
        text, = self.bus.call(NAME, PATH, NAME, "GetMetadata", timeout=20)
        return text

    # The files

    def write(self, name, content):
        """Writes a record file past the daemon, and returns the daemon's path of it."""
        path = self.folder / name
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        return f"{FOLDER}/{name}"

    def read(self, index):
        return (self.folder / f"M{index}.json").read_text()

    def list(self):
        """Returns the names of all files, including hidden ones, in directory order."""
        return [path.name for path in self.folder.iterdir()]


def subscribe_changes(bus):
    """Returns a list to which each change notice is appended from now on."""
    return bus.subscribe(interface="com.vesk.ConfigurationChanges1")


def fence_changes(bus):
    """Waits until the change notices of all completed calls have been delivered."""
    bus.call(EVENTS_NAME, "/", "org.freedesktop.DBus.Peer", "Ping")


def expect_error(reply, name, text):
    try:
        values = reply.wait(20)
    except BusError as error:
        if (error.name, error.text) != (name, text):
            raise
    else:
        raise AssertionError(f"answered {values} where {name} was expected")
