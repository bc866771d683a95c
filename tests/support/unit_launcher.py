"""Starts a program under the restrictions of a systemd unit, without systemd.

usage: unit_launcher.py UNIT UID:GID[:GROUP...] probe|PROGRAM

Applies system-call filters, capabilities, namespaces and mounts in the way systemd does, but no
restriction that needs a cgroup. Exits with an error for a directive that it does not know. Must run
as root in a private mount namespace. "probe" runs no program; it tries what the restrictions allow
and prints the results as JSON.
"""

import ctypes
import os
import pathlib
import re
import resource
import subprocess
import sys

import seccomp

import unit_probe

# Directives that are not applied here, and why.
NOT_IMPOSED = {
    "DeviceAllow": "needs a cgroup; bubblewrap provides only devices such as /dev/null",
    "DevicePolicy": "needs a cgroup",
    "IPAddressDeny": "needs a cgroup",
    "PrivateDevices": "bubblewrap provides only devices such as /dev/null",
}

# Directives about starting and watching a service, which do not restrict it.
SUPERVISION = {
    "BusName", "ExecStopPost", "Restart", "RestartForceExitStatus", "RestartSec",
    "RuntimeDirectoryPreserve", "SuccessExitStatus", "Type", "WatchdogSec",
}

# Directives that this program applies.
IMPOSED = {
    "CacheDirectory", "CacheDirectoryMode", "CapabilityBoundingSet", "Environment", "ExecPaths",
    "ExecStart", "InaccessiblePaths", "LockPersonality", "MemoryDenyWriteExecute", "NoExecPaths",
    "NoNewPrivileges", "PrivateIPC", "PrivateMounts", "PrivateNetwork", "PrivateTmp", "ProcSubset",
    "ProtectClock", "ProtectControlGroups", "ProtectHome", "ProtectHostname", "ProtectKernelLogs",
    "ProtectKernelModules", "ProtectKernelTunables", "ProtectProc", "ProtectSystem",
    "ReadWritePaths", "RestrictAddressFamilies", "RestrictNamespaces", "RestrictRealtime",
    "RestrictSUIDSGID", "RuntimeDirectory", "StateDirectory", "SystemCallArchitectures",
    "SystemCallErrorNumber", "SystemCallFilter", "UMask", "User",
}

CACHE, STATE, RUNTIME = "/var/cache", "/var/lib", "/run"

ADDRESS_FAMILIES = {"AF_UNIX": 1, "AF_NETLINK": 16}
MAX_FAMILY = 64

# Used in place of the sound cards' devices and of the installed libraries.
CARDS, LIBRARIES = "/run/cards", "/run/build/tests/support"
PROGRAM = "/run/build/src/sonobrik"

# Names the folder of mocked devices, if the program uses some.
MOCK = "UMOCKDEV_DIR"

libc = ctypes.CDLL(None, use_errno=True)

AT_FDCWD, AT_RECURSIVE = -100, 0x8000
MS_BIND, MS_REC, MS_PRIVATE = 4096, 16384, 1 << 18
MOUNT_ATTR_RDONLY, MOUNT_ATTR_NOSUID, MOUNT_ATTR_NOEXEC = 1, 2, 8
SYS_MOUNT_SETATTR = 442
CLONE_NEWUTS, CLONE_NEWIPC, CLONE_NEWNET = 0x04000000, 0x08000000, 0x40000000
NAMESPACES = 0x7e020080  # flags of clone(): cgroup, IPC, network, mount, pid, user, UTS, time
PR_CAPBSET_DROP, PR_SET_NO_NEW_PRIVS, PR_SET_MDWE = 24, 38, 65


def check(result, what):
    if result < 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number), what)
    return result


