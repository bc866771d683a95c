"""The commands and recipes in README.md, as they are printed there."""

import os
import pathlib
import re
import shutil
import subprocess

import pytest
from sandbox import clips, wait_until
from sandbox.documents import read_fenced, read_indented, read_section
from sandbox.shell import PROGRAM

PAGE = (pathlib.Path(__file__).resolve().parents[2] / "README.md").read_text()


def read_recipe(title):
    """Returns the code blocks of a recipe."""
    return read_fenced(read_section(PAGE, title, 3))


def read_commands(text):
    """Returns the commands of the indented block after this text."""
    return read_indented(PAGE.partition(text)[2])[0]


def test_the_first_three_commands_store_and_play_a_sound(sandbox, shell, player):
    lines = read_commands("Once it is [installed](#install-it):")
    commands = [line.partition("#")[0].split() for line in lines]
    assert [words[:2] for words in commands] == [["sudo", "sonobrikctl"]] * 3
    add, play, status = [words[2:] for words in commands]
    clips.write_wav(sandbox.folder / "run/home" / add.pop(), clips.noise(480000))
    shell.ok(*add, "/run/home/door.wav")
    shell.ok(*play)
    wait_until(lambda: any(event[0] == "CurrentlyPlaying" for event in player.events), 20,
               "the clip is playing")
    assert re.search(r"^File: +door\.wav$", shell.ok(*status), re.MULTILINE)


def test_the_calls_answer_as_documented(sandbox, shell, player):
    """Runs the calls, and compares their output with the comments that show it."""
    shell.ok("add", sandbox.write_clip("door.wav", clips.noise(4800)).path)
    script = "\n".join(read_commands("From a shell, as a member of `sonobrik-config`:"))
    output = sandbox.run(["bash", "-euc", script]).stdout.splitlines()
    assert output[:5] == ['s "OK"', "i 1", 's "OK"', 's "OK"', 's "OK"']
    assert '# s "OK": ' in script
    assert "# i 1: " in script
    assert output[5].startswith("a{ia{sv}} 2 0 3")
    assert len(output) == 6


# Presses the button of a mock pin once the recipe waits for it, and ends.
PRESS = """
import signal, sys, time
from gpiozero import Device
from gpiozero.pins.mock import MockFactory

Device.pin_factory = MockFactory()

def press():
    pin = Device.pin_factory.pin(17)
    pin.drive_low()
    pin.drive_high()

signal.pause = press
exec(compile(sys.argv[1], "doorbell", "exec"))
"""


def test_the_button_plays_the_clip(sandbox, shell, player):
    pytest.importorskip("gpiozero")
    shell.ok("add", sandbox.write_clip("door.wav", clips.noise(4800)).path, "--name", "door")
    script = read_recipe("A button that plays a clip")[0]
    assert "bounce_time=0.05" in script
    # The mock reports no bounces and its clock has no time to pass.
    script = script.replace(", bounce_time=0.05", "")
    sandbox.run(["/usr/bin/python3", "-c", PRESS, script],
                env={"PATH": f"{os.path.dirname(PROGRAM)}:/usr/bin:/bin"})
    player.fence()
    assert [event[4] for event in player.events if event[0] == "CurrentlyPlaying"] == [
        "/etc/audioclips/door.wav"]


@pytest.mark.skipif(not shutil.which("systemd-analyze"), reason="needs systemd-analyze")
def test_systemd_accepts_the_units(tmp_path):
    _, doorbell = read_recipe("A button that plays a clip")
    lunch, timer = read_recipe("A clip at a fixed time")
    for name, text in (("doorbell.service", doorbell), ("lunch.service", lunch),
                       ("lunch.timer", timer)):
        # The programs need not be installed here.
        (tmp_path / name).write_text(text.replace("/usr/bin/sonobrikctl", "/bin/true"))
    result = subprocess.run(
        ["systemd-analyze", "verify", "--man=no", *tmp_path.iterdir()], text=True,
        capture_output=True, timeout=60, check=False, env=os.environ | {"SYSTEMD_LOG_LEVEL": "notice"})
    assert (result.returncode, [line for line in result.stderr.splitlines()
                                if str(tmp_path) in line or "doorbell" in line or "lunch" in line]
            ) == (0, []), result.stderr
    calendar, = re.findall(r"^OnCalendar=(.*)$", timer, re.MULTILINE)
    subprocess.run(["systemd-analyze", "calendar", calendar], check=True, capture_output=True)
