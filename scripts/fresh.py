"""Tests the README's commands and the Debian packages on minimal Debian systems.

usage: fresh.py [SUITE...] [STEP...]
  SUITE    "bookworm" (Debian 12) or "trixie" (Debian 13); both without one
  machine  creates two systems: one to build on, one to install the packages on
  try      runs the README's first command in a clean clone of the last commit
  test     runs the README's second command in that clone
  package  builds the packages in that clone
  install  installs the daemon's package on the second system
  play     plays a clip on the second system with sonobrikctl; the bus starts the daemon
  release  builds the package of the last release
  boot     boots a copy of the second system with systemd, and runs tests/machine there
Without a STEP, all steps run. A step other than "machine" uses the systems that already exist.

Each system is a folder under build-fresh/SUITE/, created by debootstrap from the package mirror of
this machine and entered as a container. Needs root and the right to mount. The last lines give the
result of each step, then "N passed, N failed". The output of a step is in build-fresh/SUITE/STEP.log.
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

SUITES = ("bookworm", "trixie")
FOLDER = ROOT / "build-fresh"

TREE = "/root/sonobrik"  # path of the clone on the first system
RELEASE = "/root/release"  # path of the clone of the last release

# The apt settings with which this machine reaches its mirror; the new systems need them too.
APT_OPTIONS = re.compile(r"^Acquire::(http|https|Check-Valid-Until|Check-Date|ForceIPv4)\b")
PROXIES = ("http_proxy", "https_proxy", "no_proxy")

ENTRIES = ("bwrap", "unshare")  # programs that run a command on a system

CARD_LIBRARY = "libasound_module_pcm_clockcard.so"
# Replaces the package's output 0 with the sound card that records what it plays.
ALSA = """\
pcm_type.clockcard {{ lib "{library}" }}
pcm.!audiosink0 {{ type plug slave.pcm {{ type clockcard folder "{folder}" }} }}
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

    def __init__(self, name, folder=FOLDER):
        self.name = name
        self.log = folder / f"{name}.log"
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


def read_mirrors(suite):
    """Returns address and name of each source of `suite`.

    They are those of this machine's own Debian release, with the name of `suite` in their names.
    """
    answer = subprocess.run(
        ["apt-get", "indextargets", "--format", "$(ORIGIN)|$(REPO_URI)|$(RELEASE)",
         "Created-By: Packages"], check=True, capture_output=True, text=True)
    rows = [line.split("|") for line in answer.stdout.splitlines()]
    mirrors = [(uri, name) for origin, uri, name in rows if origin == "Debian"]
    own = [name for _, name in mirrors if "-" not in name]
    if not own:
        raise StepError("apt on this machine has no source for Debian; run apt-get update")
    return list(dict.fromkeys(
        (uri, name.replace(own[0], suite)) for uri, name in mirrors if name.startswith(own[0])))


class Suite:
    """The systems of one Debian release."""

    def __init__(self, name):
        self.name = name
        self.folder = FOLDER / name
        self.base = self.folder / "base.tar"  # a pristine system; delete it to create a new one
        self.builder = self.folder / "builder"
        self.target = self.folder / "target"
        self.machine = self.folder / "machine"
        self.folder.mkdir(parents=True, exist_ok=True)

    def make_base(self, step):
        """Creates the pristine system, which make_machines() copies."""
        mirrors = read_mirrors(self.name)
        folder = self.folder / "base"
        shutil.rmtree(folder, ignore_errors=True)
        mirror = next(uri for uri, suite in mirrors if suite == self.name)
        step.run(["debootstrap", "--variant=minbase", self.name, folder, mirror],
                 env=os.environ | environment())
        (folder / "etc/apt/sources.list").write_text(
            "".join(f"deb {uri} {suite} main\n" for uri, suite in mirrors))
        options = subprocess.run(["apt-config", "dump"], check=True, capture_output=True, text=True)
        (folder / "etc/apt/apt.conf.d/90machine").write_text(
            "".join(f"{line}\n" for line in options.stdout.splitlines()
                    if APT_OPTIONS.match(line)))
        step.run(["tar", "--one-file-system", "-C", folder, "-cf", f"{self.base}.new", "."])
        shutil.rmtree(folder)
        pathlib.Path(f"{self.base}.new").rename(self.base)


