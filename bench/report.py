#!/usr/bin/env python3
"""Runs kova-bench and kova-bench-calls and prints tables and verdicts.

report.py [--quick] [--cpu N] DIRECTORY-OF-THE-PROGRAMS

Exit status: 1 when a count is wrong, 0 otherwise. Times are reported, never judged by the status.
"""

import argparse
import json
import shutil
import statistics
import subprocess
import sys
import tempfile
from collections import Counter
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path


@dataclass(frozen=True)
class Comparison:
    title: str
    subject: str
    floor: str
    limit: float | None  # the ratio to reach; None for information


COMPARISONS = [
    Comparison("trace record, 5 values", "trace/record", "trace/floor", 1.5),
    Comparison("trace point in the library", "trace/point", "trace/floor", None),
    Comparison("reading the clock", "clock", "trace/floor", None),
    Comparison("TCP round trip, 64 B", "tcp/library/64", "tcp/select/64", 1.05),
    Comparison("TCP round trip, 8 KiB", "tcp/library/8192", "tcp/select/8192", 1.05),
    Comparison("TCP round trip, plain kind, 64 B", "tcp/library-plain/64", "tcp/select/64", 1.05),
    Comparison("TCP round trip, plain kind, 8 KiB", "tcp/library-plain/8192", "tcp/select/8192", 1.05),
    Comparison("UDP round trip, 64 B", "udp/library/64", "udp/select/64", 1.05),
    Comparison("TCP one way, 64 B", "tcp-one-way/library/64", "tcp-one-way/select/64", None),
    Comparison("TCP one way, 8 KiB", "tcp-one-way/library/8192", "tcp-one-way/select/8192", None),
    Comparison("UDP one way, 64 B", "udp-one-way/library/64", "udp-one-way/select/64", None),
    Comparison("TCP 64 B, floor no select", "tcp/library/64", "tcp/bare/64", None),
    Comparison("TCP 8 KiB, floor no select", "tcp/library/8192", "tcp/bare/8192", None),
    Comparison("UDP 64 B, floor no select", "udp/library/64", "udp/bare/64", None),
]

FLOORS = """\
Floors, on one processor like their subjects, with the same sockets (IPv6, 127.0.0.1 as mapped address, blocking,
time-outs 3 s, TCP without delay):
  trace       the processor's time stamp and one atomic increment
  select      the library's system calls by hand: one send; select (read set, empty write set, exception set,
              time-out) before each of two receives, 24 bytes of header and the body; over UDP the first one peeks and
              the second one takes the whole datagram
  no select   the same without select
Round trips run on two threads; one way is a single thread that receives what it has just sent."""

MESSAGE = {"send": 1, "select": 2, "recv": 2}
NOTHING = {"send": 0, "select": 0, "recv": 0}


@dataclass(frozen=True)
class Count:
    title: str
    subject: str
    calls: dict[str, int]  # per repetition
    allocations: int


COUNTS = [
    Count("trace record", "trace", NOTHING, 0),
    Count("TCP message there already, 64 B", "tcp-64", MESSAGE, 0),
    Count("TCP message, largest inline body", "tcp-488", MESSAGE, 0),
    # Shows as well that allocations are counted: one for the message sent, one for the message received.
    Count("TCP message there already, 8 KiB", "tcp-8192", MESSAGE, 2),
    Count("UDP message there already, 64 B", "udp-64", MESSAGE, 0),
]

# The kernel's names for what a program calls send, select and recv.
SYSTEM_CALLS = {
    "sendto": "send",
    "pselect6": "select",
    "pselect6_time64": "select",
    "_newselect": "select",
    "recvfrom": "recv",
}
CLOCK_CALLS = {"clock_gettime", "clock_gettime64", "time", "gettimeofday"}


@dataclass(frozen=True)
class Verdict:
    title: str
    to_reach: str
    measured: str
    held: str


def print_table(header: list[str], rows: list[list[str]]) -> None:
    widths = [max(len(row[i]) for row in [header, *rows]) for i in range(len(header))]
    for row in [header, ["-" * width for width in widths], *rows]:
        cells = [row[0].ljust(widths[0]), *(cell.rjust(width) for cell, width in zip(row[1:], widths[1:]))]
        print("  ".join(cells))


# --- Times ---


@dataclass(frozen=True)
class Times:
    """Nanoseconds of one round: medians of its repetitions."""

    wall: float
    cpu: float


