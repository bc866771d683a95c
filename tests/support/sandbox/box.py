"""The sandbox itself: its namespace, its files, its bus, its programs."""

import functools
import os
import pathlib
import shutil
import subprocess

from gi.repository import GLib

from . import clips
from .bus import Bus
from .process import SANITIZER_STATUS, Daemon, NotifySocket, Process
from .recording import Recording
from .wait import wait_until

# Programs that a sandbox calls, and the Debian packages that bring them.
PROGRAMS = {
    "bwrap": "bubblewrap",
    "dbus-daemon": "dbus",
    "gst-launch-1.0": "gstreamer1.0-tools",
    "setpriv": "util-linux",
}

# What programs need of the machine's own /etc: users, and where libraries are.
HOST_FILES = ("alternatives", "group", "ld.so.cache", "localtime", "nsswitch.conf", "passwd")

ROOT = pathlib.Path(__file__).resolve().parents[3]

# What each sanitizer is told beside its exit status. Leaks are known by functions deep in their
# stacks, which run through libraries.
SANITIZER_OPTIONS = {
    "ASAN_OPTIONS": "",
    "LSAN_OPTIONS": "fast_unwind_on_malloc=0:print_suppressions=0:"
                    f"suppressions={ROOT}/tests/support/lsan.supp",
    "TSAN_OPTIONS": "",
    "UBSAN_OPTIONS": "print_stacktrace=1",
}

BUS_SOCKET = "/run/dbus/system_bus_socket"

