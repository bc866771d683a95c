"""A connection to the sandbox's system bus."""

import dataclasses
import itertools
import time

from gi.repository import Gio, GLib

from .wait import wait_until

DRIVER = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")

_arrivals = itertools.count(1)


class BusError(Exception):
    """An error reply: its `name` and its `text`, which is None if the reply has none."""

    def __init__(self, name, text):
        super().__init__(f"{name}: {text}")
        self.name = name
        self.text = text


@dataclasses.dataclass(frozen=True)
class Signal:
    sender: str
    path: str
    interface: str
    member: str
    args: tuple
    time: int  # of its delivery, as of time.monotonic_ns()
    arrival: int  # counts the replies and signals delivered to this program


class Reply:
    """The future reply to an asynchronous call; only wait_until() receives it."""

    def __init__(self):
        self.done = False
        self.arrival = 0
        self.time = 0
        self.signature = None
        self._values = ()
        self._error = None

    def wait(self, deadline=10):
        """Returns the values of the reply like Bus.call(), or raises its error."""
        wait_until(lambda: self.done, deadline, "the call is answered")
        if self._error:
            raise self._error
        return self._values

    def _deliver(self, connection, result):
        try:
            message = connection.send_message_with_reply_finish(result)
        except GLib.Error as error:
            self._error = TimeoutError(error.message)
        else:
            self._read(message)
        self.arrival = next(_arrivals)
        self.time = time.monotonic_ns()
        self.done = True

    def _read(self, message):
        body = message.get_body()
        self.signature = message.get_signature()
        self._values = body.unpack() if body else ()
        if message.get_message_type() == Gio.DBusMessageType.ERROR:
            text = self._values[0] if self.signature.startswith("s") else None
            self._error = BusError(message.get_error_name(), text)


class Bus:
    """One connection. Only wait_until() delivers its signals and asynchronous replies."""

    def __init__(self, address):
        flags = (Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
                 | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION)
        self.connection = Gio.DBusConnection.new_for_address_sync(address, flags, None, None)

    @property
    def unique_name(self):
        return self.connection.get_unique_name()

    def send(self, destination, path, interface, member, signature="()", *args, timeout=-1):
        """Sends a call and returns its Reply. `timeout` is in seconds; -1 means none.

        `signature` is the signature of the arguments in parentheses, a GLib tuple type.
        """
        message = self._new_call(destination, path, interface, member, signature, args)
        reply = Reply()
        limit = GLib.MAXINT if timeout < 0 else round(timeout * 1000)
        self.connection.send_message_with_reply(
            message, Gio.DBusSendMessageFlags.NONE, limit, None, reply._deliver)
        return reply

    def post(self, destination, path, interface, member, signature="()", *args):
        """Sends a call with the flag that no reply is expected."""
        message = self._new_call(destination, path, interface, member, signature, args)
        message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
        self.connection.send_message(message, Gio.DBusSendMessageFlags.NONE)

    @staticmethod
    def _new_call(destination, path, interface, member, signature, args):
        message = Gio.DBusMessage.new_method_call(destination, path, interface, member)
        message.set_body(GLib.Variant(signature, args))
        return message

    def call(self, destination, path, interface, member, signature="()", *args, timeout=10):
        """Calls a method, waits, and returns the tuple of values; raises BusError for an error."""
        reply = self.send(destination, path, interface, member, signature, *args, timeout=timeout)
        return reply.wait(timeout + 5)

    def emit(self, path, interface, member, signature="()", *args, destination=None):
        """Sends a signal, to one name or to all, and waits until the bus has received it."""
        message = Gio.DBusMessage.new_signal(path, interface, member)
        message.set_body(GLib.Variant(signature, args))
        if destination:
            message.set_destination(destination)
        self.connection.send_message(message, Gio.DBusSendMessageFlags.NONE)
        self.call(*DRIVER, "GetId")

    def subscribe(self, sender=None, path=None, interface=None, member=None):
        """Returns a list to which each matching signal is appended as a Signal."""
        signals = []

        def deliver(_connection, *values):
            origin, object_path, name, signal, args = values
            signals.append(Signal(origin, object_path, name, signal, args.unpack(),
                                  time.monotonic_ns(), next(_arrivals)))

        self.connection.signal_subscribe(sender, interface, member, path, None,
                                         Gio.DBusSignalFlags.NONE, deliver)
        self.call(*DRIVER, "GetId")  # the reply shows that the bus has added the match
        return signals

    def own_name(self, name):
        if self.call(*DRIVER, "RequestName", "(su)", name, 4) != (1,):
            raise AssertionError(f"another connection owns {name}")

    def release_name(self, name):
        self.call(*DRIVER, "ReleaseName", "(s)", name)

    def get_owner(self, name):
        """Returns the unique name of the owner, or None."""
        try:
            return self.call(*DRIVER, "GetNameOwner", "(s)", name)[0]
        except BusError as error:
            if error.name == "org.freedesktop.DBus.Error.NameHasNoOwner":
                return None
            raise

    def introspect(self, destination, path):
        """Returns the introspection XML of an object."""
        return self.call(destination, path, "org.freedesktop.DBus.Introspectable", "Introspect")[0]

    def close(self):
        try:
            self.connection.close_sync(None)
        except GLib.Error as error:
            # If the bus has ended, the connection is closed already, or breaks now.
            if not any(error.matches(Gio.io_error_quark(), code) for code in
                       (Gio.IOErrorEnum.CLOSED, Gio.IOErrorEnum.BROKEN_PIPE)):
                raise
