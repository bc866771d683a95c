"""The daemon of the installed package under a running systemd.

The tests change the machine: they break its configuration and restart its bus. They run in the order
of this file. A container cannot show everything: see CONTRIBUTING.md.
"""

import os
import pathlib
import shutil
import signal
import subprocess

import pytest
from machine import ACCESS, AUDIOCONTROL, CARD, DAEMON, HERE, RECORDS, play, run, wait_until
from sandbox import Bus
from sandbox.bus import DRIVER

NAME, PATH = "com.vesk.Sonobrik", "/com/vesk/Sonobrik"
CONTROL = "com.vesk.AudioControl"

# The failures in a row, a line each, which make systemd wait before it restarts the daemon.
FAILURES = pathlib.Path("/run/sonobrik.failures")


def test_the_daemon_was_started_at_boot():
    assert "Scheduled restart job" not in DAEMON.read_log()
    assert DAEMON.show("UnitFileState") == "enabled"
    assert DAEMON.user == "sonobrik"


@pytest.mark.parametrize("name", [DAEMON.name, AUDIOCONTROL.name])
def test_systemd_knows_every_line_of_the_unit(name):
    run("systemctl", "daemon-reload")  # what it logs at boot may not reach the journal
    lines = [line for line in run("journalctl", "-q", "-b", "--no-pager", "_PID=1").splitlines()
             if f"/{name}:" in line and "ignoring" in line]
    assert lines == []


def test_a_clip_is_heard():
    assert play()


def test_the_sandbox_is_imposed():
    DAEMON.check_confinement()
    writable = DAEMON.list_writable()
    # systemd leaves the paths of ExecPaths= writable; see the unit.
    executable = {path for path in writable if path.startswith("/usr/")}
    assert executable <= {"/usr/lib", "/usr/lib32", "/usr/lib64", "/usr/libexec/sonobrik",
                          "/usr/local/lib"}
    assert writable - executable == {"/tmp", "/var/tmp", "/var/cache/sonobrik", str(RECORDS)}
    view = pathlib.Path(f"/proc/{DAEMON.pid}/root")  # the file system as the daemon sees it
    for folder in (RECORDS, CARD):
        written = view / str(folder).lstrip("/") / "written"
        written.touch()
        written.unlink()
    for folder in ("/tmp", "/var/tmp", "/root", "/home", "/dev/shm"):
        secret = pathlib.Path(folder, "secret")
        secret.touch()
        assert not (view / str(secret).lstrip("/")).exists()
    program = view / str(CARD).lstrip("/") / "program"
    shutil.copy("/usr/bin/true", program)
    subprocess.run([CARD / "program"], check=True)
    with pytest.raises(PermissionError):
        subprocess.run([program], check=True)
    program.unlink()


def test_a_killed_daemon_is_restarted_after_two_seconds():
    run("systemctl", "stop", DAEMON.name)
    assert not FAILURES.exists()
    run("systemctl", "start", DAEMON.name)
    old = DAEMON.pid
    os.kill(old, signal.SIGKILL)
    DAEMON.wait_restarted(old)
    ended = DAEMON.read_times("Main process exited, code=killed")[-1]
    assert DAEMON.read_times("Scheduled restart job")[-1] - ended >= 2
    assert FAILURES.read_text() == "\n"


def test_a_clean_stop_is_no_reason_to_restart():
    os.kill(DAEMON.pid, signal.SIGTERM)
    # While a restart is planned, the state has another name.
    wait_until(lambda: DAEMON.show("SubState") == "dead", 20, "the daemon has stopped")
    assert DAEMON.show("Result") == "success"
    assert not FAILURES.exists()
    run("systemctl", "start", DAEMON.name)


@pytest.mark.parametrize("name, path, interface", [
    (NAME, PATH, "org.freedesktop.DBus.Peer"),
    (f"{NAME}.Legacy", PATH, "org.freedesktop.DBus.Peer")])
def test_a_call_starts_the_daemon(name, path, interface):
    run("systemctl", "stop", DAEMON.name)
    run("busctl", "call", name, path, interface, "Ping")
    assert DAEMON.is_active()


