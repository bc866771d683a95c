"""The sandbox: its namespace, files, bus and programs."""

import functools
import os
import pathlib
import re
import shutil
import subprocess

from gi.repository import GLib

from . import clips
from .bus import Bus
from .process import SANITIZER_STATUS, Daemon, NotifySocket, Process
from .recording import Recording
from .wait import wait_until

# Programs that a sandbox calls, and the Debian packages that contain them.
PROGRAMS = {
    "bwrap": "bubblewrap",
    "dbus-daemon": "dbus",
    "gst-launch-1.0": "gstreamer1.0-tools",
    "setpriv": "util-linux",
}

# Files of the host's /etc that programs need to look up users and libraries.
HOST_FILES = ("alternatives", "group", "ld.so.cache", "localtime", "nsswitch.conf", "passwd")

ROOT = pathlib.Path(__file__).resolve().parents[3]

# Options for each sanitizer, added to the exit status. The suppressions name functions deep in the
# stack of a leak, below frames of libraries, so the slow unwinder has to find them.
SANITIZER_OPTIONS = {
    "ASAN_OPTIONS": "",
    "LSAN_OPTIONS": "fast_unwind_on_malloc=0:print_suppressions=0:"
                    f"suppressions={ROOT}/tests/support/lsan.supp",
    "TSAN_OPTIONS": "ignore_noninstrumented_modules=1:print_suppressions=0:second_deadlock_stack=1:"
                    f"suppressions={ROOT}/tests/support/tsan.supp",
    "UBSAN_OPTIONS": "print_stacktrace=1",
}

BUS_SOCKET = "/run/dbus/system_bus_socket"

# Allows everything, so every refusal that a test sees comes from the daemon.
BUS_CONFIGURATION = f"""\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <auth>EXTERNAL</auth>
  <listen>unix:path={BUS_SOCKET}</listen>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
</busconfig>
"""

ADVICE = """\
The sandbox needs a mount namespace, and this machine does not permit one. If you are root in a
container, allow the container to mount ("docker run --cap-add SYS_ADMIN --security-opt
apparmor=unconfined --security-opt seccomp=unconfined"). If you are not root, allow user namespaces
("sysctl kernel.unprivileged_userns_clone=1", and on Ubuntu 24.04 and later also "sysctl
kernel.apparmor_restrict_unprivileged_userns=0"). The error of bubblewrap:
"""


class SandboxError(Exception):
    """The sandbox cannot work; the message tells the user why and what to do."""


