"""Runs the README's commands, and installs and uses the package, on minimal Debian 12 machines.

usage: fresh.py [STEP...]
  machine  makes the machines: a minimal Debian 12, twice
  try      the README's first command, from a clean clone of what is committed
  test     the README's second command
  package  builds the package there
  install  installs the package on the second machine, which has nothing for building
  play     plays a clip there, by the installed client, through the daemon that the bus starts
Without a STEP all run. A step that is named alone goes on with the machines that are there.

The machines are folders below build-fresh/, made by debootstrap from the mirror of this machine,
and entered as containers. Needs root and its right to mount. The last lines say what became of each
step, and then "N passed, N failed"; what a step printed is in build-fresh/STEP.log.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests/support"))

from sandbox import Recording, clips  # noqa: E402

SUITE = "bookworm"
FOLDER = ROOT / "build-fresh"
BASE = FOLDER / "base.tar"  # the pristine machine; remove it to have it made anew
BUILDER = FOLDER / "builder"
TARGET = FOLDER / "target"

TREE = "/root/sonobrik"  # of the clone, on the first machine

# How apt on this machine reaches its mirror, which the new machines need as well.
APT_OPTIONS = re.compile(r"^Acquire::(http|https|Check-Valid-Until|Check-Date|ForceIPv4)\b")
PROXIES = ("http_proxy", "https_proxy", "no_proxy")

ENTRIES = ("bwrap", "unshare")  # the programs that enter a machine

CARD_LIBRARY = "libasound_module_pcm_clockcard.so"
# In front of the package's own output 0: the sound card that records what it plays.
ALSA = f"""\
pcm_type.clockcard {{ lib "/opt/{CARD_LIBRARY}" }}
pcm.!audiosink0 {{ type plug slave.pcm {{ type clockcard folder "/tmp/card" }} }}
"""

# The bus starts the daemon through its helper, as the user that the activation file names.
PLAY = """\
set -eu
mkdir -p /run/dbus
rm -f /run/dbus/pid  # of a run before this
dbus-daemon --system
trap 'kill $(pidof dbus-daemon sonobrik)' EXIT
sonobrikctl play --wait /etc/audioclips/fresh.wav
pid=$(pidof sonobrik)
user=$(stat -c %U "/proc/$pid")
echo "The daemon runs as $user."
[ "$user" = sonobrik ]
"""


class StepError(Exception):
    """Why a step failed."""


class Step:
    """One step with its log."""

    def __init__(self, name):
        self.name = name
        self.log = FOLDER / f"{name}.log"
        self._file = open(self.log, "w")

    def run(self, command, what=None, **options):
        """Runs a program to its end; what it prints goes into the log. `what` names a long one."""
        command = [str(word) for word in command]
        # On a machine, a program of the shell; elsewhere a command.
        shown = command[-1].strip() if command[0] in ENTRIES else " ".join(command)
        self.say(f"+ {shown}")
        result = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=self._file,
                                stderr=subprocess.STDOUT, check=False, **options)
        if result.returncode != 0:
            raise StepError(f"status {result.returncode} of {what or shown}")

    def say(self, text):
        print(text, file=self._file, flush=True)

    def close(self):
        self._file.close()


def environment():
    """What programs on a new machine are given."""
    variables = {"HOME": "/root", "LANG": "C.UTF-8",
                 "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"}
    return variables | {name: os.environ[name] for name in PROXIES if name in os.environ}


def enter(machine, command, folder="/"):
    """The command that runs a shell command on a machine, in a container that permits another."""
    return ["bwrap", "--bind", machine, "/", "--proc", "/proc", "--dev", "/dev",
            "--ro-bind", "/sys", "/sys", "--unshare-pid", "--die-with-parent", "--cap-add", "ALL",
            "--chdir", folder, "/bin/bash", "-c", command]


def enter_plainly(machine, command):
    """The same, where programs may change their user by set-user-id, as the bus's helper does; a
    container of bubblewrap forbids that."""
    return ["unshare", "--mount", "--pid", "--fork", "--kill-child", "/bin/bash", "-c",
            'mount -t proc proc "$0/proc" && mount --rbind /dev "$0/dev" && '
            'exec chroot "$0" /bin/bash -c "$1"', machine, command]


def read_mirrors():
    """Address and suite of each of this machine's sources of Debian packages."""
    answer = subprocess.run(
        ["apt-get", "indextargets", "--format", "$(ORIGIN)|$(REPO_URI)|$(RELEASE)",
         "Created-By: Packages"], check=True, capture_output=True, text=True)
    rows = [line.split("|") for line in answer.stdout.splitlines()]
    mirrors = [(uri, suite) for origin, uri, suite in rows
               if origin == "Debian" and suite.startswith(SUITE)]
    if not any(suite == SUITE for _, suite in mirrors):
        raise StepError(f"this machine's apt has no source of Debian {SUITE} (run apt-get update?)")
    return list(dict.fromkeys(mirrors))


