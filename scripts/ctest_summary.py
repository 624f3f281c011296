#!/usr/bin/env python3
"""Turns ctest's JUnit file into a readable summary.

ctest_summary.py PLATFORM JUNIT-FILE CTEST-STATUS

Names every failed test with the end of its output and every skipped one with its reason, then prints the
counts. The last line, for the caller, is "PASSED FAILED SKIPPED".
"""

import sys
import xml.etree.ElementTree as ElementTree

OUTPUT_LINES = 40


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


def main() -> int:
    platform, path, status = sys.argv[1], sys.argv[2], int(sys.argv[3])
    try:
        cases = ElementTree.parse(path).getroot().findall("testcase")
    except (OSError, ElementTree.ParseError) as error:
        print(f"{platform}: no results: {error}")
        print("0 1 0")
        return 1

    passed, failed, skipped = 0, 0, 0
    for case in cases:
        name, output = case.get("name", "?"), case.findtext("system-out") or ""
        skip = case.find("skipped")
        if case.get("status") == "run":
            passed += 1
        elif case.get("status") == "disabled":
            skipped += 1
            print(f"{platform}: skipped {name}: disabled")
        elif skip is not None and (skip.get("message") or "").startswith("SKIP_"):
            skipped += 1
            print(f"{platform}: skipped {name}: {skip_reason(output)}")
        else:
            # Failed, or not run at all: a missing program, a fixture that failed.
            failed += 1
            print(f"{platform}: FAILED {name}")
            print("\n".join("    " + line for line in output.splitlines()[-OUTPUT_LINES:]))
    if status != 0 and failed == 0:
        failed = 1
        print(f"{platform}: ctest ended with status {status} without naming a failed test")
    if passed + failed + skipped == 0:
        print(f"{platform}: no test ran")
    print(f"{platform}: {passed} passed, {failed} failed, {skipped} skipped")
    print(passed, failed, skipped)
    return 0


if __name__ == "__main__":
    sys.exit(main())