class Unit:
    """A unit's [Service] section."""

    def __init__(self, path):
        self.items = []
        section = None
        text = pathlib.Path(path).read_text().replace("\\\n", "")
        for line in text.splitlines():
            if line.startswith("["):
                section = line
            elif section == "[Service]" and line and not line.startswith("#"):
                key, value = line.split("=", 1)
                self.items.append((key, value.replace("%C", CACHE)))

    def get_all(self, key):
        return [value for name, value in self.items if name == key]

    def get(self, key, default=None):
        values = self.get_all(key)
        return values[-1] if values else default

    def is_on(self, key):
        return self.get(key) == "yes"

    def get_words(self, key):
        return " ".join(self.get_all(key)).split()

    def require(self, key, *values):
        """Exits if the directive has none of these values. Returns True if the unit has it."""
        if self.get(key) is not None and self.get(key) not in values:
            sys.exit(f"unit_launcher: unsupported value {key}={self.get(key)}")
        return self.get(key) is not None


# The view of the file system


def mount(source, target, kind=None, flags=0, data=None):
    words = [word.encode() if word else None for word in (source, target, kind)]
    check(libc.mount(*words, ctypes.c_ulong(flags), data.encode() if data else None),
          f"mount {target}")


def set_mount(path, add=0, clear=0, recursive=True):
    attributes = (ctypes.c_uint64 * 4)(add, clear, 0, 0)
    check(libc.syscall(SYS_MOUNT_SETATTR, AT_FDCWD, path.encode(),
                       AT_RECURSIVE if recursive else 0, attributes, 32), f"mount_setattr {path}")


def bind_itself(path):
    mount(path, path, flags=MS_BIND | MS_REC)


def hide(path):
    """Makes a path inaccessible, like systemd does."""
    if os.path.isdir(path):
        mount("tmpfs", path, "tmpfs", data="mode=000,size=0")
        set_mount(path, MOUNT_ATTR_RDONLY)
    elif os.path.exists(path):
        mount("/dev/null", path, flags=MS_BIND)


def find_paths(words):
    """Returns the resolved paths of a directive. A missing path is skipped if marked with "-"."""
    paths = []
    for word in words:
        path = os.path.realpath(word.removeprefix("-"))
        if os.path.exists(path):
            paths.append(path)
        elif not word.startswith("-"):
            sys.exit(f"unit_launcher: {word} does not exist")
    return list(dict.fromkeys(paths))


def make_view(unit, uid, gid, program):
    mount(None, "/", flags=MS_REC | MS_PRIVATE)
    mount("tmpfs", CACHE, "tmpfs")
    writable = [CARDS]
    if unit.get("CacheDirectory"):
        folder = f"{CACHE}/{unit.get('CacheDirectory')}"
        os.mkdir(folder)
        os.chmod(folder, int(unit.get("CacheDirectoryMode", "0755"), 8))
        os.chown(folder, uid, gid)
        writable.append(folder)
    mount("tmpfs", STATE, "tmpfs")
    for parent, key in ((STATE, "StateDirectory"), (RUNTIME, "RuntimeDirectory")):
        if unit.get(key):
            folder = f"{parent}/{unit.get(key)}"
            os.mkdir(folder)
            os.chown(folder, uid, gid)
            writable.append(folder)
    if MOCK in os.environ:
        writable.append(os.environ[MOCK])
    writable += find_paths(unit.get_words("ReadWritePaths"))
    # `program` takes the place of the installed program.
    executable = [word for word in unit.get_words("ExecPaths") if word != unit.get("ExecStart")]
    executable = [*find_paths(executable), program, LIBRARIES]
    for path in {*writable, *executable}:
        bind_itself(path)
    # systemd leaves out the writable folders, so the unit lists them too.
    if "/" in unit.get_words("NoExecPaths"):
        set_mount("/", MOUNT_ATTR_NOEXEC)
        for path in executable:
            set_mount(path, clear=MOUNT_ATTR_NOEXEC)
    if unit.require("ProtectSystem", "strict"):
        set_mount("/", MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID)
        for path in writable:
            set_mount(path, clear=MOUNT_ATTR_RDONLY)
    if unit.is_on("PrivateTmp"):
        for path in ("/tmp", "/var/tmp"):
            mount("tmpfs", path, "tmpfs", data="mode=1777")
            set_mount(path, MOUNT_ATTR_NOEXEC | MOUNT_ATTR_NOSUID)
    hidden = []
    if unit.require("ProtectHome", "yes"):
        hidden += ["/home", "/root", "/run/user"]
    if unit.is_on("ProtectKernelModules"):
        hidden += find_paths(["-/usr/lib/modules", "-/lib/modules"])
    if unit.is_on("ProtectKernelLogs"):
        hidden += ["/dev/kmsg", "/proc/kmsg"]
    hidden += find_paths(unit.get_words("InaccessiblePaths"))
    for path in hidden:
        hide(path)
    if unit.is_on("ProtectKernelTunables") or unit.is_on("ProtectControlGroups"):
        bind_itself("/sys")
        set_mount("/sys", MOUNT_ATTR_RDONLY)
    proc = {"ProtectProc": {"invisible": "hidepid=invisible"}, "ProcSubset": {"pid": "subset=pid"}}
    options = [values[unit.get(key)] for key, values in proc.items() if unit.require(key, *values)]
    mount("proc", "/proc", "proc", data=",".join(options))
    set_mount("/proc", MOUNT_ATTR_NOEXEC | MOUNT_ATTR_NOSUID)


