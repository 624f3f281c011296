#!/usr/bin/env python3
"""Turns ctest's results into a readable summary.

ctest_summary.py PLATFORM BUILD-TREE CTEST-STATUS

Names every failed test with the end of its output and every skipped one with its reason, then prints the
counts. The last line, for the caller, is "PASSED FAILED SKIPPED". What is said of failed tests also stands in
BUILD-TREE/failures.txt, for callers that run several platforms.

A test board.PROGRAM of ctest is a whole program that ran on the board; its cases count, as it left them in
tests/board/PROGRAM/result.xml.
"""

import dataclasses
import pathlib
import re
import sys
import typing
import xml.etree.ElementTree as ElementTree

OUTPUT_LINES = 40
BROKEN = re.compile(r"^==\d+==ERROR|Sanitizer: |^\[  FAILED  \]|: runtime error: ", re.MULTILINE)


@dataclasses.dataclass
class Result:
    """How a test ended: "passed", "failed" or "skipped", with the reason to print."""

    name: str
    end: str
    text: str = ""


def skip_reason(output: str) -> str:
    """What the test said when it skipped itself: the text after GoogleTest's mark, else its last line."""
    lines = output.splitlines()
    for number, line in enumerate(lines):
        if line.endswith(": Skipped"):
            reason = []
            for text in lines[number + 1 :]:
                if text.startswith("[") or not text.strip():
                    break
                reason.append(text.strip())
            return " ".join(reason) or "no reason given"
    texts = [line.strip() for line in lines if line.strip()]
    return texts[-1] if texts else "no reason given"


def ctest_result(case: ElementTree.Element) -> Result:
    name, output = case.get("name", "?"), case.findtext("system-out") or ""
    skip = case.find("skipped")
    if case.get("status") == "run":
        return Result(name, "passed")
    if case.get("status") == "disabled":
        return Result(name, "skipped", "disabled")
    if skip is not None and (skip.get("message") or "").startswith("SKIP_"):
        # ctest knows a skipped case by its output, whatever came of it afterwards.
        if BROKEN.search(output):
            return Result(name, "failed", output)
        return Result(name, "skipped", skip_reason(output))
    # Failed, or not run at all: a missing program, a fixture that failed.
    return Result(name, "failed", output)


def board_result(program: str, case: ElementTree.Element) -> Result:
    name = f"{program}: {case.get('classname')}.{case.get('name')}"
    failures = [failure.text or "" for failure in case.findall("failure")]
    skip = case.find("skipped")
    if failures:
        return Result(name, "failed", "\n".join(failures))
    if skip is not None:
        return Result(name, "skipped", " ".join((skip.text or "").splitlines()[1:]))
    if case.get("status") != "run":
        return Result(name, "skipped", "disabled")
    return Result(name, "passed")


def board_results(program: Result, tree: pathlib.Path) -> typing.Iterator[Result]:
    """The cases of a program that ran on the board, and its own end where they do not explain it."""
    directory = tree / "tests" / "board" / program.name.removeprefix("board.")
    if not directory.exists():
        yield program
        return
    try:
        cases = [
            board_result(program.name, case)
            for case in ElementTree.parse(directory / "result.xml").iter("testcase")
        ]
        problem = "it ran no case"
    except (OSError, ElementTree.ParseError) as error:
        cases, problem = [], f"it left no results: {error}"
    if not cases:
        yield Result(program.name, "failed", f"{program.text}\n{problem}")
        return
    yield from cases
    explained = any(case.end == "failed" for case in cases) and "run-on-board:" not in program.text
    if program.end == "failed" and not explained:
        yield program


def results(tree: pathlib.Path) -> typing.Iterator[Result]:
    for case in ElementTree.parse(tree / "junit.xml").getroot().findall("testcase"):
        result = ctest_result(case)
        if result.name.startswith("board."):
            yield from board_results(result, tree)
        else:
            yield result


def main() -> int:
    platform, tree, status = sys.argv[1], pathlib.Path(sys.argv[2]), int(sys.argv[3])
    counts = {"passed": 0, "failed": 0, "skipped": 0}
    failures: list[str] = []
    try:
        for result in results(tree):
            counts[result.end] += 1
            if result.end == "skipped":
                print(f"{platform}: skipped {result.name}: {result.text}")
            elif result.end == "failed":
                failures.append(f"{platform}: FAILED {result.name}")
                failures += ("    " + line for line in result.text.splitlines()[-OUTPUT_LINES:])
    except (OSError, ElementTree.ParseError) as error:
        print(f"{platform}: no results: {error}")
        (tree / "failures.txt").write_text(f"{platform}: no results: {error}\n")
        print("0 1 0")
        return 1

    if status != 0 and counts["failed"] == 0:
        counts["failed"] = 1
        failures.append(f"{platform}: ctest ended with status {status} without naming a failed test")
    text = "".join(line + "\n" for line in failures)
    (tree / "failures.txt").write_text(text)
    print(text, end="")
    if not any(counts.values()):
        print(f"{platform}: no test ran")
    print(f"{platform}: " + ", ".join(f"{count} {end}" for end, count in counts.items()))
    print(*counts.values())
    return 0


if __name__ == "__main__":
    sys.exit(main())
