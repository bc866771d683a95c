"""The README's recipes as units of systemd, with a mock in place of the button's pin."""

import pathlib
import re
import shutil

import pytest
from machine import CLIP, HERE, Unit, prepare_clip, run, wait_until
from sandbox.documents import read_fenced, read_section

README = (HERE.parents[1] / "README.md").read_text()
UNITS = pathlib.Path("/etc/systemd/system")
PROGRAM = pathlib.Path("/usr/local/bin/doorbell")
PRESSER = pathlib.Path("/usr/local/bin/press-doorbell")

# Runs the recipe, and presses the button once it is watched and there is a file "press" in the
# working directory.
PRESS = f"""\
import os, runpy, threading, time
from gpiozero import Device
from gpiozero.pins.mock import MockFactory

Device.pin_factory = MockFactory()

def press():
    pin = Device.pin_factory.pin(17)
    while not (pin.when_changed and os.path.exists("press")):
        time.sleep(0.05)
    pin.drive_low()
    time.sleep(0.2)  # longer than the button may bounce
    pin.drive_high()

threading.Thread(target=press, daemon=True).start()
runpy.run_path({str(PROGRAM)!r})
"""


@pytest.fixture
def clip(request):
    """Writes a clip and stores it under the name that the recipe plays. Tells if it was heard."""
    is_heard = prepare_clip()
    run("sonobrikctl", "add", "--name", request.param, CLIP)
    assert request.param in run("sonobrikctl", "list", "--names").splitlines()
    yield is_heard
    run("sonobrikctl", "remove", "--yes", request.param)


@pytest.mark.parametrize("clip", ["door"], indirect=True)
def test_the_button_plays_the_clip(clip):
    recipe = read_section(README, "A button that plays a clip", 3)
    program, unit = read_fenced(recipe)
    run("groupadd", "--system", "gpio")
    PROGRAM.write_text(program)
    PRESSER.write_text(PRESS)
    (UNITS / "doorbell.service").write_text(unit)
    drop_in = UNITS / "doorbell.service.d/mock.conf"
    drop_in.parent.mkdir()
    drop_in.write_text(f"[Service]\nExecStart=\nExecStart=/usr/bin/python3 {PRESSER}\n")
    try:
        run("systemctl", "daemon-reload")
        for command in re.findall("`sudo ([^`]+)`", recipe):
            run(*command.split())
        doorbell = Unit("doorbell.service")
        assert doorbell.is_active()
        folder = pathlib.Path("/run/doorbell")
        wait_until(folder.exists, 20, "the unit has its working directory")
        (folder / "press").touch()
        wait_until(clip, 20, "the clip is heard")
        assert doorbell.is_active()
    finally:
        print(Unit("doorbell.service").read_log())  # pytest shows it if the test fails
        run("systemctl", "disable", "--now", "doorbell")
        shutil.rmtree(drop_in.parent)


@pytest.mark.parametrize("clip", ["lunch"], indirect=True)
def test_the_timer_plays_the_clip_at_noon(clip):
    service, timer = read_fenced(read_section(README, "A clip at a fixed time", 3))
    (UNITS / "lunch.service").write_text(service)
    (UNITS / "lunch.timer").write_text(timer)
    run("systemctl", "daemon-reload")
    run("systemctl", "enable", "--now", "lunch.timer")
    try:
        due = Unit("lunch.timer").show("NextElapseUSecRealtime")
        assert re.match(r"(Mon|Tue|Wed|Thu|Fri) \S+ 12:00:00 ", due)
        run("systemctl", "start", "lunch.service")  # as the timer does
        wait_until(clip, 20, "the clip is heard")
    finally:
        run("systemctl", "disable", "--now", "lunch.timer")
