"""Messages that nobody asked for, sent by a user without any right to each of the daemon's
connections."""

import concurrent.futures
import os

import pytest
from sandbox import BusError, Player, Sandbox, Store, wait_until
from sandbox.connections import PURPOSES, find_connections
from sandbox.controls import Controls
from sandbox.installation import allow_peer
from sandbox.strangers import STRANGER, send_largest, start_flood

pytestmark = pytest.mark.needs_root


def count_files(daemon):
    return len(os.listdir(f"/proc/{daemon.pid}/fd"))


def read_memory(daemon):
    """Returns the resident memory in MiB."""
    with open(f"/proc/{daemon.pid}/status", encoding="ascii") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("VmRSS:")) / 1024


@pytest.fixture(scope="module")
def counts(pytestconfig):
    """How many messages of each of the five kinds are sent: with descriptors, and large ones."""
    return (10000, 1000) if pytestconfig.getoption("--full") else (1000, 200)


@pytest.fixture(params=["shipped", "open"])
def box(request, tmp_path, build_dir, cache, installation):
    """A sandbox with the daemon and the controls. "shipped" is the installed bus policy; "open"
    allows everything, so all messages reach the daemon."""
    with Sandbox(tmp_path / "sandbox", build_dir, cache) as box:
        options = {}
        if request.param == "shipped":
            options = installation.make_users(box).options
            installation.set_bus(box, allow_peer("com.vesk.Onscreencontrols1"))
        else:
            box.set_access({"com.vesk.Sonobrik": {"users": "root"}})
        box.start_bus()
        box.controls = Controls(box)
        # Calls of the controls time out late, so that one test can keep the daemon waiting.
        box.daemon_options = options | {"env": {"SYSTEMD_BUS_TIMEOUT": "200"}}
        box.start_daemon(**box.daemon_options)
        box.write_clip("a.wav", [1000] * 4800)
        yield box


def measure(daemon):
    return count_files(daemon), read_memory(daemon)


def assert_flat(box, before):
    files, memory = before
    wait_until(lambda: count_files(box.daemon) <= files, 30, "the descriptors are closed")
    if not box.daemon.keeps_freed_memory:
        assert read_memory(box.daemon) < memory + 64
    store = Store(box)
    for _ in range(20):
        store.call("Sync")
    assert Player(box.bus).call("StopPlayingClip") == "OK"
    wait_until(lambda: count_files(box.daemon) <= files, 30, "the descriptors are closed")


@pytest.mark.parametrize("purpose", PURPOSES)
def test_a_stranger_leaves_nothing_in_the_daemon(box, counts, purpose):
    player = Player(box.bus)
    for _ in range(2):
        assert player.call("SupportedFile", "/etc/audioclips/a.wav") == "OK"
    before = measure(box.daemon)
    with concurrent.futures.ThreadPoolExecutor() as threads:
        run = start_flood(threads, box, find_connections(box)[purpose], counts)
        while not run.done():
            # Others are answered while the flood goes on: by the daemon or, while the queue of
            # messages to the daemon is full, by the bus.
            try:
                assert player.call("SupportedFile", "/etc/audioclips/a.wav", timeout=20) == "OK"
            except BusError as error:
                assert error.name == "org.freedesktop.DBus.Error.LimitsExceeded"
    assert int(run.result().stdout) == 5 * sum(counts)
    assert_flat(box, before)


OBJECTS = {"main": "/com/vesk/Sonobrik", "legacy": "/com/vesk/Sonobrik",
           "events": "/com/vesk/Events1/SonoBrikEvents/1"}


def test_calls_of_the_largest_size_do_not_end_the_daemon(box):
    names = find_connections(box)
    objects = [(names[purpose], path) for purpose, path in OBJECTS.items()]
    objects.append((names["main"], "/org/freedesktop/LogControl1"))
    assert send_largest(box, objects) == ["Error.UnknownInterface"] * len(objects)
    assert Player(box.bus).call("StopPlayingClip") == "OK"
    assert find_connections(box) == names


def test_a_stranger_leaves_nothing_while_the_controls_are_slow(box):
    player = Player(box.bus)
    assert player.call("SupportedFile", "/etc/audioclips/a.wav") == "OK"
    before = measure(box.daemon)
    box.controls.hold()
    connections = find_connections(box)
    sync = Store(box).send("Sync")
    box.controls.wait_asked()
    with concurrent.futures.ThreadPoolExecutor(len(connections)) as threads:
        runs = {purpose: start_flood(threads, box, name, (100, 20), 170)
                for purpose, name in connections.items()}
        highest = []

        def is_read():
            highest.append(count_files(box.daemon))
            return runs["controls"].done()

        # The daemon reads only this connection now. The bus stops whoever floods another one.
        wait_until(is_read, 150, "everything is sent to the controls' connection")
        assert not sync.done
        box.controls.release()
        assert sync.wait() == ()
        wait_until(lambda: all(run.done() for run in runs.values()), 150, "everything is sent")
    for run in runs.values():
        run.result()
    # One message that is being read holds up to 16 descriptors, and the warm-up has a few.
    assert max(highest) <= before[0] + 24
    assert_flat(box, before)


def test_a_caller_is_identified_while_the_events_are_flooded(box, counts):
    """Under the open policy, the flood reaches the daemon; the caller is new each time."""
    events = find_connections(box)["events"]
    with concurrent.futures.ThreadPoolExecutor() as threads:
        run = start_flood(threads, box, events, counts)
        while not run.done():
            caller = Player(box.connect())
            assert caller.call("StopPlayingClip", timeout=4) == "OK"
            caller.bus.close()
        run.result()


# Floods each connection from the moment at which it gets its unique name, until it is killed.
GREETER = """
from gi.repository import Gio, GLib
flags = (Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
         | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION)
bus = Gio.DBusConnection.new_for_address_sync("unix:path=/run/dbus/system_bus_socket", flags)

def greet(_connection, _sender, _path, _interface, _member, args):
    name, old, new = args.unpack()
    if not name.startswith(":") or not new:
        return
    for number in range(200):
        message = Gio.DBusMessage.new_signal("/com/vesk/Sonobrik", "com.vesk.Test", "Signal")
        message.set_destination(name)
        files = Gio.UnixFDList()
        message.set_unix_fd_list(files)
        message.set_body(GLib.Variant("(ah)", ([files.append(0) for _ in range(16)],)))
        bus.send_message(message, Gio.DBusSendMessageFlags.NONE)

bus.signal_subscribe("org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", None, None,
                     0, greet)
bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
              None, None, 0, 20000)
open("/tmp/greeting", "w").close()
GLib.MainLoop().run()
"""


def test_a_stranger_does_not_hinder_the_start(box):
    files = count_files(box.daemon)
    options = box.daemon_options
    assert box.daemon.stop() == 0
    greeter = box.spawn(["/usr/bin/python3", "-c", GREETER], **STRANGER.options)
    wait_until(lambda: (box.folder / "tmp/greeting").exists(), 20, "the stranger is listening")
    for _ in range(10):
        daemon = box.start_daemon(**options)
        wait_until(lambda: count_files(daemon) <= files, 20, "the descriptors are closed")
        assert Player(box.bus).call("StopPlayingClip") == "OK"
        assert greeter.is_running
        assert daemon.stop() == 0
