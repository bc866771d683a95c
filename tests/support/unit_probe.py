"""Tries actions that a unit's restrictions forbid or allow, and prints the results as JSON."""

import ctypes
import errno
import grp
import json
import mmap
import os
import socket

libc = ctypes.CDLL(None, use_errno=True)

IPC_PRIVATE, IPC_CREAT, IPC_RMID, IPC_SET, IPC_STAT = 0, 0o1000, 0, 1, 2
SCHED_FIFO = 1
BUS = "/run/dbus/system_bus_socket"
CLONE_NEWUSER = 0x10000000


def call(function, *args):
    result = function(*args)
    if result == -1 or result == ctypes.c_void_p(-1).value:
        raise OSError(ctypes.get_errno(), function.__name__)
    return result


def write(path):
    with open(path, "w", encoding="ascii") as file:
        file.write("x")


def map_memory(protection):
    mmap.mmap(-1, 4096, mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS, protection).close()


def gain_execution():
    memory = mmap.mmap(-1, 4096, mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS)
    address = ctypes.addressof(ctypes.c_char.from_buffer(memory))
    call(libc.mprotect, ctypes.c_void_p(address), 4096, mmap.PROT_READ | mmap.PROT_EXEC)


def map_file(path):
    with open(path, "rb") as file:
        mmap.mmap(file.fileno(), 1, mmap.MAP_PRIVATE, mmap.PROT_READ | mmap.PROT_EXEC).close()


def map_written(path):
    write(path)
    map_file(path)


def set_suid(path):
    write(path)
    os.chmod(path, 0o4755)


def execute(program):
    child = os.fork()
    if child == 0:
        try:
            os.execv(program, [program])
        except OSError as error:
            os._exit(error.errno)
    status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
    if status:
        raise OSError(status, program)


def share_memory():
    """Shares memory and a semaphore with group audio, as ALSA's dmix does."""
    segment = call(libc.shmget, IPC_PRIVATE, 4096, IPC_CREAT | 0o660)
    description = (ctypes.c_uint32 * 64)()  # struct shmid_ds, which begins with key, user and group
    call(libc.shmctl, segment, IPC_STAT, description)
    description[2] = grp.getgrnam("audio").gr_gid
    call(libc.shmctl, segment, IPC_SET, description)
    libc.shmat.restype = ctypes.c_void_p
    call(libc.shmdt, ctypes.c_void_p(call(libc.shmat, segment, None, 0)))
    call(libc.shmctl, segment, IPC_RMID, None)
    semaphore = call(libc.semget, IPC_PRIVATE, 2, IPC_CREAT | 0o660)
    call(libc.semop, semaphore, (ctypes.c_short * 3)(0, 1, 0), 1)
    call(libc.semctl, semaphore, 0, IPC_RMID)


def list_status():
    """Returns the lines of /proc/self/status about capabilities and filters."""
    with open("/proc/self/status", encoding="ascii") as file:
        fields = dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)
    return {key: fields[key] for key in ("CapBnd", "CapEff", "CapPrm", "NoNewPrivs", "Seccomp")}


def list_networks():
    with open("/proc/self/net/dev", encoding="ascii") as file:
        return [line.split(":")[0].strip() for line in file if ":" in line]


def make_probes(folder):
    return {
        "write /etc": lambda: write("/etc/probe"),
        "write /var": lambda: write("/var/probe"),
        "write /run": lambda: write("/run/probe"),
        "write a clip": lambda: write("/etc/audioclips/probe"),
        "write a record": lambda: write("/etc/dynamic/sonobrik/clip_data/probe"),
        "write the cache": lambda: write(f"{folder}/probe"),
        "write /tmp": lambda: write("/tmp/probe"),
        "write a sound card": lambda: write("/run/cards/0/probe"),
        "list /home": lambda: os.listdir("/home"),
        "list /root": lambda: os.listdir("/root"),
        "list /dev/shm": lambda: os.listdir("/dev/shm"),
        "list /run/user": lambda: os.listdir("/run/user"),
        "list /run/lock": lambda: os.listdir("/run/lock"),
        "read a file of /var/tmp": lambda: os.stat("/var/tmp/stranger"),
        "read /proc/meminfo": lambda: os.stat("/proc/meminfo"),
        "see another process": lambda: os.stat("/proc/1"),
        "see itself": lambda: os.stat("/proc/self/status"),
        "reach the network": lambda: socket.socket(socket.AF_INET, socket.SOCK_DGRAM),
        "reach the kernel": lambda: socket.socket(socket.AF_NETLINK, socket.SOCK_RAW),
        "reach the bus": lambda: socket.socket(socket.AF_UNIX).connect(BUS),
        "map writable and executable memory": lambda: map_memory(
            mmap.PROT_READ | mmap.PROT_WRITE | mmap.PROT_EXEC),
        "make written memory executable": gain_execution,
        "execute a file that it wrote": lambda: map_written(f"{folder}/code"),
        "execute an installed library": lambda: map_file("/usr/local/lib/library"),
        "execute a program": lambda: execute("/usr/bin/true"),
        "set the set-user-id bit": lambda: set_suid(f"{folder}/suid"),
        "make a namespace": lambda: call(libc.unshare, CLONE_NEWUSER),
        "change the personality": lambda: call(libc.personality, 8),
        "become root": lambda: os.setuid(0),
        "run in real time": lambda: os.sched_setscheduler(0, SCHED_FIFO, os.sched_param(1)),
        "set its CPU affinity": lambda: os.sched_setaffinity(0, {0}),
        "set the host name": lambda: socket.sethostname("probe"),
        "read the kernel's log": lambda: call(libc.klogctl, 10, None, 0),
        "mount": lambda: call(libc.mount, b"none", b"/tmp", b"tmpfs", 0, None),
        "lock memory": lambda: call(libc.mlockall, 1),
        "share memory": share_memory,
    }


def attempt(action):
    ctypes.set_errno(0)
    try:
        action()
    except OSError as error:
        return errno.errorcode.get(error.errno, str(error.errno))
    return "done"


def run(cache, folder):
    results = {name: attempt(action) for name, action in make_probes(f"{cache}/{folder}").items()}
    print(json.dumps({
        "results": results,
        "status": list_status(),
        "networks": list_networks(),
        "umask": oct(os.umask(0)),
    }))
