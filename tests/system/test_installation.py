"""The installed files are consistent and create the daemon's users and folders."""

import configparser
import contextlib
import os
import pathlib
import re
import shutil
import signal
import stat
import subprocess

import pytest
from sandbox import LEGACY, PLAYBACK, Sandbox, wait_until
from sandbox.bus import DRIVER
from sandbox.installation import find_id

ROOT = pathlib.Path(__file__).resolve().parents[2]

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
    "alsa/conf.d/sonobrik.conf", "vesk/access.conf", "vesk/audio-control.conf",
    "vesk/parameters.conf"])
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
    assert members["sonobrik-config"] == [""]
    # Of the programs, only the MQTT bridge plays on its own.
    assert members["sonobrik-play"] in (["sonobrik-mqtt"], [""])
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
@pytest.mark.parametrize("owner", [0, 4242])
def test_the_folder_of_other_services_keeps_its_owner_and_mode(box, installation, owner):
    shared = box.etc / "dynamic"
    os.chown(shared, owner, 4343)
    shared.chmod(0o2770)
    # systemd-tmpfiles creates nothing in a folder of another user than root, and fails.
    with pytest.raises(subprocess.CalledProcessError) if owner else contextlib.nullcontext():
        installation.make_users(box)
    status = shared.stat()
    assert (status.st_uid, status.st_gid, stat.S_IMODE(status.st_mode)) == (owner, 4343, 0o2770)


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


# Builds for a device, with options of `meson setup`.

SEAM = {"usr/share/pkgconfig/vesk-platform-seam.pc",
        *(f"usr/include/vesk-platform/platform/{name}.h" for name in (
            "access_policy", "audio_devices", "change_notifier", "event_service", "log_redirect",
            "param", "util", "version"))}
DAEMON = {"usr/libexec/sonobrik", "usr/share/dbus-1/system.d/com.vesk.Sonobrik.conf",
          *(f"usr/share/dbus-1/system-services/{name}.service" for name in SERVICES),
          "usr/share/dbus-1/interfaces/com.vesk.Sonobrik.xml",
          "usr/share/dbus-1/interfaces/com.vesk.Configuration.Legacy.xml"}
# The files of the stock platform, except for its manual pages.
STOCK = {"etc/alsa/conf.d/sonobrik.conf", "etc/vesk/access.conf", "etc/vesk/parameters.conf",
         "usr/share/dbus-1/interfaces/com.vesk.ConfigurationChanges1.xml",
         "usr/share/dbus-1/interfaces/com.vesk.Events1.Event.xml",
         "usr/share/dbus-1/interfaces/com.vesk.Events1.Time.xml"}
STOCK_PAGES = {f"usr/share/man/man5/vesk-{name}.conf.5" for name in ("access", "parameters")}
EXAMPLES = {f"usr/share/doc/sonobrik/examples/{server}/sonobrik.conf"
            for server in ("lighttpd", "nginx")}
# The audio control service, which is a part of the stock platform.
SERVICE_PAGES = {"usr/share/man/man5/vesk-audio-control.conf.5",
                 "usr/share/man/man8/sonobrik-audiocontrol.8"}
SERVICE_UNIT = {"usr/lib/systemd/system/sonobrik-audiocontrol.service",
                "usr/lib/sysusers.d/sonobrik-audiocontrol.conf"}
SERVICE = {"etc/vesk/audio-control.conf", "usr/libexec/sonobrik-audiocontrol",
           "usr/share/dbus-1/interfaces/com.vesk.AudioControl.Device.xml",
           "usr/share/dbus-1/interfaces/com.vesk.AudioControl.Outputs.xml",
           "usr/share/dbus-1/system.d/com.vesk.AudioControl.conf",
           "usr/share/sonobrik/alsa.conf"} | SERVICE_PAGES | SERVICE_UNIT
COMPLETION = {"usr/share/bash-completion/completions/sonobrikctl",
              "usr/share/fish/vendor_completions.d/sonobrikctl.fish",
              "usr/share/zsh/vendor-completions/_sonobrikctl"}
