"""Random calls of the daemon's interfaces: well-typed ones, ill-typed ones and nonsense."""

import dataclasses
import os

from gi.repository import Gio, GLib

from .store import LEGACY_INTERFACE, LEGACY_NAME
from .player import NAME, PATH

# The methods of both interfaces: the types of the arguments and of the reply.
METHODS = {
    NAME: {
        "AddClip": ("(sss)", "i"),
        "GetMetadata": ("()", "s"),
        "PlayClip": ("(s)", "s"),
        "StartPlayingClip": ("(s)", "s"),
        "StopPlayingClip": ("(s)", "s"),
        "SupportedFile": ("(s)", "s"),
    },
    LEGACY_INTERFACE: {
        "AddConfiguration": ("(i)", "i"),
        "GetConfigurationEntry": ("(is)", "sv"),
        "GetConfigurations": ("()", "a{ia{sv}}"),
        "RemoveConfiguration": ("(i)", ""),
        "SetConfigurationEntry": ("(isv)", ""),
        "Sync": ("()", ""),
    },
}

SERVICES = {NAME: NAME, LEGACY_INTERFACE: LEGACY_NAME}

# Interfaces that the bus library implements for every object.
STANDARD = [
    ("org.freedesktop.DBus.Peer", "Ping", "()"),
    ("org.freedesktop.DBus.Peer", "GetMachineId", "()"),
    ("org.freedesktop.DBus.Introspectable", "Introspect", "()"),
    ("org.freedesktop.DBus.Properties", "Get", "(ss)"),
    ("org.freedesktop.DBus.Properties", "Set", "(ssv)"),
    ("org.freedesktop.DBus.Properties", "GetAll", "(s)"),
    ("org.freedesktop.DBus.ObjectManager", "GetManagedObjects", "()"),
]

BUS_ERROR = "org.freedesktop.DBus.Error."

NUMBERS = [0, 1, 2, -1, 9, 10, 11, 2**31 - 1, -2**31]

TYPES = ["y", "b", "n", "i", "u", "x", "t", "d", "s", "o", "g", "v", "h", "as", "ay", "aai",
         "(is)", "(s(sv))", "a{sv}", "a{ia{sv}}", "av"]

LONG = 9000


@dataclasses.dataclass(frozen=True)
class Call:
    service: str
    path: str
    interface: str
    member: str
    arguments: GLib.Variant
    descriptors: int = 0  # how many file descriptors the message carries
    result: str = None  # the type of a valid reply; None if any reply is valid

    def make_message(self):
        message = Gio.DBusMessage.new_method_call(self.service, self.path, self.interface,
                                                  self.member)
        message.set_body(self.arguments)
        if self.descriptors:
            files = Gio.UnixFDList()
            with open(os.devnull, "rb") as null:
                for _ in range(self.descriptors):
                    files.append(null.fileno())
            message.set_unix_fd_list(files)
        return message

    def find_fault(self, reply):
        """Returns what is wrong with the reply, a Gio.DBusMessage, or None."""
        if reply.get_message_type() == Gio.DBusMessageType.ERROR:
            name = reply.get_error_name()
            own = f"{self.service}.{self.member}"
            if not name.startswith(BUS_ERROR) and name != own:
                return f"unknown error {name}"
            return None
        if self.result is not None and reply.get_signature() != self.result:
            return f"a reply of type '{reply.get_signature()}', not '{self.result}'"
        return None

    def __str__(self):
        return (f"{self.interface}.{self.member} at {self.path} of {self.service} with "
                f"{self.arguments.print_(True)[:500]} and {self.descriptors} descriptors")


