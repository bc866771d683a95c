"""Mocked sound cards for the audio control service.

The service sees the cards of a umockdev testbed: their files below /sys and /proc and the events of
udev. What it defines for a card plays on a virtual card (see Recording), which has the name of the
card's id.
"""

import json
import pathlib
import shutil
import subprocess

from .process import Daemon
from .recording import Recording

# Where the sandbox has the folder of the testbed. The folder exists on every machine.
MOCK = "/srv"

STATE = "/run/audiocontrol-state"

SERVICE = "com.vesk.AudioControl"
MANAGER = (SERVICE, "/com/vesk/AudioControl", "org.freedesktop.DBus.ObjectManager")
DEVICE = "com.vesk.AudioControl.Device"
OUTPUTS = "com.vesk.AudioControl.Outputs"

LIBRARY = "/run/build/tests/support/alsa/libasound_module_pcm_clockcard.so"

# Stands for the names that ALSA has for every card.
VIRTUAL_CARDS = f"""\
pcm_type.clockcard {{ lib "{LIBRARY}" }}
pcm.!sysdefault {{
  @args [ CARD ]
  @args.CARD {{ type string default "0" }}
  type plug
  slave.pcm {{ type clockcard folder {{ @func concat strings [ "/run/cards/" $CARD ] }} }}
}}
pcm.!dmix {{
  @args [ CARD DEV ]
  @args.CARD {{ type string }}
  @args.DEV {{ type integer }}
  type plug
  slave.pcm {{ type clockcard folder {{ @func concat strings [ "/run/cards/" $CARD "." $DEV ] }} }}
}}
"""


class AudioControl(Daemon):
    """The running service, and its log."""

    def __str__(self):
        return f"the audio control service, process {self.pid}"


class Cards:
    """The cards of a sandbox, and its audio control service. Close it before the sandbox."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.service = None
        self._bed = subprocess.Popen(
            ["umockdev-wrapper", "/usr/bin/python3", "-B",
             pathlib.Path(__file__).with_name("card_bed.py")],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.folder = pathlib.Path(self._read_line())
        self.folder.chmod(0o777)  # the service makes sockets there, also as another user
        # Newer versions of umockdev connect each device to this socket.
        (self.folder / "ioctl/_default").chmod(0o777)
        sandbox.bind(self.folder, MOCK, is_writable=True)
        (sandbox.etc / "alsa/conf.d").mkdir(parents=True)
        shutil.copy(sandbox.build_dir / "data/sonobrik.conf", sandbox.etc / "alsa/conf.d")
        self.define("")

    def close(self):
        if self._bed:
            self._bed.stdin.close()
            self._bed.stdout.close()
            self._bed.wait()
            self._bed = None
            shutil.rmtree(self.folder, ignore_errors=True)

    def _read_line(self):
        line = self._bed.stdout.readline().removesuffix("\n")
        assert line, "the testbed ended"
        return line

    def _tell(self, *command):
        print(json.dumps(command), file=self._bed.stdin, flush=True)
        assert self._read_line() == "done"

    # The cards

    def add(self, index, card_id=None, bus="usb", outputs=(0,), name="Mocked card",
            make_folders=True, **properties):
        """Plugs a card in. `outputs` are the numbers of its playback PCMs, or a dictionary of the
        content of their info files. `properties` are those of udev. Without folders, the card
        cannot be played on."""
        card_id = card_id or f"Card{index}"
        if not isinstance(outputs, dict):
            outputs = {pcm: f"id: id {pcm}\nname: Output {pcm}\n" for pcm in outputs}
        for pcm in outputs if make_folders else ():
            self._make_folder(card_id if pcm == 0 else f"{card_id}.{pcm}")
        properties.setdefault("ID_PATH", f"path-{index}")
        self._tell("add", index, card_id, bus, properties, outputs, name)

    def add_output(self, index, pcm):
        """Adds a playback PCM to a card, like a driver that is slow."""
        self._tell("add_output", index, pcm, f"id: id {pcm}\nname: Output {pcm}\n")

    def remove(self, index):
        """Unplugs a card. What plays on it fails."""
        self._tell("remove", index)

    def set_udev(self, is_busy):
        """Makes udev run, which it does not otherwise, with or without events in its queue."""
        for name, exists in (("control", True), ("queue", is_busy)):
            file = self.sandbox.folder / "run/udev" / name
            file.parent.mkdir(exist_ok=True)
            file.touch() if exists else file.unlink(missing_ok=True)

    def examine(self, index, **properties):
        """Adds a card with these properties and its first PCM to udev's database, without an
        event."""
        text = "".join(f"E:{name}={value}\n" for name, value in properties.items())
        # Newer versions of umockdev look for the database in the folder of the testbed.
        for place in (self.sandbox.folder, self.folder):
            folder = place / "run/udev/data"
            folder.mkdir(parents=True, exist_ok=True)
            (folder / f"+sound:pcmC{index}D0p").write_text("I:1\n")
            (folder / f"+sound:card{index}").write_text("I:1\n" + text)

    def _make_folder(self, name):
        return self.sandbox._make_shared_folder(self.sandbox.folder / "run/cards" / name)

    def recording(self, name):
        """Returns what the card with this id has played, or of its PCM N, "ID.N"."""
        return Recording(self._make_folder(name))

    def define(self, text):
        """Writes /etc/asound.conf with the virtual cards and `text`."""
        self.sandbox.set_alsa(VIRTUAL_CARDS + text)

    # The service

    def configure(self, text):
        """Writes /etc/vesk/audio-control.conf; None removes it."""
        self.sandbox._replace(self.sandbox.etc / "vesk/audio-control.conf", text)

    def start(self, wait=True, launcher=None, **env):
        """Starts the service with variables of the environment, and waits until it has its name.

        `launcher` is a command that starts it like its unit does.
        """
        command = ["/run/build/src/audiocontrol/sonobrik-audiocontrol"]
        env |= {"UMOCKDEV_DIR": MOCK}
        if not launcher:
            # Only the service is to see the mocks, and not the programs that start it.
            command = ["env", "LD_PRELOAD=libumockdev-preload.so.0", *command]
            env |= {"STATE_DIRECTORY": STATE}
        self.service = self.sandbox.spawn(command, env=env, kind=AudioControl, launcher=launcher)
        if wait:
            self.sandbox._wait_name(SERVICE, self.service, 20)
        return self.service

    @property
    def state(self):
        """The file in which the service remembers the devices."""
        return self.sandbox.folder / STATE.removeprefix("/") / "devices.json"

    @property
    def alsa(self):
        """The ALSA definitions of the service."""
        return self.sandbox.folder / "run/sonobrik-audiocontrol/alsa.conf"

    def read_objects(self):
        """Returns the interfaces of each device by its number."""
        objects, = self.sandbox.bus.call(*MANAGER, "GetManagedObjects")
        return {int(path.rpartition("/")[2]): interfaces for path, interfaces in objects.items()}

    def read_devices(self):
        """Returns the name of each device by its number, with a mark if it is not plugged in."""
        return {number: interfaces[DEVICE]["Name"] + ("" if OUTPUTS in interfaces else " (out)")
                for number, interfaces in self.read_objects().items()}

    def listen(self):
        """Returns a list that receives the signals of cards that come and go, as tuples of the
        member and the device's number."""
        return Signals(self.sandbox.bus.subscribe(SERVICE, MANAGER[1], MANAGER[2]))


class Signals:
    """The signals of an object manager."""

    def __init__(self, signals):
        self.all = signals

    @property
    def seen(self):
        return [(signal.member, int(signal.args[0].rpartition("/")[2])) for signal in self.all]