# Everybody may own, call and signal everything: what the daemon refuses, it refuses itself.
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
The sandbox needs a mount namespace, and this machine does not permit one. As root in a container,
give the container the right to mount ("docker run --cap-add SYS_ADMIN --security-opt
apparmor=unconfined --security-opt seccomp=unconfined"). As a user, the kernel must permit user
namespaces ("sysctl kernel.unprivileged_userns_clone=1", and on Ubuntu 24.04 and later "sysctl
kernel.apparmor_restrict_unprivileged_userns=0"). bubblewrap says:
"""


class SandboxError(Exception):
    """What keeps a sandbox from working, in words for the person who started it."""


@functools.cache
def find_namespace_options():
    """The options with which bubblewrap works on this machine."""
    missing = {program: package for program, package in PROGRAMS.items()
               if not shutil.which(program)}
    if missing:
        raise SandboxError(f"not installed: {', '.join(missing)} "
                           f"(Debian packages: {' '.join(missing.values())})")
    # Root without the right to mount still may have user namespaces.
    for options in ([], ["--unshare-user"]):
        trial = subprocess.run(
            ["bwrap", *options, "--ro-bind", "/", "/", "--dev", "/dev", "true"],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
        if trial.returncode == 0:
            return options
    raise SandboxError(ADVICE + trial.stderr)


def has_several_users():
    """Whether programs in a sandbox can run as other users, which only root can make them."""
    return os.getuid() == 0 and not find_namespace_options()


class Sandbox:
    """A folder and what runs in it.

    `folder` becomes the sandbox; if it exists, it must be empty. `build_dir` is a build of this
    tree. `cache` keeps GStreamer's list of plugins, whose making takes seconds, and may be shared
    with other sandboxes. `devices` are paths in the machine's /dev that the sandbox shall have too.
    close() ends what runs and fails if the daemon had ended unexpectedly; the files stay.
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
        # Paths into the sandbox by this descriptor are short enough for a socket's address.
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
            path.chmod(0o1777)  # for the other users that only root can run programs as
        return path

    @property
    def etc(self):
        """The daemon's /etc, as seen from outside."""
        return self.folder / "etc"

    def set_access(self, policy):
        """/etc/vesk/access.conf: a text, or groups with their keys; null removes it."""
        if isinstance(policy, dict):
            policy = "".join(
                f"[{group}]\n" + "".join(f"{key}={value}\n" for key, value in keys.items())
                for group, keys in policy.items())
        self._replace(self.etc / "vesk/access.conf", policy)

    def set_parameters(self, parameters):
        """/etc/vesk/parameters.conf: a text, or values by name; null removes it."""
        if isinstance(parameters, dict):
            parameters = "".join(f"{name}={value}\n" for name, value in parameters.items())
        self._replace(self.etc / "vesk/parameters.conf", parameters)

    def set_disk(self, path, size):
        """Gives each program that is started from now on an empty file system of its own at `path`,
        which holds `size` bytes; Process.open_folder() looks into it."""
        self._disks[path] = size

    def bind(self, source, path):
        """Gives each program that is started from now on `source` of the machine at `path`, where
        the machine has something too; it is read-only there."""
        self._binds[path] = source

    def set_outputs(self, outputs):
        """The ALSA outputs, each on a sound card of card().

        `outputs` are names, "audiosink0" and the like, or a dictionary of names with what pins
        their card, such as {"rate": 48000, "channels": 2, "format": "S16_LE"}.
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
        """/etc/asound.conf as it stands; null removes it."""
        self._replace(self.etc / "asound.conf", configuration)

    @staticmethod
    def _replace(path, text):
        if text is None:
            path.unlink(missing_ok=True)
            return
        # In one step, since a running daemon may be reading it.
        new = path.with_name(f".{path.name}.new")
        new.write_text(text)
        new.rename(path)

    def _card_folder(self, device, output):
        name = str(device) if output == 0 else f"{device}.{output}"
        return self._make_shared_folder(self.folder / "run/cards" / name)

    def card(self, device=0, output=0):
        """What the sound card behind "audiosink<device>" or "device<device>_output<output>" played.

        Both names of a device's output 0 are on the same card.
        """
        return Recording(self._card_folder(device, output))

    @property
    def vendor_sink(self):
        """What the vendor's sink element played."""
        return Recording(self._make_shared_folder(self.folder / "run/cards/veskaudiosink"))

    def write_clip(self, name, samples, rate=48000, channels=1, kind=None):
        """Writes an audio file to /etc/audioclips; `kind` is one of clips.KINDS, or the suffix."""
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
        """Writes any bytes to /etc/audioclips and returns the daemon's path of it."""
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
        for path, source in self._binds.items():
            command += ["--ro-bind", source, path]
        # The tree may have stood below what is now covered, and where other users cannot go.
        for path in (ROOT, self.build_dir):
            command += ["--ro-bind", path, path]
        command += ["--ro-bind", self.build_dir, "/run/build", "--bind", self.cache, "/run/cache",
                    "--chdir", "/"]
        if launcher:
            if not has_several_users():
                raise SandboxError("a launcher in the sandbox needs root")
            command += ["--cap-add", "ALL", *launcher]
        elif os.getuid() == 0:
            # Root is then kept out of a file by its mode like anybody else.
            command += ["--cap-drop", "ALL"]
        if uid is not None:
            if not has_several_users():
                raise SandboxError("another user in the sandbox needs root")
            command += ["--cap-add", "CAP_SETUID", "--cap-add", "CAP_SETGID", "setpriv",
                        f"--reuid={uid}", f"--regid={uid}", "--inh-caps=-all"]
            command += [f"--groups={','.join(map(str, groups))}"] if groups else ["--clear-groups"]
        return [str(word) for word in command]

    def _make_env(self, uid, env, vendor_sink):
        # Others cannot write into the cache.
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
        """Runs a program to its end, and returns its subprocess.CompletedProcess with its texts.

        `uid`: as another user, with `groups` beside its own; only where the test runs as root.
        `launcher`: a command in front of the program, which it starts; it has all of root's rights.
        """
        result = subprocess.run(
            [*self._bwrap_command(uid, groups, launcher), *map(str, command)], stdin=subprocess.DEVNULL,
            capture_output=True, text=True, errors="replace", timeout=deadline, check=False,
            env=self._make_env(uid, env, vendor_sink))
        if check and result.returncode != 0:
            raise AssertionError(f"{command} ended with {result.returncode}:\n"
                                 f"{result.stdout}{result.stderr}")
        return result

    def spawn(self, command, uid=None, groups=(), env=None, vendor_sink=False, kind=Process,
              launcher=None):
        """Starts a program that runs on, and returns it as a `kind`; close() kills it.

        What it writes to its standard output goes to that of the test.
        """
        process = kind([*self._bwrap_command(uid, groups, launcher), *map(str, command)],
                       self._make_env(uid, env, vendor_sink))
        self._processes.append(process)
        return process

    # The bus and the daemon

    def start_bus(self, uid=None, groups=()):
        """Starts the system bus, connects `bus` to it, and returns its process."""
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
                raise SandboxError("\n".join(["the bus does not start:", *daemon.lines])) from error
            return None

    def connect(self):
        """A connection to the system bus; one that the caller opened, the caller closes."""
        return Bus(f"unix:path=/proc/self/fd/{self._run_fd}/dbus/system_bus_socket")

    def start_mock(self, name, path, interface):
        """Starts python-dbusmock as a peer of the daemon on the bus; it is then told what to play
        through the interface "org.freedesktop.DBus.Mock"."""
        mock = self.spawn(["/usr/bin/python3", "-m", "dbusmock", "--system", name, path, interface])
        self._wait_name(name, mock, 20)
        return mock

    def start_daemon(self, program=None, env=None, uid=None, groups=(), vendor_sink=False,
                     watchdog_usec=None, wait=True, deadline=30, launcher=None):
        """Starts the daemon, and waits until it answers unless `wait` is false.

        With `watchdog_usec` it is supervised by `notify`.
        """
        env = dict(env or {})
        if watchdog_usec is not None:
            (self.folder / "run/notify").unlink(missing_ok=True)
            self.notify = NotifySocket(f"/proc/self/fd/{self._run_fd}/notify")
            env |= {"NOTIFY_SOCKET": "/run/notify", "WATCHDOG_USEC": str(watchdog_usec)}
        program = program or "/run/build/src/sonobrik"
        self.daemon = self.spawn([program], uid, groups, env, vendor_sink, Daemon, launcher)
        if wait:
            self._wait_name("com.vesk.Sonobrik", self.daemon, deadline)
            # Which it owns before it hears signals; it answers when it does all that it does.
            self.bus.call("com.vesk.Sonobrik", "/", "org.freedesktop.DBus.Peer", "Ping",
                          timeout=deadline)
        return self.daemon

    def _wait_name(self, name, process, deadline):
        wait_until(lambda: not process.is_running or self.bus.get_owner(name), deadline,
                   f"{name} has an owner")
        if not process.is_running:
            status = process.wait_exit()
            raise AssertionError(f"{process}, for {name}, ended with {status}:\n"
                                 + "\n".join(process.lines))

    def close(self):
        """Ends all that runs here. Fails if the daemon ended before it was asked to, or badly."""
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
    """Device and output number of an ALSA output's name."""
    if name.startswith("audiosink"):
        return int(name.removeprefix("audiosink")), 0
    device, output = name.removeprefix("device").split("_output")
    return int(device), int(output)
