"""Cross-builds the last commit on a minimal Debian system and runs the unit tests with qemu.

usage: cross.py ARCHITECTURE [STEP...]
  ARCHITECTURE  armhf or arm64
  machine  creates the system, with Debian's cross compiler and the libraries of ARCHITECTURE
  build    clones the last commit there and builds everything, with warnings as errors
  test     runs the unit tests as programs of ARCHITECTURE
Without a STEP, all steps run. A step other than "machine" uses the system that already exists.

The system is the folder build-fresh/cross-ARCHITECTURE, created like those of fresh.py. The Meson
cross file is scripts/cross/ARCHITECTURE.ini. Needs root and the right to mount. The last lines give
the result of each step, then "N passed, N failed". The output of a step is in
build-fresh/cross-ARCHITECTURE-STEP.log.
"""

import os
import shutil
import subprocess
import sys
import time

import fresh

# Packages of the machine that builds.
TOOLS = ("bubblewrap", "dbus", "git", "meson", "ninja-build", "pkg-config", "qemu-user", "systemd")

# Packages of the machine that runs the programs: libraries, and the plugins that unit tests use.
LIBRARIES = (
    "gstreamer1.0-alsa", "gstreamer1.0-plugins-base", "gstreamer1.0-plugins-good",
    "libasound2-dev", "libglib2.0-dev",
    "libgstreamer-plugins-base1.0-dev", "libgstreamer1.0-dev", "libgtest-dev", "libjansson-dev",
    "libmosquitto-dev", "libsystemd-dev", "libudev-dev")

# Tests in which a process is ended by a signal or starts itself again. They fail with the emulator,
# which reports the signal on standard error and is missing when the process starts again.
LEFT_OUT = ("AudioClipStop.EndsTheProcess*", "AudioClipUnref.AbortsDuring*",
            "LogRedirect.KeepsTheWordOfALineThatWasMadeFatal",
            "LogRedirect.SaysThatAFatalLineIsFatalAndAborts")

TREE = fresh.TREE
SUITE = "bookworm"


class Cross:
    """The system that builds for one architecture."""

    def __init__(self, architecture):
        self.architecture = architecture
        self.machine = fresh.FOLDER / f"cross-{architecture}"

    def enter(self, command, folder="/"):
        return fresh.enter(self.machine, command, folder)

    def make_machine(self, step):
        suite = fresh.Suite(SUITE)
        if not suite.base.exists():
            suite.make_base(step)
        shutil.rmtree(self.machine, ignore_errors=True)
        self.machine.mkdir()
        step.run(["tar", "-C", self.machine, "-xf", suite.base])
        shutil.copy("/etc/resolv.conf", self.machine / "etc/resolv.conf")
        # A library must have the same version for both architectures. Updates may reach them at
        # different times, so only the release itself is used.
        sources = self.machine / "etc/apt/sources.list"
        lines = sources.read_text().splitlines(keepends=True)
        sources.write_text("".join(line for line in lines if f" {SUITE} " in line))
        packages = [*TOOLS, f"crossbuild-essential-{self.architecture}",
                    *(f"{name}:{self.architecture}" for name in LIBRARIES)]
        step.run(self.enter(f"dpkg --add-architecture {self.architecture} && apt-get -q update && "
                            "DEBIAN_FRONTEND=noninteractive apt-get -q -y "
                            f"--no-install-recommends install {' '.join(packages)}"),
                 env=fresh.environment())

    def build(self, step):
        tree = self.machine / TREE.lstrip("/")
        shutil.rmtree(tree, ignore_errors=True)
        step.run(["git", "clone", "--quiet", "--no-hardlinks", fresh.ROOT, tree])
        step.run(self.enter(
            f"meson setup build-cross --cross-file scripts/cross/{self.architecture}.ini "
            "-Dtests=enabled -Dwerror=true -Daudiocontrol=enabled -Dmqtt=enabled -Dsystemd=enabled && "
            "ninja -C build-cross", TREE),
            env=fresh.environment())

    def test(self, step):
        # Emulated programs are many times slower.
        step.run(self.enter("meson test -C build-cross --no-rebuild --print-errorlogs "
                            "--timeout-multiplier 10", TREE),
                 env=fresh.environment() | {
                     "GTEST_FILTER": "-" + ":".join(LEFT_OUT),
                     # GStreamer's plugin scanner cannot be started without the emulator.
                     "GST_REGISTRY_FORK": "no"})


def run_step(cross, name, function):
    """Runs a step. Returns the line with its result, and True if it passed."""
    print(f"{name} …", flush=True)
    step = fresh.Step(f"cross-{cross.architecture}-{name}")
    start = time.monotonic()
    try:
        function(step)
        passed, outcome = True, "passed"
    except (fresh.StepError, OSError, subprocess.CalledProcessError) as error:
        step.say(str(error))
        passed, outcome = False, f"FAILED: {error}; see {step.log.relative_to(fresh.ROOT)}"
    step.close()
    return f"{name:8} {time.monotonic() - start:6.0f} s  {outcome}", passed


def main(arguments):
    architecture, *names = arguments or [""]
    cross = Cross(architecture)
    steps = {"machine": cross.make_machine, "build": cross.build, "test": cross.test}
    unknown = [name for name in names if name not in steps]
    if architecture not in ("armhf", "arm64") or unknown:
        print(f"cross: wrong arguments\n\n{__doc__}", file=sys.stderr)
        return 2
    if os.getuid() != 0:
        print("cross: must be run as root", file=sys.stderr)
        return 1
    fresh.FOLDER.mkdir(exist_ok=True)
    results = []
    for name in names or steps:
        results.append(run_step(cross, name, steps[name]))
        if not results[-1][1]:
            break  # each step needs the one before it
    passed = sum(outcome for _, outcome in results)
    print(*(line for line, _ in results), sep="\n")
    print(f"{passed} passed, {len(results) - passed} failed")
    return 0 if passed == len(results) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
