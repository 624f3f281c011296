#!/usr/bin/env python3
"""ctest_summary_test.py SCRIPT: what scripts/ctest_summary.py makes of ctest's and the board's results."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

SCRIPT = sys.argv.pop(1)

PASSED = '<testcase name="{}" status="run"><system-out>{}</system-out></testcase>'
FAILED = '<testcase name="{}" status="fail"><failure message=""/><system-out>{}</system-out></testcase>'
SKIPPED = (
    '<testcase name="{}" status="notrun"><skipped message="SKIP_REGULAR_EXPRESSION_MATCHED"/>'
    "<system-out>{}</system-out></testcase>"
)
CASE = '<testcase classname="Suite" name="{}" status="run">{}</testcase>'


class Summary(unittest.TestCase):
    def setUp(self) -> None:
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.tree = pathlib.Path(directory.name)

    def leave(self, program: str, result: str) -> None:
        """What a program on the board left, as far as it got."""
        path = self.tree / "tests" / "board" / program
        path.mkdir(parents=True)
        if result:
            (path / "result.xml").write_text(result)

    def summarize(self, *cases: str, status: int = 0) -> tuple[list[str], str]:
        (self.tree / "junit.xml").write_text(f"<testsuite>{''.join(cases)}</testsuite>")
        run = subprocess.run(
            [sys.executable, SCRIPT, "here", str(self.tree), str(status)], capture_output=True, text=True, check=False
        )
        lines = run.stdout.splitlines()
        return lines[:-1], lines[-1]

    def test_counts_what_ctest_ran(self) -> None:
        lines, counts = self.summarize(
            PASSED.format("A.B", ""),
            FAILED.format("A.C", "expected 1"),
            SKIPPED.format("A.D", "file.cpp:1: Skipped\nno root here\n[  SKIPPED ]"),
            status=8,
        )
        self.assertEqual("1 1 1", counts)
        self.assertIn("here: FAILED A.C", lines)
        self.assertIn("    expected 1", lines)
        self.assertIn("here: skipped A.D: no root here", lines)

    def test_failures_are_kept_for_the_end(self) -> None:
        lines, _ = self.summarize(PASSED.format("A.B", ""), FAILED.format("A.C", "expected 1"), status=8)
        kept = (self.tree / "failures.txt").read_text().splitlines()
        self.assertEqual(["here: FAILED A.C", "    expected 1"], kept)
        self.assertEqual(kept, lines[:2])
        self.summarize(PASSED.format("A.B", ""))
        self.assertEqual("", (self.tree / "failures.txt").read_text())
        self.summarize(PASSED.format("A.B", ""), status=1)
        self.assertIn("without naming", (self.tree / "failures.txt").read_text())

    def test_skipped_case_that_broke_afterwards_failed(self) -> None:
        text = "file.cpp:1: Skipped\nreason\n==7==ERROR: AddressSanitizer: heap-use-after-free"
        self.assertEqual("0 1 0", self.summarize(SKIPPED.format("A.B", text))[1])

    def test_cases_of_the_board_count_by_name(self) -> None:
        self.leave(
            "x_test",
            "<testsuites>"
            + CASE.format("One", "")
            + CASE.format("Two", "<failure>wrong</failure>")
            + CASE.format("Three", "<skipped>file.cpp:9\nnot here</skipped>")
            + "</testsuites>",
        )
        lines, counts = self.summarize(FAILED.format("board.x_test", ""), status=8)
        self.assertEqual("1 1 1", counts)
        self.assertIn("here: FAILED board.x_test: Suite.Two", lines)
        self.assertIn("here: skipped board.x_test: Suite.Three: not here", lines)

    def test_program_that_ended_without_results_failed(self) -> None:
        for result in ("", "<testsuites/>", "<testsuites><testcase"):
            with self.subTest(result):
                self.setUp()
                self.leave("x_test", result)
                self.assertEqual("0 1 0", self.summarize(PASSED.format("board.x_test", ""))[1])

    def test_broken_results_of_one_program_leave_the_others(self) -> None:
        self.leave("x_test", "no xml")
        self.assertEqual("1 1 0", self.summarize(PASSED.format("A.B", ""), PASSED.format("board.x_test", ""))[1])

    def test_crash_behind_the_last_case_failed(self) -> None:
        for cases, counts in ((CASE.format("One", ""), "1 1 0"), (CASE.format("One", "<failure>x</failure>"), "0 2 0")):
            with self.subTest(counts):
                self.setUp()
                self.leave("x_test", f"<testsuites>{cases}</testsuites>")
                text = "run-on-board: the program was ended by signal 11"
                self.assertEqual(counts, self.summarize(FAILED.format("board.x_test", text), status=8)[1])

    def test_other_tests_on_the_board_count_as_one(self) -> None:
        self.assertEqual("1 0 0", self.summarize(PASSED.format("board.run_on_board", ""))[1])

    def test_failure_that_no_test_explains_counts(self) -> None:
        self.assertEqual("1 1 0", self.summarize(PASSED.format("A.B", ""), status=1)[1])


if __name__ == "__main__":
    unittest.main()
