"""What the raw socket makes of the frames of the tests, held against tshark."""

import collections
import csv
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

SKIPPED = 77
UDP, TCP, ICMP = 17, 6, 1
# Layer, ports and header size of the protocols that both decode.
TRANSPORTS = {
    UDP: ("udp", ("udp.srcport", "udp.dstport"), 8),
    TCP: ("tcp", ("tcp.srcport", "tcp.dstport"), 20),
    ICMP: ("icmp", ("icmp.type", "icmp.type"), 8),
}
SHORTEST_ICMP = 28
PLAIN_IP_HEADER = 20
EIO, BAD_HEADER, WRONG_PROTOCOL = 5, 30007, 30008
CHECKSUM_GOOD, CHECKSUM_BAD = "1", "0"


def run(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout.decode()


def outermost(pairs):
    """Of layers of the same name the outer one comes first."""
    layers = {}
    for name, value in pairs:
        layers.setdefault(name, value)
    return layers


def read_table(capture):
    """The library's lines; numbers where they are some."""
    lines = csv.DictReader(run(os.environ["KOVA_FRAME_TABLE"], capture).splitlines(), delimiter="\t")
    return [
        {key: int(value) if value.lstrip("-").isdigit() else value for key, value in line.items()}
        for line in lines
    ]


def read_layers(capture):
    command = ["tshark", "-n", "-r", capture, "-T", "json", "-x"]
    for option in ("ip.check_checksum:TRUE", "ip.defragment:FALSE", "tcp.desegment_tcp_streams:FALSE"):
        command += ["-o", option]
    packets = json.loads(run(*command), object_pairs_hook=outermost)
    return [packet["_source"]["layers"] for packet in packets]


def position(layers, name):
    """Where a layer begins and how long it is; None if it is not there."""
    raw = layers.get(name + "_raw")
    return (raw[1], raw[2]) if raw else None


class RawFrames(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory() as directory:
            capture = os.path.join(directory, "frames.pcap")
            cls.table = read_table(capture)
            cls.layers = read_layers(capture)

    def setUp(self):
        self.compared = collections.Counter()

    def compare_all(self, compare, **least):
        """Compares each frame as the library sees it with its layers, and at least so many of each kind."""
        self.assertEqual(len(self.table), len(self.layers))
        for row, layers in zip(self.table, self.layers):
            with self.subTest(frame=row["name"]):
                self.assertEqual(row["size"], int(layers["frame"]["frame.len"]))
                compare(row, layers)
        for kind, count in least.items():
            self.assertGreaterEqual(self.compared[kind], count, kind)

    @staticmethod
    def ip_layer(row, layers):
        """The IPv4 header that both see at the same place, if it is whole."""
        at = position(layers, "ip")
        if not row["taken"] or at is None or at[0] != row["ip"] or "ip.src" not in layers["ip"]:
            return None
        return layers["ip"]

    def compare_kind(self, row, layers):
        kind = int(layers.get("eth", {}).get("eth.type", "0"), 0)
        tagged = kind == 0x8100 and row["size"] >= 18
        begins_at = 18 if tagged else 14
        if not tagged and kind != 0x0800 or row["size"] <= begins_at:
            self.assertEqual((row["taken"], row["error"]), (0, WRONG_PROTOCOL))
            self.compared["other"] += 1
        elif not row["taken"]:
            # Runs past the end of the frame, in whichever words tshark complains.
            self.assertEqual(row["error"], BAD_HEADER)
            header = layers.get("ip", {}).get("ip.hdr_len")
            if header is not None and int(header) >= PLAIN_IP_HEADER:
                self.assertLess(row["size"], begins_at + int(header))
            self.compared["cut"] += 1
        else:
            self.assertIn(row["error"], (0, EIO))
            self.compared["taken"] += 1

    def test_agrees_on_what_is_an_ipv4_frame(self):
        self.compare_all(self.compare_kind, other=12, cut=6, taken=40)

    def compare_ethernet(self, row, layers):
        if row["taken"]:
            self.assertEqual(row["source"], layers["eth"]["eth.src"])
            self.assertEqual(row["destination"], layers["eth"]["eth.dst"])
            self.compared["addresses"] += 1
        tagged = "vlan" in layers and int(layers["eth"]["eth.type"], 0) == 0x8100
        if row["size"] >= 18:
            self.assertEqual(row["tagged"], int(tagged))
        if row["tagged"]:
            self.assertEqual(row["vlan"], int(layers["vlan"]["vlan.id"]) & 0xF)
            self.assertEqual(row["priority"], int(layers["vlan"]["vlan.priority"]))
            self.compared["tags"] += 1
        else:
            self.assertEqual((row["vlan"], row["priority"]), (-1, -1))

    def test_agrees_on_the_ethernet_header(self):
        self.compare_all(self.compare_ethernet, addresses=40, tags=20)

    def compare_ip(self, row, layers):
        ip = self.ip_layer(row, layers)
        if ip is None:
            return
        self.assertEqual((row["from"], row["to"]), (ip["ip.src"], ip["ip.dst"]))
        self.assertEqual(row["protocol"], int(ip["ip.proto"]))
        self.assertEqual(row["payload"], row["ip"] + int(ip["ip.hdr_len"]))
        self.compared["headers"] += 1
        # The library leaves options out of the sum, so that a right checksum over some looks wrong.
        if int(ip["ip.hdr_len"]) == PLAIN_IP_HEADER:
            status = CHECKSUM_BAD if row["error"] == EIO else CHECKSUM_GOOD
            self.assertEqual(status, ip["ip.checksum.status"])
            self.compared["checksum " + status] += 1

    def test_agrees_on_the_ip_header(self):
        self.compare_all(self.compare_ip, **{"headers": 35, "checksum 0": 1, "checksum 1": 20})

    def compare_payload(self, row, layers):
        ip = self.ip_layer(row, layers)
        if ip is None or int(ip["ip.frag_offset"]) != 0:
            return
        if row["protocol"] not in TRANSPORTS:
            self.assertEqual(
                (row["from_port"], row["to_port"], row["data"], row["data_size"]), (0, 0, 0, row["size"])
            )
            self.compared["others"] += 1
            return
        name, ports, header = TRANSPORTS[row["protocol"]]
        at, layer = position(layers, name), layers.get(name, {})
        self.assertTrue(at is None or at[0] == row["payload"])
        if row["data"] == 0:
            shortest = SHORTEST_ICMP if row["protocol"] == ICMP else header
            self.assertLess(row["size"], row["payload"] + shortest)
            self.compared["cut"] += 1
            return
        self.assertEqual(
            (row["from_port"], row["to_port"]), (int(layer[ports[0]]), int(layer[ports[1]]))
        )
        self.assertEqual(row["data"], at[0] + header)
        self.assertEqual(row["data_size"], row["size"] - row["data"])
        self.compared[name] += 1

    def test_agrees_on_the_payload(self):
        self.compare_all(self.compare_payload, udp=4, tcp=6, icmp=8, others=8, cut=5)


if __name__ == "__main__":
    if shutil.which("tshark") is None:
        print("tshark is missing (Debian package tshark)")
        sys.exit(SKIPPED)
    unittest.main()