@functools.cache
def find_namespace_options():
    """Returns the options with which bubblewrap works on this machine."""
    missing = {program: package for program, package in PROGRAMS.items()
               if not shutil.which(program)}
    if missing:
        raise SandboxError(f"not installed: {', '.join(missing)} "
                           f"(Debian packages: {' '.join(missing.values())})")
    # Root in a container without CAP_SYS_ADMIN may still create user namespaces.
    for options in ([], ["--unshare-user"]):
        trial = subprocess.run(
            ["bwrap", *options, "--ro-bind", "/", "/", "--dev", "/dev", "true"],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
        if trial.returncode == 0:
            return options
    raise SandboxError(ADVICE + trial.stderr)


def has_several_users():
    """Returns True if sandboxed programs can run as other users, which needs root."""
    return os.getuid() == 0 and not find_namespace_options()


class Sandbox:
    """A folder and the programs that run in it.

    `folder` becomes the sandbox; if it exists, it must be empty. `build_dir` is a build of this
    tree. `cache` keeps GStreamer's plugin registry, which takes seconds to create; several
    sandboxes may share it. `devices` are paths in the host's /dev that the sandbox can use too.
    close() stops all programs and fails if the daemon ended unexpectedly; the files stay.
    """

    def __init__(self, folder, build_dir, cache=None, devices=()):
        self.folder = pathlib.Path(folder).resolve()
        self.build_dir = pathlib.Path(build_dir).resolve()
        self.cache = pathlib.Path(cache or self.folder / "run/cache").resolve()
        self.devices = devices
        self.bus = None
        self.daemon = None
        self.notify = None
        self._processes = []
        self._disks = {}
        self._binds = {}
        self._namespace = find_namespace_options()
        self._make_files()
        # A socket address holds 108 bytes; a path through this descriptor always fits.
        self._run_fd = os.open(self.folder / "run", os.O_PATH | os.O_DIRECTORY)

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        self.close()

    # Files

    def _make_files(self):
        for name in ("etc/audioclips", "etc/dynamic/sonobrik/clip_data", "etc/vesk", "run/build",
                     "run/cache", "run/cards", "run/dbus"):
            (self.folder / name).mkdir(parents=True)
        for name in ("run/home", "tmp"):
            self._make_shared_folder(self.folder / name)
        self.cache.mkdir(parents=True, exist_ok=True)
        for name in HOST_FILES:
            source = pathlib.Path("/etc", name)
            if source.is_dir():
                shutil.copytree(source, self.etc / name, symlinks=True)
            elif source.exists():
                shutil.copy(source, self.etc / name)
        (self.etc / "machine-id").write_text("0123456789abcdef0123456789abcdef\n")
        (self.etc / "bus.conf").write_text(BUS_CONFIGURATION)
        self.set_access({"com.vesk.Sonobrik": {"users": "*"}})
        self.set_parameters({"root.SonoBrik.MaxGroups": "100"})
        self.set_outputs(["audiosink0", "device0_output0"])

    @staticmethod
    def _make_shared_folder(path):
        path.mkdir(exist_ok=True)
        if os.getuid() == 0:
            path.chmod(0o1777)  # only root runs programs as other users
        return path

    @property
    def etc(self):
        """The host's path of the daemon's /etc."""
        return self.folder / "etc"

    def set_access(self, policy):
        """Writes /etc/vesk/access.conf from a text or from keys by group; None removes the file."""
        if isinstance(policy, dict):
            policy = "".join(
                f"[{group}]\n" + "".join(f"{key}={value}\n" for key, value in keys.items())
                for group, keys in policy.items())
        self._replace(self.etc / "vesk/access.conf", policy)

    def set_parameters(self, parameters):
        """Writes /etc/vesk/parameters.conf from a text or from values by name; None removes it."""
        if isinstance(parameters, dict):
            parameters = "".join(f"{name}={value}\n" for name, value in parameters.items())
        self._replace(self.etc / "vesk/parameters.conf", parameters)

    def set_disk(self, path, size):
        """Mounts an empty file system of `size` bytes at `path` for each program started from now
        on. Each program gets its own; read it through Process.open_folder()."""
        self._disks[path] = size

    def bind(self, source, path, is_writable=False):
        """Mounts the host's `source`, read-only by default, at `path` for each program started from
        now on. `path` must exist on the host."""
        self._binds[path] = ("--bind" if is_writable else "--ro-bind", source)

    def set_outputs(self, outputs):
        """Configures the ALSA outputs, each on a virtual sound card, which card() returns.

        `outputs` is a list of names such as "audiosink0", or a dictionary that maps each name to
        the only format of its card, such as {"rate": 48000, "channels": 2, "format": "S16_LE"}.
        """
        if not isinstance(outputs, dict):
            outputs = {name: {} for name in outputs}
        library = "/run/build/tests/support/alsa/libasound_module_pcm_clockcard.so"
        lines = [f'pcm_type.clockcard {{ lib "{library}" }}']
        for name, pins in outputs.items():
            slave = "".join(f" {key} {value}" for key, value in pins.items())
            folder = self._card_folder(*_parse_output(name))
            lines.append(f'pcm.{name} {{ type plug slave.pcm {{ type clockcard '
                         f'folder "/run/cards/{folder.name}"{slave} }} }}')
        self.set_alsa("\n".join(lines) + "\n")

    def set_alsa(self, configuration):
        """Writes /etc/asound.conf; None removes it."""
        self._replace(self.etc / "asound.conf", configuration)

    @staticmethod
    def _replace(path, text):
        if text is None:
            path.unlink(missing_ok=True)
            return
        # A running daemon may read the file at any time, so it is replaced in one step.
        new = path.with_name(f".{path.name}.new")
        new.write_text(text)
        new.rename(path)

    def _card_folder(self, device, output):
        name = str(device) if output == 0 else f"{device}.{output}"
        return self._make_shared_folder(self.folder / "run/cards" / name)

    def card(self, device=0, output=0):
        """Returns what the card of "audiosink<device>" or "device<device>_output<output>" played.

        Both names of a device's output 0 are on the same card.
        """
        return Recording(self._card_folder(device, output))

    @property
    def vendor_sink(self):
        """The recording of the vendor's sink element."""
        return Recording(self._make_shared_folder(self.folder / "run/cards/veskaudiosink"))

    def write_clip(self, name, samples, rate=48000, channels=1, kind=None):
        """Writes an audio file to /etc/audioclips.

        `kind` is "wav", "au" or one of clips.ENCODERS; without it, the suffix of `name` decides.
        """
        kind = kind or name.rpartition(".")[2]
        path = self.etc / "audioclips" / name
        path.parent.mkdir(parents=True, exist_ok=True)
        if kind == "wav":
            clips.write_wav(path, samples, rate, channels)
        elif kind == "au":
            clips.write_au(path, samples, rate, channels)
        else:
            clips.write_wav(self.folder / "tmp/source.wav", samples, rate, channels)
            (self.folder / "tmp/target").unlink(missing_ok=True)
            self.run(clips.encoder_command(kind, "/tmp/source.wav", "/tmp/target"))
            shutil.move(self.folder / "tmp/target", path)
        return clips.Clip(f"/etc/audioclips/{name}", path, samples, rate, channels)

    def write_file(self, name, content=b""):
        """Writes a file of any content to /etc/audioclips and returns the daemon's path of it."""
        path = self.etc / "audioclips" / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
        return f"/etc/audioclips/{name}"

    # Programs

    def _bwrap_command(self, uid, groups, launcher=None):
        command = ["bwrap", *self._namespace, "--die-with-parent", "--ro-bind", "/", "/",
                   "--dev", "/dev"]
        for device in self.devices:
            command += ["--dev-bind", device, device]
        command += ["--bind", self.folder / "etc", "/etc", "--bind", self.folder / "run", "/run",
                    "--bind", self.folder / "tmp", "/tmp"]
        for path, size in self._disks.items():
            command += ["--size", size, "--tmpfs", path]
        for path, (option, source) in self._binds.items():
            command += [option, source, path]
        # The tree may be in a folder that these mounts hide or that other users cannot enter.
        for path in (ROOT, self.build_dir):
            command += ["--ro-bind", path, path]
        command += ["--ro-bind", self.build_dir, "/run/build", "--bind", self.cache, "/run/cache",
                    "--chdir", "/"]
        profiles = self.build_dir / "profiles"
        if profiles.is_dir():
            # In a build by scripts/coverage, each program writes there which lines it ran.
            command += ["--bind", profiles, profiles]
        if launcher:
            if not has_several_users():
                raise SandboxError("a launcher in the sandbox needs root")
            command += ["--cap-add", "ALL", *launcher]
        elif os.getuid() == 0:
            # Without capabilities, file modes restrict root like any other user.
            command += ["--cap-drop", "ALL"]
        if uid is not None:
            if not has_several_users():
                raise SandboxError("another user in the sandbox needs root")
            command += ["--cap-add", "CAP_SETUID", "--cap-add", "CAP_SETGID", "setpriv",
                        f"--reuid={uid}", f"--regid={uid}", "--inh-caps=-all"]
            command += [f"--groups={','.join(map(str, groups))}"] if groups else ["--clear-groups"]
        return [str(word) for word in command]

    def _make_env(self, uid, env, vendor_sink):
        # Other users cannot write to the cache.
        cache = "/run/cache" if uid is None else "/run/home"
        variables = {
            "GST_REGISTRY_1_0": f"{cache}/registry.bin",
            "HOME": "/run/home",
            "LANG": "C.UTF-8",
            "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
        }
        if vendor_sink:
            variables |= {
                "GST_PLUGIN_PATH_1_0": "/run/build/tests/support/gstreamer",
                "GST_REGISTRY_1_0": f"{cache}/registry-vendor.bin",
                "VESKAUDIOSINK_FOLDER": f"/run/cards/{self.vendor_sink.folder.name}",
            }
        for name, options in SANITIZER_OPTIONS.items():
            variables[name] = ":".join(filter(None, (f"exitcode={SANITIZER_STATUS}", options,
                                                     os.environ.get(name))))
        return variables | (env or {})

    def run(self, command, uid=None, groups=(), env=None, vendor_sink=False, deadline=60,
            check=True, launcher=None):
        """Runs a program to its end and returns its subprocess.CompletedProcess with its output.

        `uid` runs it as another user with the supplementary `groups`; this needs root. `launcher`
        is a command that starts the program; it has all of root's capabilities.
        """
        result = subprocess.run(
            [*self._bwrap_command(uid, groups, launcher), *map(str, command)],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, errors="replace",
            timeout=deadline, check=False, env=self._make_env(uid, env, vendor_sink))
        if check and result.returncode != 0:
            raise AssertionError(f"{command} ended with {result.returncode}:\n"
                                 f"{result.stdout}{result.stderr}")
        return result

    def spawn(self, command, uid=None, groups=(), env=None, vendor_sink=False, kind=Process,
              launcher=None):
        """Starts a program in the background and returns it as a `kind`; close() kills it.

        It inherits the standard output of the test.
        """
        process = kind([*self._bwrap_command(uid, groups, launcher), *map(str, command)],
                       self._make_env(uid, env, vendor_sink))
        self._processes.append(process)
        return process

    # The bus and the daemon

    def start_bus(self, uid=None, groups=()):
        """Starts the system bus, connects `self.bus` to it and returns the process of the bus."""
        socket = self.folder / "run/dbus/system_bus_socket"
        socket.unlink(missing_ok=True)
        daemon = self.spawn(["dbus-daemon", "--config-file=/etc/bus.conf", "--nofork",
                             "--nopidfile", "--nosyslog"], uid, groups)
        self.bus = wait_until(lambda: self._try_connect(daemon), 10, "the bus answers")
        return daemon

    def _try_connect(self, daemon):
        try:
            return self.connect()
        except GLib.Error as error:
            if not daemon.is_running:
                raise SandboxError("\n".join(["the bus did not start:", *daemon.lines])) from error
            return None

    def connect(self):
        """Opens a connection to the system bus; the caller closes it."""
        return Bus(f"unix:path=/proc/self/fd/{self._run_fd}/dbus/system_bus_socket")

    def start_mock(self, name, path, interface):
        """Starts a python-dbusmock service on the bus. Configure the mock through its interface
        "org.freedesktop.DBus.Mock"."""
        mock = self.spawn(["/usr/bin/python3", "-m", "dbusmock", "--system", name, path, interface])
        self._wait_name(name, mock, 20)
        return mock

    def start_daemon(self, program=None, env=None, uid=None, groups=(), vendor_sink=False,
                     watchdog_usec=None, wait=True, deadline=30, launcher=None,
                     is_supervised=False):
        """Starts the daemon and waits until it answers, unless `wait` is false.

        With `watchdog_usec`, the daemon has a watchdog, and `notify` receives its pings. If it
        `is_supervised`, it is restarted as its unit says when it exits with status 75.
        """
        env = dict(env or {})
        if watchdog_usec is not None:
            (self.folder / "run/notify").unlink(missing_ok=True)
            self.notify = NotifySocket(f"/proc/self/fd/{self._run_fd}/notify")
            env |= {"NOTIFY_SOCKET": "/run/notify", "WATCHDOG_USEC": str(watchdog_usec)}
        command = [program or "/run/build/src/sonobrik"]
        if is_supervised:
            command = ["/usr/bin/python3", "-B", ROOT / "tests/support/supervisor.py",
                       self._read_restart_delay(), *command]
        self.daemon = self.spawn(command, uid, groups, env, vendor_sink, Daemon, launcher)
        if wait:
            self._wait_name("com.vesk.Sonobrik", self.daemon, deadline)
            # The daemon takes its name before it subscribes to signals. It answers a ping only
            # after the whole start-up.
            self.bus.call("com.vesk.Sonobrik", "/", "org.freedesktop.DBus.Peer", "Ping",
                          timeout=deadline)
        return self.daemon

    def _read_restart_delay(self):
        """Returns RestartSec= of the daemon's unit, in seconds."""
        unit = (self.build_dir / "data/systemd/sonobrik.service").read_text()
        value, = re.findall(r"^RestartSec=(\d+)ms$", unit, re.MULTILINE)
        return int(value) / 1000

    def fail_to_start(self):
        """Starts the daemon, which must exit with status 1, and returns its log."""
        daemon = self.start_daemon(wait=False)
        status = daemon.wait_exit()
        assert status == 1, (status, daemon.lines)
        return daemon.texts

    def _wait_name(self, name, process, deadline):
        wait_until(lambda: not process.is_running or self.bus.get_owner(name), deadline,
                   f"{name} has an owner")
        if not process.is_running:
            status = process.wait_exit()
            raise AssertionError(f"{process}, for {name}, ended with {status}:\n"
                                 + "\n".join(process.lines))

    def close(self):
        """Stops all programs. Fails if the daemon ended by itself or with a non-zero status."""
        daemon, self.daemon = self.daemon, None
        try:
            if daemon and not daemon.expected:
                self._processes.remove(daemon)
                running = daemon.is_running
                status = daemon.stop()
                if not running or status != 0:
                    raise AssertionError(f"{daemon} ended with {status}"
                                         f"{'' if running else ' on its own'}:\n"
                                         + "\n".join(daemon.lines))
        finally:
            self._end()

    def _end(self):
        if self.bus:
            self.bus.close()
            self.bus = None
        for process in reversed(self._processes):
            process.kill()
            process.popen.wait()
        self._processes.clear()
        if self.notify:
            self.notify.close()
            self.notify = None
        if self._run_fd >= 0:
            os.close(self._run_fd)
            self._run_fd = -1


def _parse_output(name):
    """Returns the device and output number of an ALSA output's name."""
    if name.startswith("audiosink"):
        return int(name.removeprefix("audiosink")), 0
    device, output = name.removeprefix("device").split("_output")
    return int(device), int(output)