def make_machines(suite, step):
    if not suite.base.exists():
        suite.make_base(step)
    for machine in (suite.builder, suite.target):
        shutil.rmtree(machine, ignore_errors=True)
        machine.mkdir()
        step.run(["tar", "-C", machine, "-xf", suite.base])
        shutil.copy("/etc/resolv.conf", machine / "etc/resolv.conf")
        # An installer would write this file; debootstrap does not.
        (machine / "etc/hosts").write_text("127.0.0.1 localhost\n::1 localhost\n")
    step.run(["git", "clone", "--quiet", "--no-hardlinks", ROOT, f"{suite.builder}{TREE}"])


def read_commands():
    """Returns the README's two commands. Each is alone on an indented line."""
    commands = re.findall(r"^    (scripts/\S+)$", (ROOT / "README.md").read_text(), re.MULTILINE)
    if len(commands) < 2:
        raise StepError("README.md does not show its two commands")
    return commands[:2]


def run_first_command(suite, step):
    step.run(enter(suite.builder, read_commands()[0], TREE), env=environment())


def run_second_command(suite, step):
    step.run(enter(suite.builder, read_commands()[1], TREE), env=environment())


def build_package(suite, step):
    step.run(enter(suite.builder, "scripts/package", TREE), env=environment())


def find_one(folder, pattern):
    found = list(pathlib.Path(folder).glob(pattern))
    if len(found) != 1:
        raise StepError(f"expected one file '{pattern}' in {folder}, found {len(found)}")
    return found[0]


def install(machine, *packages):
    """Installs packages, given by name or by path on the system, without what they recommend."""
    return enter(machine, "apt-get -q update && DEBIAN_FRONTEND=noninteractive apt-get -q -y "
                          f"--no-install-recommends install {' '.join(packages)}")


def install_package(suite, step):
    package = find_one(f"{suite.builder}{TREE}/build-package", "sonobrik_*.deb")
    shutil.copy(package, suite.target / "root/sonobrik.deb")
    step.run(install(suite.target, "/root/sonobrik.deb"), env=environment())


def set_card(suite, machine, library, folder):
    """Makes output 0 play to the card that records, with files at these paths on the system."""
    source = find_one(f"{suite.builder}{TREE}/build/tests/support/alsa", CARD_LIBRARY)
    shutil.copy(source, f"{machine}{library}")
    (machine / "etc/asound.conf").write_text(ALSA.format(library=library, folder=folder))


def play_clip(suite, step):
    set_card(suite, suite.target, f"/opt/{CARD_LIBRARY}", "/tmp/card")
    card = suite.target / "tmp/card"
    shutil.rmtree(card, ignore_errors=True)
    card.mkdir()
    card.chmod(0o1777)
    samples = clips.noise(48000)
    clips.write_wav(suite.target / "etc/audioclips/fresh.wav", samples)
    step.run(enter_plainly(suite.target, PLAY), "playing the clip", env=environment())
    takes = Recording(card).takes
    if not any(take.find(samples) >= 0 for take in takes):
        raise StepError(f"the clip is not in the {len(takes)} recordings in {card}")
    step.say(f"The recording contains the whole clip: {takes[0].seconds:.2f} s.")


def find_release():
    """Returns the last commit before the newest section was added to NEWS.md."""
    newest = re.search(r"^## \S+", (ROOT / "NEWS.md").read_text(), re.MULTILINE).group()
    log = subprocess.run(["git", "-C", ROOT, "log", "--format=%H", "-S", newest, "--", "NEWS.md"],
                         check=True, capture_output=True, text=True).stdout.split()
    if not log:
        raise StepError(f"NEWS.md has no section '{newest}' in the history")
    return f"{log[-1]}^"


def build_release(suite, step):
    shutil.rmtree(f"{suite.builder}{RELEASE}", ignore_errors=True)
    tree = f"{suite.builder}{RELEASE}/sonobrik"
    step.run(["git", "clone", "--quiet", "--no-hardlinks", ROOT, tree])
    step.run(["git", "-C", tree, "checkout", "--quiet", find_release()])
    # What the release needs may have other names in a newer suite; the first step installed it.
    step.run(enter(suite.builder, "DEB_BUILD_OPTIONS=nocheck dpkg-buildpackage -b -d -us -uc",
                   f"{RELEASE}/sonobrik"), env=environment())