CLI_PAGE = {"usr/share/man/man1/sonobrikctl.1"}
MQTT_UNIT = {"usr/lib/systemd/system/sonobrik-mqtt.service", "usr/lib/sysusers.d/sonobrik-mqtt.conf"}
MQTT_PAGES = {"usr/share/man/man5/vesk-mqtt.conf.5", "usr/share/man/man8/sonobrik-mqtt.8"}
WITHOUT = {
    "audiocontrol": SERVICE,
    "cli": {"usr/bin/sonobrikctl"} | CLI_PAGE | COMPLETION,
    "cgi": {"usr/libexec/vesk-cgi/sonobrik.cgi"} | EXAMPLES,
    "completion": COMPLETION,
    "examples": EXAMPLES,
    "man": {"usr/share/man/man8/sonobrik.8"} | CLI_PAGE | STOCK_PAGES | SERVICE_PAGES | MQTT_PAGES,
    "mqtt": {"usr/libexec/sonobrik-mqtt", "etc/vesk/mqtt.conf"} | MQTT_UNIT | MQTT_PAGES,
    "systemd": {"usr/lib/systemd/system/sonobrik.service", "usr/lib/sysusers.d/sonobrik.conf",
                "usr/lib/tmpfiles.d/sonobrik.conf"} | SERVICE_UNIT | MQTT_UNIT,
}
ALL = SEAM | DAEMON | STOCK | set().union(*WITHOUT.values())

DEFAULTS = {"platform": "linux", "user": "sonobrik", "play_group": "sonobrik-play",
            "config_group": "sonobrik-config", "sysconfdir": "/etc", "systemd": "enabled",
            **dict.fromkeys(("audiocontrol", "cli", "cgi", "completion", "examples", "man", "mqtt"),
                            "auto")}


class Device:
    """Builds with options, in a folder that stays for the next run."""

    def __init__(self, build_dir, folder):
        self.build = build_dir / "options"
        self._folder = folder
        again = ["--reconfigure"] if (self.build / "build.ninja").exists() else []
        self.setup = self._run("meson", "setup", *again, self.build, ROOT,
                               "--buildtype=debug", "-Dtests=disabled", "-Dwerror=true")

    def _run(self, *command):
        result = subprocess.run([str(word) for word in command], text=True, timeout=600,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, check=False)
        assert result.returncode == 0, f"{command}:\n{result.stdout}"
        return result.stdout

    def install(self, **options):
        """Builds with these options and installs the result into an empty folder."""
        settings = DEFAULTS | options
        self._run("meson", "configure", self.build,
                  *(f"-D{name}={value}" for name, value in settings.items()))
        self._run("ninja", "-C", self.build)
        shutil.rmtree(self._folder, ignore_errors=True)
        self._run("meson", "install", "-C", self.build, "--no-rebuild", "--destdir", self._folder)
        return self._folder


def list_files(folder):
    files = {str(path.relative_to(folder)) for path in folder.rglob("*") if not path.is_dir()}
    # Debian 12 has the unit's folder in /lib, which is a link to /usr/lib.
    return {f"usr/{file}" if file.startswith("lib/") else file for file in files}


@pytest.fixture(scope="module")
def device(build_dir, tmp_path_factory):
    return Device(build_dir, tmp_path_factory.mktemp("device") / "root")


def test_a_build_installs_these_files(device):
    assert list_files(device.install()) == ALL


@pytest.mark.parametrize("option", WITHOUT)
def test_an_option_leaves_out_its_files_and_no_others(device, option):
    assert list_files(device.install(**{option: "disabled"})) == ALL - WITHOUT[option]


def test_the_smallest_build_installs_the_daemon_alone(device):
    options = dict.fromkeys(WITHOUT, "disabled")
    assert list_files(device.install(**options)) == SEAM | DAEMON | STOCK


def test_a_build_without_tests_builds_no_plugins_for_tests(device):
    device.install()
    names = [path.name for path in device.build.rglob("*.so")]
    assert names == []


