"""Runs a program, and runs it again if it exits with status 75, like systemd does with the daemon.

usage: supervisor.py DELAY PROGRAM

Waits DELAY seconds before it runs the program again. Passes SIGTERM and SIGINT on, and exits with
the status of the program, or 128 + the number of the signal that ended it.
"""

import ctypes
import signal
import subprocess
import sys
import time

PR_SET_PDEATHSIG = 1
DEVICES_CHANGED = 75

child = None  # the program while it runs
ending = False


def pass_on(number, _frame):
    global ending
    ending = True
    if child:
        child.send_signal(number)


def die_with_parent():
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


def main(delay, program):
    global child
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, pass_on)
    status = DEVICES_CHANGED
    while status == DEVICES_CHANGED and not ending:
        child = subprocess.Popen([program], preexec_fn=die_with_parent)
        status = child.wait()
        child = None
        if status == DEVICES_CHANGED and not ending:
            time.sleep(float(delay))
    sys.exit(status if status >= 0 else 128 - status)


if __name__ == "__main__":
    main(*sys.argv[1:])
