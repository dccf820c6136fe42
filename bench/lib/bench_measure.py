"""Runs one benchmark program as a child and measures it from outside.

Wall time is taken around the child's whole life; CPU time (user + system) and peak RSS come
from the child's own rusage (os.wait4), so nothing of the driver is counted. The program's
JSON line (its own measurements) is parsed from its standard output.
"""

import json
import os
import statistics
import subprocess
import tempfile
import threading
import time


class RunFailed(RuntimeError):
    pass


class Run:
    def __init__(self, wall, cpu, rss_kib, report):
        self.wall = wall          # seconds, start to exit
        self.cpu = cpu            # seconds, user + system
        self.rss_kib = rss_kib    # peak resident set size
        self.report = report      # the program's JSON line, as a dict


def run_child(argv, timeout=None):
    """Runs argv to its end; raises RunFailed when it fails or prints no JSON line."""
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        begin = time.monotonic()
        child = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=out, stderr=err)
        # The wait blocks; a timer kills a child that overstays.
        overstayed = threading.Event()

        def kill():
            overstayed.set()
            child.kill()

        timer = threading.Timer(timeout, kill) if timeout else None
        if timer:
            timer.start()
        try:
            _, status, usage = os.wait4(child.pid, 0)
        finally:
            if timer:
                timer.cancel()
        if overstayed.is_set():
            raise RunFailed("%s took longer than %d s" % (" ".join(argv), timeout))
        wall = time.monotonic() - begin
        child.returncode = os.waitstatus_to_exitcode(status)
        out.seek(0)
        err.seek(0)
        stdout = out.read().decode(errors="replace")
        stderr = err.read().decode(errors="replace")
    if child.returncode != 0:
        raise RunFailed("%s exited with %d:\n%s%s" % (" ".join(argv), child.returncode,
                                                      stderr, stdout))
    lines = [line for line in stdout.splitlines() if line.startswith("{")]
    if not lines:
        raise RunFailed("%s printed no JSON line:\n%s" % (" ".join(argv), stdout))
    report = json.loads(lines[-1])
    return Run(wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss, report)


def median(values):
    return statistics.median(values) if values else float("nan")
