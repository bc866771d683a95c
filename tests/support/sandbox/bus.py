"""A peer on the sandbox's system bus."""

import dataclasses
import itertools
import time

from gi.repository import Gio, GLib

from .wait import wait_until

DRIVER = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")

_arrivals = itertools.count(1)


class BusError(Exception):
    """An error reply: its `name` and its `text`, null if it carries none."""

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
    """The answer to a call that was sent and not waited for; it arrives within wait_until()."""

    def __init__(self):
        self.done = False
        self.arrival = 0
        self.time = 0
        self.signature = None
        self._values = ()
        self._error = None

    def wait(self, deadline=10):
        """The values of the answer, as Bus.call() returns them, or its error."""
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
    """One connection. Its signals and asynchronous replies are delivered within wait_until()."""

    def __init__(self, address):
        flags = (Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
                 | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION)
        self.connection = Gio.DBusConnection.new_for_address_sync(address, flags, None, None)

    @property
    def unique_name(self):
        return self.connection.get_unique_name()

    def send(self, destination, path, interface, member, signature="()", *args, timeout=-1):
        """Sends a call and returns its Reply. `timeout` in seconds, -1 for none.

        `signature` is that of the arguments with parentheses around it, as GLib has it.
        """
        message = self._new_call(destination, path, interface, member, signature, args)
        reply = Reply()
        limit = GLib.MAXINT if timeout < 0 else round(timeout * 1000)
        self.connection.send_message_with_reply(
            message, Gio.DBusSendMessageFlags.NONE, limit, None, reply._deliver)
        return reply

    def post(self, destination, path, interface, member, signature="()", *args):
        """Sends a call that wants no answer."""
        message = self._new_call(destination, path, interface, member, signature, args)
        message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
        self.connection.send_message(message, Gio.DBusSendMessageFlags.NONE)

    @staticmethod
    def _new_call(destination, path, interface, member, signature, args):
        message = Gio.DBusMessage.new_method_call(destination, path, interface, member)
        message.set_body(GLib.Variant(signature, args))
        return message

    def call(self, destination, path, interface, member, signature="()", *args, timeout=10):
        """Calls, waits, and returns the tuple of values, or raises BusError."""
        reply = self.send(destination, path, interface, member, signature, *args, timeout=timeout)
        return reply.wait(timeout + 5)

    def emit(self, path, interface, member, signature="()", *args, destination=None):
        """Sends a signal, to everybody or to one name, and waits until the bus has it."""
        message = Gio.DBusMessage.new_signal(path, interface, member)
        message.set_body(GLib.Variant(signature, args))
        if destination:
            message.set_destination(destination)
        self.connection.send_message(message, Gio.DBusSendMessageFlags.NONE)
        self.call(*DRIVER, "GetId")

    def subscribe(self, sender=None, path=None, interface=None, member=None):
        """Returns a list that grows by a Signal for each one that matches."""
        signals = []

        def deliver(_connection, *values):
            origin, object_path, name, signal, args = values
            signals.append(Signal(origin, object_path, name, signal, args.unpack(),
                                  time.monotonic_ns(), next(_arrivals)))

        self.connection.signal_subscribe(sender, interface, member, path, None,
                                         Gio.DBusSignalFlags.NONE, deliver)
        self.call(*DRIVER, "GetId")  # the bus has the match once it answers
        return signals

    def own_name(self, name):
        if self.call(*DRIVER, "RequestName", "(su)", name, 4) != (1,):
            raise AssertionError(f"somebody else owns {name}")

    def release_name(self, name):
        self.call(*DRIVER, "ReleaseName", "(s)", name)

    def get_owner(self, name):
        """The unique name of the owner, or null."""
        try:
            return self.call(*DRIVER, "GetNameOwner", "(s)", name)[0]
        except BusError as error:
            if error.name == "org.freedesktop.DBus.Error.NameHasNoOwner":
                return None
            raise

    def introspect(self, destination, path):
        """The XML text with which the object describes itself."""
        return self.call(destination, path, "org.freedesktop.DBus.Introspectable", "Introspect")[0]

    def close(self):
        try:
            self.connection.close_sync(None)
        except GLib.Error as error:
            # A bus that has ended has closed it, or is just found to have.
            if not any(error.matches(Gio.io_error_quark(), code) for code in
                       (Gio.IOErrorEnum.CLOSED, Gio.IOErrorEnum.BROKEN_PIPE)):
                raise
