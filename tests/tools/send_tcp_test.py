"""`kova send` over TCP."""

import os
import subprocess
import time
import unittest

from tool import (
    HEADER,
    Peer,
    Running,
    Server,
    ToolTest,
    everything,
    kova,
    message,
    parse,
    receive_message,
)


def split(data):
    """The messages of a byte stream."""
    messages = []
    while data:
        head = parse(data)
        messages.append(head._replace(body=head.body[: head.size]))
        data = data[HEADER.size + head.size :]
    return messages


class SendTcp(ToolTest):
    def sent(self, *arguments, stdin=b"", code=0):
        """What arrives at a peer, and the result of the command."""
        with Peer(everything) as peer:
            result = kova("send", peer.target(), *arguments, stdin=stdin)
        self.assert_ended(result, code)
        return split(peer.result), result

    def bodies(self, *arguments, stdin=b""):
        return [each.body for each in self.sent(*arguments, stdin=stdin)[0]]

    def answered(self, answer, *arguments):
        """The result of sending to a peer that takes one message and answers with the bytes `answer`."""

        def serve(stream):
            receive_message(stream)
            stream.sendall(answer)

        with Peer(serve) as peer:
            return kova("send", peer.target(), "--text", "x", *arguments)

    # What is sent

    def test_a_message_is_framed(self):
        # The library asks a clock that may lag behind this one by some milliseconds.
        before = int(time.time()) - 1
        (sent,), result = self.sent("--text", "hello", "--type", "-7")
        self.assertEqual((sent.size, sent.magic, sent.version, sent.type), (5, b"KOVA", 0x00020000, -7))
        self.assertGreater(sent.tid, 0)
        self.assertTrue(before <= sent.time <= int(time.time()))
        self.assertEqual(sent.body, b"hello")
        self.assertRegex(result.stdout, rb"\Asent message 1 to 127.0.0.1:\d+: type -7, 5 bytes\n\Z")

    def test_the_type_is_1_by_default(self):
        self.assertEqual(self.sent("--text", "x")[0][0].type, 1)

    def test_a_file_is_sent_byte_for_byte(self):
        body = os.urandom(1 << 20)
        self.assertEqual(self.bodies(self.file("body", body)), [body])

    def test_an_empty_file_is_an_empty_message(self):
        self.assertEqual(self.bodies(self.file("body", b"")), [b""])

    def test_several_files_are_several_messages(self):
        names = self.file("one", b"1\n"), self.file("two", b"2\0")
        self.assertEqual(self.bodies(*names, "-", stdin=b"3"), [b"1\n", b"2\0", b"3"])

    def test_standard_input_is_sent_without_an_operand(self):
        self.assertEqual(self.bodies(stdin=b"a\nb\n"), [b"a\nb\n"])

    def test_texts_are_sent_as_they_are(self):
        self.assertEqual(
            self.bodies("--text", "Grüße\n", "--text", "", "--text", "-x"), ["Grüße\n".encode(), b"", b"-x"]
        )

    def test_lines_are_messages_of_their_own(self):
        self.assertEqual(self.bodies("--lines", stdin=b"a\n\nb\r\nlast"), [b"a", b"", b"b\r", b"last"])
        self.assertEqual(self.bodies("--lines", stdin=b"a\n"), [b"a"])
        self.assertEqual(self.bodies("--lines", stdin=b""), [])
        self.assertEqual(
            self.bodies("--lines", self.file("one", b"1\n2"), self.file("two", b"3")), [b"1", b"2", b"3"]
        )

    def test_lines_leave_as_they_come(self):
        with Server("--count", 2) as server:
            with Running("send", server.target(), "--lines", stdin=subprocess.PIPE) as sender:
                sender.process.stdin.write(b"first\n")
                sender.process.stdin.flush()
                server.wait_for_output(rb"message 1 .*\n  first\n")
                sender.process.stdin.write(b"second\n")
                sender.process.stdin.close()
                self.assertEqual(sender.end(), 0)
            self.assertEqual(server.end(), 0)

    def test_quiet_prints_nothing(self):
        self.assertEqual(self.sent("--text", "x", "--quiet")[1].stdout, b"")

    def test_nothing_is_lost_when_replies_stay_unread(self):
        lines = b"".join(b"%d\n" % number for number in range(500))
        with Server("--reply", "--count", 500, "--quiet") as server:
            self.assert_ended(kova("send", server.target(), "--lines", "--quiet", stdin=lines), 0)
            self.assertEqual(server.end(), 0)
        self.assertEqual(server.errors, b"")

    # Target

    def test_names_and_both_kinds_of_address_are_reached(self):
        with Server("--count", 3) as server:
            for host in ("localhost", "127.0.0.1", "[::1]"):
                self.assert_ended(kova("send", server.target(host), "--text", "x"), 0)
            self.assertEqual(server.end(), 0)

    def test_an_unreachable_port_is_a_failure(self):
        result = kova("send", "127.0.0.1:1", "--text", "x")
        self.assert_ended(
            result, 1, rb"\Akova: cannot connect to 127.0.0.1:1: error 111 ECONNREFUSED ", rb"\A\Z"
        )
        self.assert_record(result.stderr, 111, "ECONNREFUSED", "virtual bool KovaTCPSocket::ConnectIntern()")

    def test_a_full_server_is_a_failure(self):
        with Peer(everything, greeting=b"Overrun\0") as peer:
            result = kova("send", peer.target(), "--text", "x")
        self.assert_ended(result, 1, rb"cannot connect to")
        self.assert_record(
            result.stderr, 30019, "KOVA_ERR_OVERRUN", "virtual bool KovaTCPSocket::ConnectIntern()"
        )

    def test_another_greeting_is_a_failure(self):
        with Peer(everything, greeting=b"SSH-2.0-") as peer:
            result = kova("send", peer.target(), "--text", "x")
        self.assert_ended(result, 1, rb"cannot connect to")
        self.assert_record(
            result.stderr, 30002, "KOVA_ERR_BAD_HANDSHAKE", "virtual bool KovaTCPSocket::ConnectIntern()"
        )

    def test_no_greeting_times_out(self):
        with Peer(everything, greeting=b"") as peer:
            result = kova("send", peer.target(), "--text", "x", "--timeout", 200)
        self.assert_ended(result, 1, rb"cannot connect to")
        self.assert_record(result.stderr, 110, "ETIMEDOUT", "virtual bool KovaTCPSocket::ConnectIntern()")

    def test_plain_expects_no_greeting(self):
        with Peer(everything, greeting=b"") as peer:
            self.assert_ended(kova("send", peer.target(), "--text", "x", "--plain"), 0)
        self.assertEqual([each.body for each in split(peer.result)], [b"x"])

    # Replies

    def test_a_reply_is_shown(self):
        result = self.answered(message("Grüße".encode(), type=9, tid=12, sent=1), "--wait-reply")
        reply = (
            "reply from 127.0.0.1:[0-9]+: type 9, 7 bytes, thread 12, sent 1970-01-01T00:00:01Z\n  Grüße\n\\Z"
        )
        self.assert_ended(result, 0, output=reply.encode())

    def test_the_limit_of_a_reply_can_be_chosen(self):
        result = self.answered(message(b"hello"), "--wait-reply", "--limit", 1)
        self.assert_ended(result, 0, output=rb"\n  h\n  \.\.\. 4 more bytes\n\Z")

    def test_replies_can_be_stored(self):
        one, two, path = (
            self.file("one", os.urandom(1 << 20)),
            self.file("two", b"\0two"),
            self.dir / "replies",
        )
        with Server("--reply", "--quiet") as server:
            result = kova("send", server.target(), one, two, "--wait-reply", "--output", path)
        self.assert_ended(
            result, 0, output=rb"\Asent message 1 .*\nreply from .*\nsent message 2 .*\nreply from .*\n\Z"
        )
        self.assertEqual(path.read_bytes(), one.read_bytes() + two.read_bytes())

    def test_replies_can_be_passed_on(self):
        body = os.urandom(100_000)
        result = self.answered(message(body), "--wait-reply", "--output", "-")
        self.assert_ended(result, 0)
        self.assertEqual(result.stdout, body)

    def test_a_reply_that_cannot_be_stored_is_a_failure(self):
        result = self.answered(message(b"hello"), "--wait-reply", "--output", "/dev/full")
        self.assert_ended(result, 1, rb"\Akova: /dev/full: No space left on device\n\Z")

    def test_a_reply_of_type_0_is_a_rejection(self):
        result = self.answered(message(b"", type=0), "--wait-reply")
        self.assert_ended(result, 3, rb"\Akova: rejected by 127.0.0.1:\d+: type 0, 0 bytes")

    def test_no_reply_in_time_has_its_own_exit_code(self):
        with Server() as server:
            start = time.monotonic()
            result = kova("send", server.target(), "--text", "x", "--wait-reply", "--timeout", 300)
            self.assertGreaterEqual(time.monotonic() - start, 0.3)
        self.assert_ended(result, 3, rb"\Akova: no reply from 127.0.0.1:\d+: error 110 ETIMEDOUT ")
        self.assert_record(result.stderr, 110, "ETIMEDOUT", "KovaFlatMsg::Recv(KovaTCPSocket&)")

    def test_a_peer_that_closes_gives_no_reply(self):
        result = self.answered(b"", "--wait-reply")
        self.assert_ended(result, 3, rb"\Akova: no reply from")
        self.assert_record(result.stderr, 104, "ECONNRESET", "KovaFlatMsg::Recv(KovaTCPSocket&)")

    def test_a_foreign_reply_is_no_reply(self):
        result = self.answered(b"HTTP/1.1 400 Bad Request\r\n\r\n", "--wait-reply")
        self.assert_ended(result, 3, rb"\Akova: no reply from")
        self.assert_record(
            result.stderr, 30007, "KOVA_ERR_BAD_HEADER", "bool KovaFlatMsg::CheckHeader(sKovaMsgHeaderT*)"
        )

    def test_the_first_failure_ends_the_command(self):
        with Server() as server:
            arguments = ("--text", "x", "--text", "y", "--wait-reply", "--timeout", 100)
            result = kova("send", server.target(), *arguments)
        self.assert_ended(result, 3, rb"no reply", rb"\Asent message 1 [^\n]*\n\Z")

    # Another version

    def test_a_header_of_another_version_is_sent(self):
        def serve(stream):
            sent = receive_message(stream)
            stream.sendall(message(b"", type=0))
            return sent

        with Peer(serve) as peer:
            result = kova("send", peer.target(), "--text", "hello", "--type", 7, "--header-version", 3)
        self.assert_ended(
            result, 3, rb"\Akova: rejected by 127.0.0.1:\d+: type 0, 0 bytes, .*, version 2\n\Z"
        )
        sent = peer.result
        self.assertEqual(
            (sent.size, sent.magic, sent.version, sent.type, sent.body), (5, b"KOVA", 0x00030000, 7, b"hello")
        )

    def test_the_rejection_of_another_version_is_shown(self):
        with Server() as server:
            result = kova("send", server.target(), "--text", "hello", "--header-version", 3)
            self.assert_ended(
                result,
                3,
                rb"\Akova: rejected by 127.0.0.1:\d+: type 0, .*, version 2\n\Z",
                rb"\Asent message 1 ",
            )
            server.wait_for_error(rb"30009 KOVA_ERR_BAD_VERSION")

    def test_a_version_that_is_accepted_is_answered(self):
        with Server("--reply") as server:
            result = kova("send", server.target(), "--text", "hello", "--header-version", 2)
            self.assert_ended(
                result, 0, output=rb"\nanswer from 127.0.0.1:\d+: type 1, 5 bytes, .*, version 2\n\Z"
            )

    def test_a_silent_peer_does_not_answer_in_time(self):
        with Server() as server:
            result = kova("send", server.target(), "--text", "x", "--header-version", 2, "--timeout", 100)
        self.assert_ended(result, 3, rb"\Akova: no answer from")
        self.assert_record(result.stderr, 110, "ETIMEDOUT", "virtual bool KovaTCPSocket::Recv(void*, size_t)")


if __name__ == "__main__":
    unittest.main()
