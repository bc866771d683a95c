"""Messages that nobody asked for, sent by a user without any right."""

from .box import has_several_users
from .installation import User

STRANGER = User(65534)

# Sends signals and calls to one connection: small ones with 16 descriptors, and ones of 1 MB. Goes
# on when the bus refuses them. Prints how many it has sent.
FLOOD = """
import os, sys
from gi.repository import Gio, GLib
flags = (Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
         | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION)
bus = Gio.DBusConnection.new_for_address_sync("unix:path=/run/dbus/system_bus_socket", flags)
to, count, large_count = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
large = GLib.Variant("(s)", ("x" * 1000000,))
sent = 0

def fence():
    bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
                  None, None, 0, 160000)

def send(message, every):
    global sent
    bus.send_message(message, Gio.DBusSendMessageFlags.NONE)
    sent += 1
    if sent % every == 0:
        fence()

def make_all():
    yield Gio.DBusMessage.new_signal("/com/vesk/Sonobrik", "com.vesk.Test", "Signal")
    for path, interface, member in (
            ("/com/vesk/Sonobrik", "com.vesk.Sonobrik", "StopPlayingClip"),
            ("/com/vesk/Sonobrik", "com.vesk.Configuration.Legacy", "Sync"),
            ("/com/vesk/Events1/SonoBrikEvents/1", "org.freedesktop.DBus.Properties", "GetAll"),
            ("/", "org.freedesktop.DBus.Peer", "Ping")):
        yield Gio.DBusMessage.new_method_call(to, path, interface, member)

for number in range(count):
    for message in make_all():
        message.set_destination(to)
        files = Gio.UnixFDList()
        handles = [files.append(0) for _ in range(16)]
        message.set_unix_fd_list(files)
        message.set_body(GLib.Variant("(ah)", (handles,)))
        send(message, 100)
for number in range(large_count):
    for message in make_all():
        message.set_destination(to)
        message.set_body(large)
        send(message, 10)
fence()
print(sent)
"""


def start_flood(threads, box, name, counts, deadline=500):
    """Floods the connection `name` of the daemon from another thread, and returns the Future of the
    finished program. `counts` says how many messages of each of five kinds are sent: with
    descriptors, and large ones. Without root, they come from the user who runs the tests."""
    return threads.submit(box.run, ["/usr/bin/python3", "-c", FLOOD, name, *counts],
                          deadline=deadline, **(STRANGER.options if has_several_users() else {}))
