"""`kova send` over UDP."""

import os
import socket
import threading
import time
import unittest

from tool import LIMIT, Server, ToolTest, kova, message, parse


class SendUdp(ToolTest):
    def setUp(self):
        super().setUp()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(self.socket.close)
        self.socket.settimeout(LIMIT)
        self.socket.bind(("127.0.0.1", 0))
        self.target = f"127.0.0.1:{self.socket.getsockname()[1]}"

    def answered(self, answer, *arguments):
        """The result of sending to a peer that takes one datagram and answers with `answer`."""

        def serve():
            _, sender = self.socket.recvfrom(65536)
            self.socket.sendto(answer, sender)

        thread = threading.Thread(target=serve)
        thread.start()
        result = kova("send", "--udp", self.target, "--text", "x", *arguments)
        thread.join(LIMIT)
        return result

    def test_a_message_is_one_datagram(self):
        result = kova("send", "--udp", self.target, "--text", "hello", "--type", -7)
        self.assert_ended(result, 0, output=rb"\Asent message 1 to 127.0.0.1:\d+: type -7, 5 bytes\n\Z")
        sent = parse(self.socket.recv(65536))
        self.assertEqual((sent.size, sent.magic, sent.version, sent.type), (5, b"KOVA", 0x00020000, -7))
        self.assertEqual(sent.body, b"hello")

    def test_a_body_has_at_most_8168_bytes(self):
        body = os.urandom(8168)
        self.assert_ended(kova("send", "--udp", self.target, self.file("body", body)), 0)
        self.assertEqual(parse(self.socket.recv(65536)).body, body)

    def test_a_body_of_8169_bytes_is_refused(self):
        path = self.file("body", b"x" * 8169)
        errors = rb"body: 8169 bytes; the body of a UDP message has at most 8168\n\Z"
        self.assert_ended(kova("send", "--udp", self.target, path), 2, errors, rb"\A\Z")
        kova("send", "--udp", self.target, "--text", "next")
        self.assertEqual(parse(self.socket.recv(65536)).body, b"next")

    def test_an_empty_body_is_a_header_alone(self):
        self.assert_ended(kova("send", "--udp", self.target), 0)
        self.assertEqual(parse(self.socket.recv(65536))[:4], (0, b"KOVA", 0x00020000, 1))

    def test_several_sources_are_several_datagrams(self):
        self.assert_ended(kova("send", "--udp", self.target, "--lines", stdin=b"a\nb\nc"), 0)
        self.assertEqual([parse(self.socket.recv(65536)).body for _ in range(3)], [b"a", b"b", b"c"])

    def test_a_reply_is_shown(self):
        result = self.answered(message(b"hello", type=9), "--wait-reply")
        self.assert_ended(result, 0, output=rb"reply from 127.0.0.1:\d+: type 9, 5 bytes, .*\n  hello\n\Z")

    def test_replies_can_be_stored(self):
        body, path = os.urandom(8168), self.dir / "reply"
        with Server("--udp", "--reply", "--quiet") as server:
            arguments = (self.file("body", body), "--wait-reply", "--output", path)
            for host in ("localhost", "[::1]"):
                self.assert_ended(kova("send", "--udp", server.target(host), *arguments), 0)
                self.assertEqual(path.read_bytes(), body)

    def test_no_reply_in_time_has_its_own_exit_code(self):
        start = time.monotonic()
        result = kova("send", "--udp", self.target, "--text", "x", "--wait-reply", "--timeout", 300)
        self.assertGreaterEqual(time.monotonic() - start, 0.3)
        self.assert_ended(result, 3, rb"\Akova: no reply from 127.0.0.1:\d+: error 110 ETIMEDOUT ")
        self.assert_record(result.stderr, 110, "ETIMEDOUT", "KovaFlatMsg::Recv(KovaUDPSocket&)")

    def test_a_reply_of_type_0_is_a_rejection(self):
        result = self.answered(message(b"", type=0), "--wait-reply")
        self.assert_ended(result, 3, rb"\Akova: rejected by 127.0.0.1:\d+: type 0")

    def test_an_unreachable_network_is_a_failure(self):
        result = kova("send", "--udp", "192.0.2.1:80", "--text", "x")
        self.assert_ended(
            result, 1, rb"\Akova: message to 192.0.2.1:80 failed: error 101 ENETUNREACH ", rb"\A\Z"
        )
        self.assert_record(result.stderr, 101, "ENETUNREACH", "KovaFlatMsg::Send(KovaUDPSocket&)")

    def test_another_version_is_dropped_without_an_answer(self):
        with Server("--udp", "--reply") as server:
            result = kova(
                "send", "--udp", server.target(), "--text", "x", "--header-version", 3, "--timeout", 200
            )
            self.assert_ended(result, 3, rb"\Akova: no answer from")
            self.assert_record(
                result.stderr, 110, "ETIMEDOUT", "virtual bool KovaUDPSocket::PeekFrom(void*, size_t)"
            )
            server.wait_for_error(rb"30009 KOVA_ERR_BAD_VERSION")

    def test_a_version_that_is_accepted_is_answered(self):
        with Server("--udp", "--reply") as server:
            result = kova("send", "--udp", server.target(), "--text", "hello", "--header-version", 2)
            self.assert_ended(
                result, 0, output=rb"\nanswer from 127.0.0.1:\d+: type 1, 5 bytes, .*, version 2\n\Z"
            )


if __name__ == "__main__":
    unittest.main()