# User, capabilities and namespaces


def become(unit, uid, gid, groups):
    flags = 0
    if unit.is_on("PrivateIPC"):
        flags |= CLONE_NEWIPC
    if unit.is_on("PrivateNetwork"):
        flags |= CLONE_NEWNET
    if unit.is_on("ProtectHostname"):
        flags |= CLONE_NEWUTS
    check(libc.unshare(flags), "unshare")
    os.setgroups(groups)
    if unit.require("CapabilityBoundingSet", ""):
        for capability in range(64):
            if libc.prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) < 0:
                break
    os.setresgid(gid, gid, gid)
    os.setresuid(uid, uid, uid)  # also drops all capabilities
    os.umask(int(unit.get("UMask", "0022"), 8))
    if unit.is_on("NoNewPrivileges"):
        check(libc.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "no_new_privs")


# System calls


def expand(name):
    """Returns the system calls of a set such as "@clock", or the one call of that name."""
    if not name.startswith("@"):
        return {name}
    # systemd-analyze 257 reports its exit to NOTIFY_SOCKET, and blocks once nobody reads that.
    environment = {key: value for key, value in os.environ.items() if key != "NOTIFY_SOCKET"}
    text = subprocess.run(["systemd-analyze", "--no-pager", "syscall-filter", name], check=True,
                          capture_output=True, text=True, env=environment).stdout
    words = [line.strip() for line in text.splitlines()[1:]]
    return set().union(*(expand(word) for word in words if word and not word.startswith("#")))


def is_known(call):
    try:
        return seccomp.resolve_syscall(seccomp.Arch(), call) >= 0
    except (RuntimeError, ValueError):
        return False


def make_allowed(unit):
    """Returns the calls that SystemCallFilter= allows; its first line must be an allow list."""
    allowed = set()
    for value in unit.get_all("SystemCallFilter"):
        calls = set().union(*(expand(word) for word in value.removeprefix("~").split()))
        allowed = allowed - calls if value.startswith("~") else allowed | calls
    return allowed | expand("@default")  # systemd always allows these


