"""`kova watch`: changes in directories."""

import os
import re
import signal
import unittest

import ipc_user
from tool import Running, ToolTest, kova, wait_until

TIME = rb"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ "


class Watch(ToolTest):
    def directory(self, name="d"):
        path = self.dir / name
        path.mkdir()
        return path

    def watch(self, *arguments):
        """`kova watch`, ready for changes."""
        running = Running("watch", *arguments)
        count = sum(not str(argument).isdigit() and argument != "--count" for argument in arguments)
        try:
            running.wait_for_output(rb"\A(watching [^\n]*\n){%d}" % count)
        except BaseException:
            running.process.kill()
            raise
        return running

    def change(self, path):
        return TIME + re.escape(bytes(path)) + rb"\n"

    def test_each_change_is_a_line(self):
        path = self.directory()
        (path / "old").touch()
        # The rename, which brings several lines, comes last.
        steps = (
            lambda: (path / "a").touch(),
            lambda: os.truncate(path / "a", 1),
            lambda: (path / "old").unlink(),
            lambda: (path / "a").rename(path / "b"),
        )
        with self.watch(path) as watch:
            for step in steps:
                seen = len(watch.output)
                step()
                wait_until(lambda: len(watch.output) > seen, lambda: f"more than {watch.output!r}")
            self.assertEqual(watch.stop(), 0)
            lines = rb"\Awatching %b\n(%b)+\Z" % (re.escape(bytes(path)), self.change(path))
            self.assertRegex(watch.output, lines)
            self.assertEqual(watch.errors, b"")

    def test_directories_are_told_apart(self):
        first, second = self.directory("a"), self.directory("b")
        with self.watch(first, second, "--count", 2) as watch:
            (second / "x").mkdir()
            watch.wait_for_output(self.change(second))
            (first / "x").mkdir()
            self.assertEqual(watch.end(), 0)
            head = b"watching %b\nwatching %b\n" % (bytes(first), bytes(second))
            self.assertRegex(
                watch.output, re.escape(head) + self.change(second) + self.change(first) + rb"\Z"
            )

    def test_count_ends_the_watch(self):
        path = self.directory()
        with self.watch(path, "--count", 1) as watch:
            for number in range(10):
                (path / str(number)).mkdir()
            self.assertEqual(watch.end(), 0)
            self.assertEqual(watch.output.count(b"\n"), 2)

    def test_no_change_of_many_is_lost(self):
        path = self.directory()
        with self.watch(path, "--count", 100) as watch:
            for number in range(100):
                (path / str(number)).mkdir()
            self.assertEqual(watch.end(), 0)

    def test_signals_end_the_watch(self):
        path = self.directory()
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number=number), self.watch(path) as watch:
                self.assertEqual(watch.stop(number), 0)
                self.assertEqual(watch.errors, b"")

    def test_a_path_is_shown_as_the_library_expands_it(self):
        path = self.directory()
        os.environ["WATCHED"] = str(path)
        with self.watch("$WATCHED", "--count", 1) as watch:
            (path / "a").mkdir()
            self.assertEqual(watch.end(), 0)
            self.assertRegex(watch.output, rb"\Awatching \$WATCHED\n%b\Z" % self.change(path))

    def test_paths_cannot_steer_a_terminal(self):
        path = self.directory("a\x1b\n")
        with self.watch(path, "--count", 1) as watch:
            (path / "a").mkdir()
            self.assertEqual(watch.end(), 0)
            self.assertRegex(watch.output, rb"\Awatching \S*/a\\x1b\\x0a\n" + TIME + rb"\S*/a\\x1b\\x0a\n\Z")

    def assert_refused(self, directories, message, code=2):
        """Nothing is watched when one directory cannot be."""
        self.assert_ended(kova("watch", *directories), code, rb"\Akova: cannot watch " + message, rb"\A\Z")

    def test_a_directory_that_is_not_there_is_named(self):
        self.assert_refused(
            [self.directory(), self.dir / "none"], rb"\S+/none: not readable: No such file or directory\n\Z"
        )

    def test_a_directory_twice_is_refused(self):
        path = self.directory()
        self.assert_refused([path, path], rb"\S+/d: it is watched already\n\Z")

    def test_a_file_or_pipe_is_refused(self):
        self.assert_refused([self.file("f", b"")], rb"\S+/f: not a directory\n\Z")
        os.mkfifo(self.dir / "pipe")
        self.assert_refused([self.dir / "pipe"], rb"\S+/pipe: not a directory\n\Z")

    def test_a_ninth_directory_is_refused(self):
        paths = [self.directory(str(number)) for number in range(9)]
        self.assert_refused(paths, rb"\S+/8: as many directories as possible are watched already\n\Z")
        with self.watch(*paths[:8], "--count", 1) as watch:
            (paths[7] / "x").mkdir()
            self.assertEqual(watch.end(), 0)

    def test_a_directory_without_permission_is_refused(self):
        path = self.directory()
        self.dir.chmod(0o755)
        path.chmod(0o700)
        self.assert_ended(
            ipc_user.as_nobody(self, "watch", path),
            2,
            rb"\Akova: cannot watch \S+/d: not readable: Permission denied\n\Z",
        )

    def test_no_privilege_is_needed(self):
        path = self.directory()
        self.dir.chmod(0o755)
        result = ipc_user.as_nobody(self, "watch", path, path)
        self.assert_ended(result, 2, rb"it is watched already\n\Z")

    def test_usage_errors(self):
        path = self.directory()
        for arguments in ([], [path, "--count", -1], [path, "--frob"]):
            self.assert_ended(kova("watch", *arguments), 2, rb"\Akova: ", rb"\A\Z")
        self.assert_refused([""], rb": not readable: No such file or directory\n\Z")

    def test_help(self):
        self.assert_ended(kova("watch", "--help"), 0, output=rb"(?s)DIR.*eight.*--count.*Exit codes:")


if __name__ == "__main__":
    unittest.main()
