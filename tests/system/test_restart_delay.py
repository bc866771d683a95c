"""How long systemd waits before it restarts a daemon that failed."""

import os
import re
import subprocess

import pytest

COUNT = "/run/sonobrik.failures"


@pytest.fixture
def end(build_dir, tmp_path):
    """Runs what the unit runs when the daemon has ended, and returns the seconds that it waits."""
    unit = (build_dir / "data/systemd/sonobrik.service").read_text().replace("\\\n", "")
    command, = re.findall(r"^ExecStopPost=\+/bin/sh -c '(.*)'$", unit, re.MULTILINE)
    command = command.replace("$$", "$").replace(COUNT, str(tmp_path / "failures"))
    sleep = tmp_path / "sleep"
    sleep.write_text('#!/bin/sh\necho "$1"\n')
    sleep.chmod(0o755)

    def run(result):
        environment = {"PATH": f"{tmp_path}:/usr/bin:/bin", "SERVICE_RESULT": result}
        output = subprocess.run(["/bin/sh", "-c", command], env=environment, text=True,
                                capture_output=True, check=True)
        assert output.stderr == ""
        return int(output.stdout or 0)
    return run


def test_each_failure_waits_longer(end):
    assert [end("exit-code") for _ in range(12)] == [2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 20, 20]


def test_a_success_waits_for_nothing_and_is_a_new_beginning(end):
    assert [end(result) for result in ("success", "watchdog", "signal", "success", "exit-code")] == [
        0, 2, 4, 0, 2]


def test_ten_minutes_without_a_failure_are_a_new_beginning(end, tmp_path):
    assert [end("exit-code"), end("exit-code")] == [2, 4]
    count = tmp_path / "failures"
    os.utime(count, times=(count.stat().st_atime, count.stat().st_mtime - 660))
    assert end("exit-code") == 2
