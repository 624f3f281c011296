"""Options, operands, help."""

import os
import pty
import re
import subprocess
import unittest

from tool import KOVA, LIMIT, ToolTest, kova


class CommandLine(ToolTest):
    def assert_usage(self, *arguments, message=rb"kova: ", stdin=b""):
        with self.subTest(arguments=arguments):
            self.assert_ended(kova(*arguments, stdin=stdin), 2, message, rb"\A\Z")

    def test_version_is_printed(self):
        self.assert_ended(kova("--version"), 0, output=rb"\Akova \d+\.\d+\.\d+\n\Z")

    def test_help_names_commands_and_exit_codes(self):
        self.assert_ended(
            kova("--help"), 0, output=rb"(?s)serve.*send.*trace.*Exit codes:\n  0 .*\n  1 .*\n  2 .*\n  3 "
        )

    def test_help_of_a_command_names_its_options_and_the_exit_codes(self):
        options = {
            ("serve",): "PORT --udp --plain --bind --reply --count --output --quiet --limit",
            (
                "send",
            ): "FILE --udp --plain --type --text --lines --wait-reply --output --timeout --quiet --limit "
            "--header-version HOST:PORT",
            ("trace", "show"): "FILE|PID --catalogue --buffer --raw",
        }
        for command, names in options.items():
            result = kova(*command, "--help")
            self.assert_ended(result, 0, output=rb"\nExit codes:\n  0 ")
            for name in names.split():
                self.assertIn(name.encode(), result.stdout, command)

    def test_no_command_and_unknown_ones_are_refused(self):
        self.assert_usage()
        self.assert_usage("frob")
        self.assert_usage("serve", "--frob", 0)
        self.assert_usage("trace")
        self.assert_usage("trace", "show")

    def test_ports_to_serve_are_checked(self):
        self.assert_usage("serve")
        for port in (65536, -1, "http", ""):
            self.assert_usage("serve", port)

    def test_options_of_serve_are_checked(self):
        self.assert_usage("serve", "--count", "", 0)
        self.assert_usage("serve", "--count", -1, 0)
        self.assert_usage("serve", "--count", "few", 0)
        self.assert_usage("serve", "--udp", "--plain", 20100)
        self.assert_usage("serve", "--udp", "--bind", "127.0.0.1", 20100)
        self.assert_usage(
            "serve", "--bind", "localhost", 0, message=rb"--bind localhost: not a numeric address"
        )

    def test_targets_are_checked(self):
        self.assert_usage("send")
        for target in (
            "127.0.0.1",
            "127.0.0.1:",
            "127.0.0.1:0",
            "127.0.0.1:65536",
            "127.0.0.1:80x",
            ":80",
            "[]:80",
        ):
            self.assert_usage("send", target, "--text", "x", message=rb"is not HOST:PORT")

    def test_ipv6_targets_need_brackets(self):
        self.assert_usage("send", "::1:80", "--text", "x", message=rb"in brackets: \[::1\]:4000")
        self.assert_usage("send", "[::1]", "--text", "x", message=rb"is not HOST:PORT")

    def test_unknown_hosts_are_named(self):
        self.assert_usage(
            "send", "no.such.host.invalid:80", "--text", "x", message=rb"no.such.host.invalid: "
        )

    def test_options_of_send_are_checked(self):
        target = "127.0.0.1:80"
        self.assert_usage(
            "send", target, "--type", "0", "--text", "x", message=rb"type 0 marks a rejected message"
        )
        self.assert_usage("send", target, "--type", "many", "--text", "x")
        self.assert_usage("send", target, "--type", str(2**31), "--text", "x")
        self.assert_usage("send", target, "--timeout", "0", "--text", "x")
        self.assert_usage("send", target, "--text", "x", "/dev/null")
        self.assert_usage("send", target, "--text", "x", "--output", "/dev/null")
        self.assert_usage("send", target, "--text", "x", "--header-version", "65536")
        self.assert_usage("send", target, "--text", "x", "--header-version", "3", "--wait-reply")
        self.assert_usage("send", target, "--text", "x", "--udp", "--plain")

    def test_sources_that_cannot_be_read_are_named(self):
        self.assert_usage(
            "send", "127.0.0.1:80", self.dir / "none", message=rb"none: No such file or directory"
        )
        self.assert_usage(
            "send", "127.0.0.1:80", self.dir, message=re.escape(bytes(self.dir)) + rb": Is a directory"
        )

    def test_a_file_for_replies_that_cannot_be_made_is_named(self):
        path = self.dir / "none" / "reply"
        arguments = ("send", "127.0.0.1:80", "--text", "x", "--wait-reply", "--output", path)
        self.assert_usage(*arguments, message=rb"reply: No such file or directory")

    def test_a_terminal_is_not_read_unless_asked_for(self):
        main, terminal = pty.openpty()
        with os.fdopen(main), os.fdopen(terminal) as stdin:
            result = subprocess.run(
                [KOVA, "send", "127.0.0.1:80"], stdin=stdin, capture_output=True, timeout=LIMIT, check=False
            )
        self.assert_ended(result, 2, rb"nothing to send: give a FILE, --text STRING, or - for standard input")


if __name__ == "__main__":
    unittest.main()
