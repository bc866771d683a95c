"""Tests the README's commands and the Debian package on two minimal Debian 12 systems.

usage: fresh.py [STEP...]
  machine  creates the two systems: one to build on, one to install the package on
  try      runs the README's first command in a clean clone of the last commit
  test     runs the README's second command in that clone
  package  builds the package in that clone
  install  installs the package on the second system
  play     plays a clip on the second system with sonobrikctl; the bus starts the daemon
Without a STEP, all steps run. A step other than "machine" uses the systems that already exist.

Each system is a folder under build-fresh/, created by debootstrap from the package mirror of this
machine and entered as a container. Needs root and the right to mount. The last lines give the
result of each step, then "N passed, N failed". The output of a step is in build-fresh/STEP.log.
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
BASE = FOLDER / "base.tar"  # a copy of the pristine system; delete it to create a new one
BUILDER = FOLDER / "builder"
TARGET = FOLDER / "target"

TREE = "/root/sonobrik"  # path of the clone on the first system

# The apt settings with which this machine reaches its mirror; the new systems need them too.
APT_OPTIONS = re.compile(r"^Acquire::(http|https|Check-Valid-Until|Check-Date|ForceIPv4)\b")
PROXIES = ("http_proxy", "https_proxy", "no_proxy")

ENTRIES = ("bwrap", "unshare")  # programs that run a command on a system

CARD_LIBRARY = "libasound_module_pcm_clockcard.so"
# Replaces the package's output 0 with the sound card that records what it plays.
ALSA = f"""\
pcm_type.clockcard {{ lib "/opt/{CARD_LIBRARY}" }}
pcm.!audiosink0 {{ type plug slave.pcm {{ type clockcard folder "/tmp/card" }} }}
"""

# The bus starts the daemon through its set-user-id helper, as the user in the activation file.
PLAY = """\
set -eu
mkdir -p /run/dbus
rm -f /run/dbus/pid  # left by an earlier run
dbus-daemon --system
trap 'kill $(pidof dbus-daemon sonobrik)' EXIT
sonobrikctl play --wait /etc/audioclips/fresh.wav
pid=$(pidof sonobrik)
user=$(stat -c %U "/proc/$pid")
echo "The daemon runs as $user."
[ "$user" = sonobrik ]
"""


class StepError(Exception):
    """A step failed; the message gives the reason."""


class Step:
    """One step and its log."""

    def __init__(self, name):
        self.name = name
        self.log = FOLDER / f"{name}.log"
        self._file = open(self.log, "w")

    def run(self, command, what=None, **options):
        """Runs a program with its output in the log. `what` names it in an error, if it is long."""
        command = [str(word) for word in command]
        # For a command on a system, only the shell command is logged.
        shown = command[-1].strip() if command[0] in ENTRIES else " ".join(command)
        self.say(f"+ {shown}")
        result = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=self._file,
                                stderr=subprocess.STDOUT, check=False, **options)
        if result.returncode != 0:
            raise StepError(f"{what or shown} exited with {result.returncode}")

    def say(self, text):
        print(text, file=self._file, flush=True)

    def close(self):
        self._file.close()


def environment():
    """Returns the environment of programs on a new system."""
    variables = {"HOME": "/root", "LANG": "C.UTF-8",
                 "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"}
    return variables | {name: os.environ[name] for name in PROXIES if name in os.environ}


def enter(machine, command, folder="/"):
    """Returns the command that runs a shell command on a system.

    The command runs in a container in which a sandbox can be created.
    """
    return ["bwrap", "--bind", machine, "/", "--proc", "/proc", "--dev", "/dev",
            "--ro-bind", "/sys", "/sys", "--unshare-pid", "--die-with-parent", "--cap-add", "ALL",
            "--chdir", folder, "/bin/bash", "-c", command]


def enter_plainly(machine, command):
    """Returns a command like enter(), in a container that permits set-user-id programs.

    The bus's helper is one; bubblewrap forbids them.
    """
    return ["unshare", "--mount", "--pid", "--fork", "--kill-child", "/bin/bash", "-c",
            'mount -t proc proc "$0/proc" && mount --rbind /dev "$0/dev" && '
            'exec chroot "$0" /bin/bash -c "$1"', machine, command]


def read_mirrors():
    """Returns address and suite of each Debian package source of this machine."""
    answer = subprocess.run(
        ["apt-get", "indextargets", "--format", "$(ORIGIN)|$(REPO_URI)|$(RELEASE)",
         "Created-By: Packages"], check=True, capture_output=True, text=True)
    rows = [line.split("|") for line in answer.stdout.splitlines()]
    mirrors = [(uri, suite) for origin, uri, suite in rows
               if origin == "Debian" and suite.startswith(SUITE)]
    if not any(suite == SUITE for _, suite in mirrors):
        raise StepError(f"apt on this machine has no source for Debian {SUITE}; run apt-get update")
    return list(dict.fromkeys(mirrors))


def make_base(step):
    """Creates the pristine system, which make_machines() copies."""
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
        # An installer would write this file; debootstrap does not.
        (machine / "etc/hosts").write_text("127.0.0.1 localhost\n::1 localhost\n")
    step.run(["git", "clone", "--quiet", "--no-hardlinks", ROOT, f"{BUILDER}{TREE}"])


def read_commands():
    """Returns the README's two commands. Each is alone on an indented line."""
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
        raise StepError(f"expected one file '{pattern}' in {folder}, found {len(found)}")
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
    step.run(enter_plainly(TARGET, PLAY), "playing the clip", env=environment())
    takes = Recording(card).takes
    if not any(take.find(samples) >= 0 for take in takes):
        raise StepError(f"the clip is not in the {len(takes)} recordings in {card}")
    step.say(f"The recording contains the whole clip: {takes[0].seconds:.2f} s.")


STEPS = {
    "machine": make_machines,
    "try": run_first_command,
    "test": run_second_command,
    "package": build_package,
    "install": install_package,
    "play": play_clip,
}


def run_step(name):
    """Runs a step. Returns the line with its result, and True if it passed."""
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
        print("fresh: must be run as root", file=sys.stderr)
        return 1
    FOLDER.mkdir(exist_ok=True)
    results = [run_step(name) for name in names or STEPS]
    passed = sum(outcome for _, outcome in results)
    print(*(line for line, _ in results), sep="\n")
    print(f"{passed} passed, {len(results) - passed} failed")
    return 0 if passed == len(results) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
