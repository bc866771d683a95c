"""Runs the command-line client, in a pipe or on a terminal."""

import json

from .box import ROOT
from .wait import wait_until

PROGRAM = "/run/build/tools/sonobrikctl/sonobrikctl"


class Shell:
    """Runs sonobrikctl in `sandbox`."""

    def __init__(self, sandbox):
        self.sandbox = sandbox

    def run(self, *words, **options):
        """Runs it in a pipe and returns the CompletedProcess."""
        return self.sandbox.run([PROGRAM, *words], check=False, **options)

    def ok(self, *words, **options):
        """Runs it, asserts success and an empty standard error, and returns its standard output."""
        result = self.run(*words, **options)
        assert (result.returncode, result.stderr) == (0, ""), (words, result)
        return result.stdout

    def fail(self, status, *words, **options):
        """Runs it, asserts `status` and an empty standard output, and returns the error lines."""
        result = self.run(*words, **options)
        assert (result.returncode, result.stdout) == (status, ""), (words, result)
        lines = result.stderr.splitlines()
        assert lines and all(line.startswith("sonobrikctl: ") for line in lines), result.stderr
        return [line.removeprefix("sonobrikctl: ") for line in lines]

    def on_terminal(self, *words, steps=(), columns=80, env=None, command=None):
        """Runs it, or `command`, on a terminal. `steps` are pairs of a text to wait for and keys to
        press then, or triples with commands to run before the keys. Returns the terminal's output and the exit status."""
        task = {"command": [*(command or [PROGRAM]), *words], "columns": columns,
                "steps": list(steps)}
        result = self.sandbox.run(
            ["/usr/bin/python3", "-B", ROOT / "tests/support/on_terminal.py", json.dumps(task)],
            env={"TERM": "xterm"} | (env or {}), deadline=120)
        answer = json.loads(result.stdout)
        assert not answer["left"], answer
        return answer["output"], answer["status"]

    def start(self, *words):
        """Starts it, with standard output redirected to a file, and returns a Running."""
        return Running(self.sandbox, words)


class Running:
    """A running sonobrikctl."""

    def __init__(self, sandbox, words):
        self._output = sandbox.folder / "tmp/ctl-output"
        self._output.write_bytes(b"")
        self.process = sandbox.spawn(
            ["sh", "-c", 'exec "$0" "$@" >/tmp/ctl-output', PROGRAM, *words])

    @property
    def lines(self):
        """The complete lines that it has printed so far."""
        return self._output.read_text().split("\n")[:-1]

    def wait_lines(self, count):
        wait_until(lambda: len(self.lines) >= count, 20, f"{count} lines are printed")
        return self.lines

    def wait_error(self, text):
        wait_until(lambda: f"sonobrikctl: {text}" in self.process.lines, 20, f"the error {text!r} is printed")