def make_base(step):
    """Makes the pristine machine, of which all others are copies."""
    mirrors = read_mirrors()
    folder = FOLDER / "base"
    shutil.rmtree(folder, ignore_errors=True)
    mirror = next(uri for uri, suite in mirrors if suite == SUITE)
    step.run(["debootstrap", "--variant=minbase", SUITE, folder, mirror],
             env=os.environ | environment())
    (folder / "etc/apt/sources.list").write_text(
        "".join(f"deb {uri} {suite} main\n" for uri, suite in mirrors))
    options = subprocess.run(["apt-config", "dump"], check=True, capture_output=True, text=True)
    (folder / "etc/apt/apt.conf.d/90machine").write_text(
        "".join(f"{line}\n" for line in options.stdout.splitlines() if APT_OPTIONS.match(line)))
    step.run(["tar", "--one-file-system", "-C", folder, "-cf", f"{BASE}.new", "."])
    shutil.rmtree(folder)
    pathlib.Path(f"{BASE}.new").rename(BASE)


def make_machines(step):
    if not BASE.exists():
        make_base(step)
    for machine in (BUILDER, TARGET):
        shutil.rmtree(machine, ignore_errors=True)
        machine.mkdir()
        step.run(["tar", "-C", machine, "-xf", BASE])
        shutil.copy("/etc/resolv.conf", machine / "etc/resolv.conf")
        # Which an installer would have written.
        (machine / "etc/hosts").write_text("127.0.0.1 localhost\n::1 localhost\n")
    step.run(["git", "clone", "--quiet", "--no-hardlinks", ROOT, f"{BUILDER}{TREE}"])


def read_commands():
    """The README's two commands, each on a line of its own."""
    commands = re.findall(r"^    (scripts/\S+)$", (ROOT / "README.md").read_text(), re.MULTILINE)
    if len(commands) < 2:
        raise StepError("README.md does not show its two commands")
    return commands[:2]


def run_first_command(step):
    step.run(enter(BUILDER, read_commands()[0], TREE), env=environment())


def run_second_command(step):
    step.run(enter(BUILDER, read_commands()[1], TREE), env=environment())


def build_package(step):
    step.run(enter(BUILDER, "scripts/package", TREE), env=environment())


def find_one(folder, pattern):
    found = list(pathlib.Path(folder).glob(pattern))
    if len(found) != 1:
        raise StepError(f"{len(found)} files '{pattern}' in {folder}, not one")
    return found[0]


def install_package(step):
    package = find_one(f"{BUILDER}{TREE}/build-package", "sonobrik_*.deb")
    shutil.copy(package, TARGET / "root/sonobrik.deb")
    step.run(enter(TARGET, "apt-get -q update"), env=environment())
    step.run(enter(TARGET, "DEBIAN_FRONTEND=noninteractive apt-get -q -y "
                           "--no-install-recommends install /root/sonobrik.deb"),
             env=environment())


def play_clip(step):
    library = find_one(f"{BUILDER}{TREE}/build/tests/support/alsa", CARD_LIBRARY)
    shutil.copy(library, TARGET / "opt")
    (TARGET / "etc/asound.conf").write_text(ALSA)
    card = TARGET / "tmp/card"
    shutil.rmtree(card, ignore_errors=True)
    card.mkdir()
    card.chmod(0o1777)
    samples = clips.noise(48000)
    clips.write_wav(TARGET / "etc/audioclips/fresh.wav", samples)
    step.run(enter_plainly(TARGET, PLAY), "the playing", env=environment())
    takes = Recording(card).takes
    if not any(take.find(samples) >= 0 for take in takes):
        raise StepError(f"the clip was not heard; {len(takes)} recordings in {card}")
    step.say(f"The whole clip was heard: {takes[0].seconds:.2f} s.")


STEPS = {
    "machine": make_machines,
    "try": run_first_command,
    "test": run_second_command,
    "package": build_package,
    "install": install_package,
    "play": play_clip,
}


def run_step(name):
    """Runs a step, and returns the line that says what became of it, and whether it passed."""
    print(f"{name} …", flush=True)
    step = Step(name)
    start = time.monotonic()
    try:
        STEPS[name](step)
        passed, outcome = True, "passed"
    except (StepError, OSError, subprocess.CalledProcessError) as error:
        step.say(str(error))
        passed, outcome = False, f"FAILED: {error}; see {step.log.relative_to(ROOT)}"
    step.close()
    return f"{name:8} {time.monotonic() - start:6.0f} s  {outcome}", passed


def main(names):
    unknown = [name for name in names if name not in STEPS]
    if unknown:
        print(f"fresh: no such step: {', '.join(unknown)}\n\n{__doc__}", file=sys.stderr)
        return 2
    if os.getuid() != 0:
        print("fresh: making a machine needs root", file=sys.stderr)
        return 1
    FOLDER.mkdir(exist_ok=True)
    results = [run_step(name) for name in names or STEPS]
    passed = sum(outcome for _, outcome in results)
    print(*(line for line, _ in results), sep="\n")
    print(f"{passed} passed, {len(results) - passed} failed")
    return 0 if passed == len(results) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
