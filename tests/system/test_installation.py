"""The installed files are consistent and create the daemon's users and folders."""

import configparser
import os
import signal
import stat

import pytest
from sandbox import LEGACY, PLAYBACK, Sandbox, wait_until
from sandbox.bus import DRIVER
from sandbox.installation import find_id

SERVICES = (PLAYBACK[0], LEGACY[0])

FOLDERS = {
    "audioclips": ("root", "sonobrik-config", 0o2775),
    "dynamic": ("root", "root", 0o755),
    "dynamic/sonobrik": ("root", "root", 0o755),
    "dynamic/sonobrik/clip_data": ("sonobrik", "sonobrik", 0o755),
}


def read_keys(path, section):
    parser = configparser.ConfigParser(strict=False, interpolation=None)
    parser.optionxform = str
    parser.read(path)
    return parser[section]


@pytest.mark.parametrize("name", SERVICES)
def test_activation_starts_the_program_of_the_unit(installation, name):
    file = installation.find(f"usr/share/dbus-1/system-services/{name}.service")
    unit = read_keys(installation.unit, "Service")
    assert dict(read_keys(file, "D-BUS Service")) == {
        "Name": name, "Exec": unit["ExecStart"], "User": unit["User"],
        "SystemdService": installation.unit.name}
    assert unit["BusName"] == PLAYBACK[0]
    program = installation.folder / unit["ExecStart"].lstrip("/")
    assert os.access(program, os.X_OK)


@pytest.mark.parametrize("file", [
    "alsa/conf.d/sonobrik.conf", "vesk/access.conf", "vesk/parameters.conf"])
def test_the_configuration_is_world_readable(installation, file):
    assert stat.S_IMODE((installation.folder / "etc" / file).stat().st_mode) == 0o644


# Users and folders, created in a sandbox.


@pytest.fixture
def box(tmp_path, build_dir, cache):
    with Sandbox(tmp_path / "sandbox", build_dir, cache) as box:
        yield box


@pytest.mark.needs_root
def test_the_user_is_in_audio_and_the_groups_are_empty(box, installation):
    installation.make_users(box)
    groups = [line.split(":") for line in (box.etc / "group").read_text().splitlines()]
    members = {group[0]: group[3].split(",") for group in groups}
    assert "sonobrik" in members["audio"]
    assert members["sonobrik-play"] == members["sonobrik-config"] == [""]
    user, = [line.split(":") for line in (box.etc / "passwd").read_text().splitlines()
             if line.startswith("sonobrik:")]
    assert int(user[3]) == find_id(box, "group", "sonobrik")
    assert user[6].endswith("/nologin")


@pytest.mark.needs_root
def test_the_folders_are_created_and_corrected(box, installation):
    for folder in sorted(FOLDERS, reverse=True):
        os.rmdir(box.etc / folder)
    (box.etc / "audioclips").mkdir(mode=0o700)
    for _ in range(2):
        installation.make_users(box)
        for folder, (owner, group, mode) in FOLDERS.items():
            status = (box.etc / folder).stat()
            assert (status.st_uid, status.st_gid, stat.S_IMODE(status.st_mode)) == (
                find_id(box, "passwd", owner), find_id(box, "group", group), mode), folder


@pytest.mark.needs_root
def test_existing_clips_and_records_are_kept(box, installation):
    clip = box.etc / "audioclips/door.wav"
    record = box.etc / "dynamic/sonobrik/clip_data/M0.json"
    for file in (clip, record):
        file.write_text("x")
    installation.make_users(box)
    assert [file.read_text() for file in (clip, record)] == ["x", "x"]


@pytest.mark.needs_root
@pytest.mark.parametrize("name", SERVICES)
def test_a_call_to_a_name_starts_the_daemon(box, installation, name):
    """Uses the Exec= line, which is for buses without systemd. The bus runs as the daemon's user,
    because a bus in a sandbox cannot start programs as another user."""
    user = installation.make_users(box)
    installation.set_bus(box, services=True)
    box.bind(installation.folder / "usr/libexec", "/usr/libexec")
    (box.folder / "run/dbus").chmod(0o777)
    box.start_bus(**user.options)
    assert box.bus.get_owner(name) is None
    box.bus.call(name, PLAYBACK[1], "org.freedesktop.DBus.Peer", "Ping", timeout=60)
    pid, = box.bus.call(*DRIVER, "GetConnectionUnixProcessID", "(s)", name)
    try:
        assert os.readlink(f"/proc/{pid}/exe").endswith("/usr/libexec/sonobrik")
        for other in SERVICES:
            wait_until(lambda: box.bus.get_owner(other), 20, f"{other} has an owner")
            assert box.bus.call(*DRIVER, "GetConnectionUnixProcessID", "(s)", other) == (pid,)
    finally:
        os.kill(pid, signal.SIGTERM)
        wait_until(lambda: not box.bus.get_owner(name), 20, "the daemon has ended")