def test_elogind_replaces_a_missing_libsystemd(tmp_path):
    """Hides the library's file from pkg-config, and offers a copy of it as elogind's."""
    folders = subprocess.run(["pkg-config", "--variable=pc_path", "pkg-config"], text=True,
                             capture_output=True, check=True).stdout.strip().split(":")
    known = tmp_path / "pkgconfig"
    known.mkdir()
    for file in (file for folder in reversed(folders) for file in pathlib.Path(folder).glob("*.pc")):
        name = "libelogind.pc" if file.name == "libsystemd.pc" else file.name
        (known / name).unlink(missing_ok=True)
        (known / name).symlink_to(file)
    result = subprocess.run(
        ["meson", "setup", tmp_path / "build", ROOT, "-Dtests=disabled", "-Dsystemd=disabled"],
        env=os.environ | {"PKG_CONFIG_LIBDIR": str(known)}, text=True, capture_output=True,
        timeout=600, check=False)
    assert result.returncode == 0, result.stdout
    assert "libsystemd found: NO" in result.stdout
    assert "libelogind found: YES" in result.stdout


def test_the_build_needs_no_newer_meson_than_it_says(device):
    # Meson knows the version that introduced each of its features.
    assert "uses feature introduced in" not in device.setup


def test_the_guide_names_the_versions_that_the_build_requires():
    build = (ROOT / "meson.build").read_text()
    required = dict(re.findall(r"dependency\('([a-z0-9.-]+)'.*version: '>= ([0-9.]+)'", build))
    required["meson"], = re.findall(r"meson_version: '>= ([0-9.]+)'", build)
    rows = (ROOT / "docs/firmware.md").read_text().splitlines()
    for library, name in (("meson", "Meson"), ("glib-2.0", "GLib"), ("jansson", "Jansson"),
                          ("gstreamer-1.0", "GStreamer"), ("libsystemd", "libsystemd")):
        assert any(row.startswith(f"| {name} | {required[library]} |") for row in rows), library


def test_the_headers_alone(device):
    assert list_files(device.install(platform="headers")) == SEAM


def test_the_files_use_the_configured_names(device):
    folder = device.install(user="ringer", play_group="players", config_group="editors",
                            sysconfdir="/etc/firm")
    texts = {path: path.read_text() for path in folder.rglob("*")
             if path.suffix in (".conf", ".service") and not path.is_dir()}
    assert len(texts) >= 9
    for path, text in texts.items():
        for name in ("sonobrik-play", "sonobrik-config", "User=sonobrik", 'user="sonobrik"',
                     '"/etc/vesk'):
            assert name not in text, path
    policy = folder / "etc/firm/vesk/access.conf"
    assert dict(read_keys(policy, "com.vesk.Sonobrik")) == {
        "users": "root", "groups": "players;editors"}
    assert dict(read_keys(policy, "com.vesk.Sonobrik.AddClip")) == {
        "users": "root", "groups": "editors"}
    unit, = folder.glob("**/systemd/system/sonobrik.service")
    assert read_keys(unit, "Service")["User"] == "ringer"
    for name in SERVICES:
        file = folder / f"usr/share/dbus-1/system-services/{name}.service"
        assert read_keys(file, "D-BUS Service")["User"] == "ringer"
    unit, = folder.glob("**/systemd/system/sonobrik-audiocontrol.service")
    assert read_keys(unit, "Service")["User"] == "ringer-audiocontrol"
    bus = texts[folder / "usr/share/dbus-1/system.d/com.vesk.AudioControl.conf"]
    assert '<policy user="ringer-audiocontrol">' in bus
    bus = texts[folder / "usr/share/dbus-1/system.d/com.vesk.Sonobrik.conf"]
    assert '<policy user="ringer">' in bus
    assert '<policy group="players">' in bus
    assert '<policy group="editors">' in bus
    users = texts[folder / "usr/lib/sysusers.d/sonobrik.conf"].splitlines()
    assert [line for line in users if not line.startswith("#")] == [
        'u ringer - "Audio clip service"', "m ringer audio", "g players -", "g editors -"]


def test_the_programs_read_the_configured_folder(device):
    folder = device.install(sysconfdir="/etc/firm")
    for program, names in (("usr/libexec/sonobrik", ("access", "parameters")),
                           ("usr/bin/sonobrikctl", ("access",)),
                           ("usr/libexec/vesk-cgi/sonobrik.cgi", ("access",)),
                           ("usr/libexec/sonobrik-mqtt", ("mqtt",))):
        content = (folder / program).read_bytes()
        for name in names:
            # The linker may store the path as the end of a longer text.
            assert f"/etc/firm/vesk/{name}.conf\0".encode() in content
            assert f"/etc/vesk/{name}.conf\0".encode() not in content
