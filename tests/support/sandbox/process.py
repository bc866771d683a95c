"""Programs that run in a sandbox."""

import contextlib
import dataclasses
import json
import os
import pathlib
import re
import select
import signal
import socket
import subprocess
import threading
import time

from .wait import wait_until

LOG_LINE = re.compile(r"^sonobrik(?:-audiocontrol)?\[\d+\]: (\w+): (.*)$")

SANITIZER_REPORT = re.compile(
    r"(ERROR|WARNING): (Address|Leak|Memory|Thread|UndefinedBehavior)Sanitizer|: runtime error: ")

# Log lines of GLib and GStreamer about wrong use: "critical: GStreamer: ...". One such line is
# ignored: playbin logs it about itself if it is stopped while it creates its input selector.
MISUSE = re.compile(r": (critical|fatal): (GLib|GStreamer|Gst)[\w-]*: "
                    r"(?!\\x0aTrying to dispose element inputselector)")

# The exit status of a program whose sanitizer found an error. No program exits with it otherwise.
SANITIZER_STATUS = 86


@dataclasses.dataclass(frozen=True)
class LogLine:
    level: str  # such as "warning"; None if the line did not come from the daemon's log
    text: str


class Process:
    """A running program and the lines that it writes to its standard error."""

    def __init__(self, command, env):
        self._text = b""
        self._lock = threading.Lock()  # guards `_text` and reading from the pipe
        self.expected = False  # True once the test ends the program or waits for its end
        # True if libraries may log criticals, as GStreamer's parsers do about damaged files.
        self.ignores_misuse = False
        reader, writer = os.pipe()
        try:
            self.popen = subprocess.Popen(
                [*command[:1], "--info-fd", str(writer), *command[1:]], env=env, pass_fds=[writer],
                stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, start_new_session=True)
        finally:
            os.close(writer)
        # bubblewrap forks, so it reports the pid of the program; nothing if it could not start it.
        with os.fdopen(reader) as info:
            text = info.read()
        self.pid = json.loads(text)["child-pid"] if text else 0
        os.set_blocking(self.popen.stderr.fileno(), False)
        # Without a reader, a full pipe would block the program.
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    @property
    def keeps_freed_memory(self):
        """True if the program has the address sanitizer, which delays the reuse of memory."""
        with open(f"/proc/{self.pid}/exe", "rb") as file:
            return b"__asan_init" in file.read()

    def _read(self):
        while self._drain():
            select.select([self.popen.stderr], [], [])

    def _drain(self):
        """Reads what the pipe holds. Returns False at the end of the output."""
        with self._lock:
            while True:
                try:
                    part = os.read(self.popen.stderr.fileno(), 65536)
                except BlockingIOError:
                    return True
                if not part:
                    return False
                self._text += part

    @property
    def lines(self):
        """All lines that the program has written so far."""
        if self._reader.is_alive():
            self._drain()
        with self._lock:
            text = self._text.decode(errors="replace")
        return text.removesuffix("\n").split("\n") if text else []

    @property
    def is_running(self):
        return self.popen.poll() is None

    def kill(self, number=signal.SIGKILL):
        """Sends a signal to the program."""
        self.expected = True
        if self.is_running and self.pid:
            # bubblewrap ends a moment after the program, which may have ended by itself.
            with contextlib.suppress(ProcessLookupError):
                os.kill(self.pid, number)

    def open_folder(self, path):
        """Returns the host's path of the folder that the program sees as `path`."""
        return pathlib.Path(f"/proc/{self.pid}/root{path}")

    def count_descriptors(self):
        """Returns the number of file descriptors that the program has open."""
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def pause(self):
        """Suspends the program until go_on(). What is sent to it meanwhile arrives at once then."""
        os.kill(self.pid, signal.SIGSTOP)

    def go_on(self):
        os.kill(self.pid, signal.SIGCONT)

    def wait_exit(self, deadline=20):
        """Waits for the end of the program and returns its exit status, or 128 + the number of the
        signal that ended it. Afterwards `lines` is complete."""
        self.expected = True
        wait_until(lambda: not self.is_running, deadline, f"{self} has ended")
        self._reader.join(deadline)
        self.popen.stderr.close()
        reports = [line for line in self.lines if SANITIZER_REPORT.search(line)]
        if reports or self.popen.returncode == SANITIZER_STATUS:
            raise AssertionError("a sanitizer reports:\n" + "\n".join(self.lines))
        if not self.ignores_misuse and any(MISUSE.search(line) for line in self.lines):
            raise AssertionError("a library was misused:\n" + "\n".join(self.lines))
        return self.popen.returncode

    def __str__(self):
        return f"process {self.pid}"


class Daemon(Process):
    """The daemon, and its log."""

    @property
    def log(self):
        """All lines so far, each as a LogLine."""
        return [self._parse(line) for line in self.lines]

    @staticmethod
    def _parse(line):
        match = LOG_LINE.match(line)
        return LogLine(*match.groups()) if match else LogLine(None, line)

    def wait_log(self, level, text, deadline=10):
        """Waits for a line with this level and exactly this text."""
        wanted = LogLine(level, text)
        wait_until(lambda: wanted in self.log, deadline, f"{wanted} is logged")

    @property
    def texts(self):
        """The lines so far as "level: text", without those of libraries."""
        return [f"{line.level}: {line.text}" for line in self.log
                if not line.text.startswith(("GLib", "GStreamer", "Gst"))]

    def count(self, level, text):
        """Returns the number of lines with this level and exactly this text."""
        return self.log.count(LogLine(level, text))

    def stop(self, number=signal.SIGTERM, deadline=20):
        """Signals the daemon to exit, and returns its exit status."""
        self.kill(number)
        return self.wait_exit(deadline)

    def __str__(self):
        return f"the daemon, process {self.pid}"


class NotifySocket:
    """The receiver of the daemon's messages to systemd."""

    def __init__(self, address):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        self._socket.bind(address)
        os.chmod(address, 0o777)  # like systemd's own socket
        self._messages = []

    @property
    def messages(self):
        """All messages so far: (time of receipt from time.monotonic_ns(), text)."""
        while True:
            try:
                text = self._socket.recv(4096).decode()
            except BlockingIOError:
                return self._messages
            self._messages.append((time.monotonic_ns(), text))

    def close(self):
        self._socket.close()
