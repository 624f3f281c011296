"""`kova serve` over TCP."""

import contextlib
import shutil
import signal
import unittest

from tool import (
    FILLER,
    HEADER,
    Running,
    Server,
    ToolTest,
    kova,
    message,
    receive,
    receive_message,
    wait_until,
)


class ServeTcp(ToolTest):
    def shown(self, body, *options):
        """What is printed of a body."""
        with Server("--count", 1, *options) as server, server.connect() as stream:
            stream.sendall(message(body))
            self.assertEqual(server.end(), 0)
        return server.output.split(b"\n", 2)[2].decode()

    # Header and body

    def test_a_message_is_shown_with_peer_type_size_thread_and_time(self):
        with Server("--count", 1) as server, server.connect() as stream:
            stream.sendall(message(b"hello", type=-7, tid=4711, sent=86399))
            self.assertEqual(server.end(), 0)
            port = stream.getsockname()[1]
        head = f"message 1 from 127.0.0.1:{port}: type -7, 5 bytes, thread 4711, sent 1970-01-01T23:59:59Z\n"
        self.assertEqual(server.output.decode(), f"listening on tcp port {server.port}\n{head}  hello\n")
        self.assertEqual(server.errors, b"")

    def test_an_ipv6_peer_is_shown_in_brackets(self):
        with Server("--count", 1) as server:
            self.assert_ended(kova("send", server.target("[::1]"), "--text", "x"), 0)
            self.assertEqual(server.end(), 0)
        self.assertRegex(server.output, rb"message 1 from \[::1\]:\d+: type 1, 1 byte,")

    def test_text_is_shown_as_text(self):
        self.assertEqual(
            self.shown("one\n\ttwo\r\n\nGrüße, 日本 🎉".encode()), "  one\n  \ttwo\r\n  \n  Grüße, 日本 🎉\n"
        )

    def test_an_empty_body_shows_nothing(self):
        self.assertEqual(self.shown(b""), "")

    def test_other_bytes_are_shown_as_hex_dump(self):
        dump = (
            "  00000000  00 01 02 03 04 05 06 07  08 09 0a 0b 0c 0d 0e 0f  |................|\n"
            "  00000010  10 11 12 13 14 15 16 17  18 19 1a 1b 1c 1d 1e 1f  |................|\n"
            "  00000020  20 21 7e 7f ff                                    | !~..|\n"
        )
        self.assertEqual(self.shown(bytes(range(33)) + b"!~\x7f\xff"), dump)

    def test_what_could_steer_a_terminal_is_no_text(self):
        for body in (b"\x1b[2J", b"\x9b2J", b"\xc2\x9b2J", b"\b", b"\x7f", b"x\0"):
            with self.subTest(body=body):
                self.assertTrue(self.shown(body).startswith("  00000000  "))

    def test_broken_utf8_is_no_text(self):
        for body in (
            b"\xc3",
            b"\xc3x",
            b"\x80",
            b"\xc0\xaf",
            b"\xe0\x80\x80",
            b"\xed\xa0\x80",
            b"\xf4\x90\x80\x80",
            b"\xf8",
        ):
            with self.subTest(body=body):
                self.assertTrue(self.shown(body).startswith("  00000000  "))

    def test_long_bodies_are_cut_at_4096_bytes(self):
        self.assertEqual(self.shown(b"x" * 5000), "  " + "x" * 4096 + "\n  ... 904 more bytes\n")

    def test_the_limit_of_a_body_can_be_chosen(self):
        self.assertEqual(self.shown(b"x" * 17, "--limit", 16), "  " + "x" * 16 + "\n  ... 1 more bytes\n")
        self.assertEqual(self.shown(b"x" * 5000, "--limit", 0), "  " + "x" * 5000 + "\n")
        self.assertIn("|\n  ... 984 more bytes\n", self.shown(b"\0" * 1000, "--limit", 16))

    def test_no_character_is_cut(self):
        self.assertEqual(self.shown("aü".encode() * 2, "--limit", 2), "  a\n  ... 5 more bytes\n")

    def test_quiet_shows_no_bodies(self):
        self.assertEqual(self.shown(b"hello", "--quiet"), "")

    # Connections

    def test_a_connection_may_bring_many_messages(self):
        with Server("--count", 3) as server, server.connect() as stream:
            stream.sendall(message(b"one") + message(b"two"))
            server.wait_for_output(rb"message 2 .*\n  two\n")
            stream.sendall(message(b"three"))
            self.assertEqual(server.end(), 0)
        self.assertRegex(server.output, rb"(?s)message 1 .*  one\nmessage 2 .*  two\nmessage 3 .*  three\n")

    def test_connections_do_not_wait_for_each_other(self):
        with Server() as server, server.connect() as slow, server.connect() as idle:
            slow.sendall(message(b"slow")[:26])
            idle.sendall(message(b"idle"))
            server.wait_for_output(rb"message 1 .*\n  idle\n")
            with server.connect() as quick:
                quick.sendall(message(b"quick"))
                server.wait_for_output(rb"message 2 .*\n  quick\n")
            slow.sendall(message(b"slow")[26:])
            server.wait_for_output(rb"message 3 .*\n  slow\n")

    def test_more_than_256_connections_are_turned_away(self):
        with Server("--reply", "--quiet") as server, contextlib.ExitStack() as streams:

            def is_served(stream):
                try:
                    stream.sendall(message(b"x"))
                    return len(receive(stream, HEADER.size)) == HEADER.size
                except ConnectionError:
                    return False

            first = server.connect()
            self.assertTrue(is_served(first))
            for _ in range(255):
                self.assertTrue(is_served(streams.enter_context(server.connect())))
            with server.connect() as stream:
                self.assertFalse(is_served(stream))
            server.wait_for_error(rb"\Akova: connection from 127.0.0.1:\d+ turned away: 256 are open\n\Z")
            first.close()
            wait_until(
                lambda: is_served(streams.enter_context(server.connect())),
                lambda: "room for another connection",
            )
            self.assertEqual(server.stop(), 0)

    def test_a_peer_that_closes_between_messages_is_no_error(self):
        with Server() as server:
            with server.connect() as stream:
                stream.sendall(message(b"one"))
                server.wait_for_output(rb"message 1 ")
            with server.connect() as stream:
                stream.sendall(message(b"two"))
                server.wait_for_output(rb"message 2 ")
            self.assertEqual(server.stop(), 0)
        self.assertEqual(server.errors, b"")

    def test_a_peer_that_closes_within_a_message_is_reported(self):
        for part in (10, 24, 26):
            with self.subTest(part=part), Server() as server:
                with server.connect() as stream:
                    stream.sendall(message(b"hello")[:part])
                server.wait_for_error(rb"\n")
                self.assert_record(server.errors, 104, "ECONNRESET", "KovaFlatMsg::Recv(KovaTCPSocket&)")
                self.assertRegex(server.errors, rb"\Akova: message from 127.0.0.1:\d+ failed: error ")
                self.assertEqual(server.stop(), 0)

    def test_a_message_that_stops_coming_times_out(self):
        with Server() as server, server.connect() as stream:
            stream.sendall(message(b"hello")[:26])
            server.wait_for_error(rb"\n")
            self.assert_record(server.errors, 110, "ETIMEDOUT", "KovaFlatMsg::Recv(KovaTCPSocket&)")
            self.assertEqual(stream.recv(1), b"")

    def test_filler_between_messages_is_dropped(self):
        with Server("--count", 2) as server, server.connect() as stream:
            stream.sendall(FILLER * 3)
            stream.sendall(message(b"one"))
            server.wait_for_output(rb"message 1 .*\n  one\n")
            stream.sendall(FILLER + message(b"two"))
            self.assertEqual(server.end(), 0)
        self.assertEqual(server.errors, b"")

    def test_plain_greets_nobody_and_takes_filler_for_data(self):
        with Server("--plain") as server, server.connect(greeting=False) as stream:
            stream.sendall(message(b"one"))
            server.wait_for_output(rb"message 1 .*\n  one\n")
            stream.sendall(FILLER + message(b"two"))
            self.assertEqual(receive_message(stream).type, 0)
            server.wait_for_error(rb"\n")
            self.assert_record(server.errors, 30007, "KOVA_ERR_BAD_HEADER", "KovaFlatMsg::CheckHeader")

    # Messages that fail

    def test_a_foreign_version_is_rejected_and_reported(self):
        with Server() as server, server.connect() as stream:
            stream.sendall(message(b"hello", version=0x00030000))
            rejection = receive_message(stream)
            self.assertEqual((rejection.type, rejection.version), (0, 0x00020000))
            self.assertEqual(stream.recv(1), b"")
            server.wait_for_error(rb"\n")
            self.assert_record(
                server.errors,
                30009,
                "KOVA_ERR_BAD_VERSION",
                "bool KovaFlatMsg::CheckHeader(sKovaMsgHeaderT*)",
            )

    def test_another_minor_version_is_accepted(self):
        with Server("--count", 1) as server, server.connect() as stream:
            stream.sendall(message(b"hello", version=0x0002FFFF))
            self.assertEqual(server.end(), 0)
        self.assertIn(b"  hello\n", server.output)

    def test_a_foreign_magic_is_rejected_and_reported(self):
        with Server() as server, server.connect() as stream:
            stream.sendall(b"GET / HTTP/1.1\r\nHost: example\r\n\r\n")
            self.assertEqual(receive_message(stream).type, 0)
            server.wait_for_error(rb"\n")
            self.assert_record(
                server.errors, 30007, "KOVA_ERR_BAD_HEADER", "bool KovaFlatMsg::CheckHeader(sKovaMsgHeaderT*)"
            )

    def test_serving_goes_on_after_a_rejection(self):
        with Server("--count", 1) as server:
            with server.connect() as stream:
                stream.sendall(message(magic=b"kova"))
                self.assertEqual(receive_message(stream).type, 0)
            self.assert_ended(kova("send", server.target(), "--text", "hello"), 0)
            self.assertEqual(server.end(), 0)
        self.assertIn(b"message 1 ", server.output)

    def test_a_rejection_reaches_a_peer_that_is_still_sending(self):
        with Server() as server, server.connect() as stream:
            stream.sendall(message(b"x" * 5_000_000, version=0x00030000))
            self.assertEqual(receive_message(stream).type, 0)

    def test_a_size_that_no_memory_holds_is_reported(self):
        with Server() as server, server.connect() as stream:
            stream.sendall(message(size=0xFFFFFFFF))
            server.wait_for_error(rb"\n")
            self.assert_record(
                server.errors, 30015, "KOVA_ERR_NO_BUFFER", "void* KovaFlatMsg::CreateBuffer(size_t)"
            )
            self.assertEqual(server.stop(), 0)

    # Replies

    def test_a_reply_has_the_same_type_and_body(self):
        body = bytes(range(256)) * 4096
        with Server("--reply", "--quiet") as server, server.connect() as stream:
            for sent, type in ((body, 7), (b"", -1), (b"hello", 2**31 - 1)):
                stream.sendall(message(sent, type=type))
                reply = receive_message(stream)
                self.assertEqual((reply.magic, reply.version, reply.type), (b"KOVA", 0x00020000, type))
                self.assertEqual(reply.body, sent)

    def test_a_rejection_is_not_answered(self):
        with Server("--reply", "--count", 2) as server, server.connect() as stream:
            stream.sendall(message(b"rejected", type=0) + message(b"asked", type=5))
            self.assertEqual(receive_message(stream).body, b"asked")
            self.assertEqual(server.end(), 0)

    def test_a_reply_that_cannot_be_sent_is_reported(self):
        with Server("--reply", "--quiet") as server, server.connect() as stream:
            stream.sendall(message(b"x" * 20_000_000))  # nobody reads the reply
            server.wait_for_error(rb"\n")
            self.assertRegex(server.errors, rb"\Akova: reply to 127.0.0.1:\d+ failed: error 11 EAGAIN ")
            self.assert_record(server.errors, 11, "EAGAIN", "KovaFlatMsg::Send(KovaTCPSocket&)")

    # Storing

    def test_bodies_are_stored_in_order_of_arrival(self):
        bodies = [b"text", b"", bytes(range(256)) * 8192]
        out = self.dir / "new" / "out"
        with Server("--output", out, "--count", len(bodies), "--quiet") as server, server.connect() as stream:
            for body in bodies:
                stream.sendall(message(body))
            self.assertEqual(server.end(), 0)
        self.assertEqual(
            sorted(path.name for path in out.iterdir()), ["000001.body", "000002.body", "000003.body"]
        )
        self.assertEqual([(out / f"00000{number}.body").read_bytes() for number in (1, 2, 3)], bodies)

    def test_bodies_of_an_earlier_run_are_not_overwritten(self):
        self.file("000001.body", b"precious")
        self.assert_ended(kova("serve", "--output", self.dir, 0), 2, rb"000001.body is there already")
        self.assertEqual((self.dir / "000001.body").read_bytes(), b"precious")

    def test_a_directory_that_cannot_be_made_is_named(self):
        path = self.file("file", b"") / "out"
        self.assert_ended(kova("serve", "--output", path, 0), 2, rb"directory .*file/out: Not a directory")

    def test_a_body_that_cannot_be_stored_is_a_failure_in_the_end(self):
        out = self.dir / "out"
        with Server("--output", out, "--count", 1) as server, server.connect() as stream:
            shutil.rmtree(out)
            stream.sendall(message(b"hello"))
            self.assertEqual(server.end(), 1)
        self.assertRegex(server.errors, rb"\Akova: .*000001.body: No such file or directory\n\Z")
        self.assertIn(b"  hello\n", server.output)

    # Beginning and end

    def test_signals_end_the_server(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number=number), Server() as server:
                self.assertEqual(server.stop(number), 0)
                self.assertEqual(server.errors, b"")

    def test_a_signal_ends_idle_connections_and_unfinished_messages(self):
        with Server() as server, server.connect() as idle, server.connect() as unfinished:
            idle.sendall(message(b"hello"))
            server.wait_for_output(rb"message 1 ")
            unfinished.sendall(message(b"hello")[:26])
            # Connections that brought data are handed out before a new one is greeted.
            with server.connect() as last:
                last.sendall(message(b"last"))
                server.wait_for_output(rb"message 2 ")
                self.assertEqual(server.stop(), 0)
            self.assertEqual(idle.recv(1), b"")
        self.assertEqual(server.errors, b"")

    def test_count_ends_the_server_after_the_reply(self):
        with Server(
            "--count", 2, "--reply", "--quiet"
        ) as server, server.connect() as first, server.connect() as second:
            first.sendall(message(b"one"))
            self.assertEqual(receive_message(first).body, b"one")
            second.sendall(message(b"x" * 1_000_000))
            self.assertEqual(len(receive_message(second).body), 1_000_000)
            self.assertEqual(server.end(), 0)

    def test_failed_messages_do_not_count(self):
        with Server("--count", 1) as server:
            with server.connect() as stream:
                stream.sendall(message(magic=b"kova"))
                receive_message(stream)
            with server.connect() as stream:
                stream.sendall(message(b"good"))
                self.assertEqual(server.end(), 0)

    def test_a_given_port_is_served(self):
        with Running("serve", 20101) as server:
            server.wait_for_output(rb"\Alistening on tcp port 20101\n")
            self.assert_ended(kova("send", "127.0.0.1:20101", "--text", "x"), 0)

    def test_a_port_in_use_is_a_failure(self):
        with Server() as server:
            result = kova("serve", server.port)
            self.assert_ended(
                result, 1, rb"\Akova: cannot serve tcp port \d+: error 98 EADDRINUSE ", rb"\A\Z"
            )
            self.assert_record(result.stderr, 98, "EADDRINUSE", "virtual bool KovaTCPSocket::ServerIntern()")

    def test_bind_serves_one_address_only(self):
        for bound, other in (("127.0.0.1", "[::1]"), ("::1", "127.0.0.1")):
            with self.subTest(bound=bound), Server("--bind", bound, "--count", 1) as server:
                self.assertNotEqual(server.port, 0)
                self.assert_ended(kova("send", server.target(other), "--text", "x"), 1, rb"ECONNREFUSED")
                own = f"[{bound}]" if ":" in bound else bound
                self.assert_ended(kova("send", server.target(own), "--text", "x"), 0)
                self.assertEqual(server.end(), 0)


if __name__ == "__main__":
    unittest.main()
