#!/usr/bin/env python3
"""Runs kova-bench-locks and kova-bench-lock-calls and prints tables and verdicts, as report.py does for the rest.

lock_report.py [--quick] [--cpu N] DIRECTORY-OF-THE-PROGRAMS

Exit status: 1 when a count is wrong, 0 otherwise. Times are reported, never judged by the status.
"""

import sys
from collections import Counter
from dataclasses import dataclass
from pathlib import Path

sys.dont_write_bytecode = True  # nothing of this run stays in the tree
import report  # noqa: E402
from report import Comparison, Runs, Times, Verdict  # noqa: E402

PEERS = [
    Comparison("trace point, 1 value; floor the record alone", "point/library", "point/record", None),
    Comparison("lock + unlock", "mutex/quiet", "mutex/pthread", 1.15),
    Comparison("... floor trylock + unlock", "mutex/quiet", "mutex/pthread-trylock", None),
    Comparison("... the plain functions", "mutex/functions", "mutex/pthread", None),
    Comparison("... std::mutex", "mutex/std", "mutex/pthread", None),
    Comparison("post + wait", "semaphore/quiet", "semaphore/by-hand", None),
    Comparison("... sem_t", "semaphore/posix", "semaphore/by-hand", None),
    Comparison("... std::counting_semaphore", "semaphore/std", "semaphore/by-hand", None),
    Comparison("semaphore round trip", "semaphore-round-trip/quiet", "semaphore-round-trip/by-hand", None),
    Comparison("... traced", "semaphore-round-trip/traced", "semaphore-round-trip/by-hand", None),
    Comparison("... sem_t", "semaphore-round-trip/posix", "semaphore-round-trip/by-hand", None),
    Comparison("... std::counting_semaphore", "semaphore-round-trip/std", "semaphore-round-trip/by-hand", None),
    Comparison("read pair", "rwlock-read/library", "rwlock-read/pthread", None),
    Comparison("... floor by hand", "rwlock-read/library", "rwlock-read/by-hand", None),
    Comparison("... std::shared_mutex", "rwlock-read/std", "rwlock-read/pthread", None),
    Comparison("read pair beside a reader", "rwlock-read-beside/library", "rwlock-read-beside/pthread", None),
    Comparison("... floor by hand", "rwlock-read-beside/library", "rwlock-read-beside/by-hand", None),
    Comparison("... std::shared_mutex", "rwlock-read-beside/std", "rwlock-read-beside/pthread", None),
    Comparison("read pairs of 2 threads", "rwlock-read-together/library", "rwlock-read-together/pthread", None),
    Comparison("... floor by hand", "rwlock-read-together/library", "rwlock-read-together/by-hand", None),
    Comparison("... std::shared_mutex", "rwlock-read-together/std", "rwlock-read-together/pthread", None),
    Comparison("write pair", "rwlock-write/library", "rwlock-write/pthread", None),
    Comparison("... floor by hand", "rwlock-write/library", "rwlock-write/by-hand", None),
    Comparison("... std::shared_mutex", "rwlock-write/std", "rwlock-write/pthread", None),
    Comparison("thread, start to finish", "thread/library", "thread/detached", None),
    Comparison("... with its context's end", "thread/library-context", "thread/detached", None),
    Comparison("... detached, ended by pthread_exit", "thread/detached-exit", "thread/detached", None),
    Comparison("... created and joined", "thread/joined", "thread/detached", None),
    Comparison("... std::thread", "thread/std", "thread/detached", None),
]


@dataclass(frozen=True)
class Traced:
    """Held against its floor and the records that it writes."""

    title: str
    subject: str
    floor: str
    records: int
    limit: float | None  # how many floors and the records may be reached


TRACED = [
    Traced("lock + unlock, traced", "mutex/traced", "mutex/pthread", 2, 1.15),
    Traced("post + wait, traced", "semaphore/traced", "semaphore/by-hand", 3, None),
]
RECORD = "point/library"

FLOORS = """\
Floors, on one processor like their subjects:
  lock + unlock    a bare error-checking pthread mutex
  post + wait      a bare pthread mutex of the same kind, condition and counter
  round trip       the same: a post there and a post back, each thread waits for the other's
  read, write      pthread_rwlock_t; by hand: the library's way (two semaphores, one mutex) on bare pthread calls
  thread           a detached pthread with a stack of the same size that posts such a semaphore
  + n records      a floor and n trace points of one value, as measured in the same run"""

CALLS = {"trylock": 0, "lock": 0, "unlock": 0, "signal": 0, "wait": 0}
ALLOCATIONS = {"new": 0, "allocate": 0}


@dataclass(frozen=True)
class Count:
    title: str
    subject: str
    calls: dict[str, int]  # per repetition; names that are missing are not judged
    allocations: dict[str, int]  # the same
    system_calls: bool = True  # whether they are judged: there must be none


def lock_count(title: str, subject: str, system_calls: bool = True, **calls: int) -> Count:
    return Count(title, subject, CALLS | calls, ALLOCATIONS, system_calls)


