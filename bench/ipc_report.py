#!/usr/bin/env python3
"""Runs kova-bench-ipc and kova-bench-ipc-calls and prints tables and verdicts, as report.py does for the rest.

ipc_report.py [--quick] [--cpu N] DIRECTORY-OF-THE-PROGRAMS

Makes System V objects and files in /tmp: scripts/bench runs it in namespaces of its own. Exit status: 1 when a count is
wrong, 0 otherwise. Times are reported, never judged by the status.
"""

import argparse
import subprocess
import sys
import tempfile
from collections import Counter
from pathlib import Path

sys.dont_write_bytecode = True  # nothing of this run stays in the tree
import report  # noqa: E402
from report import Comparison, Verdict  # noqa: E402

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


def system_calls(program: Path, subject: str, count: int) -> Counter[str]:
    with tempfile.NamedTemporaryFile("r", suffix=".strace") as log:
        subprocess.run(["strace", "-o", log.name, program, subject, str(count)], check=True)
        names = [line.split("(", 1)[0] for line in log if "(" in line]
    first, last = (i for i, name in enumerate(names) if name == "getppid")
    return Counter(SAME_CALL.get(name, name) for name in names[first + 1 : last])


def measure_counts(programs: Path, quick: bool) -> list[Verdict]:
    repetitions = 100 if quick else 1000
    print(f"== counts of shared objects: {repetitions} repetitions each; system calls by strace")
    if not report.can_trace():
        print("strace cannot be used here: system calls are not counted")
        return []
    verdicts = []
    for subject, calls in COUNTS.items():
        wanted = {name: count * repetitions for name, count in calls.items()}
        made = dict(system_calls(programs / "kova-bench-ipc-calls", subject, repetitions))
        texts = (report.per_repetition(part, repetitions) for part in (wanted, made))
        verdicts.append(Verdict(f"{subject}: system calls", *texts, "yes" if made == wanted else "WRONG"))
    return verdicts


def measure_times(programs: Path, cpu: int | None, quick: bool) -> list[Verdict]:
    count, repetitions, seconds = (1, 3, 0.002) if quick else (5, 9, 0.005)
    print(f"\n== times of shared objects and files: {count} runs, in each {repetitions} repetitions in random order")
    rounds = [report.run_round(programs / "kova-bench-ipc", cpu, repetitions, seconds) for _ in range(count)]
    compared = [report.compare(comparison, rounds) for comparison in PEERS]
    print(FLOORS)
    print("Nanoseconds; a run's time is the median of its repetitions, figures are medians over the runs.\n")
    header = ["", "floor wall", "wall", "floor CPU", "CPU", "wall ratio", "CPU ratio", "of the runs"]
    report.print_table(header, [row for row, _ in compared])
    return [verdict for _, verdict in compared if verdict is not None]


def main() -> int:
    parser = argparse.ArgumentParser(description="Runs the benchmarks of shared objects and files and judges them.")
    parser.add_argument("--quick", action="store_true", help="a smoke run of a few seconds; its times say little")
    parser.add_argument("--cpu", type=int, help="the processor to measure on (default: the last one)")
    parser.add_argument("programs", type=Path, help="directory of kova-bench-ipc and kova-bench-ipc-calls")
    arguments = parser.parse_args()

    counts = measure_counts(arguments.programs, arguments.quick)
    times = measure_times(arguments.programs, arguments.cpu, arguments.quick)
    print("\n== verdicts on shared objects and files" + (" (quick: the times say little)" if arguments.quick else ""))
    rows = [[v.title, v.to_reach, v.measured, v.held] for v in times + counts]
    report.print_table(["", "to reach", "measured", "held?"], rows)
    wrong = sum(v.held == "WRONG" for v in counts)
    print(f"\n{len(counts) - wrong} of {len(counts)} counts right")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
