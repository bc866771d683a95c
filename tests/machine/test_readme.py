"""The README's recipes as units of systemd, with a mock in place of the button's pin."""

import pathlib
import shutil
import time

import pytest
from machine import CLIP, HERE, Unit, prepare_clip, run, wait_until
from sandbox.documents import read_fenced, read_section

README = (HERE.parents[1] / "README.md").read_text()
UNITS = pathlib.Path("/etc/systemd/system")
PROGRAM = pathlib.Path("/usr/local/bin/doorbell")
PRESSER = pathlib.Path("/usr/local/bin/press-doorbell")

# Runs the recipe, and presses the button once there is a file "press" in its working directory.
PRESS = f"""\
import os, runpy, threading, time
from gpiozero import Device
from gpiozero.pins.mock import MockFactory

Device.pin_factory = MockFactory()

def press():
    while not os.path.exists("press"):
        time.sleep(0.05)
    Device.pin_factory.pin(17).drive_low()
    time.sleep(0.2)  # longer than the button may bounce
    Device.pin_factory.pin(17).drive_high()

threading.Thread(target=press, daemon=True).start()
runpy.run_path({str(PROGRAM)!r})
"""


@pytest.fixture
def clip(request):
    """Writes a clip and stores it under the name that the recipe plays. Tells if it was heard."""
    is_heard = prepare_clip()
    number = run("sonobrikctl", "add", "--name", request.param, CLIP).split()[0]
    assert request.param in run("sonobrikctl", "list", "--names").splitlines(), number
    yield is_heard
    run("sonobrikctl", "remove", request.param)


@pytest.mark.parametrize("clip", ["door"], indirect=True)
def test_the_button_plays_the_clip(clip):
    program, unit = read_fenced(read_section(README, "A button that plays a clip", 3))
    run("groupadd", "--system", "gpio")
    PROGRAM.write_text(program)
    PRESSER.write_text(PRESS)
    (UNITS / "doorbell.service").write_text(unit)
    drop_in = UNITS / "doorbell.service.d/mock.conf"
    drop_in.parent.mkdir()
    drop_in.write_text(f"[Service]\nExecStart=\nExecStart=/usr/bin/python3 {PRESSER}\n")
    try:
        run("systemctl", "daemon-reload")
        run("systemctl", "enable", "--now", "doorbell")
        doorbell = Unit("doorbell.service")
        assert doorbell.is_active()
        pathlib.Path("/run/doorbell/press").touch()
        wait_until(clip, 20, "the clip is heard")
        assert doorbell.is_active()
    finally:
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
        due = run("systemctl", "show", "--value", "--timestamp=unix",
                  "-p", "NextElapseUSecRealtime", "lunch.timer").strip()
        moment = time.localtime(int(due.removeprefix("@")))
        assert (moment.tm_hour, moment.tm_min, moment.tm_sec) == (12, 0, 0)
        assert moment.tm_wday < 5
        run("systemctl", "start", "lunch.service")  # as the timer does
        wait_until(clip, 20, "the clip is heard")
    finally:
        run("systemctl", "disable", "--now", "lunch.timer")
