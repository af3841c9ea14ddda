#!/usr/bin/env python3
"""Runs a command and reports what it cost.

usage: measured.py REPORT SECONDS COMMAND [ARGUMENT ...]

REPORT gets one line of JSON: status (negative: ended by that signal), cpu_s (user and system) and
peak_mb. A command that takes longer than SECONDS is killed. A process of its own, since a child's
peak memory is never less than that of the process that starts it.
"""
import json
import os
import signal
import sys


def main():
    report, seconds, command = sys.argv[1], int(sys.argv[2]), sys.argv[3:]
    child = os.posix_spawnp(command[0], command, os.environ)
    signal.signal(signal.SIGALRM, lambda *_: os.kill(child, signal.SIGKILL))
    signal.alarm(seconds)
    _, status, usage = os.wait4(child, 0)
    with open(report, "w") as file:
        json.dump({"status": os.waitstatus_to_exitcode(status),
                   "cpu_s": usage.ru_utime + usage.ru_stime,
                   "peak_mb": usage.ru_maxrss / 1024}, file)


if __name__ == "__main__":
    main()