class RandomCalls:
    """Draws calls from `source`, a random.Random. `clips` are files that the daemon can play."""

    def __init__(self, source, clips):
        self._source = source
        self._clips = clips

    def draw(self):
        draw, = self._source.choices(
            [self._valid, self._store, self._ill_typed, self._misaddressed, self._standard,
             self._play],
            [40, 10, 30, 8, 8, 2])
        return draw()

    def _method(self):
        interface = self._source.choice(list(METHODS))
        member = self._source.choice(list(METHODS[interface]))
        return interface, member, *METHODS[interface][member]

    def _valid(self):
        interface, member, types, result = self._method()
        return Call(SERVICES[interface], PATH, interface, member, self._tuple(types), 0, result)

    def _store(self):
        """Returns a call that changes or reads the stored clips, if the number is right."""
        source = self._source
        number = source.randrange(10)
        path = source.choice([clip.path for clip in self._clips] + ["/etc/audioclips/missing"])
        interface, member, values = source.choice([
            (NAME, "AddClip", (path, self._letters(source.randrange(90)), "audio")),
            (LEGACY_INTERFACE, "GetConfigurationEntry",
             (number, source.choice(["Name", "Location", "Type"]))),
            (LEGACY_INTERFACE, "SetConfigurationEntry",
             (number, "Name", GLib.Variant("ay", self._letters(60).encode()))),
            (LEGACY_INTERFACE, "RemoveConfiguration", (number,)),
        ])
        types, result = METHODS[interface][member]
        return Call(SERVICES[interface], PATH, interface, member, GLib.Variant(types, values), 0,
                    result)

    def _ill_typed(self):
        interface, member, _, result = self._method()
        types = "".join(self._source.choices(TYPES, k=self._source.randint(0, 5)))
        # A few descriptors that no argument refers to, too.
        descriptors = types.count("h") + self._source.choice([0] * 20 + [5])
        return Call(SERVICES[interface], PATH, interface, member, self._tuple(f"({types})"),
                    descriptors, result)

    def _misaddressed(self):
        interface, member, types, _ = self._method()
        service = SERVICES[interface]
        path = PATH
        part = self._source.randrange(4)
        if part == 0:
            path = self._source.choice(["/", "/com", "/com/vesk", f"{PATH}/0", "/other"])
        elif part == 1:
            interface = self._source.choice([*METHODS, "com.vesk.Other"])
        elif part == 2:
            member = self._source.choice(["Play", "playClip", "Get", "X" * 200])
        else:
            service = self._source.choice(list(SERVICES.values()))
        return Call(service, path, interface, member, self._tuple(types))

    def _standard(self):
        interface, member, types = self._source.choice(STANDARD)
        service = self._source.choice(list(SERVICES.values()))
        return Call(service, self._source.choice(["/", PATH]), interface, member,
                    self._tuple(types))

    def _play(self):
        """Returns a call that reads or plays a clip, which takes much longer than the others."""
        clip = self._source.choice(self._clips)
        member = self._source.choice(["PlayClip", "StartPlayingClip", "SupportedFile"])
        text = clip.path if member == "SupportedFile" else self._options(clip.path)
        return Call(NAME, PATH, NAME, member, GLib.Variant("(s)", (text,)), 0, "s")

    def _options(self, path):
        source = self._source
        options = [f"location={path}"]
        for key, values in (("volume", (0, 50, 1000, 1001, -1, "x")), ("repeat", (0, 1, -1, -2)),
                            ("audiooutput", (0, 0, 1, 6)), ("audiodeviceid", (0, 1, 7)),
                            ("audiooutputid", (0, 3))):
            if source.random() < 0.3:
                options.append(f"{key}={source.choice(values)}")
        source.shuffle(options)
        return "&".join(options)

    def _text(self):
        source = self._source
        kind = source.randrange(8)
        if kind == 0:
            return source.choice(["", "audio", "Name", "Location", "Type", "/etc/audioclips",
                                  "/etc/audioclips/missing.wav", "/dev/zero", "/", "."])
        if kind == 1:
            return self._options("/etc/audioclips/" + self._letters(20))
        if kind == 2:
            return "&".join(f"{self._letters(3)}={self._letters(9)}" for _ in range(50))
        if kind == 3:
            return "".join(f"%{source.randrange(256):02x}" for _ in range(source.randrange(100)))
        if kind == 4:
            return "/etc/audioclips/" + self._letters(source.choice([5, 250, 5000]))
        if kind == 5:
            return self._letters(source.randrange(LONG))
        return self._letters(source.randrange(40))

    def _letters(self, count):
        # The last two are text in GLib, but sd-bus refuses them.
        letters = ["a", "/", "*", "?", "%", "&", "=", "+", " ", "\n", "\t", "\x01", "\x7f", "\x9b",
                   "é", "漢", "😀", "\u202e", "\\", "\"", "'", "<", "0", "\ufffe", "\U0001ffff"]
        weights = [1] * (len(letters) - 2) + [0.01] * 2
        return "".join(self._source.choices(letters, weights, k=count))

    def _tuple(self, types):
        return GLib.Variant.new_tuple(*map(self._value, self._split(types[1:-1])))

    @staticmethod
    def _split(types):
        """Returns the single complete types of a signature."""
        parts = []
        while types:
            end = 1
            while not GLib.VariantType.string_is_valid(types[:end]):
                end += 1
            parts.append(types[:end])
            types = types[end:]
        return parts

    def _value(self, kind, depth=0):
        source = self._source
        if kind == "v":
            inner = source.choice(TYPES[:-1] if depth < 20 else ["s"])
            if inner == "h":
                inner = "v"  # the message must contain the descriptor
            return GLib.Variant.new_variant(self._value(inner, depth + 1))
        if kind == "ay":
            return GLib.Variant("ay", source.randbytes(source.choice([0, 5, 254, 255, 256, LONG])))
        if kind == "h":
            return GLib.Variant("h", 0)
        if kind == "i":
            return GLib.Variant("i", source.choice(NUMBERS))
        if kind == "o":
            return GLib.Variant("o", source.choice(["/", PATH]))
        if kind == "g":
            return GLib.Variant("g", source.choice(["", "s", "a{sv}"]))
        if kind == "d":
            return GLib.Variant("d", source.choice([0.0, float("nan"), float("inf")]))
        if kind == "b":
            return GLib.Variant("b", source.random() < 0.5)
        if kind == "s":
            return GLib.Variant("s", self._text())
        if len(kind) == 1:
            return GLib.Variant(kind, source.choice([0, 1, 127]))
        return self._container(kind, depth)

    def _container(self, kind, depth):
        if kind[0] == "(":
            members = [self._value(member, depth + 1) for member in self._split(kind[1:-1])]
            return GLib.Variant.new_tuple(*members)
        count = self._source.randint(0, 3)
        if kind.startswith("a{"):
            entry = GLib.VariantType(kind[1:])
            builder = GLib.VariantBuilder(GLib.VariantType(kind))
            for _ in range(count):
                builder.add_value(GLib.Variant.new_dict_entry(
                    self._value(entry.key().dup_string(), depth + 1),
                    self._value(entry.value().dup_string(), depth + 1)))
            return builder.end()
        return GLib.Variant.new_array(
            GLib.VariantType(kind[1:]),
            [self._value(kind[1:], depth + 1) for _ in range(count)])
