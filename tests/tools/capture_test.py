"""`kova capture`: frames that another host sends, byte by byte."""

import errno
import json
import os
import re
import signal
import socket
import struct
import subprocess
import unittest
from pathlib import Path

import second_host
from second_host import HERE, HERE_MAC, THERE, THERE_MAC, shell
from tool import KOVA, LIMIT, Running, ToolTest, kova, wait_until

TIME = rb"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z"
UDP, TCP, ICMP, OTHER = 17, 6, 1, 89
# Of frames that arrive at kv0 from kv1.
ARRIVED = TIME + b" kv0 in 02:00:00:00:00:02 > 02:00:00:00:00:01"


def checksum(data):
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    total = (total >> 16) + (total & 0xFFFF)
    return ~(total + (total >> 16)) & 0xFFFF


def ip(protocol, payload, fragment=0, right=True):
    """An IPv4 packet; fragment is its offset in units of 8 bytes."""
    head = struct.pack("!BBHHHBBH", 0x45, 0, 20 + len(payload), 7, fragment, 64, protocol, 0)
    head += socket.inet_aton("10.0.0.7") + socket.inet_aton("10.0.0.8")
    total = checksum(head) ^ (0 if right else 1)
    return head[:10] + struct.pack("!H", total) + head[12:] + payload


def mac(text):
    return bytes.fromhex(text.replace(":", ""))


def frame(payload, kind=0x0800, tag=None, inner=None):
    tagged = b"".join(struct.pack("!HH", 0x8100, one) for one in (tag, inner) if one is not None)
    return mac(HERE_MAC) + mac(THERE_MAC) + tagged + struct.pack("!H", kind) + payload


PORTS = struct.pack("!HH", 4000, 5000)