COUNTS = [
    lock_count("lock + unlock", "mutex-quiet", trylock=1, unlock=1),
    lock_count("lock + unlock, traced", "mutex-traced", trylock=1, unlock=1),
    lock_count("lock + unlock, plain functions", "mutex-functions", lock=1, unlock=1),
    lock_count("trylock, trylock in vain, unlock", "mutex-trylock", trylock=2, unlock=1),
    lock_count("lock that waits", "mutex-wait", False, trylock=2, lock=1, unlock=2),
    lock_count("post + wait", "semaphore-quiet", lock=2, unlock=2, signal=1),
    lock_count("post + wait, traced", "semaphore-traced", lock=2, unlock=2, signal=1),
    lock_count("post, try-wait twice, query, reset", "semaphore-others", lock=4, unlock=4, signal=1),
    lock_count("post, time-wait, time-out", "semaphore-timed", False, lock=3, unlock=3, signal=1, wait=1),
    # A condition may wake without a signal, and is then waited for again.
    Count(
        "post + wait that waits",
        "semaphore-wait",
        {"trylock": 0, "lock": 2, "unlock": 2, "signal": 1},
        ALLOCATIONS,
        False,
    ),
    lock_count("read pair", "rwlock-read", trylock=1, lock=2, unlock=3, signal=1),
    lock_count("write pair", "rwlock-write", trylock=1, unlock=1),
    lock_count("begin read, try write, end write", "rwlock-trywrite", trylock=2, lock=2, unlock=4, signal=1),
    lock_count("one of each made and destroyed", "made"),
    # Shows as well that allocations are counted.
    Count("mutex on the heap", "heap", CALLS, {"new": 1, "allocate": 1}),
    # The object of the thread, which is the caller's; what the C library allocates for a thread is its own matter.
    Count("thread, start to finish", "thread", {}, {"new": 1}, False),
]


# --- Times ---


def add_sums(results: dict[str, Times]) -> None:
    """Adds to a round's times what the traced locks are held against."""
    record = results[RECORD]
    for traced in TRACED:
        for name, factor in (("sum", 1.0), ("limit", traced.limit)):
            if factor is not None:
                floor = results[traced.floor]
                results[f"{traced.subject}/{name}"] = Times(
                    factor * floor.wall + traced.records * record.wall,
                    factor * floor.cpu + traced.records * record.cpu,
                )


def traced_comparisons() -> list[Comparison]:
    comparisons = []
    for traced in TRACED:
        records = f"{traced.records} records"
        title = f"{traced.title}; floor + {records}"
        comparisons.append(Comparison(title, traced.subject, f"{traced.subject}/sum", None))
        if traced.limit is not None:
            title = f"{traced.title}; {traced.limit} floors + {records}"
            comparisons.append(Comparison(title, traced.subject, f"{traced.subject}/limit", 1.0))
    return comparisons


def measure_times(programs: Path, cpu: int | None, quick: bool) -> list[Verdict]:
    runs = Runs(1, 5, 0.002) if quick else Runs(9, 21, 0.005)
    rounds = report.run_rounds("locks and threads", programs / "kova-bench-locks", cpu, runs)
    for results in rounds:
        add_sums(results)
    return report.judge_times(FLOORS, PEERS + traced_comparisons(), rounds)


# --- Counts ---


def judge_part(count: Count, what: str, expected: dict[str, int], counted: dict[str, int], repetitions: int) -> Verdict:
    wanted = {name: calls * repetitions for name, calls in expected.items()}
    made = {name: counted[name] for name in expected}
    wanted_text, made_text = (
        report.per_repetition({name: calls for name, calls in part.items() if calls}, repetitions)
        for part in (wanted, made)
    )
    return Verdict(f"{count.title}: {what}", wanted_text, made_text, "yes" if made == wanted else "WRONG")


def judge_count(count: Count, program: Path, repetitions: int, strace: bool) -> list[Verdict]:
    counted = report.run_calls(program, count.subject, repetitions, [])
    verdicts = [judge_part(count, "allocations", count.allocations, counted, repetitions)]
    if count.calls:
        verdicts.insert(0, judge_part(count, "calls", count.calls, counted, repetitions))
    if strace and count.system_calls:
        made = dict(Counter(report.calls_between_marks([program, count.subject, str(repetitions)])))
        shown = report.per_repetition(made, repetitions)
        verdicts.append(Verdict(f"{count.title}: system calls", "none", shown, "WRONG" if made else "yes"))
    return verdicts


def measure_counts(programs: Path, quick: bool) -> list[Verdict]:
    program, repetitions = programs / "kova-bench-lock-calls", 100 if quick else 1000
    strace = report.can_trace()
    print(f"== counts of locks and threads: {repetitions} repetitions each; system calls by strace")
    if not strace:
        print("strace cannot be used here: system calls are not counted")
    return [verdict for count in COUNTS for verdict in judge_count(count, program, repetitions, strace)]


if __name__ == "__main__":
    sys.exit(report.run_report("locks and threads", measure_counts, measure_times))
