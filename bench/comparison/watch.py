"""Runs a program that starts others, and measures what it takes itself beside them."""

import os
import subprocess
import threading
import time
from pathlib import Path

BETWEEN_LOOKS = 0.01  # seconds; a peak between two looks is only seen when it lasts
TICKS = os.sysconf("SC_CLK_TCK")
CHUNK = 1 << 20
# In a line of its output that says that a file is being copied, or was.
SIGNS_OF_COPYING = (b'"phase"', b'"outcome":"proved"')


def run(command: list, log: Path) -> dict:
    """Seconds of wall and processor time, of the program itself ("ownCPU") and with all that it started ("cpu"); its own peak
    of resident memory and that of the largest process; seconds until its output, if that is JSON lines, says that something
    is copied ("firstCopy")."""
    with open(log, "w", encoding="utf-8") as errors:
        start = time.monotonic()
        words = [str(word) for word in command]
        process = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=errors)
        peak = _Peak(process.pid)
        first_copy = _first_sign(process.stdout, start)
        os.waitid(os.P_PID, process.pid, os.WEXITED | os.WNOWAIT)
        wall = time.monotonic() - start
    own, of_children = _processor_times(process.pid)
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        tail = log.read_text(encoding="utf-8", errors="replace")[-2000:]
        raise RuntimeError(f"status {process.returncode} of:\n{' '.join(words)}\n{tail}")
    result = {"wall": wall, "cpu": own + of_children, "ownCPU": own, "ownPeakKiB": peak.end(), "peakKiB": usage.ru_maxrss}
    return result if first_copy is None else {**result, "firstCopy": first_copy}


def _first_sign(output, start: float):
    first = None
    while chunk := output.read1(CHUNK):
        if first is None and any(sign in chunk for sign in SIGNS_OF_COPYING):
            first = time.monotonic() - start
    return first


def _processor_times(pid: int) -> tuple:
    """Of a process that has ended and was not waited for yet: its own seconds, and those of what it has waited for."""
    fields = Path(f"/proc/{pid}/stat").read_text(encoding="ascii", errors="replace").rsplit(")", 1)[1].split()
    user, system, children_user, children_system = (int(field) / TICKS for field in fields[11:15])
    return user + system, children_user + children_system


class _Peak:
    """The largest resident memory of a process, looked at until it ends."""

    def __init__(self, pid: int):
        self._status = Path(f"/proc/{pid}/status")
        self._peak = 0
        self._thread = threading.Thread(target=self._watch)
        self._thread.start()

    def _watch(self):
        while peak := self._look():
            self._peak = peak
            time.sleep(BETWEEN_LOOKS)

    def _look(self) -> int:
        """KiB; 0 once the process has none."""
        try:
            lines = self._status.read_text(encoding="ascii", errors="replace").splitlines()
        except OSError:
            return 0
        return next((int(line.split()[1]) for line in lines if line.startswith("VmHWM:")), 0)

    def end(self) -> int:
        self._thread.join()
        return self._peak
