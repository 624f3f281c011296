"""`kova trace show` on what the command itself leaves; the viewer's own tests are elsewhere."""

import unittest

from tool import Server, ToolTest, kova, message, receive_message


class Trace(ToolTest):
    def sender_buffer(self):
        """The trace file of a finished `kova send`."""
        with Server() as server:
            self.assert_ended(
                kova("send", server.target(), "--text", "x", env={"TRACE_OVRA_DIR": str(self.dir)}), 0
            )
        (path,) = self.dir.glob("KOVA.*.trace")
        return path

    def test_a_finished_sender_left_its_buffer_in_a_file(self):
        result = kova("trace", "show", self.sender_buffer())
        self.assert_ended(
            result, 0, output=rb"(?s)\A# buffer KOVA, process \d+.*src/frame/lifecycle.cpp:\d+ .*\Z"
        )

    def test_a_living_server_is_read_by_its_process_id(self):
        with Server() as server, server.connect() as stream:
            stream.sendall(message(b"x", version=0x00030000))
            receive_message(stream)
            result = kova("trace", "show", server.process.pid)
            head = (
                rb"(?s)\A# buffer KOVA, process %d: .*src/msg/flat_msg.cpp:\d+ .*30000" % server.process.pid
            )
            self.assert_ended(result, 0, output=head)

    def test_raw_shows_numbers_only(self):
        result = kova("trace", "show", "--raw", self.sender_buffer())
        self.assert_ended(result, 0, output=rb"hash=[0-9a-f]{8} line=")
        self.assertNotIn(b"lifecycle.cpp", result.stdout)

    def test_a_catalogue_can_be_named(self):
        path = self.sender_buffer()
        self.assert_ended(
            kova("trace", "show", path, "--catalogue", self.file("empty", b"")), 0, output=rb"hash="
        )
        self.assert_ended(
            kova("trace", "show", path, "--catalogue", self.dir / "none"), 1, rb"none: No such file"
        )

    def test_a_buffer_can_be_named(self):
        path = self.sender_buffer()
        self.assert_ended(kova("trace", "show", path, "--buffer", "KOVA"), 0, output=rb"# buffer KOVA")
        self.assert_ended(kova("trace", "show", path, "--buffer", "OTHER"), 1, rb"OTHER", rb"\A\Z")

    def test_what_holds_no_trace_is_a_failure(self):
        self.assert_ended(
            kova("trace", "show", self.file("text", b"no trace")), 1, rb"kova trace show: ", rb"\A\Z"
        )
        self.assert_ended(kova("trace", "show", self.dir / "none"), 1, rb"none", rb"\A\Z")
        self.assert_ended(kova("trace", "show", "4194304"), 1, rb"4194304", rb"\A\Z")


if __name__ == "__main__":
    unittest.main()
