"""What is installed: a copy of it in a folder, and sandboxes that have it as their own."""

import dataclasses
import json
import pathlib
import re
import subprocess
import xml.sax.saxutils

MACHINE_BUS = pathlib.Path("/usr/share/dbus-1/system.conf")

# What the machine's bus does as a service of the machine, and a sandbox's cannot.
BUS_OF_THE_MACHINE = re.compile(
    r"<user>.*?</user>|<fork/>|<syslog/>|<pidfile>.*?</pidfile>|<servicehelper>.*?</servicehelper>"
    r"|<standard_system_servicedirs/>|<includedir>.*?</includedir>|<include .*?</include>",
    re.DOTALL)


@dataclasses.dataclass(frozen=True)
class User:
    """Who runs a program in a sandbox: the arguments of Sandbox.spawn() and Sandbox.run()."""

    uid: int
    groups: tuple = ()

    @property
    def options(self):
        return {"uid": self.uid, "groups": self.groups} if self.uid else {}


class Installation:
    """What `meson install` of the build `build_dir` installs, below `folder`."""

    def __init__(self, build_dir, folder):
        self.folder = pathlib.Path(folder)
        subprocess.run(
            ["/usr/bin/meson", "install", "-C", build_dir, "--no-rebuild", "--quiet", "--destdir",
             self.folder], check=True, capture_output=True)
        self.folder.chmod(0o755)  # for the other users that programs run as

    def find(self, pattern):
        """The one installed file that matches."""
        file, = self.folder.glob(pattern)
        return file

    @property
    def unit(self):
        return self.find("**/systemd/system/sonobrik.service")

    @property
    def has_unit(self):
        return any(self.folder.glob("**/systemd/system/sonobrik.service"))

    def make_users(self, sandbox):
        """Makes the users and folders of the daemon in a sandbox, and returns the daemon's user."""
        root = f"--root={sandbox.folder}"
        subprocess.run(["systemd-sysusers", root, self.find("usr/lib/sysusers.d/*")], check=True,
                       capture_output=True)
        subprocess.run(["systemd-tmpfiles", root, "--create", self.find("usr/lib/tmpfiles.d/*")],
                       check=True, capture_output=True)
        return User(find_id(sandbox, "passwd", "sonobrik"), (find_id(sandbox, "group", "audio"),))

    def set_bus(self, sandbox, extra="", services=False):
        """Gives the sandbox's bus the machine's own configuration with the installed policy, and
        `extra`, lines of a bus policy, for peers that tests play. With `services` the bus starts
        them, by itself, since the machine's helper needs rights that no sandbox gives."""
        sandbox.bind(self.folder, "/mnt")
        text = BUS_OF_THE_MACHINE.sub("", MACHINE_BUS.read_text())
        extra += "<includedir>/mnt/usr/share/dbus-1/system.d</includedir>"
        if services:
            extra += "<servicedir>/mnt/usr/share/dbus-1/system-services</servicedir>"
        text = text.replace("</busconfig>", f"{extra}</busconfig>")
        (sandbox.etc / "bus.conf").write_text(text)


def find_id(sandbox, database, name):
    """The number of a user or group of a sandbox."""
    for line in (sandbox.etc / database).read_text().splitlines():
        fields = line.split(":")
        if fields[0] == name:
            return int(fields[2])
    raise KeyError(name)


def allow_peer(name):
    """Lines of a bus policy that let everybody own a name, and tell a mock of that name what to
    play; what the mock is for, they do not let anybody call."""
    name = xml.sax.saxutils.quoteattr(name)
    return (f'<policy context="default"><allow own={name}/><allow send_destination={name} '
            'send_interface="org.freedesktop.DBus.Mock"/></policy>')


# Sends messages and prints, for each, who answered and the error's name. A signal is answered by
# the bus alone, when it refuses it.
CALLER = """
import json, sys
from gi.repository import Gio, GLib
flags = (Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
         | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION)
bus = Gio.DBusConnection.new_for_address_sync("unix:path=/run/dbus/system_bus_socket", flags)
DRIVER = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")
refusals = {}

def watch(connection, message, incoming):
    if incoming and message.get_message_type() == Gio.DBusMessageType.ERROR:
        refusals[message.get_reply_serial()] = message
    return message

bus.add_filter(watch)

def send(kind, to, path, interface, member, signature, args):
    if kind == "signal":
        message = Gio.DBusMessage.new_signal(path, interface, member)
        message.set_destination(to)
    else:
        message = Gio.DBusMessage.new_method_call(to, path, interface, member)
    message.set_body(GLib.Variant(signature, args))
    if kind == "signal":
        ok, serial = bus.send_message(message, Gio.DBusSendMessageFlags.NONE)
        bus.call_sync(*DRIVER, "GetId", None, None, 0, 20000)
        answer = refusals.get(serial)
    else:
        answer, serial = bus.send_message_with_reply_sync(
            message, Gio.DBusSendMessageFlags.NONE, 20000)
    return [answer.get_sender(), answer.get_error_name()] if answer else [None, None]

print(json.dumps([send(*message) for message in json.loads(sys.argv[1])]))
"""


def send_as(sandbox, user, messages):
    """Sends messages as a user of the sandbox: (kind, destination, path, interface, member,
    signature, arguments), the kind "call" or "signal". Returns whether the bus refused each."""
    result = sandbox.run(["/usr/bin/python3", "-c", CALLER, json.dumps(messages)], **user.options)
    answers = json.loads(result.stdout)
    return [answer == ["org.freedesktop.DBus", "org.freedesktop.DBus.Error.AccessDenied"]
            for answer in answers]
