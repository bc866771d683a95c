"""Fixtures and options of the system tests."""

import os
import pathlib
import shutil
import signal
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests/support"))

from sandbox import (  # noqa: E402 (found by the path above)
    Cards, Installation, Player, Sandbox, SandboxError, Shell, Store, clips, has_several_users)
from sandbox.broker import Broker  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--build-dir", default=os.environ.get("SONOBRIK_BUILD_DIR", ROOT / "build"),
                     help="the build to test (default: $SONOBRIK_BUILD_DIR, or build)")
    parser.addoption("--full", action="store_true",
                     help="repeat some tests more often, and with more clips; takes minutes")


def pytest_configure(config):
    # Programs inherit an ignored SIGINT, which background jobs of a shell have, but tests send it.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    config.addinivalue_line("markers", "needs_root: runs programs as several users")
    config.addinivalue_line("markers", "alone: depends on exact timing, so no other test runs at "
                                       "the same time")


def pytest_runtest_setup(item):
    if item.get_closest_marker("needs_root") and not has_several_users():
        pytest.skip("needs root and the right to mount")


@pytest.fixture(scope="session")
def build_dir(pytestconfig):
    folder = pathlib.Path(pytestconfig.getoption("--build-dir")).resolve()
    if not (folder / "build.ninja").exists():
        pytest.exit(f"{folder} is not a build folder; name one with --build-dir", 4)
    return folder


@pytest.fixture(scope="session")
def full(pytestconfig):
    """True if tests that have a short and a full form run in full."""
    return pytestconfig.getoption("--full")


@pytest.fixture(scope="session")
def cache(tmp_path_factory):
    """The GStreamer registry that all sandboxes share, so that they start faster."""
    return tmp_path_factory.mktemp("cache")


@pytest.fixture(scope="session")
def installation(build_dir, tmp_path_factory):
    """The files that the build installs, in a folder."""
    tree = Installation(build_dir, tmp_path_factory.mktemp("installation"))
    if not tree.has_unit:
        pytest.skip("the build has no systemd, so it installs no user")
    return tree


@pytest.fixture
def sandbox(tmp_path, build_dir, cache):
    """A sandbox with a running bus."""
    try:
        box = Sandbox(tmp_path / "sandbox", build_dir, cache)
    except SandboxError as error:
        pytest.exit(str(error), 4)
    with box:
        box.start_bus()
        yield box
        if box.daemon:
            print("End of the daemon's log:",
                  *(line[:500] for line in box.daemon.lines[-100:]), sep="\n")


@pytest.fixture
def daemon(sandbox):
    """The daemon, running in `sandbox` with the default configuration."""
    return sandbox.start_daemon()


@pytest.fixture
def player(sandbox, daemon):
    """A client of the running daemon in `sandbox`, which also records its events."""
    return Player(sandbox.bus)


@pytest.fixture
def store(sandbox):
    """The clip store of a running daemon with the default configuration."""
    return Store(sandbox).start()


@pytest.fixture
def clip(sandbox):
    """A clip of 50 ms."""
    return sandbox.write_clip("a.wav", clips.noise(2400))


@pytest.fixture
def long(sandbox):
    """A clip of 10 s."""
    return sandbox.write_clip("long.wav", clips.noise(480000))


@pytest.fixture
def shell(sandbox):
    """The command-line client in `sandbox`."""
    return Shell(sandbox)


@pytest.fixture
def cards(sandbox):
    """Mocked sound cards in `sandbox`, for the audio control service."""
    if not shutil.which("umockdev-wrapper"):
        pytest.fail("not installed: umockdev (Debian packages: umockdev gir1.2-umockdev-1.0)")
    cards = Cards(sandbox)
    yield cards
    if cards.service:
        print("The log of the audio control service:", *cards.service.lines[-100:], sep="\n")
    cards.close()


@pytest.fixture
def song(sandbox, store):
    """A stored clip of 10 s."""
    clip = sandbox.write_clip("song.wav", clips.noise(480000))
    store.add_clip(clip.path, "Song")
    return clip


@pytest.fixture
def broker(sandbox):
    """An MQTT broker in `sandbox`."""
    return Broker(sandbox).start()


@pytest.fixture
def operator(broker):
    """A client of `broker` that may publish commands."""
    client = broker.connect()
    yield client
    client.close()


@pytest.fixture(scope="module")
def shared(tmp_path_factory, build_dir, cache):
    """A sandbox with a running daemon for all tests of a file that play nothing."""
    with Sandbox(tmp_path_factory.mktemp("shared") / "sandbox", build_dir, cache) as box:
        box.start_bus()
        box.start_daemon()
        yield box


@pytest.fixture(scope="module")
def asked(shared):
    """A client of the daemon in `shared`."""
    return Player(shared.bus)
