#!/usr/bin/env python3
"""Runs kova-bench-net and kova-bench-net-calls and prints tables and verdicts, as report.py does for the rest.

net_report.py [--quick] [--cpu N] DIRECTORY-OF-THE-PROGRAMS

Makes network interfaces: scripts/bench runs it in namespaces of its own. Exit status: 1 when a count is wrong, 0
otherwise. Times are reported, never judged by the status.
"""

import re
import resource
import shutil
import subprocess
import sys
from pathlib import Path

sys.dont_write_bytecode = True  # nothing of this run stays in the tree
import report  # noqa: E402
from report import Comparison, Runs, Verdict  # noqa: E402


def text(title: str, key: str, peers: list[str]) -> list[Comparison]:
    own = Comparison(title, f"{key}/library", f"{key}/by-hand", 1.10)
    return [own] + [Comparison(f"... {peer}", f"{key}/{peer}", f"{key}/by-hand", None) for peer in peers]


COMPARISONS = [
    Comparison("ping of 127.0.0.1", "ping/library", "ping/by-hand", 1.10),
    Comparison("decoding a frame", "decode/library", "decode/by-hand", 1.10),
    Comparison("... tins", "decode/tins", "decode/by-hand", None),
    *text("MAC address from text", "mac-parse", ["ether", "tins"]),
    *text("MAC address to text", "mac-print", ["ether", "tins"]),
    *text("IPv4 address from text", "ip4-parse", ["asio"]),
    *text("IPv4 address to text", "ip4-print", ["asio"]),
    *text("IPv6 address from text", "ip6-parse", ["asio"]),
    *text("IPv6 address to text", "ip6-print", ["asio"]),
    Comparison("table of seven interfaces", "gather/library", "gather/by-hand", 1.10),
    Comparison("... gathered again", "gather-again/library", "gather-again/by-hand", 1.10),
]

FLOORS = """\
Floors, on one processor like their subjects:
  ping             the same system calls by hand on a raw socket, the same request and reply
  frame            the least that finds the same fields and keeps them
  MAC address      two digits and a colon six times, nothing else
  IP address       inet_pton and inet_ntop, from and to the bytes that an address holds
  table            the same system calls by hand"""

# System calls of one repetition, on a host with seven interfaces.
COUNTS = {
    "ping": {"sendto": 1, "select": 2, "recvfrom": 2},
    "decode": {},
    "mac-of-device": {"socket": 1, "fcntl": 1, "setsockopt": 5, "ioctl": 3, "shutdown": 1, "close": 1},
    "gather-again": {"socket": 1, "fcntl": 1, "ioctl": 15, "setsockopt": 1, "shutdown": 1, "close": 1},
}
SAME_CALL = {"pselect6": "select", "pselect6_time64": "select", "_newselect": "select", "fcntl64": "fcntl"}


def make_interfaces() -> None:
    """Seven with the loopback interface, all with an IPv4 address."""
    commands = ["link set lo up"]
    for i in range(3):
        commands.append(f"link add kb{i} type veth peer name kc{i}")
        for j, name in enumerate((f"kb{i}", f"kc{i}")):
            commands += [f"addr add 10.{i}.{j}.1/24 dev {name}", f"link set {name} up"]
    subprocess.run(["ip", "-batch", "-"], input="\n".join(commands), text=True, check=True)


def measure_counts(programs: Path, quick: bool) -> list[Verdict]:
    make_interfaces()
    return report.count_calls("the network", programs / "kova-bench-net-calls", COUNTS, SAME_CALL, quick)


def measure_fping(quick: bool) -> None:
    if shutil.which("fping") is None:
        print("fping is not here: not compared")
        return
    count = 100 if quick else 2000
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    command = ["fping", "-q", "-c", str(count), "-p", "1", "-i", "1", "127.0.0.1"]
    result = subprocess.run(command, check=False, capture_output=True, text=True)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
    times = re.search(r"min/avg/max = ([\d./]+)", result.stderr)
    if result.returncode != 0 or times is None:
        print(f"fping failed: {result.stderr.strip()}")
        return
    print(f"fping, {count} pings of 127.0.0.1: {cpu / count * 1e9:.0f} ns CPU each, ", end="")
    print(f"round trip min/avg/max {times.group(1)} ms")


def measure_times(programs: Path, cpu: int | None, quick: bool) -> list[Verdict]:
    runs = Runs(1, 3, 0.002) if quick else Runs(7, 11, 0.005)
    rounds = report.run_rounds("the network", programs / "kova-bench-net", cpu, runs)
    verdicts = report.judge_times(FLOORS, COMPARISONS, rounds)
    measure_fping(quick)
    return verdicts


if __name__ == "__main__":
    sys.exit(report.run_report("the network", measure_counts, measure_times))
