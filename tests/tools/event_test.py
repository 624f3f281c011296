"""`kova event`: events that are datagrams on the loopback network."""

import signal
import socket
import time
import unittest

from tool import LIMIT, Running, ToolTest, kova

ADDRESS = ("127.255.255.255", 20003)
ARRIVAL = rb"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ event "


def datagram(name):
    return name.ljust(32, b"\0")


class Event(ToolTest):
    def setUp(self):
        super().setUp()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(self.socket.close)
        self.socket.settimeout(LIMIT)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)

    def listen(self, shared=True):
        """From here on the socket gets every event."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, shared)
        self.socket.bind(("", ADDRESS[1]))

    def post(self, data):
        self.socket.sendto(data, ADDRESS)

    def waiter(self, *arguments):
        """`kova event wait`, ready for events."""
        running = Running("event", "wait", *arguments)
        try:
            running.wait_for_output(rb"\Awaiting for event [^\n]*\n")
        except BaseException:
            running.process.kill()
            raise
        return running

    def test_an_event_is_posted_as_a_datagram_with_its_name(self):
        self.listen()
        self.assert_ended(kova("event", "post", "job7"), 0, output=rb"\Aposted event job7\n\Z")
        self.assertEqual(self.socket.recv(64), datagram(b"job7"))

    def test_31_characters_of_a_name_count(self):
        self.listen()
        self.assert_ended(kova("event", "post", "n" * 40), 0)
        self.assertEqual(self.socket.recv(64), datagram(b"n" * 31))
        with self.waiter("n" * 40) as waiter:
            self.post(datagram(b"n" * 31))
            self.assertEqual(waiter.end(), 0)

    def test_an_arrival_is_printed(self):
        with self.waiter("job7") as waiter:
            self.post(datagram(b"job7"))
            self.assertEqual(waiter.end(), 0)
            self.assertRegex(waiter.output, rb"\Awaiting for event job7\n" + ARRIVAL + rb"job7\n\Z")
            self.assertEqual(waiter.errors, b"")

    def test_a_post_reaches_every_waiter(self):
        with self.waiter("a") as first, self.waiter("a") as second:
            self.assert_ended(kova("event", "post", "a"), 0)
            self.assertEqual((first.end(), second.end()), (0, 0))

    def test_other_names_and_sizes_are_passed_over(self):
        with self.waiter("a") as waiter:
            for data in (datagram(b"b"), b"x", b"", datagram(b"a") + b"x", datagram(b"a\0tail")):
                self.post(data)
            self.post(datagram(b"a"))
            self.assertEqual(waiter.end(), 0)
            self.assertEqual((waiter.output.count(b"\n"), waiter.errors), (2, b""))

    def test_a_pattern_takes_what_matches_and_shows_its_name(self):
        with self.waiter("job*", "--pattern", "--count", 2) as waiter:
            for name in (b"job7", b"other", b"job"):
                self.post(datagram(name))
            self.assertEqual(waiter.end(), 0)
            self.assertRegex(
                waiter.output, rb"\Awaiting for event job\*\n" + ARRIVAL + rb"job7\n" + ARRIVAL + rb"job\n\Z"
            )

    def test_without_pattern_wildcards_are_characters(self):
        with self.waiter("job*") as waiter:
            self.post(datagram(b"job7"))
            self.post(datagram(b"job*"))
            self.assertEqual(waiter.end(), 0)
            self.assertRegex(waiter.output, ARRIVAL + rb"job\*\n\Z")

    def test_names_cannot_steer_a_terminal(self):
        with self.waiter("*", "--pattern") as waiter:
            self.post(datagram(b"\x1b[2J\n"))
            self.assertEqual(waiter.end(), 0)
            self.assertRegex(waiter.output, ARRIVAL + rb"\\x1b\[2J\\x0a\n\Z")

    def test_the_wait_can_be_limited(self):
        begin = time.monotonic()
        result = kova("event", "wait", "a", "--timeout", 300)
        self.assertGreaterEqual(time.monotonic() - begin, 0.3)
        self.assert_ended(result, 1, rb"\Akova: no event a within 300 ms\n\Z", rb"\Awaiting for event a\n\Z")

    def test_other_events_do_not_stretch_the_limit(self):
        with self.waiter("a", "--timeout", 300) as waiter:
            while waiter.process.poll() is None:
                self.post(datagram(b"b"))
                time.sleep(0.01)
            self.assertEqual(waiter.end(), 1)

    def test_the_limit_is_for_each_event(self):
        with self.waiter("a", "--timeout", 1000, "--count", 2) as waiter:
            self.post(datagram(b"a"))
            self.assertEqual(waiter.end(), 1)
            self.assertRegex(waiter.output, ARRIVAL + rb"a\n\Z")
            self.assertEqual(waiter.errors, b"kova: no event a within 1000 ms\n")

    def test_signals_end_the_wait(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            for count, code in ((1, 1), (0, 0)):
                with self.subTest(number=number, count=count), self.waiter("a", "--count", count) as waiter:
                    self.assertEqual(waiter.stop(number), code)
                    self.assertEqual(waiter.errors, b"")

    def test_count_0_goes_on(self):
        with self.waiter("a", "--count", 0) as waiter:
            for number in range(1, 4):
                self.post(datagram(b"a"))
                waiter.wait_for_output(rb"\A[^\n]*\n(%ba\n){%d}\Z" % (ARRIVAL, number))
            self.assertEqual(waiter.stop(), 0)

    def test_a_waiter_that_ends_wakes_nobody(self):
        self.listen()
        with self.waiter("a", "--count", 0) as waiter:
            self.assertEqual(waiter.stop(), 0)
        self.post(datagram(b"end"))
        self.assertEqual(self.socket.recv(64), datagram(b"end"))

    def test_a_port_that_is_taken_is_a_failure(self):
        self.listen(shared=False)
        bind = "virtual bool KovaUDPSocket::Bind()"
        for command in ("post", "wait"):
            result = kova("event", command, "a")
            self.assert_ended(
                result,
                1,
                rb"\Akova: cannot %b event a: " % (b"post" if command == "post" else b"wait for"),
                rb"\A\Z",
            )
            self.assert_record(result.stderr, 98, "EADDRINUSE", bind)

    def test_no_name_is_a_usage_error(self):
        for command in ("post", "wait"):
            self.assert_ended(kova("event", command, ""), 2, rb"\Akova: .*a name is not empty", rb"\A\Z")
            self.assert_ended(kova("event", command), 2, rb"\Akova: ", rb"\A\Z")

    def test_usage_errors(self):
        for arguments in (
            [],
            ["frob"],
            ["post", "a", "b"],
            ["wait", "a", "--timeout", "-1"],
            ["wait", "a", "--timeout", "long"],
            ["wait", "a", "--count", "-1"],
        ):
            self.assert_ended(kova("event", *arguments), 2, rb"\Akova: ", rb"\A\Z")

    def test_help(self):
        self.assert_ended(kova("event", "--help"), 0, output=rb"(?s)post.*wait")
        self.assert_ended(
            kova("event", "wait", "--help"),
            0,
            output=rb"(?s)NAME.*--pattern.*--timeout.*--count.*Exit codes:",
        )


if __name__ == "__main__":
    unittest.main()
