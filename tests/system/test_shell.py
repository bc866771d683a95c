"""scripts/shell, which runs the daemon in a sandbox for manual use."""

import os
import pathlib
import subprocess

from sandbox import PLAYBACK, clips

ROOT = pathlib.Path(__file__).resolve().parents[2]


def run_shell(build_dir, *command, cwd=None, **env):
    return subprocess.run([ROOT / "scripts/shell", *command], stdin=subprocess.DEVNULL, text=True,
                          capture_output=True, timeout=120, check=False, cwd=cwd,
                          env=os.environ | {"SONOBRIK_BUILD_DIR": str(build_dir)} | env)


def test_a_command_calls_the_daemon_of_the_sandbox(build_dir):
    result = run_shell(build_dir, "busctl", "--system", "call", *PLAYBACK, "SupportedFile", "s",
                       "/etc/audioclips/noise.wav")
    assert (result.returncode, result.stdout) == (0, 's "OK"\n')


def test_the_variables_name_the_daemon_and_its_sandbox(build_dir):
    script = ('cat "/proc/$PID/comm"; tr "\\0" "\\n" <"/proc/$PID/environ" | grep GST_DEBUG; '
              'cat "$SANDBOX/tmp/log"; exit 3')
    result = run_shell(build_dir, "sh", "-c", script, GST_DEBUG="1")
    assert result.returncode == 3
    assert result.stdout.startswith("sonobrik\nGST_DEBUG=1\n")
    assert "Vesk audiosink not supported" in result.stdout


def test_sonobrikctl_works_on_the_clips_of_the_sandbox(build_dir, tmp_path):
    clips.write_wav(tmp_path / "door.wav", clips.noise(480))
    script = ('sonobrikctl add --copy door.wav && sonobrikctl add /etc/audioclips/noise.wav && '
              'sonobrikctl list --names && ls "$SANDBOX/etc/audioclips"')
    result = run_shell(build_dir, "sh", "-c", script, cwd=tmp_path)
    assert (result.returncode, result.stdout) == (
        0, "0\n1\ndoor\nnoise\ndoor.wav\nnoise.wav\n")
    assert not pathlib.Path("/etc/audioclips/door.wav").exists()


def test_without_a_build_it_fails_and_creates_nothing(tmp_path):
    result = run_shell(tmp_path / "build", "true")
    assert (result.returncode, result.stdout, result.stderr) == (
        1, "", f"shell: no daemon in {tmp_path}/build; run scripts/test to build it\n")
    assert list(tmp_path.iterdir()) == []
