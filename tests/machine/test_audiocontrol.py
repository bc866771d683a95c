"""The audio control service under its own unit. The machine has no sound card."""

import os
import pathlib
import signal

from machine import AUDIOCONTROL, DAEMON, run, wait_until

# The ALSA definitions, which the service writes.
DEFINITIONS = pathlib.Path("/run/sonobrik-audiocontrol/alsa.conf")


def call(interface, member, *arguments, name="com.vesk.AudioControl", path="/com/vesk/AudioControl"):
    return run("busctl", "call", name, path, interface, member, *arguments).strip()


def get_owner():
    """Returns the process that owns the name."""
    answer = call("org.freedesktop.DBus", "GetConnectionUnixProcessID", "s",
                  "com.vesk.AudioControl", name="org.freedesktop.DBus",
                  path="/org/freedesktop/DBus")
    return int(answer.split()[1])


def test_it_starts_at_boot_as_its_own_user_before_the_daemon():
    assert AUDIOCONTROL.show("UnitFileState") == "enabled"
    assert AUDIOCONTROL.show("NRestarts") == "0"
    assert get_owner() == AUDIOCONTROL.pid
    assert AUDIOCONTROL.user == "sonobrik-audiocontrol"
    assert DAEMON.show("NRestarts") == "0"
    ready = int(AUDIOCONTROL.show("ActiveEnterTimestampMonotonic"))
    assert 0 < ready <= int(DAEMON.show("ExecMainStartTimestampMonotonic"))


def test_its_sandbox_is_imposed_and_it_misses_nothing():
    AUDIOCONTROL.check_confinement()
    writable = {path for path in AUDIOCONTROL.list_writable() if not path.startswith("/usr/")}
    assert writable == {"/tmp", "/var/tmp", "/var/lib/sonobrik-audiocontrol"}
    assert AUDIOCONTROL.read_log("-p", "warning") == ""


def test_without_a_card_it_serves_no_device():
    assert "No audio device is plugged in" in AUDIOCONTROL.read_log()
    assert call("org.freedesktop.DBus.ObjectManager",
                "GetManagedObjects") == "a{oa{sa{sv}}} 0"
    assert DEFINITIONS.exists()
    # What /etc/asound.conf defines is an output nevertheless.
    rows = [line.split() for line in run("sonobrikctl", "outputs").splitlines()]
    assert [row[0] for row in rows] == ["OUTPUT", "0"]


def test_a_killed_service_is_restarted_and_the_daemon_goes_on():
    old, daemon = AUDIOCONTROL.pid, DAEMON.pid
    os.kill(old, signal.SIGKILL)
    wait_until(lambda: AUDIOCONTROL.show("ActiveState") != "active", 20, "systemd knows")
    assert DEFINITIONS.exists()  # for the daemon, which still plays on the same devices
    assert AUDIOCONTROL.wait_restarted(old) == get_owner()
    assert DAEMON.pid == daemon


def test_a_hanging_service_is_killed_by_the_watchdog():
    old = AUDIOCONTROL.pid
    os.kill(old, signal.SIGSTOP)
    AUDIOCONTROL.wait_restarted(old, 120)
    assert "Watchdog timeout" in AUDIOCONTROL.read_log()


def test_without_the_service_the_daemon_plays_on():
    daemon = DAEMON.pid
    run("systemctl", "stop", AUDIOCONTROL.name)
    try:
        assert not DEFINITIONS.parent.exists()
        assert run("sonobrikctl", "outputs").splitlines()[1].split()[0] == "0"
        assert DAEMON.pid == daemon
    finally:
        run("systemctl", "start", AUDIOCONTROL.name)
    assert DEFINITIONS.exists()
