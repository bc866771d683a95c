"""What every system test is given."""

import os
import pathlib
import signal
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests/support"))

from sandbox import (  # noqa: E402 (found by the path above)
    Installation, Player, Sandbox, SandboxError, Shell, Store, has_several_users)


def pytest_addoption(parser):
    parser.addoption("--build-dir", default=os.environ.get("SONOBRIK_BUILD_DIR", ROOT / "build"),
                     help="the build that is tested (SONOBRIK_BUILD_DIR, or build)")


def pytest_configure(config):
    # A shell that runs the tests in the background has this ignored, and so would what they start.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    config.addinivalue_line("markers", "needs_root: runs programs as several users")
    config.addinivalue_line("markers", "alone: hears what a busy machine spoils, so nothing else is "
                                       "run beside it")


def pytest_runtest_setup(item):
    if item.get_closest_marker("needs_root") and not has_several_users():
        pytest.skip("needs root, and its right to mount")


@pytest.fixture(scope="session")
def build_dir(pytestconfig):
    folder = pathlib.Path(pytestconfig.getoption("--build-dir")).resolve()
    if not (folder / "build.ninja").exists():
        pytest.exit(f"{folder} is no build of this tree; name one with --build-dir", 4)
    return folder


@pytest.fixture(scope="session")
def cache(tmp_path_factory):
    """What sandboxes share to start faster."""
    return tmp_path_factory.mktemp("cache")


@pytest.fixture(scope="session")
def installation(build_dir, tmp_path_factory):
    """What is installed of the build."""
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
            print("The end of the daemon's log:",
                  *(line[:500] for line in box.daemon.lines[-100:]), sep="\n")


@pytest.fixture
def daemon(sandbox):
    """The running daemon in `sandbox`, with its defaults."""
    return sandbox.start_daemon()


@pytest.fixture
def player(sandbox, daemon):
    """The running daemon in `sandbox` as a caller and listener sees it."""
    return Player(sandbox.bus)


@pytest.fixture
def store(sandbox):
    """The clips of a running daemon with its defaults."""
    return Store(sandbox).start()


@pytest.fixture
def shell(sandbox):
    """The command-line client in `sandbox`."""
    return Shell(sandbox)


@pytest.fixture(scope="module")
def shared(tmp_path_factory, build_dir, cache):
    """A sandbox whose running daemon serves all of a file's tests that play nothing in it."""
    with Sandbox(tmp_path_factory.mktemp("shared") / "sandbox", build_dir, cache) as box:
        box.start_bus()
        box.start_daemon()
        yield box


@pytest.fixture(scope="module")
def asked(shared):
    """The daemon of `shared` as a caller sees it."""
    return Player(shared.bus)
