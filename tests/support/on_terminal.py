#!/usr/bin/python3
"""Runs a program on a terminal of its own, and presses keys.

usage: on_terminal.py TASK, a JSON object with `command`, `columns`, and `steps`: pairs of a text that
is waited for in what the program writes after the step before, and of the keys that are pressed then.
Prints a JSON object with the `output`, as the terminal got it, and the `status`, 128 + its number if a
signal ended the program. A program that does not write or end in time is killed.
"""

import fcntl
import json
import os
import pty
import select
import signal
import struct
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
    """What the program wrote next; empty at its end."""
    if not select.select([terminal], [], [], max(0, end - time.monotonic()))[0]:
        return None
    try:
        return os.read(terminal, 65536)
    except OSError:  # the last one has closed the terminal
        return b""


def converse(terminal, steps):
    output = b""
    seen = 0
    end = time.monotonic() + DEADLINE
    while True:
        while steps and (at := output.find(steps[0][0].encode(), seen)) >= 0:
            text, keys = steps.pop(0)
            seen = at + len(text.encode())
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
