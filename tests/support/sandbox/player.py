"""The daemon as its callers and listeners see it."""

from .bus import BusError

NAME = "com.vesk.Sonobrik"
PATH = "/com/vesk/Sonobrik"

EVENTS_NAME = "com.vesk.Events1.SonoBrikEvents"
EVENTS_PATH = "/com/vesk/Events1/SonoBrikEvents"
EVENT_INTERFACE = "com.vesk.Events1.Event"


def describe_event(keys):
    """(topic, AudioOutput, AudioDeviceId, AudioOutputId, what is sent) of an event's keys."""
    value = keys["Playing"] if keys["topic1"] == "Playing" else keys["FileName"]
    return keys["topic1"], keys["AudioOutput"], keys["AudioDeviceId"], keys["AudioOutputId"], value


class Player:
    """The daemon's own interface, called over `bus`, and its playing events, from now on."""

    def __init__(self, bus):
        self.bus = bus
        self._signals = bus.subscribe(interface=EVENT_INTERFACE, member="Sent")

    def send(self, method, text="", timeout=-1):
        """Sends a call of a method that takes a text, and returns its Reply."""
        return self.bus.send(NAME, PATH, NAME, method, "(s)", text, timeout=timeout)

    def post(self, method, text=""):
        """Calls a method that takes a text, and wants no answer."""
        self.bus.post(NAME, PATH, NAME, method, "(s)", text)

    def call(self, method, text="", timeout=20):
        """Calls a method that takes and returns a text, and returns that."""
        reply = self.send(method, text, timeout)
        result, = reply.wait(timeout + 5)
        return result

    def fail(self, method, text="", timeout=20):
        """Calls a method that must fail with its own error, and returns the error's text."""
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
        """All events that have arrived so far, as describe_event() has them."""
        return [describe_event(signal.args[0]) for signal in self._signals]

    def fence(self):
        """Returns when all that the daemon had sent and answered before has been delivered."""
        for name in (NAME, EVENTS_NAME):
            self.bus.call(name, "/", "org.freedesktop.DBus.Peer", "Ping")


def read_events(bus):
    """The event objects on the bus: path to properties."""
    objects, = bus.call(EVENTS_NAME, EVENTS_PATH, "org.freedesktop.DBus.ObjectManager",
                        "GetManagedObjects")
    return {path: interfaces[EVENT_INTERFACE] for path, interfaces in objects.items()}
