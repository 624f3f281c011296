"""`kova ping`: echo requests to hosts that answer, that do not, and that cannot be reached."""

import contextlib
import os
import shutil
import signal
import socket
import struct
import subprocess
import time
import unittest
from pathlib import Path

import second_host
from second_host import HERE, THERE, shell
from tool import KOVA, LIMIT, Running, ToolTest, kova, wait_until

MS = rb"\d+\.\d\d"
SILENT = "10.0.0.99"


def reply(host, sequence, tail=b""):
    return b"52 bytes from %b: seq=%d time=%b ms%b\n" % (host.encode(), sequence, MS, tail)


def missed(host, sequence, ms):
    return b"no answer from %b: seq=%d within %d ms\n" % (host.encode(), sequence, ms)


def summary(host, sent, received, loss):
    times = rb", rtt min/avg/max %b/%b/%b ms" % (MS, MS, MS) if received else b""
    return b"%b: %d sent, %d received, %b%% loss%b\n" % (
        host.encode(),
        sent,
        received,
        str(loss).encode(),
        times,
    )


def local_hosts(number):
    return [f"127.0.1.{host}" for host in range(1, number + 1)]


def with_failures(failure, *arguments):
    """Runs the command to its end with system calls that do not do what they should."""
    if shutil.which("strace") is None:
        raise unittest.SkipTest("no strace")
    return subprocess.run(
        ["strace", "-f", "-o", "/dev/null", "-e", f"inject={failure}", KOVA, *map(str, arguments)],
        capture_output=True,
        timeout=LIMIT,
        # A traced process cannot look for its leaks.
        env={**os.environ, "ASAN_OPTIONS": "detect_leaks=0"},
        check=False,
    )


@contextlib.contextmanager
def stopped(process):
    """A process that is not running: what is sent to it waits."""
    process.send_signal(signal.SIGSTOP)
    stat = Path(f"/proc/{process.pid}/stat")
    wait_until(lambda: stat.read_text().rpartition(")")[2].split()[0] == "T", lambda: "a stopped process")
    yield
    process.send_signal(signal.SIGCONT)


def icmp(kind, code, rest):
    """An ICMP packet; `rest` begins behind the checksum."""
    words = struct.unpack(f"!{len(rest) // 2}H", rest)
    total = (kind << 8 | code) + sum(words)
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return struct.pack("!BBH", kind, code, total ^ 0xFFFF) + rest


class Wire:
    """An address of this host at which requests are answered as a test says. The kernel answers none."""

    def __init__(self, address):
        shell("sh -c 'echo 1 > /proc/sys/net/ipv4/icmp_echo_ignore_all'")
        self.address = address
        self._socket = self._open(address)
        self._socket.settimeout(LIMIT)

    @staticmethod
    def _open(address):
        opened = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
        opened.bind((address, 0))
        return opened

    def request(self):
        """The next echo request, without its IP header."""
        while (packet := self._socket.recv(2048))[20] != 8:
            pass
        return packet[20:]

    def send(self, packet, source=None):
        with self._open(source or self.address) as sender:
            sender.sendto(packet, ("127.0.0.1", 0))

    def answer(self, request, source=None):
        self.send(icmp(0, 0, request[4:]), source)

    def refuse(self, request, source):
        """A router's message that the host cannot be reached."""
        ends = socket.inet_aton("127.0.0.1") + socket.inet_aton(self.address)
        quoted = b"\x45\0\0\x48" + bytes(4) + b"\x40\x01" + bytes(2) + ends + request
        self.send(icmp(3, 1, bytes(4) + quoted), source)

    def close(self):
        self._socket.close()


