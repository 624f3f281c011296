"""`kova serve` over UDP."""

import os
import signal
import socket
import unittest

from tool import HEADER, LIMIT, Server, ToolTest, kova, message, parse


class ServeUdp(ToolTest):
    def setUp(self):
        super().setUp()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(self.socket.close)
        self.socket.settimeout(LIMIT)

    def send(self, server, datagram):
        self.socket.sendto(datagram, ("127.0.0.1", server.port))

    def assert_refused(self, datagram, code, name, function):
        """The datagram is reported and removed; serving goes on."""
        with Server("--udp", "--count", 1) as server:
            self.send(server, datagram)
            server.wait_for_error(rb"\n")
            self.assertRegex(server.errors, rb"\Akova: message from 127.0.0.1:\d+ failed: error [^\n]*\n\Z")
            self.assert_record(server.errors, code, name, function)
            self.send(server, message(b"good"))
            self.assertEqual(server.end(), 0)
            self.assertRegex(server.output, rb"message 1 .*\n  good\n")

    def test_a_message_is_shown(self):
        with Server("--udp", "--count", 1) as server:
            self.send(server, message(b"hello", type=7, tid=11, sent=1))
            self.assertEqual(server.end(), 0)
        port = self.socket.getsockname()[1]
        head = f"message 1 from 127.0.0.1:{port}: type 7, 5 bytes, thread 11, sent 1970-01-01T00:00:01Z\n"
        self.assertEqual(server.output.decode(), f"listening on udp port {server.port}\n{head}  hello\n")

    def test_an_ipv6_peer_is_shown_in_brackets(self):
        with Server("--udp", "--count", 1) as server:
            self.assert_ended(kova("send", "--udp", server.target("[::1]"), "--text", "x"), 0)
            self.assertEqual(server.end(), 0)
        self.assertRegex(server.output, rb"message 1 from \[::1\]:\d+: type 1, 1 byte,")

    def test_bodies_are_stored(self):
        bodies = [os.urandom(8168), b""]
        with Server("--udp", "--count", 2, "--output", self.dir / "out", "--quiet") as server:
            for body in bodies:
                self.send(server, message(body))
            self.assertEqual(server.end(), 0)
        self.assertEqual(
            [(self.dir / "out" / f"00000{number}.body").read_bytes() for number in (1, 2)], bodies
        )

    def test_a_reply_has_the_same_type_and_body(self):
        with Server("--udp", "--reply", "--quiet") as server:
            for body, type in ((os.urandom(8168), 7), (b"", -1)):
                self.send(server, message(body, type=type))
                reply = parse(self.socket.recv(65536))
                self.assertEqual(
                    (reply.magic, reply.version, reply.type, reply.body), (b"KOVA", 0x00020000, type, body)
                )

    def test_a_foreign_version_is_dropped_and_reported(self):
        check = "bool KovaFlatMsg::CheckHeader(sKovaMsgHeaderT*)"
        self.assert_refused(message(b"x", version=0x00010000), 30009, "KOVA_ERR_BAD_VERSION", check)

    def test_a_foreign_magic_is_dropped_and_reported(self):
        self.assert_refused(
            b"x" * 100, 30007, "KOVA_ERR_BAD_HEADER", "bool KovaFlatMsg::CheckHeader(sKovaMsgHeaderT*)"
        )

    def test_a_datagram_shorter_than_a_header_is_reported(self):
        receive = "KovaUDPSocket& KovaFlatMsg::Recv(KovaUDPSocket&)"
        self.assert_refused(b"KOVA", 30004, "KOVA_ERR_SIZE_MISMATCH", receive)
        self.assert_refused(b"", 30004, "KOVA_ERR_SIZE_MISMATCH", receive)

    def test_a_cut_datagram_is_reported(self):
        receive = "KovaUDPSocket& KovaFlatMsg::Recv(KovaUDPSocket&)"
        self.assert_refused(message(b"hello")[:-1], 30004, "KOVA_ERR_SIZE_MISMATCH", receive)

    def test_a_body_above_8168_bytes_is_rejected_and_reported(self):
        receive = "KovaUDPSocket& KovaFlatMsg::Recv(KovaUDPSocket&)"
        self.assert_refused(message(b"x" * 8169), 30007, "KOVA_ERR_BAD_HEADER", receive)
        rejection = self.socket.recv(65536)
        self.assertEqual((len(rejection), parse(rejection).type), (HEADER.size, 0))

    def test_signals_end_the_server(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number=number), Server("--udp") as server:
                self.assertEqual(server.stop(number), 0)
                self.assertEqual(server.errors, b"")

    def test_port_0_is_refused_by_the_library(self):
        result = kova("serve", "--udp", 0)
        self.assert_ended(
            result, 1, rb"\Akova: cannot serve udp port 0: .*\(UDP needs a port that is not 0\)\n\Z", rb"\A\Z"
        )
        self.assert_record(
            result.stderr, 30010, "KOVA_ERR_INVALID_PARAMETER", "virtual bool KovaUDPSocket::Bind()"
        )


if __name__ == "__main__":
    unittest.main()
