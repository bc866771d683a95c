"""Installs a build into a folder, and sets up sandboxes like a machine with that installation."""

import dataclasses
import json
import pathlib
import re
import subprocess
import xml.sax.saxutils

MACHINE_BUS = pathlib.Path("/usr/share/dbus-1/system.conf")

# Parts of the host's bus configuration that do not work in a sandbox.
BUS_OF_THE_MACHINE = re.compile(
    r"<user>.*?</user>|<fork/>|<syslog/>|<pidfile>.*?</pidfile>|<servicehelper>.*?</servicehelper>"
    r"|<standard_system_servicedirs/>|<includedir>.*?</includedir>|<include .*?</include>",
    re.DOTALL)


@dataclasses.dataclass(frozen=True)
class User:
    """A user of a sandbox; `options` are its arguments for Sandbox.spawn() and Sandbox.run()."""

    uid: int
    groups: tuple = ()

    @property
    def options(self):
        return {"uid": self.uid, "groups": self.groups} if self.uid else {}


class Installation:
    """The files that `meson install` of `build_dir` installs, under `folder`."""

    def __init__(self, build_dir, folder):
        self.folder = pathlib.Path(folder)
        subprocess.run(
            ["/usr/bin/meson", "install", "-C", build_dir, "--no-rebuild", "--quiet", "--destdir",
             self.folder], check=True, capture_output=True)
        self.folder.chmod(0o755)  # programs also run as other users

    def find(self, pattern):
        """Returns the only installed file that matches `pattern`."""
        file, = self.folder.glob(pattern)
        return file

    @property
    def unit(self):
        return self.find("**/systemd/system/sonobrik.service")

    @property
    def has_unit(self):
        return any(self.folder.glob("**/systemd/system/sonobrik.service"))

    def make_users(self, sandbox):
        """Creates the daemon's users and folders in a sandbox and returns the daemon's user."""
        root = f"--root={sandbox.folder}"
        files = sorted(self.folder.glob("usr/lib/sysusers.d/*"))
        subprocess.run(["systemd-sysusers", root, *files], check=True, capture_output=True)
        subprocess.run(["systemd-tmpfiles", root, "--create", self.find("usr/lib/tmpfiles.d/*")],
                       check=True, capture_output=True)
        return User(find_id(sandbox, "passwd", "sonobrik"), (find_id(sandbox, "group", "audio"),))

    def set_bus(self, sandbox, extra="", services=False):
        """Configures the sandbox's bus like the host's system bus, plus the installed policy.

        `extra` is more bus policy, for the mocks of a test. With `services`, the bus activates the
        installed services. It starts them directly, because the helper of a system bus needs
        set-user-id rights, which a sandbox does not have.
        """
        sandbox.bind(self.folder, "/mnt")
        text = BUS_OF_THE_MACHINE.sub("", MACHINE_BUS.read_text())
        extra += "<includedir>/mnt/usr/share/dbus-1/system.d</includedir>"
        if services:
            extra += "<servicedir>/mnt/usr/share/dbus-1/system-services</servicedir>"
        text = text.replace("</busconfig>", f"{extra}</busconfig>")
        (sandbox.etc / "bus.conf").write_text(text)


def find_id(sandbox, database, name):
    """Returns the number of a user or group of a sandbox."""
    for line in (sandbox.etc / database).read_text().splitlines():
        fields = line.split(":")
        if fields[0] == name:
            return int(fields[2])
    raise KeyError(name)


def allow_peer(name):
    """Returns a bus policy that lets everybody own `name` and configure the mock of that name. It
    does not allow calls to the mocked interface."""
    name = xml.sax.saxutils.quoteattr(name)
    return (f'<policy context="default"><allow own={name}/><allow send_destination={name} '
            'send_interface="org.freedesktop.DBus.Mock"/></policy>')


# Sends messages and prints, for each, the sender of the reply and the name of its error. A signal
# gets a reply only if the bus refuses it.
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
    """Sends messages as a user of the sandbox, and returns for each whether the bus refused it.

    A message is (kind, destination, path, interface, member, signature, arguments) with the kind
    "call" or "signal".
    """
    result = sandbox.run(["/usr/bin/python3", "-c", CALLER, json.dumps(messages)], **user.options)
    answers = json.loads(result.stdout)
    return [answer == ["org.freedesktop.DBus", "org.freedesktop.DBus.Error.AccessDenied"]
            for answer in answers]
