"""Callers that send many calls at once, and collect the replies or disconnect before them."""

import collections

from gi.repository import Gio, GLib


class Answers:
    """The replies to calls."""

    def __init__(self):
        self.waiting = 0
        self.faults = []
        self.counts = collections.Counter()  # by method, and by the reply's type or error

    def send(self, bus, call):
        self.waiting += 1
        bus.connection.send_message_with_reply(
            call.make_message(), Gio.DBusSendMessageFlags.NONE, GLib.MAXINT, None, self._take, call)

    def _take(self, connection, result, call):
        self.waiting -= 1
        try:
            reply = connection.send_message_with_reply_finish(result)
        except GLib.Error as error:
            fault = error.message
        else:
            fault = call.find_fault(reply)
            self.counts[call.member, reply.get_error_name() or reply.get_signature()] += 1
        if fault:
            self.faults.append(f"{fault}: {call}")


def post(bus, call):
    """Sends a call with the flag that no reply is expected."""
    message = call.make_message()
    message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
    bus.connection.send_message(message, Gio.DBusSendMessageFlags.NONE)


def leave(bus):
    """Closes a connection once the bus has its messages; the replies find nobody."""
    bus.connection.flush_sync(None)
    bus.close()
