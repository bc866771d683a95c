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

# Functions for programs that write messages to the bus as bytes, to send what libraries do not: a
# message of exactly the bus's limit, or calls whose replies are never read.
RAW_BUS = """
import itertools, os, socket, struct, sys
LIMIT = 32 << 20
PROPERTIES = "org.freedesktop.DBus.Properties"
DRIVER = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")
serials = itertools.count(1)

def pack_field(code, kind, value):
    length = bytes([len(value)]) if kind == "g" else struct.pack("<I", len(value))
    field = bytes([code, 1]) + kind.encode() + b"\\0" + length + value + b"\\0"
    return field, field + b"\\0" * (-len(field) % 8)

def pack_call(to, path, interface, member, text=None):
    fields = [(1, "o", path), (2, "s", interface), (3, "s", member), (6, "s", to)]
    body = b""
    if text is not None:
        fields.append((8, "g", "s"))
        body = struct.pack("<I", len(text)) + text + b"\\0"
    packed = [pack_field(code, kind, value.encode()) for code, kind, value in fields]
    length = sum(len(padded) for _, padded in packed[:-1]) + len(packed[-1][0])
    return (struct.pack("<BBBBIII", ord("l"), 1, 0, 1, len(body), next(serials), length)
            + b"".join(padded for _, padded in packed) + body)

def pack_largest_text(to, path):
    empty = len(pack_call(to, path, PROPERTIES, "GetAll", b""))
    return pack_call(to, path, PROPERTIES, "GetAll", b"x" * (LIMIT - empty))

def pack_largest_path(to):
    empty = len(pack_call(to, "/", "org.freedesktop.DBus.Introspectable", "Introspect"))
    path = "/" + "x" * (LIMIT - empty - 8)
    return pack_call(to, path, "org.freedesktop.DBus.Introspectable", "Introspect")

def connect():
    bus = socket.socket(socket.AF_UNIX)
    bus.connect("/run/dbus/system_bus_socket")
    bus.sendall(b"\\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\\r\\n")
    while not bus.recv(100).endswith(b"\\r\\n"):
        pass
    bus.sendall(b"BEGIN\\r\\n" + pack_call(*DRIVER, "Hello"))
    data = b""
    while b":1." not in data or b"NameAcquired" not in data:
        data += bus.recv(4096)
    name = data[data.index(b":1."):]
    return bus, name[:name.index(b"\\0")].decode()
"""

# Sends the largest possible calls to objects, given as pairs of a name and a path, and prints the
# error of each, or "large" if its text is long. The errors of sd-bus can repeat a text of the call,
# and then exceed the limit if the caller's name has 8 characters. The objects do not answer the call
# with the long path.
LARGEST = RAW_BUS + """
while True:
    bus, name = connect()
    if len(name) >= 8:
        break
    bus.close()
bus.settimeout(60)
for to, path in zip(sys.argv[1::2], sys.argv[2::2]):
    bus.sendall(pack_largest_path(to) + pack_largest_text(to, path))
    answer = b""
    while b"Error." not in answer:
        answer += bus.recv(1 << 20)
    error = answer[answer.index(b"Error."):].split(b"\\0")[0].decode()
    length, = struct.unpack("<I", answer[4:8])  # of the body, which is the text of the error
    print(error if length < 1000 else "large")
"""


def send_largest(box, objects):
    """Sends calls of the bus's maximum size to objects, given as pairs of a bus name and a path.
    Returns the names of the errors. Without root, the user who runs the tests sends them."""
    arguments = [text for pair in objects for text in pair]
    options = STRANGER.options if has_several_users() else {}
    # The bus has to give away 10,000 names first.
    return box.run(["/usr/bin/python3", "-c", LARGEST, *arguments], deadline=500,
                   **options).stdout.split()


def start_flood(threads, box, name, counts, deadline=500):
    """Floods the connection `name` of the daemon from another thread, and returns the Future of the
    finished program. `counts` says how many messages of each of five kinds are sent: with
    descriptors, and large ones. Without root, they come from the user who runs the tests."""
    return threads.submit(box.run, ["/usr/bin/python3", "-c", FLOOD, name, *counts],
                          deadline=deadline, **(STRANGER.options if has_several_users() else {}))