@pytest.mark.parametrize("level", ["err", "debug"])
def test_systemctl_changes_the_level_of_the_log(level):
    before = run("systemctl", "service-log-level", DAEMON.name)
    run("systemctl", "service-log-level", DAEMON.name, level)
    try:
        assert run("systemctl", "service-log-level", DAEMON.name) == f"{level}\n"
        run("busctl", "call", NAME, PATH, NAME, "StopPlayingClip", "s", f"mark-{level}")
        run("journalctl", "--sync")
        assert (f"mark-{level}" in DAEMON.read_log()) == (level == "debug")
    finally:
        run("systemctl", "service-log-level", DAEMON.name, before.strip())


@pytest.fixture
def control():
    """A connection that owns the name of the audio control service, which is stopped."""
    run("systemctl", "stop", AUDIOCONTROL.name)
    policy = pathlib.Path("/etc/dbus-1/system.d/machine-test.conf")
    policy.write_text(f'<busconfig><policy user="root"><allow own="{CONTROL}"/></policy>'
                      '</busconfig>\n')
    bus = Bus("unix:path=/run/dbus/system_bus_socket")
    bus.call(*DRIVER, "ReloadConfig")
    bus.own_name(CONTROL)
    yield bus
    bus.close()
    policy.unlink()
    run("systemctl", "start", AUDIOCONTROL.name)


@pytest.fixture
def statuses():
    """The file that gets each exit status of the daemon: systemd logs only those of failures."""
    path = pathlib.Path("/run/machine-test.statuses")
    path.unlink(missing_ok=True)
    folder = pathlib.Path(f"/run/systemd/system/{DAEMON.name}.d")
    folder.mkdir(parents=True)
    (folder / "statuses.conf").write_text(
        f"[Service]\nExecStopPost=+/bin/sh -c 'echo $$EXIT_STATUS >>{path}'\n")
    run("systemctl", "daemon-reload")
    yield path
    shutil.rmtree(folder)
    run("systemctl", "daemon-reload")


def test_a_daemon_that_exits_with_75_is_restarted_each_time(control, statuses):
    for count in range(1, 6):
        old = DAEMON.pid
        control.emit("/com/vesk/AudioControl", "org.freedesktop.DBus.ObjectManager",
                     "InterfacesAdded", "(oa{sa{sv}})", "/com/vesk/x", {})
        DAEMON.wait_restarted(old)
        assert statuses.read_text() == "75\n" * count
        assert DAEMON.show("NRestarts") == str(count)
    assert not FAILURES.exists()  # so the restarts did not get slower


def test_a_hanging_daemon_is_killed_by_the_watchdog():
    old = DAEMON.pid
    os.kill(old, signal.SIGSTOP)
    DAEMON.wait_restarted(old, 180)
    assert "Watchdog timeout" in DAEMON.read_log()


def test_a_restart_of_the_bus_is_survived():
    old, old_control = DAEMON.pid, AUDIOCONTROL.pid
    run("systemctl", "restart", "dbus.service")
    DAEMON.wait_restarted(old)
    AUDIOCONTROL.wait_restarted(old_control)
    assert play()


def test_a_broken_policy_slows_down_the_restarts():
    content = ACCESS.read_text()
    ACCESS.write_text("nonsense\n")
    try:
        os.kill(DAEMON.pid, signal.SIGKILL)
        wait_until(lambda: int(DAEMON.show("NRestarts")) >= 5, 120, "five restarts")
        assert "access_policy_init failed" in DAEMON.read_log()
        times = DAEMON.read_times("Scheduled restart job")[-5:]
        assert times[-1] - times[-2] > times[1] - times[0] + 3
    finally:
        ACCESS.write_text(content)
    wait_until(DAEMON.is_active, 60, "the daemon runs again")


def test_a_card_is_a_device_that_the_unit_allows():
    assert "char-alsa rw" in DAEMON.show("DeviceAllow")
    assert DAEMON.show("DevicePolicy") == "closed"
    assert "modprobe@snd.service" in DAEMON.show("Wants").split()
    assert "modprobe@snd.service" in DAEMON.show("After").split()


def test_the_packages_own_test_passes():
    configuration = pathlib.Path("/etc/asound.conf").read_text()
    try:
        run(HERE.parents[1] / "debian/tests/play")
    finally:
        pathlib.Path("/etc/asound.conf").write_text(configuration)
