"""The daemon with the platform library in tests/external_platform instead of the stock platform."""

import os
import pathlib
import subprocess

import pytest
from sandbox import LEGACY, PLAYBACK, BusError, Store, clips, wait_until
from sandbox.bus import DRIVER

ROOT = pathlib.Path(__file__).resolve().parents[2]


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
    """Builds the platform and the daemon as docs/platform.md describes, and returns the daemon's
    path in a sandbox. The build folder stays for the next run."""
    folder = build_dir / "external"
    configure(folder / "platform", ROOT / "tests/external_platform",
              f"--prefix={folder}/root", "--libdir=lib")
    run(["meson", "install", "-C", folder / "platform"])
    configure(folder / "daemon", ROOT, "-Dplatform=external", "-Dtests=disabled", "-Dwerror=true",
              PKG_CONFIG_PATH=f"{folder}/root/lib/pkgconfig")
    run(["meson", "compile", "-C", folder / "daemon", "sonobrik"])
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


def test_the_platform_refuses_a_caller(sandbox, device):
    path = sandbox.write_clip("a.wav", clips.noise(480)).path
    with pytest.raises(BusError) as error:
        sandbox.bus.call(*PLAYBACK, "SupportedFile", "(s)", path)
    assert (error.value.name, error.value.text) == (
        "org.freedesktop.DBus.Error.AccessDenied", "Operation not permitted")
    logged(sandbox, "<6>sonobrik: Failed to authorize: this device does not tell "
                    f"{sandbox.bus.unique_name} which files it supports")


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
