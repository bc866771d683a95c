"""Tests of the installed package on a machine with a running systemd; scripts/fresh.py starts them.

They change the machine: they break its configuration, restart its bus and remove the package. They
run in the order of this file. A container cannot show everything: see CONTRIBUTING.md.
"""

import os
import pathlib
import pwd
import shutil
import signal
import subprocess
import sys
import time

import pytest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "support"))

from sandbox import Bus, Recording, clips, wait_until  # noqa: E402
from sandbox.bus import DRIVER  # noqa: E402

UNIT = "sonobrik.service"
NAME, PATH = "com.vesk.Sonobrik", "/com/vesk/Sonobrik"
CONTROL = "com.vesk.AudioControl"

# In one of the two folders that the daemon may write.
CARD = pathlib.Path("/var/cache/sonobrik/card")
ACCESS = pathlib.Path("/etc/vesk/access.conf")
CLIP = pathlib.Path("/etc/audioclips/machine.wav")
RECORDS = pathlib.Path("/etc/dynamic/sonobrik/clip_data")

# The packages: what is tested, and the last release.
PACKAGES = pathlib.Path("/root/packages")
PREVIOUS = pathlib.Path("/root/previous")


def run(*command, **options):
    return subprocess.run([str(word) for word in command], check=True, text=True,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, **options).stdout


def show(name):
    return run("systemctl", "show", "--value", "-p", name, UNIT).strip()


def get_pid():
    return int(show("MainPID"))


def is_active():
    return show("ActiveState") == "active"


def wait_restarted(old, seconds=60):
    """Waits for another process of the daemon, and returns its number."""
    wait_until(lambda: is_active() and get_pid() not in (0, old), seconds, "systemd restarts it")
    return get_pid()


def read_log():
    return run("journalctl", "-q", "-b", "--no-pager", "-u", UNIT)


def play():
    """Plays the clip and returns whether the whole clip is in what was played."""
    shutil.rmtree(CARD, ignore_errors=True)
    CARD.mkdir()
    shutil.chown(CARD, "sonobrik", "sonobrik")
    samples = clips.noise(48000)
    clips.write_wav(CLIP, samples)
    run("sonobrikctl", "play", "--wait", CLIP)
    return any(take.find(samples) >= 0 for take in Recording(CARD).takes)


@pytest.fixture(autouse=True)
def fresh_start(request):
    """Forgets earlier restarts, which make systemd wait longer."""
    if "package" not in request.keywords:
        run("systemctl", "reset-failed", UNIT)
        wait_until(is_active, 60, "the daemon runs")


def test_the_daemon_was_started_at_boot():
    assert show("NRestarts") == "0"
    assert show("UnitFileState") == "enabled"
    assert pwd.getpwuid(os.stat(f"/proc/{get_pid()}").st_uid).pw_name == "sonobrik"


def test_systemd_knows_every_line_of_the_unit():
    run("systemctl", "daemon-reload")  # what it logs at boot may not reach the journal
    lines = [line for line in run("journalctl", "-q", "-b", "--no-pager", "_PID=1").splitlines()
             if "sonobrik.service" in line and "ignoring" in line]
    assert lines == []


def test_a_clip_is_heard():
    assert play()


def test_the_sandbox_is_imposed():
    pid = get_pid()
    status = dict(line.split(":\t", 1) for line in
                  pathlib.Path(f"/proc/{pid}/status").read_text().splitlines() if ":\t" in line)
    assert status["NoNewPrivs"] == "1"
    assert status["Seccomp"] == "2"
    assert int(status["CapBnd"], 16) == 0

    view = pathlib.Path(f"/proc/{pid}/root")  # the file system as the daemon sees it
    mounts = [line.split() for line in
              pathlib.Path(f"/proc/{pid}/mountinfo").read_text().splitlines()]
    writable = {mount[4] for mount in mounts if "rw" in mount[5].split(",")}
    # The rest of /dev, /proc and /run is not covered by ProtectSystem=; file permissions protect it.
    writable = {path for path in writable if path.split("/")[1] not in ("dev", "proc", "run")}
    # systemd leaves the paths of ExecPaths= writable; see the unit.
    executable = {path for path in writable if path.startswith("/usr/")}
    assert executable <= {"/usr/lib", "/usr/lib32", "/usr/lib64", "/usr/libexec/sonobrik",
                          "/usr/local/lib"}
    assert writable - executable == {"/tmp", "/var/tmp", "/var/cache/sonobrik", str(RECORDS)}
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


def test_a_killed_daemon_is_restarted():
    old = get_pid()
    os.kill(old, signal.SIGKILL)
    wait_restarted(old)


def test_a_clean_stop_is_no_reason_to_restart():
    os.kill(get_pid(), signal.SIGTERM)
    wait_until(lambda: show("ActiveState") == "inactive", 20, "the daemon has stopped")
    time.sleep(3)  # longer than RestartSec=
    assert show("ActiveState") == "inactive"
    run("systemctl", "start", UNIT)


@pytest.mark.parametrize("name, path, interface", [
    (NAME, PATH, "org.freedesktop.DBus.Peer"),
    (f"{NAME}.Legacy", PATH, "org.freedesktop.DBus.Peer")])
def test_a_call_starts_the_daemon(name, path, interface):
    run("systemctl", "stop", UNIT)
    run("busctl", "call", name, path, interface, "Ping")
    assert is_active()