class Ping(ToolTest):
    def setUp(self):
        super().setUp()
        self.there = second_host.SecondHost()
        self.addCleanup(self.there.close)
        # Silence without waiting for its address to be resolved.
        shell(f"ip neighbour replace {SILENT} lladdr 02:00:00:00:00:99 dev kv0")

    def wire(self, address="127.0.0.7"):
        wire = Wire(address)
        self.addCleanup(wire.close)
        return wire

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
                running.output, rb"\n%b: \d+ sent, \d+ received, [\d.]+%% loss, rtt " % THERE.encode()
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

    def assert_loss(self, count, answered, loss):
        wire = self.wire()
        arguments = [wire.address, "--count", count, "--interval", 0, "--timeout", 600000]
        with Running("ping", *arguments) as running:
            for sequence in range(1, count + 1):
                request = wire.request()
                if sequence in answered:
                    wire.answer(request)
                else:
                    wire.refuse(request, "127.0.0.9")
            self.assertEqual(running.end(), 0)
        self.assertRegex(running.output, summary(wire.address, count, len(answered), loss) + rb"\Z")

    def test_a_loss_that_is_not_whole_has_a_decimal(self):
        self.assert_loss(2, [2], "50")
        self.assert_loss(3, [1, 3], "33.3")
        self.assert_loss(3, [2], "66.7")
        self.assert_loss(1000, range(2, 1001), "0.1")

    def test_a_small_loss_is_not_none_and_a_large_one_not_all(self):
        self.assert_loss(3000, range(2, 3001), "0.1")
        self.assert_loss(3000, [3000], "99.9")

    def test_the_replies_of_many_hosts_are_all_taken(self):
        hosts = [f"127.0.0.{number}" for number in range(1, 251)]
        for raw in ([], ["--raw"]):
            result = kova("ping", *hosts, "--count", 1, *raw)
            self.assert_ended(result, 0, output=b"".join(summary(host, 1, 1, 0) for host in hosts) + rb"\Z")

    def test_replies_are_taken_while_requests_are_sent(self):
        # The buffers stay as small as they are.
        for raw in ([], ["--raw"]):
            hosts = local_hosts(250)
            result = with_failures("setsockopt:retval=0", "ping", *hosts, "--count", 1, *raw)
            self.assert_ended(result, 0, output=b"".join(summary(host, 1, 1, 0) for host in hosts) + rb"\Z")

    def test_many_hosts_get_a_large_buffer(self):
        wire = self.wire()
        arguments = [*local_hosts(250), wire.address, "--count", 1, "--timeout", 600000]
        with Running("ping", *arguments) as running:
            request = wire.request()
            with stopped(running.process):
                # More than a buffer holds otherwise.
                for _ in range(400):
                    self.send_echo("127.0.0.9")
                wire.answer(request)
            running.wait_for_output(reply(wire.address, 1))

    def test_many_requests_find_room(self):
        # They wait for hardware addresses that nobody tells.
        hosts = [f"10.0.0.{number}" for number in range(91, 95)] * 150
        result = kova("ping", *hosts, "--count", 1, "--timeout", 50)
        self.assert_ended(result, 1, output=b"".join(summary(host, 1, 0, 100) for host in hosts) + rb"\Z")

    def test_a_request_that_finds_no_room_is_sent_again(self):
        lines = reply(THERE, 1) + summary(THERE, 1, 1, 0)
        for error in ("EAGAIN", "ENOBUFS"):
            for raw in ([], ["--raw"]):
                result = with_failures(f"sendto:error={error}:when=1", "ping", THERE, "--count", 1, *raw)
                self.assert_ended(result, 0, output=rb"\A" + lines + rb"\Z")

    def test_a_request_that_never_finds_room_is_told(self):
        result = with_failures("sendto:error=EAGAIN:when=2+", "ping", THERE, "127.0.0.7", "--count", 1)
        self.assert_ended(result, 1, rb"\Akova: cannot send to 127\.0\.0\.7: [^\n]*EAGAIN[^\n]*\n\Z")
        self.assertRegex(
            result.stdout,
            rb"\A" + reply(THERE, 1) + summary(THERE, 1, 1, 0) + rb"127\.0\.0\.7: 0 sent, 0 received\n\Z",
        )

    def test_what_comes_between_rounds_does_not_fill_the_buffer(self):
        arguments = ["ping", THERE, "--count", 2, "--interval", 4000]
        with Running(*arguments) as packets, Running(*arguments, "--raw") as frames:
            for running in (packets, frames):
                running.wait_for_output(reply(THERE, 1))
            for _ in range(1000):
                self.send_echo("127.0.0.9")
            for running in (packets, frames):
                self.assertEqual(running.end(), 0)
                self.assertRegex(running.output, summary(THERE, 2, 2, 0) + rb"\Z")

    def test_all_that_is_there_when_the_time_is_over_counts(self):
        for raw in ([], ["--raw"]):
            wires = [self.wire(f"127.0.0.{number}") for number in range(11, 16)]
            hosts = [wire.address for wire in wires]
            with Running("ping", *hosts, "--count", 1, "--timeout", 3000, *raw) as running:
                requests = [wire.request() for wire in wires]
                sent = time.monotonic()
                with stopped(running.process):
                    for wire, request in zip(wires, requests):
                        wire.answer(request)
                    wait_until(lambda: time.monotonic() > sent + 3.5, lambda: "the end of the time")
                self.assertEqual(running.end(), 0)
            lines = b"".join(summary(host, 1, 1, 0) for host in hosts)
            self.assertRegex(running.output, lines + rb"\Z")

    def test_replies_to_others_do_not_hide_a_routers_message(self):
        wire = self.wire()
        told = b"no answer from %b: seq=1 host unreachable, says 127.0.0.9\n" % wire.address.encode()
        # No request of the library, or one of another socket, process or thread.
        for place in (None, 12, 16, 20):
            with Running("ping", wire.address, "--count", 1, "--timeout", 600000) as running:
                request = wire.request()
                foreign = bytearray(request)
                if place is None:
                    foreign[8:] = bytes(len(foreign) - 8)
                else:
                    foreign[place + 3] ^= 0xFF
                with stopped(running.process):
                    wire.answer(bytes(foreign))
                    wire.refuse(request, "127.0.0.9")
                self.assertEqual(running.end(), 1)
            self.assertRegex(running.output, rb"\A" + told + summary(wire.address, 1, 0, 100) + rb"\Z")

    def test_frames_of_routers_are_not_heard(self):
        wire = self.wire()
        with Running("ping", wire.address, "--raw", "--count", 1, "--timeout", 600000) as running:
            request = wire.request()
            wire.refuse(request, "127.0.0.9")
            wire.answer(request)
            self.assertEqual(running.end(), 0)
        self.assertRegex(running.output, rb"\A" + reply(wire.address, 1))

    def test_a_reply_from_another_address_is_told(self):
        wire = self.wire()
        for raw in ([], ["--raw"]):
            with Running("ping", wire.address, "--count", 1, "--timeout", 600000, *raw) as running:
                wire.answer(wire.request(), "127.0.0.8")
                self.assertEqual(running.end(), 0)
            lines = reply(wire.address, 1, b", sent by 127.0.0.8") + summary(wire.address, 1, 1, 0)
            self.assertRegex(running.output, rb"\A" + lines + rb"\Z")

    def test_a_refusal_of_the_system_is_no_missing_privilege(self):
        result = with_failures("sendto:error=EPERM", "ping", THERE, "--count", 1)
        self.assert_ended(result, 1, rb"\Akova: cannot send to [^\n]* line \d+\n\Z")
        self.assert_record(result.stderr, 1, "EPERM", "bool KovaIcmpSocket::SendTo(")

    def test_the_missing_privilege_is_told(self):
        for raw, function in (([], "KovaIcmpSocket"), (["--raw"], "KovaRawSocket")):
            result = second_host.without("net_raw", "ping", THERE, *raw)
            self.assert_ended(
                result,
                1,
                rb"\Akova: cannot ping: .*; the privilege CAP_NET_RAW is missing: run it as root, or once: "
                rb"setcap cap_net_raw,cap_net_admin\+ep /\S+/kova\n\Z",
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