def run_round(program: Path, cpu: int | None, repetitions: int, seconds: float) -> dict[str, Times]:
    command = [str(program)] + ([f"--cpu={cpu}"] if cpu is not None else [])
    command += [
        "--benchmark_enable_random_interleaving=true",
        f"--benchmark_repetitions={repetitions}",
        f"--benchmark_min_time={seconds}",
        "--benchmark_format=json",
    ]
    result = subprocess.run(command, check=False, capture_output=True, text=True)
    if result.returncode != 0:
        raise SystemExit(f"{program} failed: {result.stderr}")
    samples: dict[str, list[dict]] = {}
    for run in json.loads(result.stdout)["benchmarks"]:
        if run["run_type"] != "iteration":
            continue
        if run.get("error_occurred"):
            raise SystemExit(f"{run['name']}: {run['error_message']}")
        samples.setdefault(run["name"].replace("/process_time/real_time", ""), []).append(run)
    return {
        name: Times(
            statistics.median(run["real_time"] for run in runs), statistics.median(run["cpu_time"] for run in runs)
        )
        for name, runs in samples.items()
    }


def compare(comparison: Comparison, rounds: list[dict[str, Times]]) -> tuple[list[str], Verdict | None]:
    subjects = [results[comparison.subject] for results in rounds]
    floors = [results[comparison.floor] for results in rounds]
    wall = [subject.wall / floor.wall for subject, floor in zip(subjects, floors)]
    cpu = [subject.cpu / floor.cpu for subject, floor in zip(subjects, floors)]
    # Both ends share one processor, so one of them always runs: CPU time is wall time without other processes.
    ratio = statistics.median(cpu)

    def middle(times: list[float]) -> str:
        return f"{statistics.median(times):.1f}"

    row = [
        comparison.title,
        middle([floor.wall for floor in floors]),
        middle([subject.wall for subject in subjects]),
        middle([floor.cpu for floor in floors]),
        middle([subject.cpu for subject in subjects]),
        f"{statistics.median(wall):.3f}",
        f"{ratio:.3f}",
        f"{min(cpu):.3f}-{max(cpu):.3f}",
    ]
    if comparison.limit is None:
        return row, None
    held = "yes" if ratio <= comparison.limit else "NO"
    return row, Verdict(f"{comparison.title}: CPU ratio", f"<= {comparison.limit:.2f}", f"{ratio:.3f}", held)


@dataclass(frozen=True)
class Runs:
    """How often a program is started, how often it repeats everything, and for how long."""

    count: int
    repetitions: int
    seconds: float


def judge_times(floors: str, comparisons: list[Comparison], rounds: list[dict[str, Times]]) -> list[Verdict]:
    share = statistics.median(times.cpu / times.wall for results in rounds for times in results.values())
    compared = [compare(comparison, rounds) for comparison in comparisons]
    print(floors)
    print("Nanoseconds; a run's time is the median of its repetitions, figures are medians over the runs.\n")
    header = ["", "floor wall", "wall", "floor CPU", "CPU", "wall ratio", "CPU ratio", "of the runs"]
    print_table(header, [row for row, _ in compared])
    print(f"\nThe programs had {share:.0%} of the processor while they ran; below 98% the wall times say little.")
    return [verdict for _, verdict in compared if verdict is not None]


def run_rounds(title: str, program: Path, cpu: int | None, runs: Runs) -> list[dict[str, Times]]:
    print(f"\n== times of {title}: {runs.count} runs, in each {runs.repetitions} repetitions in random order")
    return [run_round(program, cpu, runs.repetitions, runs.seconds) for _ in range(runs.count)]


def measure_times(programs: Path, cpu: int | None, quick: bool) -> list[Verdict]:
    runs = Runs(1, 5, 0.005) if quick else Runs(9, 21, 0.01)
    rounds = run_rounds("traces and messages", programs / "kova-bench", cpu, runs)
    return judge_times(FLOORS, COMPARISONS, rounds)


# --- Counts ---


def run_calls(program: Path, subject: str, count: int, under: list[str]) -> dict[str, int]:
    command = [*under, str(program), subject, str(count)]
    return json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout)


def system_calls(program: Path, subject: str, count: int) -> dict[str, int]:
    """The calls of a whole run, by the kernel's names."""
    with tempfile.NamedTemporaryFile("r", suffix=".strace") as summary:
        run_calls(program, subject, count, ["strace", "-f", "-c", "-U", "calls,name", "-o", summary.name])
        lines = (line.split() for line in summary)
        return {line[1]: int(line[0]) for line in lines if len(line) == 2 and line[0].isdigit() and line[1] != "total"}


def added_system_calls(program: Path, subject: str, count: int) -> dict[str, int]:
    """What `count` repetitions cost: the set-up is in both runs and falls out."""
    without, full = system_calls(program, subject, 0), system_calls(program, subject, count)
    names = {*without, *full}
    return {name: added for name in names if (added := full.get(name, 0) - without.get(name, 0)) != 0}


def can_trace() -> bool:
    if shutil.which("strace") is None:
        return False
    return subprocess.run(["strace", "-o", "/dev/null", "true"], stderr=subprocess.DEVNULL, check=False).returncode == 0


