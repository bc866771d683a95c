"""The daemon's playback interface and playing events, as a client sees them."""

from .bus import BusError

NAME = "com.vesk.Sonobrik"
PATH = "/com/vesk/Sonobrik"

EVENTS_NAME = "com.vesk.Events1.SonoBrikEvents"
EVENTS_PATH = "/com/vesk/Events1/SonoBrikEvents"
EVENT_INTERFACE = "com.vesk.Events1.Event"


def describe_event(keys):
    """Returns (topic, AudioOutput, AudioDeviceId, AudioOutputId, payload) of an event's keys."""
    value = keys["Playing"] if keys["topic1"] == "Playing" else keys["FileName"]
    return keys["topic1"], keys["AudioOutput"], keys["AudioDeviceId"], keys["AudioOutputId"], value


class Player:
    """Calls the daemon's own interface over `bus`, and records its playing events from now on."""

    def __init__(self, bus):
        self.bus = bus
        self._signals = bus.subscribe(interface=EVENT_INTERFACE, member="Sent")

    def send(self, method, text="", timeout=-1):
        """Calls a method that takes a string, and returns its Reply without waiting."""
        return self.bus.send(NAME, PATH, NAME, method, "(s)", text, timeout=timeout)

    def post(self, method, text=""):
        """Calls a method that takes a string, with the flag that no reply is expected."""
        self.bus.post(NAME, PATH, NAME, method, "(s)", text)

    def call(self, method, text="", timeout=20):
        """Calls a method that takes and returns a string, and returns that string."""
        reply = self.send(method, text, timeout)
        result, = reply.wait(timeout + 5)
        return result

    def fail(self, method, text="", timeout=20):
        """Calls a method that must fail with its own error name, and returns the error text."""
        reply = self.send(method, text, timeout)
        try:
            result = reply.wait(timeout + 5)
        except BusError as error:
            if error.name != f"{NAME}.{method}":
                raise
            return error.text
        raise AssertionError(f"{method}({text}) is answered {result}, not refused")

    @property
    def events(self):
        """All events that have arrived so far, in the form of describe_event()."""
        return [describe_event(signal.args[0]) for signal in self._signals]

    def fence(self):
        """Waits until everything that the daemon has sent so far has been delivered."""
        for name in (NAME, EVENTS_NAME):
            self.bus.call(name, "/", "org.freedesktop.DBus.Peer", "Ping")


def read_events(bus):
    """Returns the event objects on the bus: properties by path."""
    objects, = bus.call(EVENTS_NAME, EVENTS_PATH, "org.freedesktop.DBus.ObjectManager",
                        "GetManagedObjects")
    return {path: interfaces[EVENT_INTERFACE] for path, interfaces in objects.items()}
