"""The installed unit of sonobrik-mqtt."""

import shutil
import subprocess

import pytest


@pytest.fixture
def unit(installation):
    return installation.find("**/systemd/system/sonobrik-mqtt.service")


@pytest.mark.skipif(not shutil.which("systemd-analyze"), reason="needs systemd-analyze")
def test_the_exposure_score_is_low(unit):
    """systemd's exposure level must be at most 1.9 of 10: the bridge needs the network."""
    analysis = subprocess.run(
        ["systemd-analyze", "security", "--offline=yes", "--threshold=19", "--no-pager", unit],
        check=False, capture_output=True, text=True)
    assert analysis.returncode == 0, analysis.stdout + analysis.stderr


def test_the_unit_starts_the_installed_program_as_the_installed_user(unit, installation):
    keys = dict(line.split("=", 1) for line in unit.read_text().splitlines()
                if "=" in line and not line.startswith("#"))
    assert (installation.folder / keys["ExecStart"].lstrip("/")).exists()
    users = installation.find("usr/lib/sysusers.d/sonobrik-mqtt.conf").read_text()
    assert f"u {keys['User']} - " in users
    assert f"m {keys['User']} sonobrik-play" in users


def test_the_shipped_configuration_names_no_broker(installation):
    text = installation.find("etc/vesk/mqtt.conf").read_text()
    lines = [line for line in text.splitlines() if line and not line.startswith("#")]
    assert lines == ["[broker]", "[node]", "[play]", "[homeassistant]"]
