"""A mock of the device's on-screen controls service, and a monitor of the bus."""

import json

from .wait import wait_until

NAME = "com.vesk.Onscreencontrols1"
PATH = "/com/vesk/Onscreencontrols1"

# Records the call, then replies once the file "answer" exists. The mock's /tmp is the sandbox's tmp
# folder, so the test can see and create these files.
SILENCE = """
open("/tmp/asked", "a").write("x")
while not os.path.exists("/tmp/answer"):
    time.sleep(0.01)
"""

REFUSAL = "raise dbus.exceptions.DBusException('no room', name='com.vesk.Error.Full')"


class Controls:
    """The mock in `sandbox`, which accepts all features until refuse() or hold()."""

    def __init__(self, sandbox):
        self._bus = sandbox.bus
        self._asked = sandbox.folder / "tmp/asked"
        self._answer = sandbox.folder / "tmp/answer"
        self.process = sandbox.start_mock(NAME, PATH, NAME)
        self._reply_with("")

    def _reply_with(self, code):
        self._call("AddMethod", "(sssss)", NAME, "AddFeatures", "sssa{sv}", "", code)

    def _call(self, method, signature, *args):
        return self._bus.call(NAME, PATH, "org.freedesktop.DBus.Mock", method, signature, *args)

    def refuse(self):
        """Makes the mock reply with an error from now on."""
        self._reply_with(REFUSAL)

    def reply_with_error(self, text_size):
        """Makes the mock reply with an error whose text has this many bytes."""
        self._reply_with(f"raise dbus.exceptions.DBusException('x' * {text_size}, "
                         "name='com.vesk.Error.Full')")

    def reply_with_values(self, signature, code):
        """Makes the mock reply with values that the daemon does not expect."""
        self._call("AddMethod", "(sssss)", NAME, "AddFeatures", "sssa{sv}", signature,
                   f"ret = {code}")

    def hold(self):
        """Makes the mock hold back its replies until release()."""
        self._asked.unlink(missing_ok=True)
        self._answer.unlink(missing_ok=True)
        self._reply_with(SILENCE)

    def wait_asked(self):
        """Waits until the daemon is waiting for a reply that is held back."""
        wait_until(lambda: self.is_asked, 20, "the on-screen controls are asked")

    @property
    def is_asked(self):
        """True once the daemon has made a call since hold()."""
        return self._asked.exists()

    def release(self):
        self._answer.touch()

    @property
    def calls(self):
        """The arguments of all AddFeatures calls so far."""
        return [args for _, args in self._call("GetMethodCalls", "(s)", "AddFeatures")[0]]

    @property
    def clips(self):
        """The clips in the last AddFeatures call: (name, number)."""
        play = json.loads(self.calls[-1][2])["features"][0]
        return [(value["niceName"], value["value"])
                for value in play["parameters"]["clip"]["values"]]


# A signal that shows, when it is recorded, that the monitor has started. With --json, busctl of
# systemd 257 prints nothing when it starts.
MARK = "MonitorMark"


class Monitor:
    """Records the bus messages that match one of the rules, as sent, from now on."""

    def __init__(self, sandbox, *rules):
        self._output = sandbox.folder / "tmp/monitor"
        self._output.touch()
        matches = " ".join(f"--match={rule}" for rule in (*rules, f"member={MARK}"))
        sandbox.spawn(["sh", "-c", "exec busctl monitor --system --json=short "
                                   f"{matches} >/tmp/monitor"])

        def is_watching():
            sandbox.bus.emit("/", "com.vesk.Test", MARK)
            return any(message.get("member") == MARK for message in self._read())
        wait_until(is_watching, 20, "the bus is watched")

    def _read(self):
        lines = self._output.read_text().split("\n")[:-1]
        return [json.loads(line) for line in lines]

    def wait(self, count):
        """Waits for `count` messages and returns them as busctl prints them in JSON."""
        def read():
            messages = [message for message in self._read() if message.get("member") != MARK]
            return messages if len(messages) >= count else None
        return wait_until(read, 20, f"there are {count} messages")
