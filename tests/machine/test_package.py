"""The packages are purged, installed, upgraded and removed."""

import os
import pathlib
import subprocess

import pytest
from machine import (
    ACCESS, AUDIOCONTROL, BRIDGE, CLIP, DAEMON, RECORDS, play, prepare_clip, run, wait_until)

pytestmark = pytest.mark.package

# What is tested, and the last release.
PACKAGES = pathlib.Path("/root/packages")
PREVIOUS = pathlib.Path("/root/previous")

USER = "clerk"


def get_version(package):
    return run("dpkg-query", "-W", "-f", "${Version}", package)


def purge():
    """Does as the README says."""
    run("apt-get", "-q", "-y", "purge", "sonobrik",
        env={**os.environ, "DEBIAN_FRONTEND": "noninteractive"})


def start_bridge():
    """Starts the MQTT bridge. It runs without reaching its broker."""
    pathlib.Path("/etc/vesk/mqtt.conf").write_text("[broker]\nhost=127.0.0.1\ntls=no\n")
    run("systemctl", "start", BRIDGE.name)


def test_purging_leaves_the_clips_alone():
    (RECORDS / "M7.json").write_text("{}")
    assert play()
    start_bridge()
    for unit in (DAEMON, AUDIOCONTROL, BRIDGE):
        assert unit.is_active()
    purge()
    assert CLIP.exists()
    for path in ("/etc/dynamic/sonobrik", "/var/cache/sonobrik", "/etc/vesk",
                 "/usr/libexec/sonobrik"):
        assert not os.path.exists(path), path
    for unit in (DAEMON, AUDIOCONTROL, BRIDGE):
        assert not unit.is_active()
    assert run("systemctl", "list-unit-files", "--no-legend").find("sonobrik") < 0
    left = [str(path) for folder in ("/etc", "/usr", "/var/lib", "/run")
            for path in pathlib.Path(folder).rglob("*sonobrik*")]
    assert left == []


def test_a_first_installation_says_how_to_allow_somebody_to_play():
    output = run("apt-get", "-q", "-y", "install", *PACKAGES.glob("sonobrik_*.deb"),
                 env={**os.environ, "DEBIAN_FRONTEND": "noninteractive"})
    assert 'run "adduser NAME sonobrik-config"' in " ".join(output.split())
    wait_until(DAEMON.is_active, 60, "the daemon runs")
    run("useradd", USER)
    prepare_clip()
    refused = subprocess.run(["runuser", "-u", USER, "--", "sonobrikctl", "play", CLIP],
                             check=False, capture_output=True, text=True)
    assert refused.returncode != 0
    assert "permission denied" in refused.stderr
    run("adduser", USER, "sonobrik-config")
    assert play("runuser", "-u", USER, "--")
    purge()


def test_an_upgrade_keeps_clips_and_records():
    run("dpkg", "-i", *PREVIOUS.glob("sonobrik_*.deb"))
    wait_until(DAEMON.is_active, 60, "the last release runs")
    old, version = DAEMON.pid, get_version("sonobrik")
    run("sonobrikctl", "add", "--name", "Kept", CLIP)
    assert "sonobrik-play" not in ACCESS.read_text()
    # As apt does it: sonobrik-web cannot be installed beside the old version.
    output = run("dpkg", "--auto-deconfigure", "-i", *PACKAGES.glob("sonobrik*.deb"))
    assert "adduser NAME" not in output
    assert get_version("sonobrik") != version
    assert "sonobrik-play" in ACCESS.read_text()  # nobody changed the file
    DAEMON.wait_restarted(old)
    assert AUDIOCONTROL.is_active()
    assert run("sonobrikctl", "list", "--names") == "Kept\n"
    assert play()
    owner = os.stat("/etc/audioclips")
    assert (owner.st_uid, oct(owner.st_mode & 0o7777)) == (0, "0o2775")
    assert os.access("/usr/libexec/vesk-cgi/sonobrik.cgi", os.X_OK)


def test_the_examples_can_be_copied_as_they_are():
    examples = pathlib.Path("/usr/share/doc/sonobrik/examples")
    assert {str(path.relative_to(examples)) for path in examples.rglob("*.*")} == {
        "lighttpd/sonobrik.conf", "nginx/sonobrik.conf"}


def test_a_failed_reload_of_the_bus_is_reported():
    old = DAEMON.pid
    output = run("dpkg", "-i", *PACKAGES.glob("sonobrik_*.deb"), stderr=subprocess.STDOUT, env={
        **os.environ, "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nowhere"})
    assert "sonobrik: the message bus did not reload its policy" in output
    DAEMON.wait_restarted(old)


def test_an_upgrade_restarts_the_bridge_if_it_runs():
    package = next(PACKAGES.glob("sonobrik-mqtt_*.deb"))
    run("dpkg", "-i", package)
    assert BRIDGE.show("ActiveState") == "inactive"
    start_bridge()
    old = BRIDGE.pid
    run("dpkg", "-i", package)
    BRIDGE.wait_restarted(old)


def test_removing_stops_the_services_and_keeps_the_records():
    run("dpkg", "--remove", "sonobrik-mqtt", "sonobrik-web", "sonobrik")
    for unit in (DAEMON, AUDIOCONTROL, BRIDGE):
        assert not unit.is_active()
    assert list(RECORDS.glob("*.json"))
    assert ACCESS.exists()
    run("dpkg", "-i", *PACKAGES.glob("sonobrik*.deb"))
    wait_until(DAEMON.is_active, 60, "the daemon runs")
    assert run("sonobrikctl", "list", "--names") == "Kept\n"