class Capture(ToolTest):
    def setUp(self):
        super().setUp()
        # One host only, both ends of the cable here: what kv1 sends, kv0 hears. No frames but ours.
        for name in ("kv0", "kv1"):
            second_host.disable_ipv6(name)
        self.cable = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
        self.addCleanup(self.cable.close)
        self.cable.bind(("kv1", 0))

    def send(self, data):
        """Sends, again as long as a queue on the way is full."""
        while True:
            try:
                return self.cable.send(data)
            except OSError as failure:
                if failure.errno != errno.ENOBUFS:
                    raise

    def flood(self, capture):
        """More frames than the socket of `capture` holds, while that is stopped."""
        capture.process.send_signal(signal.SIGSTOP)
        wait_until(
            lambda: b") T " in Path(f"/proc/{capture.process.pid}/stat").read_bytes(), lambda: "a stop"
        )
        for _ in range(2000):
            self.send(frame(bytes(1400), kind=0x88B5))

    def capture(self, *arguments):
        """`kova capture`, ready for frames."""
        running = Running("capture", *arguments)
        try:
            running.wait_for_output(rb"\Acapturing on [^\n]*\n")
        except BaseException:
            running.process.kill()
            raise
        return running

    def assert_shown(self, data, line):
        with self.capture("--interface", "kv0", "--count", 1) as capture:
            self.send(data)
            self.assertEqual(capture.end(), 0)
            self.assertRegex(capture.output, rb"\Acapturing on kv0\n" + ARRIVED + line + rb"\n\Z")
            self.assertEqual(capture.errors, b"")

    def assert_shown_as_sent(self, data, line):
        """As it leaves kv1: the kernel takes no tag out of it."""
        with self.capture("--interface", "kv1", "--count", 1) as capture:
            self.send(data)
            self.assertEqual(capture.end(), 0)
            self.assertRegex(capture.output, rb" kv1 out \S{17} > \S{17}" + line + rb"\n\Z")

    def assert_json(self, data, **members):
        """Runs until the first frame is printed: there is no line that tells when it listens."""
        with Running("capture", "--interface", "kv0", "--json", "--count", 1) as capture:
            while capture.process.poll() is None:
                self.send(data)
            self.assertEqual(capture.end(), 0)
            entry = json.loads(capture.output)
            self.assertRegex(entry.pop("time").encode(), rb"\A" + TIME + rb"\Z")
            common = {
                "interface": "kv0",
                "direction": "in",
                "source_mac": THERE_MAC,
                "destination_mac": HERE_MAC,
                "vlan": None,
                "priority": None,
                "size": len(data),
            }
            self.assertEqual(entry, {**common, **members})

    def test_udp(self):
        self.assert_shown(
            frame(ip(UDP, PORTS + bytes(4) + b"hello")),
            rb": 10\.0\.0\.7:4000 > 10\.0\.0\.8:5000 udp, 47 bytes, 5 of data",
        )

    def test_tcp(self):
        self.assert_shown(
            frame(ip(TCP, PORTS + bytes(16) + b"abc")),
            rb": 10\.0\.0\.7:4000 > 10\.0\.0\.8:5000 tcp, 57 bytes, 3 of data",
        )

    def test_icmp_has_types_instead_of_ports(self):
        for kind, name in ((8, rb" \(echo request\)"), (0, rb" \(echo reply\)"), (13, b"")):
            self.assert_shown(
                frame(ip(ICMP, bytes([kind]) + bytes(27))),
                rb": 10\.0\.0\.7 > 10\.0\.0\.8 icmp type %d%b, 62 bytes, 20 of data" % (kind, name),
            )

    def test_icmp_too_short_for_the_library_has_its_type(self):
        self.assert_shown(
            frame(ip(ICMP, b"\x08" + bytes(7))),
            rb": 10\.0\.0\.7 > 10\.0\.0\.8 icmp type 8 \(echo request\), 42 bytes",
        )

    def test_other_protocols_are_numbers(self):
        self.assert_shown(frame(ip(OTHER, b"x")), rb": 10\.0\.0\.7 > 10\.0\.0\.8 protocol 89, 35 bytes")

    def test_vlan_tags_are_shown_whole(self):
        # The kernel takes the tag out of what arrives, and leaves it in what is sent.
        data = frame(ip(UDP, PORTS + bytes(4)), tag=3 << 13 | 0x123)
        line = rb" vlan 291 priority 3: 10\.0\.0\.7:4000 > 10\.0\.0\.8:5000 udp, %d bytes, 0 of data"
        self.assert_shown(data, line % (len(data) - 4))
        self.assert_shown_as_sent(data, line % len(data))

    def test_both_tags_of_a_frame_are_shown(self):
        data = frame(ip(UDP, PORTS + bytes(4)), tag=3 << 13 | 0x123, inner=1 << 13 | 7)
        tags = rb" vlan 291 priority 3 inner vlan 7 priority 1: "
        ports = rb"10\.0\.0\.7:4000 > 10\.0\.0\.8:5000 udp, %d bytes, 0 of data"
        self.assert_shown(data, tags + ports % (len(data) - 4))
        # The library takes one tag off only.
        second = rb"not decoded: EtherType 0x8100 \(a second VLAN tag\), %d bytes"
        self.assert_shown_as_sent(data, tags + second % len(data))

    def test_tags_that_are_cut_short_are_told(self):
        whole = frame(bytes(28), tag=5, inner=6)
        for size in (14, 17):
            line = rb": not decoded: VLAN tag cut short, %d bytes" % size
            self.assert_shown_as_sent(whole[:size], line)
        for size in (18, 21):
            line = (
                rb" vlan 5 priority 0: not decoded: EtherType 0x8100 \(a second VLAN tag\), %d bytes" % size
            )
            self.assert_shown_as_sent(whole[:size], line)

    def test_what_stands_behind_a_tag_need_not_be_ipv4(self):
        self.assert_shown_as_sent(
            frame(ip(UDP, PORTS + bytes(4)), kind=0x0806, tag=5),
            rb" vlan 5 priority 0: not decoded: EtherType 0x0806 \(ARP\), 46 bytes",
        )

    def test_other_frames_are_told_with_their_reason(self):
        for data, reason in (
            (frame(bytes(28), kind=0x0806), rb"EtherType 0x0806 \(ARP\), 42 bytes"),
            (frame(bytes(40), kind=0x86DD), rb"EtherType 0x86dd \(IPv6\), 54 bytes"),
            (frame(bytes(40), kind=0x88B5), rb"EtherType 0x88b5, 54 bytes"),
            (frame(bytes(40), kind=0x0028), rb"EtherType 0x0028 \(a length\), 54 bytes"),
            (frame(ip(UDP, b"")[:19]), rb"IP header cut short, 33 bytes"),
            (frame(b"\x4f" + ip(UDP, bytes(20))[1:]), rb"IP header cut short, 54 bytes"),
        ):
            self.assert_shown(data, rb": not decoded: " + reason)

    def test_a_wrong_checksum_is_marked(self):
        self.assert_shown(
            frame(ip(UDP, PORTS + bytes(4), right=False)),
            rb": 10\.0\.0\.7:4000 > 10\.0\.0\.8:5000 udp, 42 bytes, 0 of data, IP checksum wrong",
        )

    def test_ports_of_an_earlier_frame_are_not_shown(self):
        with self.capture("--interface", "kv0", "--count", 4) as capture:
            for payload, fragment in ((PORTS + bytes(4), 0), (PORTS, 0), (PORTS + bytes(20), 5), (PORTS, 5)):
                self.send(frame(ip(UDP, payload, fragment)))
            self.assertEqual(capture.end(), 0)
            lines = [line.split(b": ", 1)[1] for line in capture.output.splitlines()[1:]]
            self.assertEqual(
                lines,
                [
                    b"10.0.0.7:4000 > 10.0.0.8:5000 udp, 42 bytes, 0 of data",
                    b"10.0.0.7 > 10.0.0.8 udp, header cut short, 38 bytes",
                    b"10.0.0.7 > 10.0.0.8 udp, fragment at 40, 58 bytes",
                    b"10.0.0.7 > 10.0.0.8 udp, fragment at 40, 38 bytes",
                ],
            )

    def test_json_has_the_same_members(self):
        ends = {"source": "10.0.0.7", "destination": "10.0.0.8"}
        ports = {"source_port": 4000, "destination_port": 5000}
        udp = frame(ip(UDP, PORTS + bytes(4) + b"x"))
        self.assert_json(udp, protocol=17, data_size=1, **ends, **ports)
        wrong = frame(ip(UDP, PORTS + bytes(4), right=False))
        self.assert_json(wrong, protocol=17, data_size=0, checksum_wrong=True, **ends, **ports)
        self.assert_json(frame(ip(ICMP, b"\x08" + bytes(27))), protocol=1, icmp_type=8, data_size=20, **ends)
        self.assert_json(frame(ip(TCP, PORTS)), protocol=6, cut_short=True, **ends)
        self.assert_json(frame(ip(UDP, PORTS, 5)), protocol=17, fragment=40, **ends)
        self.assert_json(frame(bytes(28), kind=0x0806), not_decoded="EtherType 0x0806 (ARP)")
        tagged = frame(ip(OTHER, b""), tag=7 << 13 | 4095)
        self.assert_json(tagged, vlan=4095, priority=7, protocol=89, size=len(tagged) - 4, **ends)
        twice = frame(ip(OTHER, b""), tag=4095, inner=6 << 13 | 8)
        inner = {"inner_vlan": 8, "inner_priority": 6}
        self.assert_json(twice, vlan=4095, priority=0, **inner, protocol=89, size=len(twice) - 4, **ends)

    def test_without_interface_all_are_heard(self):
        with self.capture("--count", 2) as capture:
            self.send(frame(ip(OTHER, b"")))
            self.assertEqual(capture.end(), 0)
            ends = (
                rb" 02:00:00:00:00:02 > 02:00:00:00:00:01: 10\.0\.0\.7 > 10\.0\.0\.8 protocol 89, 34 bytes\n"
            )
            out, arrived = TIME + b" kv1 out" + ends, TIME + b" kv0 in" + ends
            self.assertRegex(capture.output, rb"\Acapturing on all interfaces\n" + out + arrived + rb"\Z")

    def test_an_interface_shuts_the_others_out(self):
        other = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(other.close)
        with self.capture("--interface", "kv0", "--count", 1) as capture:
            other.sendto(b"x", ("127.0.0.1", 9))
            self.send(frame(ip(OTHER, b"")))
            self.assertEqual(capture.end(), 0)
            self.assertRegex(capture.output, rb"\A[^\n]*\n[^\n]* kv0 in [^\n]*\n\Z")

    def test_the_kernel_keeps_the_frames_of_other_interfaces_away(self):
        cable = socket.if_nametoindex("kv1")
        for arguments, index in (([], 0), (["--interface", "kv0"], socket.if_nametoindex("kv0"))):
            with self.capture(*arguments) as capture:
                sockets = Path("/proc/net/packet").read_text().splitlines()[1:]
                self.assertEqual({int(line.split()[4]) for line in sockets}, {cable, index})
                self.assertEqual(capture.stop(), 0)

    def test_a_large_frame_is_taken_whole(self):
        other = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(other.close)
        with self.capture("--interface", "lo", "--count", 1) as capture:
            other.sendto(bytes(65507), ("127.0.0.1", 9))
            self.assertEqual(capture.end(), 0)
            self.assertRegex(capture.output, rb" udp, 65549 bytes, 65507 of data\n\Z")

    def test_signals_end_it(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            for count, code in ((0, 0), (1, 1)):
                with self.subTest(number=number, count=count), self.capture("--count", count) as capture:
                    self.assertEqual(capture.stop(number), code)
                    self.assertEqual(capture.errors, b"")

    def test_the_wait_can_be_limited(self):
        self.assert_ended(
            kova("capture", "--interface", "kv0", "--timeout", 200),
            1,
            rb"\Akova: no frame on kv0 within 200 ms\n\Z",
            rb"\Acapturing on kv0\n\Z",
        )

    def test_a_closed_pipe_ends_it_quietly(self):
        ours, theirs = os.pipe()
        command = [KOVA, "capture", "--interface", "kv0"]
        with subprocess.Popen(command, stdout=theirs, stderr=subprocess.PIPE) as process:
            os.close(theirs)
            self.assertEqual(os.read(ours, 100), b"capturing on kv0\n")
            os.close(ours)
            self.send(frame(ip(OTHER, b"")))
            self.assertEqual(process.wait(LIMIT), -signal.SIGPIPE)
            self.assertEqual(process.stderr.read(), b"")

    def test_an_interface_that_goes_down_ends_it(self):
        with self.capture("--interface", "kv0") as capture:
            shell("ip link set kv0 down")
            self.assertEqual(capture.end(), 1)
            self.assertRegex(capture.errors, rb"\Akova: cannot receive frames: error 100 ENETDOWN ")

    def test_missing_frames_are_told(self):
        with self.capture("--interface", "kv0") as capture:
            self.flood(capture)
            capture.process.send_signal(signal.SIGCONT)
            capture.wait_for_output(rb"0x88b5")
            self.assertEqual(capture.stop(signal.SIGINT), 0)
            self.assertRegex(capture.errors, rb"\Akova: \d+ frames came too fast and are missing\n\Z")

    def test_missing_frames_are_told_after_a_failure_too(self):
        with self.capture("--interface", "kv0") as capture:
            self.flood(capture)
            shell("ip link set kv0 down")
            capture.process.send_signal(signal.SIGCONT)
            self.assertEqual(capture.end(), 1)
            missing = rb"\Akova: \d+ frames came too fast and are missing\n"
            self.assertRegex(capture.errors, missing + rb"kova: cannot receive frames: error 100 ENETDOWN ")

    def test_real_traffic_is_understood(self):
        there = second_host.SecondHost()
        self.addCleanup(there.close)
        with self.capture("--interface", "kv0", "--count", 2) as capture:
            self.assert_ended(kova("ping", THERE, "--count", 1), 0)
            self.assertEqual(capture.end(), 0)
            ends = (HERE_MAC, THERE_MAC, HERE, THERE)
            request = " kv0 out {} > {}: {} > {} icmp type 8 (echo request), 86 bytes, 44 of data\n".format(
                *ends
            )
            ends = (THERE_MAC, HERE_MAC, THERE, HERE)
            answer = " kv0 in {} > {}: {} > {} icmp type 0 (echo reply), 86 bytes, 44 of data\n".format(*ends)
            lines = TIME + re.escape(request.encode()) + TIME + re.escape(answer.encode())
            self.assertRegex(capture.output, rb"\n" + lines + rb"\Z")

    def test_the_missing_privilege_is_told(self):
        result = second_host.without("net_raw", "capture")
        self.assert_ended(
            result,
            1,
            rb"\Akova: cannot capture: .*; the privilege CAP_NET_RAW is missing: .* cap_net_raw,cap_net_admin\+ep ",
            rb"\A\Z",
        )
        self.assert_record(result.stderr, 1, "EPERM", "virtual bool KovaRawSocket::Open()")

    def test_usage_errors(self):
        self.assert_ended(
            kova("capture", "--interface", "kv7"), 2, rb"\Akova: no interface kv7\n\Z", rb"\A\Z"
        )
        for arguments in (["kv0"], ["--count", "-1"], ["--timeout", "-1"], ["--interface", ""]):
            self.assert_ended(kova("capture", *arguments), 2, rb"\Akova: ", rb"\A\Z")

    def test_help(self):
        self.assert_ended(
            kova("capture", "--help"),
            0,
            output=rb"(?s)--interface.*--count.*--timeout.*--json.*CAP_NET_RAW.*Exit codes:",
        )


if __name__ == "__main__":
    unittest.main()