def make_filters(unit):
    """Returns the filters. The strictest is last, because it may forbid loading another one."""
    deny = seccomp.SyscallFilter(seccomp.ALLOW)
    arg = seccomp.Arg

    def refuse(call, *conditions, error="EPERM"):
        if is_known(call):
            deny.add_rule(seccomp.ERRNO(getattr(unit_probe.errno, error)), call, *conditions)

    if unit.is_on("MemoryDenyWriteExecute"):
        refuse("mmap", arg(2, seccomp.MASKED_EQ, 6, 6))
        for call in ("mprotect", "pkey_mprotect"):
            refuse(call, arg(2, seccomp.MASKED_EQ, 4, 4))
        refuse("shmat", arg(2, seccomp.MASKED_EQ, 0o100000, 0o100000))
    if unit.get("RestrictAddressFamilies"):
        allowed = [ADDRESS_FAMILIES[name] for name in unit.get_words("RestrictAddressFamilies")]
        for family in set(range(MAX_FAMILY)) - set(allowed):
            refuse("socket", arg(0, seccomp.EQ, family), error="EAFNOSUPPORT")
        refuse("socket", arg(0, seccomp.GE, MAX_FAMILY), error="EAFNOSUPPORT")
    if unit.is_on("RestrictNamespaces"):
        for bit in range(32):
            if NAMESPACES & 1 << bit:
                refuse("clone", arg(0, seccomp.MASKED_EQ, 1 << bit, 1 << bit))
        refuse("clone3", error="ENOSYS")  # its flags are in memory, which a filter cannot read
        refuse("unshare")
        refuse("setns")
    if unit.is_on("LockPersonality"):
        refuse("personality", arg(0, seccomp.NE, 0))
    if unit.is_on("RestrictRealtime"):
        for policy in (1, 2, 6):
            refuse("sched_setscheduler", arg(1, seccomp.EQ, policy))
    if unit.is_on("RestrictSUIDSGID"):
        for call, number in (("chmod", 1), ("fchmod", 1), ("fchmodat", 2), ("mkdir", 1),
                             ("mkdirat", 2), ("mknod", 1), ("mknodat", 2), ("creat", 1),
                             ("open", 2), ("openat", 3)):
            for bit in (0o4000, 0o2000):
                flags = {"open": 1, "openat": 2}.get(call)
                made = [arg(flags, seccomp.MASKED_EQ, os.O_CREAT, os.O_CREAT)] if flags else []
                refuse(call, *made, arg(number, seccomp.MASKED_EQ, bit, bit))
        refuse("openat2", error="ENOSYS")
    protected = {
        "ProtectClock": expand("@clock"),
        "ProtectHostname": {"sethostname", "setdomainname"},
        "ProtectKernelLogs": {"syslog"},
        "ProtectKernelModules": expand("@module"),
    }
    for key, calls in protected.items():
        for call in calls if unit.is_on(key) else ():
            refuse(call)
    filters = [deny]
    if unit.get("SystemCallFilter"):
        error = getattr(unit_probe.errno, unit.get("SystemCallErrorNumber", "EPERM"))
        allow = seccomp.SyscallFilter(seccomp.ERRNO(error))
        for call in filter(is_known, make_allowed(unit)):
            allow.add_rule(seccomp.ALLOW, call)
        filters.append(allow)
    return filters


# The variables that are passed on: those that systemd sets for a service, and the debug settings.
KEPT = re.compile(r"LANG|PATH|NOTIFY_SOCKET|WATCHDOG_USEC|G_MESSAGES_DEBUG|GST_DEBUG.*")


def make_environment(unit):
    environment = {key: value for key, value in os.environ.items() if KEPT.fullmatch(key)}
    environment |= {"HOME": "/", "LOGNAME": unit.get("User"), "USER": unit.get("User"),
                    "SHELL": "/usr/sbin/nologin"}
    if unit.get("CacheDirectory"):
        environment["CACHE_DIRECTORY"] = f"{CACHE}/{unit.get('CacheDirectory')}"
    if unit.get("StateDirectory"):
        environment["STATE_DIRECTORY"] = f"{STATE}/{unit.get('StateDirectory')}"
    if MOCK in os.environ:
        environment |= {MOCK: os.environ[MOCK], "LD_PRELOAD": "libumockdev-preload.so.0"}
    return environment | dict(word.split("=", 1) for word in unit.get_words("Environment"))


def main(path, user, program):
    unit = Unit(path)
    unknown = {key for key, _ in unit.items} - IMPOSED - SUPERVISION - set(NOT_IMPOSED)
    if unknown:
        sys.exit(f"unit_launcher: unknown directives: {' '.join(sorted(unknown))}")
    uid, gid, *groups = map(int, user.split(":"))
    unit.require("SystemCallArchitectures", "native")  # libseccomp filters allow no other
    filters = make_filters(unit)
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    make_view(unit, uid, gid, PROGRAM if program == "probe" else program)
    become(unit, uid, gid, groups)
    if unit.is_on("MemoryDenyWriteExecute"):
        libc.prctl(PR_SET_MDWE, 1, 0, 0, 0)  # like newer systemd; older kernels refuse it
    environment = make_environment(unit)
    for each in filters:
        each.load()
    if program == "probe":
        unit_probe.run(CACHE, unit.get("CacheDirectory"))
    else:
        os.execve(program, [program], environment)


if __name__ == "__main__":
    main(*sys.argv[1:])
