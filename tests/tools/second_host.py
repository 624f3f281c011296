"""A second host beside this one, joined to it by the cable kv0 <-> kv1, and commands without a privilege."""

import ctypes
import shlex
import struct
import subprocess
import sys

from tool import KOVA, LIMIT, wait_until

HERE, THERE = "10.0.0.1", "10.0.0.2"
HERE_MAC, THERE_MAC = "02:00:00:00:00:01", "02:00:00:00:00:02"


def shell(command):
    """Runs one command, which must succeed; its output."""
    result = subprocess.run(shlex.split(command), capture_output=True, text=True, timeout=LIMIT, check=False)
    assert result.returncode == 0, f"{command}: {result.stderr}"
    return result.stdout


def without(capability, *arguments):
    """Runs the command to its end as a root that lacks a capability (net_raw)."""
    drop = ["setpriv", f"--bounding-set=-{capability}", f"--inh-caps=-{capability}"]
    return subprocess.run(
        [*drop, KOVA, *map(str, arguments)], capture_output=True, timeout=LIMIT, check=False
    )


def deaf(request, *arguments):
    """Runs the command to its end under a kernel that takes an ioctl request and does nothing."""
    # Loads the low half of the second argument, compares it: errno 0, or the call as it is.
    low_half = 24 if sys.byteorder == "little" else 28
    steps = (
        (0x20, 0, 0, low_half),
        (0x15, 0, 1, request),
        (0x06, 0, 0, 0x00050000),
        (0x06, 0, 0, 0x7FFF0000),
    )
    code = b"".join(struct.pack("=HBBI", *step) for step in steps)
    filter_code = ctypes.create_string_buffer(code, len(code))
    program = struct.pack("@HP", len(steps), ctypes.addressof(filter_code))
    libc = ctypes.CDLL(None, use_errno=True)

    def set_filter():
        no_new_privileges, seccomp, mode_filter = 38, 22, 2
        assert libc.prctl(no_new_privileges, 1, 0, 0, 0) == 0
        assert libc.prctl(seccomp, mode_filter, program, 0, 0) == 0

    return subprocess.run(
        [KOVA, *map(str, arguments)], capture_output=True, timeout=LIMIT, check=False, preexec_fn=set_filter
    )


def disable_ipv6(name):
    """Keeps the kernel from sending frames of its own accord."""
    set_number(f"ipv6/conf/{name}/disable_ipv6", 1)


def set_number(name, value):
    """Sets a number below /proc/sys/net."""
    shell(_setting(name, value))


def _setting(name, value):
    return f"sh -c 'echo {value} > /proc/sys/net/{name}'"


# Answers each echo request on the host where it runs: after a delay in seconds, that many times.
_ECHO = """
import socket, sys, time
delay, times = float(sys.argv[1]), int(sys.argv[2])
wire = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
print("ready", flush=True)
while True:
    packet, peer = wire.recvfrom(2048)
    if packet[20] != 8:
        continue
    total = int.from_bytes(packet[22:24], "big") + 0x0800
    total = (total & 0xFFFF) + (total >> 16)
    time.sleep(delay)
    for _ in range(times):
        wire.sendto(bytes(2) + total.to_bytes(2, "big") + packet[24:], peer)
"""


class SecondHost:
    """10.0.0.1 on kv0 is here, 10.0.0.2 on kv1 is there, in a network of its own. IPv6 is off on both."""

    def __init__(self):
        self._echo = None
        self._process = subprocess.Popen(["unshare", "--net", "sleep", "infinity"])
        here, there = "/proc/self/ns/net", f"/proc/{self._process.pid}/ns/net"
        wait_until(lambda: self._is_apart(here, there), lambda: "a network of its own")
        self._enter = f"nsenter --net={there} "
        disable_ipv6("kv0")
        shell(f"ip link set kv1 netns {self._process.pid}")
        self.set("ipv6/conf/kv1/disable_ipv6", 1)
        self.shell("ip link set lo up")
        self.shell(f"ip address add {THERE}/24 dev kv1")
        self.shell("ip link set kv1 up")
        shell(f"ip address add {HERE}/24 dev kv0")
        # No frames but those that a test causes.
        shell(f"ip neighbour replace {THERE} lladdr {THERE_MAC} dev kv0")
        self.shell(f"ip neighbour replace {HERE} lladdr {HERE_MAC} dev kv1")

    @staticmethod
    def _is_apart(here, there):
        links = subprocess.run(["readlink", here, there], capture_output=True, check=False).stdout.split()
        return len(set(links)) == 2

    def shell(self, command):
        """Runs a command over there."""
        return shell(self._enter + command)

    def set(self, name, value):
        """Sets a number below /proc/sys/net over there."""
        self.shell(_setting(name, value))

    def echo(self, delay=0.0, times=1):
        """Answers echo requests in place of the kernel over there."""
        self.set("ipv4/icmp_echo_ignore_all", 1)
        command = [*self._enter.split(), sys.executable, "-c", _ECHO, str(delay), str(times)]
        self._echo = subprocess.Popen(command, stdout=subprocess.PIPE)
        assert self._echo.stdout.readline() == b"ready\n"

    def close(self):
        if self._echo is not None:
            self._echo.kill()
            self._echo.wait(LIMIT)
            self._echo.stdout.close()
        self._process.kill()
        self._process.wait(LIMIT)
