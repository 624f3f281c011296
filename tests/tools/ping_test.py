"""`kova ping`: echo requests to hosts that answer, that do not, and that cannot be reached."""

import signal
import socket
import time
import unittest

import second_host
from second_host import HERE, THERE, shell
from tool import Running, ToolTest, kova

MS = rb"\d+\.\d\d"
SILENT = "10.0.0.99"


def reply(host, sequence, tail=b""):
    return b"52 bytes from %b: seq=%d time=%b ms%b\n" % (host.encode(), sequence, MS, tail)


def missed(host, sequence, ms):
    return b"no answer from %b: seq=%d within %d ms\n" % (host.encode(), sequence, ms)


def summary(host, sent, received, loss):
    times = rb", rtt min/avg/max %b/%b/%b ms" % (MS, MS, MS) if received else b""
    return b"%b: %d sent, %d received, %d%% loss%b\n" % (host.encode(), sent, received, loss, times)


class Ping(ToolTest):
    def setUp(self):
        super().setUp()
        self.there = second_host.SecondHost()
        self.addCleanup(self.there.close)
        # Silence without waiting for its address to be resolved.
        shell(f"ip neighbour replace {SILENT} lladdr 02:00:00:00:00:99 dev kv0")

    def assert_lines(self, arguments, code, *lines):
        self.assert_ended(kova("ping", *arguments), code, output=rb"\A" + b"".join(lines) + rb"\Z")

    def test_each_reply_is_a_line_and_each_host_has_a_summary(self):
        self.assert_lines(
            [THERE, "--count", 3, "--interval", 10],
            0,
            *(reply(THERE, sequence) for sequence in (1, 2, 3)),
            summary(THERE, 3, 3, 0),
        )

    def test_four_requests_are_the_default(self):
        self.assert_lines(
            [THERE, "--interval", 1],
            0,
            *(reply(THERE, sequence) for sequence in (1, 2, 3, 4)),
            summary(THERE, 4, 4, 0),
        )

    def test_times_are_ordered_and_below_a_measured_limit(self):
        begin = time.monotonic()
        result = kova("ping", THERE, "--count", 5, "--interval", 0)
        elapsed = (time.monotonic() - begin) * 1000
        times = [float(word[5:]) for word in result.stdout.split() if word.startswith(b"time=")]
        least, average, most = map(float, result.stdout.split()[-2].split(b"/"))
        self.assertEqual((len(times), least, most), (5, min(times), max(times)))
        self.assertAlmostEqual(average, sum(times) / 5, delta=0.01)
        self.assertLess(sum(times), elapsed)

    def test_a_time_is_at_least_the_delay_of_the_answer(self):
        self.there.echo(delay=0.05)
        result = kova("ping", THERE, "--count", 2, "--interval", 0)
        self.assert_ended(result, 0)
        self.assertGreaterEqual(float(result.stdout.split()[-2].split(b"/")[0]), 50)

    def test_late_replies_count_as_nothing(self):
        self.there.echo(delay=0.3)
        self.assert_lines(
            [THERE, "--count", 3, "--interval", 0, "--timeout", 200],
            1,
            *(missed(THERE, sequence, 200) for sequence in (1, 2, 3)),
            summary(THERE, 3, 0, 100),
        )

    def test_repeated_replies_count_once(self):
        self.there.echo(times=3)
        for raw in ([], ["--raw"]):
            self.assert_lines(
                [THERE, "--count", 2, "--interval", 50, *raw],
                0,
                reply(THERE, 1),
                reply(THERE, 2),
                summary(THERE, 2, 2, 0),
            )

    def test_a_silent_host_is_told_and_is_exit_code_1(self):
        begin = time.monotonic()
        self.assert_lines(
            [SILENT, "--count", 2, "--interval", 0, "--timeout", 200],
            1,
            missed(SILENT, 1, 200),
            missed(SILENT, 2, 200),
            summary(SILENT, 2, 0, 100),
        )
        self.assertGreaterEqual(time.monotonic() - begin, 0.4)

    def test_silent_hosts_do_not_delay_others(self):
        silent = [f"10.0.0.{number}" for number in range(101, 109)]
        for host in silent:
            shell(f"ip neighbour replace {host} lladdr 02:00:00:00:00:99 dev kv0")
        with Running("ping", *silent, THERE, "--count", 1, "--timeout", 600000) as running:
            running.wait_for_output(reply(THERE, 1))

    def test_several_hosts_are_told_apart(self):
        self.assert_lines(
            [THERE, SILENT, "127.0.0.7", "--count", 1, "--timeout", 2000],
            1,
            b"("
            + reply(THERE, 1)
            + reply("127.0.0.7", 1)
            + b"|"
            + reply("127.0.0.7", 1)
            + reply(THERE, 1)
            + b")",
            missed(SILENT, 1, 2000),
            summary(THERE, 1, 1, 0),
            summary(SILENT, 1, 0, 100),
            summary("127.0.0.7", 1, 1, 0),
        )

    def test_a_host_twice_is_asked_twice(self):
        self.assert_lines([THERE, THERE, "--count", 1], 0, reply(THERE, 1) * 2, summary(THERE, 1, 1, 0) * 2)

    def test_one_answer_of_a_host_is_enough(self):
        arguments = [THERE, "--count", 0, "--interval", 20, "--timeout", 100]
        with Running("ping", *arguments) as running:
            running.wait_for_output(reply(THERE, 1))
            self.there.shell("ip address flush dev kv1")
            running.wait_for_output(rb"no answer from")
            self.assertEqual(running.stop(signal.SIGINT), 0)
            self.assertRegex(
                running.output, rb"\n%b: \d+ sent, \d+ received, \d+%% loss, rtt " % THERE.encode()
            )

    def test_names_are_resolved_and_shown_with_their_address(self):
        name = "localhost (127.0.0.1)"
        lines = reply(name, 1) + summary(name, 1, 1, 0)
        lines = lines.replace(b"(", rb"\(").replace(b")", rb"\)")
        self.assert_lines(["localhost", "--count", 1], 0, lines)

    def test_unknown_hosts_and_what_is_no_host_are_usage_errors(self):
        for host, message in (
            ("no.such.host.invalid", rb"no\.such\.host\.invalid: "),
            ("::1", rb"::1: Address family"),
            ("224.0.0.1", rb"224\.0\.0\.1: not the address of one host"),
            ("255.255.255.255", rb"not the address of one host"),
            ("0.0.0.0", rb"not the address of one host"),
        ):
            self.assert_ended(kova("ping", THERE, host), 2, rb"\Akova: .*" + message, rb"\A\Z")

    def test_the_interval_lies_between_requests(self):
        begin = time.monotonic()
        self.assert_ended(kova("ping", THERE, "--count", 3, "--interval", 150), 0)
        self.assertGreaterEqual(time.monotonic() - begin, 0.3)

    def test_the_last_request_is_followed_by_no_interval(self):
        self.assert_ended(kova("ping", THERE, "--count", 1, "--interval", 600000), 0)

    def test_sigint_ends_with_the_summary(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number=number), Running(
                "ping", THERE, "--count", 0, "--interval", 600000
            ) as running:
                running.wait_for_output(reply(THERE, 1))
                self.assertEqual(running.stop(number), 0)
                self.assertRegex(running.output, reply(THERE, 1) + summary(THERE, 1, 1, 0) + rb"\Z")
                self.assertEqual(running.errors, b"")

    def test_sigint_ends_a_wait_for_answers_too(self):
        with Running("ping", THERE, SILENT, "--timeout", 600000) as running:
            running.wait_for_output(reply(THERE, 1))
            self.assertEqual(running.stop(signal.SIGINT), 1)
            self.assertRegex(running.output, summary(THERE, 1, 1, 0) + summary(SILENT, 1, 0, 100) + rb"\Z")

    def test_count_0_goes_on(self):
        with Running("ping", THERE, "--count", 0, "--interval", 0) as running:
            running.wait_for_output(reply(THERE, 20))
            self.assertEqual(running.stop(signal.SIGINT), 0)

    def test_two_at_a_time_do_not_take_each_others_replies(self):
        arguments = ["ping", THERE, "--count", 50, "--interval", 1]
        with Running(*arguments) as first, Running(*arguments) as second:
            for running in (first, second):
                self.assertEqual(running.end(), 0)
                self.assertRegex(running.output, summary(THERE, 50, 50, 0) + rb"\Z")

    def test_verbose_tells_which_replies_the_library_counts(self):
        at = b", at %b, outside the control network" % HERE.encode()
        self.assert_lines([THERE, "--verbose", "--count", 1], 0, reply(THERE, 1, at), summary(THERE, 1, 1, 0))
        at = b", at 127.0.0.1, inside the control network"
        self.assert_lines(
            ["127.0.0.1", "--verbose", "--count", 1],
            0,
            reply("127.0.0.1", 1, at),
            summary("127.0.0.1", 1, 1, 0),
        )

    def test_raw_hears_the_same(self):
        for host, at in ((THERE, HERE), ("127.0.0.1", "127.0.0.1")):
            side = b"inside" if host == at else b"outside"
            tail = b", at %b, %b the control network" % (at.encode(), side)
            self.assert_lines(
                [host, "--raw", "--verbose", "--count", 2, "--interval", 0],
                0,
                reply(host, 1, tail),
                reply(host, 2, tail),
                summary(host, 2, 2, 0),
            )
        self.assert_lines(
            [SILENT, "--raw", "--count", 1, "--timeout", 200],
            1,
            missed(SILENT, 1, 200),
            summary(SILENT, 1, 0, 100),
        )

    def test_the_interface_goes_before_the_routes(self):
        # A host that the routes do not know, and one that they would find behind kv0.
        for raw in ([], ["--raw"]):
            self.there.shell("ip address replace 10.7.0.2/32 dev kv1")
            shell("ip neighbour replace 10.7.0.2 lladdr 02:00:00:00:00:02 dev kv0")
            self.assert_lines(
                ["10.7.0.2", "--interface", "kv0", "--count", 1, *raw],
                0,
                reply("10.7.0.2", 1),
                summary("10.7.0.2", 1, 1, 0),
            )
            self.assert_lines(
                [THERE, "--interface", "lo", "--count", 1, "--timeout", 200, *raw],
                1,
                missed(THERE, 1, 200),
                summary(THERE, 1, 0, 100),
            )

    def test_interfaces_that_there_are_not_are_usage_errors(self):
        for name, message in (
            ("kv7", rb"no interface kv7"),
            ("", rb"'' is no name"),
            ("n" * 16, rb"'n{16}' is no name"),
        ):
            self.assert_ended(kova("ping", THERE, "--interface", name), 2, rb"\Akova: .*" + message, rb"\A\Z")

    def test_a_request_that_cannot_be_sent_is_told_and_others_go_on(self):
        result = kova("ping", "10.9.0.1", THERE, "--count", 1)
        self.assert_ended(result, 1, rb"\Akova: cannot send to 10\.9\.0\.1: ")
        self.assert_record(result.stderr, 101, "ENETUNREACH", "bool KovaIcmpSocket::SendTo(")
        self.assertRegex(
            result.stdout,
            rb"\A"
            + reply(THERE, 1)
            + rb"10\.9\.0\.1: 0 sent, 0 received\n"
            + summary(THERE, 1, 1, 0)
            + rb"\Z",
        )

    def test_answers_of_the_network_end_the_wait(self):
        shell(f"ip route add 10.5.0.0/16 via {THERE}")
        self.there.set("ipv4/ip_forward", 1)
        self.there.set("ipv4/icmp_ratelimit", 0)
        for kind, reason in (
            ("unreachable", b"host unreachable"),
            ("prohibit", b"forbidden"),
        ):
            self.there.shell(f"ip route replace {kind} 10.5.0.0/16")
            self.assert_lines(
                ["10.5.0.1", "--count", 1, "--timeout", 600000],
                1,
                b"no answer from 10.5.0.1: seq=1 %b, says %b\n" % (reason, THERE.encode()),
                summary("10.5.0.1", 1, 0, 100),
            )

    def test_pings_of_other_programs_do_not_end_a_wait(self):
        # Their datagrams have other sizes.
        with Running("ping", SILENT, "--count", 1, "--timeout", 1000) as running:
            begin = time.monotonic()
            while running.process.poll() is None:
                self.send_echo(THERE)
                time.sleep(0.01)
            self.assertEqual(running.end(), 1)
            self.assertGreater(time.monotonic() - begin, 0.5)
            self.assertRegex(running.output, missed(SILENT, 1, 1000))

    @staticmethod
    def send_echo(host):
        """An echo request as `ping` sends it, with 56 bytes of data."""
        packet = b"\x08\0\xf7\xff" + bytes(4 + 56)
        with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP) as sender:
            sender.sendto(packet, (host, 0))

    def test_the_missing_privilege_is_told(self):
        for raw, function in (([], "KovaIcmpSocket"), (["--raw"], "KovaRawSocket")):
            result = second_host.without("net_raw", "ping", THERE, *raw)
            self.assert_ended(
                result,
                1,
                rb"\Akova: cannot ping: .*; the privilege CAP_NET_RAW is missing: run it as root, or once: "
                rb"setcap cap_net_raw\+ep /\S+/kova\n\Z",
                rb"\A\Z",
            )
            self.assert_record(result.stderr, 1, "EPERM", f"virtual bool {function}::Open()")

    def test_usage_errors(self):
        for arguments in (
            [],
            [THERE, "--count", "-1"],
            [THERE, "--count", "few"],
            [THERE, "--timeout", "0"],
            [THERE, "--interval", "-1"],
            [THERE, "--frob"],
        ):
            self.assert_ended(kova("ping", *arguments), 2, rb"\Akova: ", rb"\A\Z")

    def test_help(self):
        self.assert_ended(
            kova("ping", "--help"),
            0,
            output=rb"(?s)HOST.*--count.*--timeout.*--interval.*--interface.*--raw.*--verbose.*CAP_NET_RAW.*"
            rb"Exit codes:",
        )


if __name__ == "__main__":
    unittest.main()
