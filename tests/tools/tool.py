"""What the tests of the kova command share: running it, and peers that are no libkova."""

import os
import re
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time
import unittest
from pathlib import Path
from typing import NamedTuple

KOVA = os.environ["KOVA_TOOL"]
# How long an event may take; nothing is expected to need it.
LIMIT = 60
HEADER = struct.Struct("!I4sIiii")
VERSION = 0x00020000
GREETING = b"Connect\0"
FILLER = b"alive\0"


class Message(NamedTuple):
    size: int
    magic: bytes
    version: int
    type: int
    tid: int
    time: int
    body: bytes = b""


def message(body=b"", type=1, magic=b"KOVA", version=VERSION, size=None, tid=4711, sent=0):
    """A message as bytes."""
    return HEADER.pack(len(body) if size is None else size, magic, version, type, tid, sent) + body


def parse(raw):
    return Message(*HEADER.unpack(raw[: HEADER.size]), raw[HEADER.size :])


def receive(stream, size):
    """Exactly `size` bytes, fewer only when the peer closes."""
    data = b""
    while len(data) < size and (part := stream.recv(size - len(data))):
        data += part
    return data


def receive_message(stream):
    head = parse(receive(stream, HEADER.size))
    return head._replace(body=receive(stream, head.size))


def wait_until(condition, describe):
    """The first true result of `condition`; `describe` tells what was missed."""
    end = time.monotonic() + LIMIT
    while not (result := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"not within {LIMIT} s: {describe()}")
        time.sleep(0.005)
    return result


def kova(*arguments, stdin=b"", env=None):
    """Runs the command to its end; standard input is a pipe with `stdin`."""
    return subprocess.run(
        [KOVA, *map(str, arguments)],
        input=stdin,
        capture_output=True,
        timeout=LIMIT,
        env={**os.environ, **(env or {})},
    )


class Running:
    """A command that is still running; `output` and `errors` grow as it prints."""

    def __init__(self, *arguments, stdin=None, stdout=None):
        self.process = subprocess.Popen(
            [KOVA, *map(str, arguments)], stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE
        )
        self.output = self.errors = b""
        self._threads = [threading.Thread(target=self._read, args=(name,)) for name in ("output", "errors")]
        for thread in self._threads:
            thread.start()

    def _read(self, name):
        stream = self.process.stdout if name == "output" else self.process.stderr
        while part := stream.read1():
            setattr(self, name, getattr(self, name) + part)
        stream.close()

    def _wait_for(self, name, pattern):
        return wait_until(
            lambda: re.search(pattern, getattr(self, name)),
            lambda: f"{pattern!r} in {name}; output {self.output!r}, errors {self.errors!r}",
        )

    def wait_for_output(self, pattern):
        return self._wait_for("output", pattern)

    def wait_for_error(self, pattern):
        return self._wait_for("errors", pattern)

    def end(self):
        """Waits for the command to end by itself; returns its exit code."""
        code = self.process.wait(LIMIT)
        for thread in self._threads:
            thread.join(LIMIT)
        return code

    def stop(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        return self.end()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
        self.end()


class Server(Running):
    """`kova serve` on a port of its choice, or on UDP port 20100; ready when made."""

    def __init__(self, *options):
        super().__init__("serve", *options, 20100 if "--udp" in options else 0)
        kind = rb"udp" if "--udp" in options else rb"tcp"
        self.port = int(self.wait_for_output(rb"^listening on " + kind + rb" port (\d+)\n")[1])

    def target(self, host="127.0.0.1"):
        return f"{host}:{self.port}"

    def connect(self, greeting=True):
        """A TCP connection made by hand."""
        stream = socket.create_connection(("127.0.0.1", self.port), LIMIT)
        if greeting:
            assert receive(stream, len(GREETING)) == GREETING
        return stream


class Peer:
    """A TCP server by hand: `serve` gets the one connection that comes, on a thread."""

    def __init__(self, serve, greeting=GREETING, host="127.0.0.1"):
        self._listener = socket.create_server(
            (host, 0), family=socket.AF_INET6 if ":" in host else socket.AF_INET
        )
        self._serve, self._greeting = serve, greeting
        self.port = self._listener.getsockname()[1]
        self.result = self._failure = None
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def _run(self):
        self._listener.settimeout(LIMIT)
        try:
            stream, _ = self._listener.accept()
            with stream:
                stream.settimeout(LIMIT)
                stream.sendall(self._greeting)
                self.result = self._serve(stream)
        except Exception as failure:  # handed to the test
            self._failure = failure

    def target(self, host="127.0.0.1"):
        return f"{host}:{self.port}"

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._thread.join(LIMIT)
        self._listener.close()
        if self._failure:
            raise self._failure


def everything(stream):
    """A peer that keeps all bytes until the other side is done."""
    data = b""
    while part := stream.recv(1 << 16):
        data += part
    return data


class ToolTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.dir = Path(directory.name)

    def file(self, name, data):
        path = self.dir / name
        path.write_bytes(data)
        return path

    def assert_ended(self, result, code, errors=rb"\A\Z", output=None):
        """Exit code, and patterns of what standard error (by default: nothing) and standard output contain."""
        seen = (
            f"exit code {result.returncode}, output {result.stdout[:2000]!r}, errors {result.stderr[:2000]!r}"
        )
        self.assertEqual(result.returncode, code, seen)
        self.assertRegex(result.stderr, errors, seen)
        for line in result.stderr.splitlines():
            self.assertTrue(line.startswith(b"kova"), seen)
        if output is not None:
            self.assertRegex(result.stdout, output, seen)

    def assert_record(self, text, code, name, function):
        """The library's error record: code with its name, function, line."""
        record = rf'error {code} {name}( \([^)]*\))? in "[^"]*{re.escape(function)}[^"]*" line [1-9]\d*'
        self.assertRegex(text, record.encode())
