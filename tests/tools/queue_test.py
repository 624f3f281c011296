"""`kova queue`: message queues."""

import os
import pty
import re
import signal
import subprocess
import time
import unittest

import ipc_user
from ipc_user import QUEUES, User, is_queue, key_file
from tool import KOVA, LIMIT, Running, ToolTest, kova, wait_until


class Queue(ToolTest):
    def send(self, *arguments, stdin=b"", output=None):
        self.assert_ended(kova("queue", "send", "q", *arguments, stdin=stdin), 0, output=output)

    def receive(self, *arguments):
        """What `kova queue receive` prints."""
        result = kova("queue", "receive", "q", "--timeout", LIMIT * 1000, *arguments)
        self.assert_ended(result, 0)
        return result.stdout.decode()

    def receiver(self, *arguments):
        """`kova queue receive` that waits for a message."""
        running = Running("queue", "receive", "q", *arguments)
        wait_until(lambda: self.sleeps_in_call(running.process.pid), lambda: "kova waits")
        return running

    @staticmethod
    def sleeps_in_call(pid):
        """Whether the process sleeps with the queue open."""
        with open(f"/proc/{pid}/stat", encoding="ascii") as file:
            sleeps = file.read().rpartition(") ")[2].startswith("S")
        return sleeps and os.path.exists(f"{QUEUES}/q.kovamsg") and is_queue(key_file("q.kovamsg"))

    def test_a_text_goes_round(self):
        self.send("hello", output=rb"\Asent message to queue q: type 1, 5 bytes\n\Z")
        self.assertEqual(self.receive(), "message 1 from queue q: 5 bytes\n  hello\n")

    def test_standard_input_and_files_go_round(self):
        body = "ä\n" * 100
        self.send(stdin=body.encode(), output=rb"type 1, 300 bytes\n\Z")
        self.send("-", stdin=b"x", output=rb"type 1, 1 byte\n\Z")
        self.send("--file", self.file("body", b"from file"))
        self.assertEqual(
            self.receive("--count", 3),
            "message 1 from queue q: 300 bytes\n"
            + "  ä\n" * 100
            + "message 2 from queue q: 1 byte\n  x\nmessage 3 from queue q: 9 bytes\n  from file\n",
        )

    def test_an_empty_message_goes_round(self):
        self.send("", output=rb"type 1, 0 bytes\n\Z")
        self.send(stdin=b"", output=rb"type 1, 0 bytes\n\Z")
        self.assertEqual(
            self.receive("--count", 2), "message 1 from queue q: 0 bytes\nmessage 2 from queue q: 0 bytes\n"
        )

    def test_bodies_that_are_no_text_are_shown_as_hex_dumps(self):
        self.send(stdin=b"\0\xff")
        self.assertRegex(
            self.receive(), r"\Amessage 1 from queue q: 2 bytes\n  00000000  00 ff +\|\.\.\|\n\Z"
        )

    def test_text_is_shown_as_a_hex_dump_if_wanted(self):
        self.send("ab")
        self.assertRegex(self.receive("--hex"), r"\n  00000000  61 62 +\|ab\|\n\Z")

    def test_the_largest_message_goes_round(self):
        self.send(stdin=b"x" * 8192)
        self.assertEqual(self.receive(), "message 1 from queue q: 8192 bytes\n  " + "x" * 8192 + "\n")

    def test_a_message_that_is_too_large_is_refused(self):
        result = kova("queue", "send", "q", stdin=b"x" * 8193)
        self.assert_ended(result, 1, rb"\Akova: nothing sent to queue q: Invalid argument\n\Z", rb"\A\Z")

    def test_messages_are_taken_by_type(self):
        for type in (3, 2, 5, 2):
            self.send(f"type {type}", "--type", type, output=rb"type %d, 6 bytes\n\Z" % type)
        bodies = [
            self.receive(*arguments).split("\n  ")[1] for arguments in (("--type", 5), ("--type", -4), (), ())
        ]
        self.assertEqual(bodies, ["type 5\n", "type 2\n", "type 3\n", "type 2\n"])

    def test_the_librarys_users_are_reached(self):
        with User("open-queue q", "send q hello") as user:
            self.assertEqual(self.receive("--type", 1), "message 1 from queue q: 5 bytes\n  hello\n")
            self.send("welcome")
            self.assertEqual(user.do("receive q"), 7)

    def test_the_queue_and_its_messages_stay(self):
        self.send("hello")
        self.assertTrue(os.path.exists(f"{QUEUES}/q.kovamsg"))
        self.receive()
        self.assertTrue(is_queue(key_file("q.kovamsg")))

    def test_a_receiver_waits(self):
        with self.receiver() as receiver:
            self.send("hello")
            self.assertEqual(receiver.end(), 0)
            self.assertEqual(receiver.output, b"message 1 from queue q: 5 bytes\n  hello\n")

    def test_the_wait_can_be_limited(self):
        begin = time.monotonic()
        result = kova("queue", "receive", "q", "--timeout", 300)
        self.assertGreaterEqual(time.monotonic() - begin, 0.3)
        self.assert_ended(result, 1, rb"\Akova: nothing received from queue q within 300 ms\n\Z", rb"\A\Z")

    def test_the_limit_is_for_each_message(self):
        self.send("hello")
        result = kova("queue", "receive", "q", "--timeout", 300, "--count", 2)
        self.assert_ended(
            result, 1, rb"\Akova: nothing received from queue q within 300 ms\n\Z", rb"  hello\n\Z"
        )

    def test_other_types_do_not_end_the_wait(self):
        self.send("hello", "--type", 2)
        self.assert_ended(kova("queue", "receive", "q", "--type", 1, "--timeout", 100), 1, rb"within 100 ms")
        self.receive("--type", 2)

    def test_a_full_queue_makes_senders_wait(self):
        for _ in range(2):
            self.send(stdin=b"x" * 8192)
        result = kova("queue", "send", "q", "hello", "--timeout", 100)
        self.assert_ended(result, 1, rb"\Akova: nothing sent to queue q within 100 ms\n\Z", rb"\A\Z")
        with Running("queue", "send", "q", "hello") as sender:
            self.receive()
            self.assertEqual(sender.end(), 0)

    def test_signals_end_the_wait(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            for count, code in ((1, 1), (0, 0)):
                with self.subTest(number=number, count=count), self.receiver("--count", count) as receiver:
                    self.assertEqual(receiver.stop(number), code)
                    self.assertEqual((receiver.output, receiver.errors), (b"", b""))

    def test_count_0_goes_on(self):
        with self.receiver("--count", 0) as receiver:
            for number in range(1, 4):
                self.send("x")
                receiver.wait_for_output(rb"message %d from queue q: 1 byte\n  x\n\Z" % number)
            self.assertEqual(receiver.stop(), 0)

    def test_a_queue_that_is_removed_is_a_failure(self):
        with self.receiver() as receiver:
            (entry,) = re.findall(r"id (\d+)", kova("ipc", "list").stdout.decode())
            # It may sleep elsewhere before it waits.
            ipc_user.remove_queue(int(entry))
            self.assertEqual(receiver.end(), 1)
            self.assertRegex(
                receiver.errors,
                rb"\Akova: nothing received from queue q: (Identifier removed|Invalid argument)\n\Z",
            )

    def test_a_key_file_that_cannot_be_made_is_a_failure(self):
        for command in ("send", "receive"):
            result = kova("queue", command, "/dev/null/q")
            self.assert_ended(
                result, 1, rb"\Akova: cannot open queue /dev/null/q: key file /dev/null/q.kovamsg: ", rb"\A\Z"
            )
            self.assert_record(result.stderr, 20, "ENOTDIR", "bool KovaFilename::CreateFile()")

    def test_a_queue_that_may_not_be_opened_is_a_failure(self):
        ipc_user.make_queue(key_file("q.kovamsg"), mode=0o600)
        result = ipc_user.as_nobody(self, "queue", "receive", "q")
        self.assert_ended(result, 1, rb"\Akova: cannot open queue q: Permission denied\n\Z", rb"\A\Z")

    def test_no_privilege_is_needed(self):
        with User("open-queue q", "send q hello"):
            self.assert_ended(ipc_user.as_nobody(self, "queue", "receive", "q"), 0, output=rb"  hello\n\Z")

    def test_no_name_is_a_usage_error(self):
        for command in ("send", "receive"):
            self.assert_ended(kova("queue", command, ""), 2, rb"\Akova: .*a name is not empty", rb"\A\Z")
            self.assert_ended(kova("queue", command), 2, rb"\Akova: ", rb"\A\Z")

    def test_usage_errors(self):
        for arguments in (
            [],
            ["frob"],
            ["send", "q", "a", "b"],
            ["send", "q", "a", "--file", "/dev/null"],
            ["send", "q", "--file", self.dir / "none"],
            ["send", "q", "--file", self.dir],
            ["send", "q", "a", "--type", 0],
            ["send", "q", "a", "--type", -1],
            ["send", "q", "a", "--type", 2**31],
            ["send", "q", "a", "--timeout", -1],
            ["receive", "q", "a"],
            ["receive", "q", "--type", "any"],
            ["receive", "q", "--count", -1],
            ["receive", "q", "--timeout", -1],
        ):
            with self.subTest(arguments=arguments):
                self.assert_ended(kova("queue", *arguments), 2, rb"\Akova: ", rb"\A\Z")
        self.assertFalse(os.path.exists(f"{QUEUES}/q.kovamsg"))

    def test_a_terminal_is_not_read_unless_asked_for(self):
        main, terminal = pty.openpty()
        with os.fdopen(main), os.fdopen(terminal) as stdin:
            result = subprocess.run(
                [KOVA, "queue", "send", "q"], stdin=stdin, capture_output=True, timeout=LIMIT, check=False
            )
        self.assert_ended(result, 2, rb"nothing to send: give a TEXT, --file FILE, or - for standard input")

    def test_help(self):
        self.assert_ended(kova("queue", "--help"), 0, output=rb"(?s)send.*Makes the queue.*receive")
        self.assert_ended(
            kova("queue", "send", "--help"), 0, output=rb"(?s)TEXT.*--file.*--type.*--timeout.*Exit codes:"
        )
        self.assert_ended(
            kova("queue", "receive", "--help"),
            0,
            output=rb"(?s)--type.*--count.*--timeout.*--hex.*Exit codes:",
        )


if __name__ == "__main__":
    unittest.main()
