"""org.freedesktop.LogControl1: the level and the target of the daemon's log."""

import pytest
from gi.repository import GLib
from sandbox import LEGACY, BusError, Sandbox, wait_until
from sandbox.installation import User, find_id

SERVICE = "com.vesk.Sonobrik"
PATH = "/org/freedesktop/LogControl1"
INTERFACE = "org.freedesktop.LogControl1"
PROPERTIES = "org.freedesktop.DBus.Properties"

LEVELS = ("emerg", "alert", "crit", "err", "warning", "notice", "info", "debug")

AT_START = {"LogLevel": "debug", "LogTarget": "syslog", "SyslogIdentifier": "sonobrik"}

ERROR = "org.freedesktop.DBus.Error."


def change(bus, name, text):
    bus.call(SERVICE, PATH, PROPERTIES, "Set", "(ssv)", INTERFACE, name, GLib.Variant("s", text))


def read_all(bus):
    return bus.call(SERVICE, PATH, PROPERTIES, "GetAll", "(s)", INTERFACE)[0]


def refuse(bus, name, value):
    """Tries to set a property, which must fail, and returns the error's name and text."""
    with pytest.raises(BusError) as error:
        bus.call(SERVICE, PATH, PROPERTIES, "Set", "(ssv)", INTERFACE, name, value)
    return error.value.name.removeprefix(ERROR), error.value.text


def log_both(player, mark):
    """Makes the daemon log a line at level info and one at level warning, which contain `mark`."""
    player.call("StopPlayingClip", mark)
    with pytest.raises(BusError):
        player.bus.call(*LEGACY, "SetConfigurationEntry", "(isv)", 0, mark, GLib.Variant("ay", b""))


def find_levels(daemon, mark):
    return {line.level for line in daemon.log if mark in line.text}


def test_it_describes_the_log_as_it_is_at_the_start(sandbox, daemon):
    assert read_all(sandbox.bus) == AT_START


def test_its_introspection_is_that_of_the_interface(sandbox, daemon):
    text = sandbox.bus.introspect(SERVICE, PATH)
    start = text.index(f'<interface name="{INTERFACE}">')
    own = text[start:text.index("</interface>", start)]
    assert own.count("<property ") == 3
    assert own.count('access="readwrite"') == 2
    assert own.count('name="org.freedesktop.DBus.Property.EmitsChangedSignal" value="false"') == 3


@pytest.mark.needs_root
@pytest.mark.parametrize("level", LEVELS)
def test_it_drops_the_lines_below_the_level(sandbox, player, level):
    log_both(player, "before")
    assert find_levels(sandbox.daemon, "before") == {"info", "warning"}
    change(sandbox.bus, "LogLevel", level)
    assert read_all(sandbox.bus) == AT_START | {"LogLevel": level}
    log_both(player, "during")
    change(sandbox.bus, "LogLevel", "debug")
    log_both(player, "after")
    wait_until(lambda: find_levels(sandbox.daemon, "after") == {"info", "warning"}, 10, "it logs")
    kept = {word for word in ("info", "warning") if LEVELS.index(word) <= LEVELS.index(level)}
    assert find_levels(sandbox.daemon, "during") == kept


@pytest.mark.needs_root
@pytest.mark.parametrize("name, value, text", [
    ("LogLevel", GLib.Variant("s", "verbose"), f"LogLevel must be one of {', '.join(LEVELS)}."),
    ("LogLevel", GLib.Variant("s", "DEBUG"), f"LogLevel must be one of {', '.join(LEVELS)}."),
    ("LogLevel", GLib.Variant("s", ""), f"LogLevel must be one of {', '.join(LEVELS)}."),
    ("LogLevel", GLib.Variant("s", "7"), f"LogLevel must be one of {', '.join(LEVELS)}."),
    ("LogTarget", GLib.Variant("s", "printer"),
     "LogTarget must be one of console, kmsg, journal, syslog."),
    ("LogTarget", GLib.Variant("s", "kmsg"), "The daemon cannot log to kmsg on this machine."),
    # The sandbox has no journal.
    ("LogTarget", GLib.Variant("s", "journal"),
     "The daemon cannot log to journal on this machine."),
])
def test_it_refuses_other_values(sandbox, daemon, name, value, text):
    assert refuse(sandbox.bus, name, value) == ("InvalidArgs", text)
    assert read_all(sandbox.bus) == AT_START


@pytest.mark.needs_root
@pytest.mark.parametrize("name", ["LogLevel", "LogTarget"])
def test_it_refuses_other_types(sandbox, player, name):
    assert refuse(sandbox.bus, name, GLib.Variant("i", 7))[0] == "InvalidArgs"
    assert read_all(sandbox.bus) == AT_START
    log_both(player, "after")
    assert find_levels(sandbox.daemon, "after") == {"info", "warning"}


@pytest.mark.needs_root
def test_the_identifier_cannot_be_changed(sandbox, daemon):
    assert refuse(sandbox.bus, "SyslogIdentifier", GLib.Variant("s", "x"))[0] == "PropertyReadOnly"
    assert read_all(sandbox.bus) == AT_START


@pytest.mark.needs_root
def test_the_target_can_be_changed(sandbox, daemon):
    for target in ("console", "syslog"):
        change(sandbox.bus, "LogTarget", target)
        assert read_all(sandbox.bus) == AT_START | {"LogTarget": target}


# Who may change it


@pytest.fixture(scope="module", params=[False, True], ids=["installed policy", "open policy"])
def box(request, tmp_path_factory, build_dir, cache, installation):
    """A sandbox whose daemon runs as its own user. With the open policy, the bus lets every call
    through, and only the daemon itself checks the callers."""
    with Sandbox(tmp_path_factory.mktemp("log") / "sandbox", build_dir, cache) as box:
        user = installation.make_users(box)
        if not request.param:
            installation.set_bus(box)
        box.start_bus()
        box.start_daemon(**user.options)
        yield box


# Sets the level as the user who runs it; prints the error, if there is one.
SETTER = ["busctl", "--system", "set-property", SERVICE, PATH, INTERFACE]


@pytest.mark.needs_root
@pytest.mark.parametrize("who", ["stranger", "sonobrik-play", "sonobrik-config", "sonobrik"])
@pytest.mark.parametrize("name, value", [("LogLevel", "err"), ("LogTarget", "console")])
def test_only_root_may_change_it(box, who, name, value):
    user = (User(65534) if who == "stranger" else User(find_id(box, "passwd", who))
            if who == "sonobrik" else User(2, (find_id(box, "group", who),)))
    result = box.run([*SETTER, name, "s", value], check=False, **user.options)
    assert result.returncode != 0
    assert "Access denied" in result.stderr or "Only root may change the log." in result.stderr, (
        result.stderr)
    assert read_all(box.bus) == AT_START
    assert box.run(["busctl", "--system", "get-property", SERVICE, PATH, INTERFACE, name],
                   **user.options).stdout == f's "{AT_START[name]}"\n'


@pytest.mark.needs_root
def test_root_may_change_it(box):
    box.run([*SETTER, "LogLevel", "s", "err"])
    assert read_all(box.bus) == AT_START | {"LogLevel": "err"}
    box.run([*SETTER, "LogLevel", "s", "debug"])
    assert read_all(box.bus) == AT_START