def calls_between_marks(command: list[str | Path]) -> list[str]:
    """The system calls of a program's first thread between its two calls of getppid. Whether reading the clock is one is
    the machine's matter."""
    with tempfile.NamedTemporaryFile("r", suffix=".strace") as log:
        subprocess.run(["strace", "-o", log.name, *command], check=True, stdout=subprocess.DEVNULL)
        names = [line.split("(", 1)[0] for line in log if "(" in line]
    first, last = (i for i, name in enumerate(names) if name == "getppid")
    return [name for name in names[first + 1 : last] if name not in CLOCK_CALLS]


def count_calls(title: str, program: Path, counts: dict[str, dict[str, int]], same: dict[str, str], quick: bool) -> list[Verdict]:
    """Holds the system calls of one repetition against those wanted; `same` maps names of the same call to one."""
    repetitions = 100 if quick else 1000
    print(f"== counts of {title}: {repetitions} repetitions each; system calls by strace")
    if not can_trace():
        print("strace cannot be used here: system calls are not counted")
        return []
    verdicts = []
    for subject, calls in counts.items():
        wanted = {name: count * repetitions for name, count in calls.items()}
        names = calls_between_marks([program, subject, str(repetitions)])
        made = dict(Counter(same.get(name, name) for name in names))
        texts = (per_repetition(part, repetitions) for part in (wanted, made))
        verdicts.append(Verdict(f"{subject}: system calls", *texts, "yes" if made == wanted else "WRONG"))
    return verdicts


def per_repetition(calls: dict[str, int], count: int) -> str:
    return ", ".join(f"{name} {calls[name] / count:g}" for name in sorted(calls)) or "none"


def judge_count(count: Count, program: Path, repetitions: int, strace: bool) -> list[Verdict]:
    counted = run_calls(program, count.subject, repetitions, [])
    allocations = counted.pop("allocate")
    expected = {name: calls * repetitions for name, calls in count.calls.items()}

    def verdict(what: str, to_reach: str, measured: str, is_right: bool) -> Verdict:
        return Verdict(f"{count.title}: {what}", to_reach, measured, "yes" if is_right else "WRONG")

    wanted = per_repetition({name: calls for name, calls in expected.items() if calls}, repetitions)
    made = per_repetition({name: calls for name, calls in counted.items() if calls}, repetitions)
    verdicts = [
        verdict("calls", wanted, made, counted == expected),
        verdict(
            "allocations",
            str(count.allocations),
            f"{allocations / repetitions:g}",
            allocations == count.allocations * repetitions,
        ),
    ]
    if strace:
        added = added_system_calls(program, count.subject, repetitions)
        # Whether reading the clock is a system call is the machine's matter, and reported apart.
        named = {name: 0 for name in expected}
        for name, calls in added.items():
            if name not in CLOCK_CALLS:
                known = SYSTEM_CALLS.get(name, name)
                named[known] = named.get(known, 0) + calls
        shown = per_repetition({name: calls for name, calls in named.items() if calls}, repetitions)
        verdicts.append(verdict("system calls", wanted, shown, named == expected))
    return verdicts


def measure_counts(programs: Path, quick: bool) -> list[Verdict]:
    program, repetitions = programs / "kova-bench-calls", 100 if quick else 1000
    strace = can_trace()
    print(f"== counts of traces and messages: {repetitions} repetitions each; calls of the C library by interposition, system calls by strace")
    if not strace:
        print("strace cannot be used here: system calls are not counted")
    verdicts = [v for count in COUNTS for v in judge_count(count, program, repetitions, strace)]
    if strace:
        added = added_system_calls(program, "clock", repetitions)
        print(f"System calls for reading both clocks once: {per_repetition(added, repetitions)}")
    return verdicts


def run_report(
    title: str,
    counts: Callable[[Path, bool], list[Verdict]],
    times: Callable[[Path, int | None, bool], list[Verdict]],
) -> int:
    """The whole of a report's program; returns its exit status."""
    parser = argparse.ArgumentParser(description=f"Runs the benchmarks of {title} and judges them.")
    parser.add_argument("--quick", action="store_true", help="a smoke run of a few seconds; its times say little")
    parser.add_argument("--cpu", type=int, help="the processor to measure on (default: the last one)")
    parser.add_argument("programs", type=Path, help="directory of the benchmark programs")
    arguments = parser.parse_args()

    counted = counts(arguments.programs, arguments.quick)
    timed = times(arguments.programs, arguments.cpu, arguments.quick)
    print(f"\n== verdicts on {title}" + (" (quick: the times say little)" if arguments.quick else ""))
    print_table(["", "to reach", "measured", "held?"], [[v.title, v.to_reach, v.measured, v.held] for v in timed + counted])
    wrong = sum(v.held == "WRONG" for v in counted)
    print(f"\n{len(counted) - wrong} of {len(counted)} counts right")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(run_report("traces and messages", measure_counts, measure_times))