# Runs the tests when the system has started, and then switches it off.
CHECKS = """\
[Unit]
After=sonobrik.service dbus.service multi-user.target
SuccessAction=poweroff-force
FailureAction=poweroff-force
[Service]
Type=oneshot
WorkingDirectory=/root
ExecStart=/bin/sh -c 'exec python3 -B -m pytest sonobrik/tests/machine -v -p no:cacheprovider \
    --junitxml=/root/results.xml >/root/results.log 2>&1'
"""

BOOT_DEADLINE = 1200  # seconds


def boot_machine(suite, step):
    machine = suite.machine
    shutil.rmtree(machine, ignore_errors=True)
    step.run(["cp", "-a", suite.target, machine])
    set_card(suite, machine, f"/usr/lib/{CARD_LIBRARY}", "/var/cache/sonobrik/card")
    for folder, source in (("packages", f"{TREE}/build-package"), ("previous", RELEASE)):
        (machine / "root" / folder).mkdir()
        for package in pathlib.Path(f"{suite.builder}{source}").glob("sonobrik*.deb"):
            if not re.search("-(dbgsym|dev)_", package.name):
                shutil.copy(package, machine / "root" / folder)
    # The daemon's package is installed already; the pattern matches the packages that need it.
    step.run(install(machine, "adduser", "dbus", "mosquitto", "python3-gi", "python3-gpiozero",
                     "python3-paho-mqtt", "python3-pytest", "systemd-sysv",
                     "/root/packages/sonobrik-*.deb"),
             env=environment())
    for part in ("tests/machine", "tests/support", "debian/tests"):
        shutil.copytree(f"{suite.builder}{TREE}/{part}", f"{machine}{TREE}/{part}")
    shutil.copy(f"{suite.builder}{TREE}/README.md", f"{machine}{TREE}/README.md")
    units = machine / "etc/systemd/system"
    (units / "checks.service").write_text(CHECKS)
    (units / "default.target.wants").mkdir(exist_ok=True)
    (units / "default.target.wants/checks.service").symlink_to("../checks.service")
    (machine / "etc/machine-id").write_text("")
    # With a network of its own, the system's MQTT broker takes no port of this machine. The variable
    # is for machines whose own systemd uses the first version of control groups.
    command = ["systemd-nspawn", "--quiet", "--register=no", "--keep-unit", "--boot",
               "--private-network", f"--directory={machine}",
               "SYSTEMD_CGROUP_ENABLE_LEGACY_FORCE=1"]
    try:
        step.run(["timeout", "--kill-after=30", str(BOOT_DEADLINE), *command])
    finally:
        results = machine / "root/results.log"
        step.say(results.read_text() if results.exists() else "The tests did not start.")
    counts = subprocess.run([sys.executable, "-B", ROOT / "scripts/count_results.py",
                             machine / "root/results.xml"], check=False, capture_output=True,
                            text=True)
    if counts.returncode != 0:
        raise StepError(f"on the booted system: {counts.stdout.strip()}")


STEPS = {
    "machine": make_machines,
    "try": run_first_command,
    "test": run_second_command,
    "package": build_package,
    "install": install_package,
    "play": play_clip,
    "release": build_release,
    "boot": boot_machine,
}


def run_step(suite, name):
    """Runs a step. Returns the line with its result, and True if it passed."""
    print(f"{suite.name} {name} …", flush=True)
    step = Step(name, suite.folder)
    start = time.monotonic()
    try:
        STEPS[name](suite, step)
        passed, outcome = True, "passed"
    except (StepError, OSError, subprocess.CalledProcessError) as error:
        step.say(str(error))
        passed, outcome = False, f"FAILED: {error}; see {step.log.relative_to(ROOT)}"
    step.close()
    return f"{suite.name:8} {name:8} {time.monotonic() - start:6.0f} s  {outcome}", passed


def main(names):
    unknown = [name for name in names if name not in STEPS and name not in SUITES]
    if unknown:
        print(f"fresh: no such step or suite: {', '.join(unknown)}\n\n{__doc__}", file=sys.stderr)
        return 2
    if os.getuid() != 0:
        print("fresh: must be run as root", file=sys.stderr)
        return 1
    suites = [name for name in names if name in SUITES] or SUITES
    steps = [name for name in names if name in STEPS] or STEPS
    results = [run_step(Suite(suite), name) for suite in suites for name in steps]
    passed = sum(outcome for _, outcome in results)
    print(*(line for line, _ in results), sep="\n")
    print(f"{passed} passed, {len(results) - passed} failed")
    return 0 if passed == len(results) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
