"""What the tests on a booted machine share: systemd, the log, and a clip on the recording card."""

import os
import pathlib
import pwd
import shutil
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "support"))

from sandbox import Recording, clips, wait_until  # noqa: E402

# In one of the two folders that the daemon may write.
CARD = pathlib.Path("/var/cache/sonobrik/card")
ACCESS = pathlib.Path("/etc/vesk/access.conf")
CLIP = pathlib.Path("/etc/audioclips/machine.wav")
RECORDS = pathlib.Path("/etc/dynamic/sonobrik/clip_data")


def run(*command, **options):
    return subprocess.run([str(word) for word in command], check=True, text=True,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, **options).stdout


class Unit:
    """A unit of systemd."""

    def __init__(self, name):
        self.name = name

    def show(self, key):
        return run("systemctl", "show", "--value", "-p", key, self.name).strip()

    @property
    def pid(self):
        return int(self.show("MainPID"))

    @property
    def user(self):
        return pwd.getpwuid(os.stat(f"/proc/{self.pid}").st_uid).pw_name

    def is_active(self):
        return self.show("ActiveState") == "active"

    def wait_restarted(self, old, seconds=60):
        """Waits for another process of the service, and returns its number."""
        wait_until(lambda: self.is_active() and self.pid not in (0, old), seconds,
                   f"systemd restarts {self.name}")
        return self.pid

    def read_log(self, *options):
        return run("journalctl", "-q", "-b", "--no-pager", "-u", self.name, *options)

    def read_times(self, text):
        """Returns when the lines of its log that contain `text` were written, in seconds."""
        return [float(line.split()[0]) for line in
                self.read_log("-o", "short-unix").splitlines() if text in line]

    def read_status(self):
        """Returns what the kernel says of its process."""
        lines = pathlib.Path(f"/proc/{self.pid}/status").read_text().splitlines()
        return dict(line.split(":\t", 1) for line in lines if ":\t" in line)

    def list_writable(self):
        """Returns the mounts that the process may write, as far as file permissions allow it.

        Those in /dev, /proc and /run are left out: ProtectSystem= does not cover them.
        """
        lines = pathlib.Path(f"/proc/{self.pid}/mountinfo").read_text().splitlines()
        mounts = [line.split() for line in lines]
        return {mount[4] for mount in mounts if "rw" in mount[5].split(",")
                and mount[4].split("/")[1] not in ("dev", "proc", "run")}

    def check_confinement(self):
        """Fails unless systemd imposed on the process what has nothing to do with files."""
        status = self.read_status()
        assert status["NoNewPrivs"] == "1"
        assert status["Seccomp"] == "2"
        assert int(status["CapBnd"], 16) == 0


DAEMON = Unit("sonobrik.service")
AUDIOCONTROL = Unit("sonobrik-audiocontrol.service")
BRIDGE = Unit("sonobrik-mqtt.service")


def prepare_clip():
    """Writes the clip and empties the card. Returns a function that tells if all of it was heard."""
    shutil.rmtree(CARD, ignore_errors=True)
    CARD.mkdir()
    shutil.chown(CARD, "sonobrik", "sonobrik")
    samples = clips.noise(48000)
    clips.write_wav(CLIP, samples)
    return lambda: any(take.find(samples) >= 0 for take in Recording(CARD).takes)


def play(*prefix):
    """Plays the clip and returns whether all of it was heard. `prefix` may run it as a user."""
    is_heard = prepare_clip()
    run(*prefix, "sonobrikctl", "play", "--wait", CLIP)
    return is_heard()
