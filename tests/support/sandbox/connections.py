"""The daemon's connections to the bus: finding them and cutting single ones."""

import array
import ctypes
import fcntl
import os
import pathlib
import socket
import termios

from .bus import DRIVER, BusError
from .wait import wait_until

SYS_PIDFD_GETFD = 438

# In the order in which the bus names them. The daemon opens that of the policy before the main one,
# but does not wait for it.
PURPOSES = ("events", "controls", "legacy", "main", "policy")

_libc = ctypes.CDLL(None, use_errno=True)


def _find_pid(bus, name):
    try:
        return bus.call(*DRIVER, "GetConnectionUnixProcessID", "(s)", name)[0]
    except BusError:
        return None  # it has left the bus meanwhile


def list_connections(sandbox):
    """Returns the unique names of the daemon's connections, the oldest first."""
    names, = sandbox.bus.call(*DRIVER, "ListNames")
    return sorted((name for name in names
                   if name.startswith(":") and _find_pid(sandbox.bus, name) == sandbox.daemon.pid),
                  key=lambda name: [int(number) for number in name[1:].split(".")])


def find_connections(sandbox):
    """Returns the unique names of the daemon's connections by purpose, if none was lost yet.

    Waits for the last one, which may come after the daemon's own names.
    """
    def find():
        names = list_connections(sandbox)
        return names if len(names) == len(PURPOSES) else None

    return dict(zip(PURPOSES, wait_until(find, 10, "the daemon has all its connections")))


def _copy_descriptor(process, number):
    """Returns a socket that is the descriptor `number` of another process."""
    pidfd = os.pidfd_open(process.pid)
    try:
        copy = _libc.syscall(SYS_PIDFD_GETFD, pidfd, number, 0)
    finally:
        os.close(pidfd)
    if copy < 0:
        raise OSError(ctypes.get_errno(), "pidfd_getfd")
    return socket.socket(fileno=copy)


def _list_sockets(process):
    folder = pathlib.Path(f"/proc/{process.pid}/fd")
    return [_copy_descriptor(process, int(path.name)) for path in folder.iterdir()
            if os.readlink(path).startswith("socket:")]


def _count_unread(sock):
    count = array.array("i", [0])
    fcntl.ioctl(sock, termios.FIONREAD, count)
    return count[0]


def cut_connection(sandbox, name):
    """Closes one connection of the daemon from outside, as the bus does when it drops a client.

    The bus must let everybody send signals: a signal shows which socket has this name.
    """
    daemon = sandbox.daemon
    daemon.pause()
    sockets = _list_sockets(daemon)
    try:
        def find():
            return [sock for sock in sockets if _count_unread(sock) > before[sock]]

        before = {sock: _count_unread(sock) for sock in sockets}
        sandbox.bus.emit("/com/vesk/Test", "com.vesk.Test", "Mark", destination=name)
        found, = wait_until(find, 10, "the signal has arrived")
        found.shutdown(socket.SHUT_RDWR)
    finally:
        for sock in sockets:
            sock.close()
        daemon.go_on()


def fill_queue(sandbox, bus, process, name, path):
    """Makes calls to the connection `name` of `process` that it answers while the process `bus` is
    paused, until its socket is full and it keeps the other answers in its queue."""
    process.pause()
    for _ in range(100):
        sandbox.bus.send(name, path, "org.freedesktop.DBus.Introspectable", "Introspect")
    sandbox.bus.call(*DRIVER, "GetId")
    sockets = _list_sockets(process)
    try:
        for sock in sockets:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1)  # the kernel's minimum
        bus.pause()
        process.go_on()
        wait_until(lambda: not any(_count_unread(sock) for sock in sockets), 20, "it has read")
    finally:
        for sock in sockets:
            sock.close()