@pytest.fixture
def control():
    """A connection that owns the name of the audio control service."""
    policy = pathlib.Path("/etc/dbus-1/system.d/machine-test.conf")
    policy.write_text(f'<busconfig><policy user="root"><allow own="{CONTROL}"/></policy>'
                      '</busconfig>\n')
    bus = Bus("unix:path=/run/dbus/system_bus_socket")
    bus.call(*DRIVER, "ReloadConfig")
    bus.own_name(CONTROL)
    yield bus
    bus.close()
    policy.unlink()


def test_a_daemon_that_exits_with_75_is_restarted_each_time(control):
    for count in range(1, 6):
        old = get_pid()
        control.emit("/com/vesk/AudioControl", "org.freedesktop.DBus.ObjectManager",
                     "InterfacesAdded", "(oa{sa{sv}})", "/com/vesk/x", {})
        # systemd does not log this status, and forgets it when the daemon starts again.
        wait_until(lambda: show("ExecMainStatus") == "75", 20, "the daemon exits with 75")
        wait_restarted(old)
        assert show("NRestarts") == str(count)


def test_a_hanging_daemon_is_killed_by_the_watchdog():
    old = get_pid()
    os.kill(old, signal.SIGSTOP)
    wait_restarted(old, 180)
    assert "Watchdog timeout" in read_log()


def test_a_restart_of_the_bus_is_survived():
    old = get_pid()
    run("systemctl", "restart", "dbus.service")
    wait_restarted(old)
    assert play()


def test_a_broken_policy_slows_down_the_restarts():
    content = ACCESS.read_text()
    ACCESS.write_text("nonsense\n")
    try:
        os.kill(get_pid(), signal.SIGKILL)
        wait_until(lambda: int(show("NRestarts")) >= 5, 120, "five restarts")
        assert "access_policy_init failed" in read_log()
        times = [float(line.split()[0]) for line in run(
            "journalctl", "-q", "-b", "--no-pager", "-o", "short-unix", "-u", UNIT,
            "--grep", "Scheduled restart job").splitlines()[-5:]]
        assert times[-1] - times[-2] > times[1] - times[0] + 3
    finally:
        ACCESS.write_text(content)
    wait_until(is_active, 60, "the daemon runs again")


def test_a_card_is_a_device_that_the_unit_allows():
    assert "char-alsa rw" in show("DeviceAllow")
    assert show("DevicePolicy") == "closed"
    assert "modprobe@snd.service" in show("Wants").split()
    assert "modprobe@snd.service" in show("After").split()


def test_the_packages_own_test_passes():
    configuration = pathlib.Path("/etc/asound.conf").read_text()
    try:
        run(HERE.parents[1] / "debian/tests/play")
    finally:
        pathlib.Path("/etc/asound.conf").write_text(configuration)


# The package is removed, upgraded and purged.


def get_version(package):
    return run("dpkg-query", "-W", "-f", "${Version}", package)


@pytest.mark.package
def test_purging_leaves_the_clips_alone():
    (RECORDS / "M7.json").write_text("{}")
    play()
    run("dpkg", "--purge", "sonobrik-web", "sonobrik")
    assert CLIP.exists()
    for path in ("/etc/dynamic/sonobrik", "/var/cache/sonobrik", "/etc/vesk",
                 "/usr/libexec/sonobrik"):
        assert not os.path.exists(path), path
    assert run("systemctl", "list-unit-files", "--no-legend").find("sonobrik") < 0
    left = [str(path) for folder in ("/etc", "/usr", "/var/lib/systemd", "/run/systemd")
            for path in pathlib.Path(folder).rglob("*sonobrik*")]
    assert left == []


@pytest.mark.package
def test_an_upgrade_keeps_clips_and_records():
    run("dpkg", "-i", *PREVIOUS.glob("sonobrik_*.deb"))
    wait_until(is_active, 60, "the last release runs")
    old, version = get_pid(), get_version("sonobrik")
    run("sonobrikctl", "add", "--name", "Kept", CLIP)
    assert "sonobrik-play" not in ACCESS.read_text()
    # As apt does it: sonobrik-web cannot be installed beside the old version.
    run("dpkg", "--auto-deconfigure", "-i", *PACKAGES.glob("sonobrik*.deb"))
    assert get_version("sonobrik") != version
    assert "sonobrik-play" in ACCESS.read_text()  # nobody changed the file
    wait_restarted(old)
    assert run("sonobrikctl", "list", "--names") == "Kept\n"
    assert play()
    owner = os.stat("/etc/audioclips")
    assert (owner.st_uid, oct(owner.st_mode & 0o7777)) == (0, "0o2775")
    assert os.access("/usr/libexec/vesk-cgi/sonobrik.cgi", os.X_OK)


@pytest.mark.package
def test_a_failed_reload_of_the_bus_is_reported():
    old = get_pid()
    output = run("dpkg", "-i", *PACKAGES.glob("sonobrik_*.deb"), stderr=subprocess.STDOUT, env={
        **os.environ, "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nowhere"})
    assert "sonobrik: the message bus did not reload its policy" in output
    wait_restarted(old)


@pytest.mark.package
def test_removing_keeps_the_records():
    run("dpkg", "--remove", "sonobrik-web", "sonobrik")
    assert list(RECORDS.glob("*.json"))
    assert ACCESS.exists()
    run("dpkg", "-i", *PACKAGES.glob("sonobrik*.deb"))
    wait_until(is_active, 60, "the daemon runs")
    assert run("sonobrikctl", "list", "--names") == "Kept\n"
