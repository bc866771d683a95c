"""The daemon with the platform library in tests/external_platform instead of the stock platform."""

import os
import pathlib
import re
import shutil
import subprocess

import pytest
from sandbox import LEGACY, PLAYBACK, BusError, Store, clips, wait_until
from sandbox.bus import DRIVER

ROOT = pathlib.Path(__file__).resolve().parents[2]

NOBODY = 65534

# The platform allows nobody but root.
pytestmark = pytest.mark.needs_root


def run(command, **env):
    result = subprocess.run([str(word) for word in command], env=os.environ | env, text=True,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, timeout=600, check=False)
    assert result.returncode == 0, f"{command}:\n{result.stdout}"


def configure(folder, source, *options, **env):
    """Sets up a build folder, or updates it if an earlier run left it."""
    again = ["--reconfigure"] if (folder / "build.ninja").exists() else []
    run(["meson", "setup", *again, folder, source, "--buildtype=debug", *options], **env)


@pytest.fixture(scope="module")
def external(build_dir):
    """Installs the headers, builds the platform with them, and then the daemon with the platform, as
    docs/platform.md describes. Returns the daemon's path in a sandbox. The build folder stays for
    the next run."""
    folder = build_dir / "external"
    root = folder / "root"
    shutil.rmtree(root, ignore_errors=True)
    configure(folder / "headers", ROOT, "-Dplatform=headers", f"--prefix={root}", "--libdir=lib")
    run(["meson", "install", "-C", folder / "headers"])
    # A copy outside of the source tree cannot use the tree's headers by accident.
    shutil.rmtree(folder / "source", ignore_errors=True)
    shutil.copytree(ROOT / "tests/external_platform", folder / "source")
    configure(folder / "platform", folder / "source", f"--prefix={root}", "--libdir=lib",
              PKG_CONFIG_PATH=f"{root}/share/pkgconfig")
    run(["meson", "install", "-C", folder / "platform"])
    configure(folder / "daemon", ROOT, "-Dplatform=external", "-Dtests=disabled", "-Dwerror=true",
              PKG_CONFIG_PATH=f"{root}/lib/pkgconfig:{root}/share/pkgconfig")
    run(["ninja", "-C", folder / "daemon"])
    return "/run/build/external/daemon/src/sonobrik"


@pytest.fixture
def device(sandbox, external):
    """The clip store of that daemon, in a sandbox without the files of the stock platform."""
    sandbox.set_access(None)
    sandbox.set_parameters(None)
    return Store(sandbox).start(program=external)


def logged(sandbox, text):
    """Waits for a log line, which this platform writes as "<LEVEL>sonobrik: TEXT"."""
    wait_until(lambda: text in sandbox.daemon.lines, what=f"the log has {text}")


def test_a_clip_plays_and_the_events_reach_the_platform(sandbox, device):
    clip = sandbox.write_clip("a.wav", clips.noise(2400))
    assert sandbox.bus.call(*PLAYBACK, "PlayClip", "(s)", clip.location) == ("OK",)
    take, = sandbox.card(0).takes
    assert take.find(clip.samples) >= 0
    keys = "AudioDeviceId=0 AudioOutput=1 AudioOutputId=0"
    playing = f"<5>sonobrik: event {keys} Playing=%d topic0=SonoBrik topic1=Playing"
    for line in (playing % 1, playing % 0, f"<5>sonobrik: event {keys} FileName={clip.path} "
                                           "topic0=SonoBrik topic1=CurrentlyPlaying"):
        logged(sandbox, line)
    # The daemon uses nothing of the stock platform.
    assert sandbox.bus.get_owner("com.vesk.Events1.SonoBrikEvents") is None
    assert not any(line.startswith("sonobrik[") for line in sandbox.daemon.lines)


def test_the_platform_allows_nobody_but_root(sandbox, device):
    path = sandbox.write_clip("a.wav", clips.noise(480)).path
    assert sandbox.bus.call(*PLAYBACK, "SupportedFile", "(s)", path) == ("OK",)
    result = sandbox.run(["busctl", "--system", "call", *PLAYBACK, "SupportedFile", "s", path],
                         uid=NOBODY, check=False)
    assert "Access denied" in result.stderr
    refusal = re.compile(r"<6>sonobrik: Failed to authorize: :1\.\d+: this user is not allowed to "
                         r"call the audio clip service")
    wait_until(lambda: any(map(refusal.fullmatch, sandbox.daemon.lines)), what="the refusal is logged")


def test_without_the_optional_operations_the_log_has_no_object(sandbox, device):
    with pytest.raises(BusError) as error:
        sandbox.bus.call("com.vesk.Sonobrik", "/org/freedesktop/LogControl1",
                         "org.freedesktop.DBus.Properties", "GetAll", "(s)",
                         "org.freedesktop.LogControl1")
    assert error.value.name == "org.freedesktop.DBus.Error.UnknownObject"


def test_a_library_of_another_version_is_refused(external, build_dir):
    folder = build_dir / "external"
    library = folder / "root/lib/pkgconfig/vesk-platform.pc"
    other = folder / "other"
    shutil.rmtree(other, ignore_errors=True)
    other.mkdir()
    (other / library.name).write_text(
        library.read_text().replace("seam_version=1", "seam_version=0"))
    result = subprocess.run(
        ["meson", "setup", other / "build", ROOT, "-Dplatform=external", "-Dtests=disabled"],
        env=os.environ | {"PKG_CONFIG_PATH": f"{other}:{folder}/root/share/pkgconfig"}, text=True,
        capture_output=True, timeout=600, check=False)
    assert result.returncode != 0
    assert ('"vesk-platform" implements version 0 of the platform interface; this daemon needs '
            'version 1') in result.stdout


def test_a_parameter_of_the_platform_bounds_the_store(sandbox, device):
    assert [device.add_clip(f"/etc/audioclips/{name}.wav", name) for name in "ab"] == [0, 1]
    device.refuse_clip("/etc/audioclips/c.wav", "c")
    logged(sandbox, "<5>sonobrik: SonoBrik added /com/vesk/Sonobrik/1 "
                    "Location=/etc/audioclips/b.wav Name=b Type=audio")
    # The platform wrote the record files and left no temporary ones.
    assert sorted(device.list()) == ["M0.json", "M1.json"]
    assert device.call("GetConfigurationEntry", "(is)", 1, "Name") == ("Name", "b")


def test_the_daemon_exits_as_on_the_stock_platform(sandbox, device):
    for name in (PLAYBACK[0], LEGACY[0]):
        assert sandbox.bus.call(*DRIVER, "GetConnectionUnixProcessID", "(s)", name) == (
            sandbox.daemon.pid,)
    assert sandbox.daemon.stop() == 0


def test_the_daemon_for_a_device_installs_nothing_of_the_stock_platform(external, build_dir,
                                                                        tmp_path):
    run(["meson", "install", "-C", build_dir / "external/daemon", "--no-rebuild", "--destdir",
         tmp_path])
    files = {path.name for path in tmp_path.rglob("*")}
    assert {"sonobrik", "sonobrikctl", "sonobrik.8", "com.vesk.Sonobrik.xml"} <= files
    # The MQTT bridge is a client of the daemon, whatever the platform.
    assert {path.name for path in (tmp_path / "etc").rglob("*") if path.is_file()} <= {"mqtt.conf"}
    # A package of the headers contains these; two packages cannot contain the same file.
    assert not files & {"include", "vesk-platform-seam.pc"}
    assert not files & {"vesk-access.conf.5", "vesk-parameters.conf.5",
                        "com.vesk.Events1.Event.xml", "com.vesk.ConfigurationChanges1.xml"}
