#!/usr/bin/env python3
"""Runs kova-bench-ipc and kova-bench-ipc-calls and prints tables and verdicts, as report.py does for the rest.

ipc_report.py [--quick] [--cpu N] DIRECTORY-OF-THE-PROGRAMS

Makes System V objects and files in /tmp: scripts/bench runs it in namespaces of its own. Exit status: 1 when a count is
wrong, 0 otherwise. Times are reported, never judged by the status.
"""

import sys
from pathlib import Path

sys.dont_write_bytecode = True  # nothing of this run stays in the tree
import report  # noqa: E402
from report import Comparison, Runs, Verdict  # noqa: E402

PEERS = [
    Comparison("shared mutex: lock + unlock", "shared-mutex/library", "shared-mutex/by-hand", 1.10),
    Comparison("... the plain functions", "shared-mutex/functions", "shared-mutex/by-hand", 1.10),
    Comparison("... POSIX named semaphore", "shared-mutex/posix", "shared-mutex/by-hand", None),
    Comparison("... Boost.Interprocess", "shared-mutex/boost", "shared-mutex/by-hand", None),
    Comparison("shared semaphore: post + wait", "shared-semaphore/library", "shared-semaphore/by-hand", 1.10),
    Comparison("... POSIX named semaphore", "shared-semaphore/posix", "shared-semaphore/by-hand", None),
    Comparison("... Boost.Interprocess", "shared-semaphore/boost", "shared-semaphore/by-hand", None),
    Comparison("queue: write + read 64 B", "queue-64/library", "queue-64/by-hand", 1.10),
    Comparison("queue: write + read 4 KiB", "queue-4096/library", "queue-4096/by-hand", 1.10),
    Comparison("10,000 files by name", "list-by-name/library", "list-by-name/scandir", 1.10),
    Comparison("10,000 files by time", "list-by-time/library", "list-by-time/stat-and-sort", 1.30),
    Comparison("... read in every comparison", "list-by-time/comparison", "list-by-time/stat-and-sort", None),
    Comparison("ResolveFileNo, 10,000 numbers", "number/filename", "number/by-hand", None),
    Comparison("KovaGetNextFile, 10,000 numbers", "number/next-file", "number/by-hand", None),
]

FLOORS = """\
Floors, on one processor like their subjects:
  shared mutex, semaphore    the same system calls by hand
  queue                      msgsnd and msgrcv, the message lies in its buffer
  files by name              scandir with alphasort; by time: scandir, one stat for each file, a stable sort
  numbers                    snprintf and one stat for each"""

# System calls of one repetition.
COUNTS = {
    "mutex": {"semop": 1, "semctl": 7},
    "mutex-trylock": {"semop": 1, "semctl": 7},
    "semaphore": {"semop": 2},
    "semaphore-timed": {"semop": 2},
    "rwlock-read": {"semop": 3, "semctl": 1},
    "rwlock-write": {"semop": 2, "semctl": 1},
    "queue": {"msgsnd": 1, "msgrcv": 1},
}
# The C library performs semop by the timed call without a limit.
SAME_CALL = {"semtimedop": "semop", "semtimedop_time64": "semop"}


def measure_counts(programs: Path, quick: bool) -> list[Verdict]:
    return report.count_calls("shared objects", programs / "kova-bench-ipc-calls", COUNTS, SAME_CALL, quick)


def measure_times(programs: Path, cpu: int | None, quick: bool) -> list[Verdict]:
    runs = Runs(1, 3, 0.002) if quick else Runs(5, 9, 0.005)
    rounds = report.run_rounds("shared objects and files", programs / "kova-bench-ipc", cpu, runs)
    return report.judge_times(FLOORS, PEERS, rounds)


if __name__ == "__main__":
    sys.exit(report.run_report("shared objects and files", measure_counts, measure_times))
