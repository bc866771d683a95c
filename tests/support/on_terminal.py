#!/usr/bin/python3
"""Runs a program on a pseudo-terminal and sends it key presses.

usage: on_terminal.py TASK

TASK is a JSON object with `command`, `columns` and `steps`. A step is a text and keys, which are
sent as soon as the program has written the text. A third member of a step is a list of commands, which
are run before the keys are sent. The steps are handled in order. Prints
a JSON object: `output` is everything that the program wrote, `status` is its exit status, or 128 +
the number of the signal that ended it, and `left` has the steps whose text did not appear. A program
that takes longer than DEADLINE is killed.
"""

import fcntl
import json
import os
import pty
import select
import signal
import struct
import subprocess
import sys
import termios
import time

DEADLINE = 60  # seconds


def start(command, columns):
    pid, terminal = pty.fork()
    if pid == 0:
        fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", 25, columns, 0, 0))
        os.execvp(command[0], command)
    return pid, terminal


def read(terminal, end):
    """Returns what the program wrote next, b"" once it has ended, or None after the deadline."""
    if not select.select([terminal], [], [], max(0, end - time.monotonic()))[0]:
        return None
    try:
        return os.read(terminal, 65536)
    except OSError:  # Linux reports EIO once no process has the terminal open
        return b""


def converse(terminal, steps):
    output = b""
    seen = 0
    end = time.monotonic() + DEADLINE
    while True:
        while steps and (at := output.find(steps[0][0].encode(), seen)) >= 0:
            text, keys, *commands = steps.pop(0)
            seen = at + len(text.encode())
            for command in commands[0] if commands else []:
                subprocess.run(command, stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL,
                               check=True)
            os.write(terminal, keys.encode())
        part = read(terminal, end)
        if not part:
            return output, part is not None
        output += part


def main():
    task = json.loads(sys.argv[1])
    pid, terminal = start(task["command"], task["columns"])
    output, has_ended = converse(terminal, task["steps"])
    if not has_ended:
        os.kill(pid, signal.SIGKILL)
    status = os.waitpid(pid, 0)[1]
    code = os.waitstatus_to_exitcode(status)
    json.dump({"output": output.decode(errors="replace"),
               "status": code if code >= 0 else 128 - code,
               "left": task["steps"]}, sys.stdout)


main()
