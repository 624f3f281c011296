"""`kova interfaces`: the listing, which changes nothing, and the changes."""

import json
import subprocess
import unittest

import second_host
from second_host import shell
from tool import KOVA, LIMIT, ToolTest, kova

SIOCSIFFLAGS, SIOCSIFNETMASK = 0x8914, 0x891C

HEAD = (
    b"Ethernet Interfaces:\n"
    b"Id Typ Address          Netmask          SubNet       Status Name        MAC                Alias\n"
    b"00 001 127.0.0.1        255.0.0.0        127.0.0.0         1 lo          00:00:00:00:00:00 0\n"
)


def addresses(name):
    """The IPv4 addresses of a device with their lengths."""
    device = json.loads(shell(f"ip -json -4 address show dev {name}"))
    return [f"{one['local']}/{one['prefixlen']}" for entry in device for one in entry.get("addr_info", [])]


def link(name):
    return json.loads(shell(f"ip -json link show dev {name}"))[0]


def is_up(name):
    return "UP" in link(name)["flags"]


def without_admin(*arguments):
    return second_host.without("net_admin", "interfaces", *arguments)


class Interfaces(ToolTest):
    def setUp(self):
        super().setUp()
        shell("ip address add 10.1.2.3/24 brd + dev kv0")

    def interfaces(self, *arguments, code=0, output=rb"", errors=rb"\A\Z"):
        self.assert_ended(kova("interfaces", *arguments), code, errors, rb"\A" + output + rb"\Z")

    def assert_unprivileged(self, message, *arguments):
        self.assert_ended(
            without_admin(*arguments),
            1,
            rb"\Akova: "
            + message
            + rb": error 1 EPERM \(Operation not permitted\); the privilege CAP_NET_ADMIN"
            rb" is missing: run it as root, or once: setcap cap_net_raw,cap_net_admin\+ep /\S+/kova\n\Z",
            rb"\A\Z",
        )

    def test_the_listing_is_the_librarys(self):
        shell("ip address add 10.1.3.3/16 dev kv1 label kv1:2")
        result = kova("interfaces")
        self.assert_ended(result, 0)
        self.assertEqual(
            result.stdout,
            HEAD
            + b"01 002 10.1.3.3         255.255.0.0      10.1.0.0          1 kv1:2       02:00:00:00:00:02 2\n"
            b"02 002 10.1.2.3         255.255.255.0    10.1.2.0          1 kv0         02:00:00:00:00:01 0\n",
        )

    def test_json_is_an_array_of_objects(self):
        shell("ip link set kv0 down")
        result = kova("interfaces", "--json")
        self.assert_ended(result, 0)
        loopback, port = json.loads(result.stdout)
        self.assertEqual((loopback["name"], loopback["type"]), ("lo", "loopback"))
        self.assertEqual(
            port,
            {
                "id": 1,
                "name": "kv0",
                "type": "ethernet",
                "address": "10.1.2.3",
                "netmask": "255.255.255.0",
                "subnet": "10.1.2.0",
                "broadcast": "10.1.2.255",
                "status": "down",
                "mac": "02:00:00:00:00:01",
                "alias": 0,
            },
        )
        self.assertEqual(result.stdout.count(b"\n"), 4)

    def test_no_interface_is_an_empty_array(self):
        shell("ip address flush dev kv0")
        shell("ip address flush dev lo")
        self.interfaces("--json", output=rb"\[\]\n")

    def test_listing_takes_no_address_of_an_interface_that_is_down(self):
        shell("ip link set kv0 down")
        for arguments in ([], ["--json"]):
            result = kova("interfaces", *arguments)
            self.assert_ended(result, 0, output=rb"10\.1\.2\.3.*255\.255\.255\.0")
            self.assertEqual((addresses("kv0"), is_up("kv0")), (["10.1.2.3/24"], False))

    def test_listing_needs_no_privilege(self):
        result = without_admin()
        self.assert_ended(result, 0)
        self.assertEqual(result.stdout, kova("interfaces").stdout)
        self.assertIn(b" kv0 ", result.stdout)

    def test_down_takes_the_address_and_up_needs_one(self):
        self.interfaces("down", "kv0", output=rb"kv0 is down and has lost its address 10\.1\.2\.3\n")
        self.assertEqual((addresses("kv0"), is_up("kv0")), ([], False))
        not_listed = rb"\Akova: interface kv0 is not in the library's table: it has no IPv4 address "
        for command in ("up", "down"):
            self.interfaces(command, "kv0", code=2, errors=not_listed)

    def test_up_keeps_the_address(self):
        shell("ip link set kv0 down")
        self.interfaces("up", "kv0", output=rb"kv0 is up: address 10\.1\.2\.3, netmask 255\.255\.255\.0\n")
        self.assertEqual((addresses("kv0"), is_up("kv0")), (["10.1.2.3/24"], True))

    def test_what_is_done_already_is_said(self):
        self.interfaces("up", "kv0", output=rb"kv0 is up already\n")
        shell("ip link set kv0 down")
        self.interfaces("down", "kv0", output=rb"kv0 is down already\n")
        self.assertEqual(addresses("kv0"), ["10.1.2.3/24"])

    def test_an_alias_is_taken_away_alone(self):
        shell("ip address add 10.2.0.1/24 dev kv0 label kv0:1")
        self.interfaces("down", "kv0:1", output=rb"kv0:1 has lost its address 10\.2\.0\.1\n")
        self.assertEqual((addresses("kv0"), is_up("kv0")), (["10.1.2.3/24"], True))

    def test_an_alias_is_not_up_without_its_device(self):
        shell("ip address add 10.2.0.1/24 dev kv0 label kv0:1")
        shell("ip link set kv0 down")
        before = addresses("kv0")
        self.interfaces(
            *("up", "kv0:1"), code=1, errors=rb"\Akova: cannot take up kv0:1: its device kv0 is down\n\Z"
        )
        self.assertEqual((addresses("kv0"), is_up("kv0")), (before, False))
        shell("ip link set kv0 up")
        self.interfaces("up", "kv0:1", output=rb"kv0:1 is up already\n")

    def test_a_request_without_effect_is_told(self):
        effect = rb": it had no effect, though the system told no error\n\Z"
        result = second_host.deaf(SIOCSIFFLAGS, "interfaces", "down", "kv0")
        self.assert_ended(result, 1, rb"\Akova: cannot take down kv0" + effect, rb"\A\Z")
        shell("ip address add 10.1.2.3/24 dev kv0")
        shell("ip link set kv0 down")
        result = second_host.deaf(SIOCSIFFLAGS, "interfaces", "up", "kv0")
        self.assert_ended(result, 1, rb"\Akova: cannot take up kv0" + effect, rb"\A\Z")

    def test_other_interfaces_that_are_down_keep_their_addresses(self):
        shell("ip address add 10.3.0.1/24 dev kv1")
        shell("ip link set kv1 down")
        for arguments in (["set", "kv0", "--netmask", "255.255.0.0"], ["down", "kv0"]):
            self.assert_ended(kova("interfaces", *arguments), 0)
            self.assertEqual(addresses("kv1"), ["10.3.0.1/24"])

    def test_set_changes_what_is_given(self):
        self.interfaces(
            *("set", "kv0", "--address", "10.1.2.9"),
            output=rb"kv0: address 10\.1\.2\.9, netmask 255\.255\.255\.0, MAC 02:00:00:00:00:01\n",
        )
        self.assertEqual(addresses("kv0"), ["10.1.2.9/24"])
        self.interfaces(
            *("set", "kv0", "--netmask", "255.255.0.0"),
            output=rb"kv0: address 10\.1\.2\.9, netmask 255\.255\.0\.0, MAC 02:00:00:00:00:01\n",
        )
        self.assertEqual(addresses("kv0"), ["10.1.2.9/16"])
        for mac in ("02:00:00:00:00:5E", "02000000005e"):
            self.interfaces(
                *("set", "kv0", "--mac", mac),
                output=rb"kv0: address 10\.1\.2\.9, netmask 255\.255\.0\.0, MAC 02:00:00:00:00:5e\n",
            )
            self.assertEqual(link("kv0")["address"], "02:00:00:00:00:5e")
            shell("ip link set kv0 address 02:00:00:00:00:01")
        self.assertTrue(is_up("kv0"))

    def test_set_recomputes_the_broadcast_address(self):
        self.interfaces(
            "set", "kv0", "--address", "10.4.5.6", "--netmask", "255.255.255.128", output=rb".*\n"
        )
        self.assertIn("inet 10.4.5.6/25 brd 10.4.5.127 ", shell("ip -4 address show dev kv0"))

    def test_set_gives_an_interface_its_first_address(self):
        for up in (False, True):
            with self.subTest(up=up):
                shell("ip address flush dev kv1")
                shell(f"ip link set kv1 {'up' if up else 'down'}")
                self.interfaces(
                    *("set", "kv1", "--address", "10.6.0.1"),
                    code=2,
                    errors=rb"\Akova: kv1 has no address yet: give both --address and --netmask\n\Z",
                )
                self.interfaces(
                    *("set", "kv1", "--address", "10.6.0.1", "--netmask", "255.255.255.0"),
                    output=rb"kv1: address 10\.6\.0\.1, netmask 255\.255\.255\.0, MAC 02:00:00:00:00:02\n",
                )
                self.assertEqual((addresses("kv1"), is_up("kv1")), (["10.6.0.1/24"], up))

    def test_down_set_and_up_lead_back(self):
        self.assert_ended(kova("interfaces", "down", "kv0"), 0)
        self.assert_ended(
            kova("interfaces", "set", "kv0", "--address", "10.1.2.3", "--netmask", "255.255.255.0"), 0
        )
        self.assert_ended(kova("interfaces", "up", "kv0"), 0)
        self.assertEqual((addresses("kv0"), is_up("kv0")), (["10.1.2.3/24"], True))

    def test_an_alias_of_the_same_subnet_may_go_with_the_address(self):
        for keep, left in ((0, ["10.1.2.4/24"]), (1, ["10.1.2.4/24", "10.1.2.9/24"])):
            shell("ip address flush dev kv0")
            second_host.set_number("ipv4/conf/kv0/promote_secondaries", keep)
            second_host.set_number("ipv4/conf/all/promote_secondaries", keep)
            shell("ip address add 10.1.2.3/24 dev kv0")
            shell("ip address add 10.1.2.9/24 dev kv0 label kv0:1")
            self.interfaces("set", "kv0", "--address", "10.1.2.4", output=rb".*\n")
            self.assertEqual(sorted(addresses("kv0")), left)

    def test_the_mac_of_an_interface_without_address_can_be_set(self):
        self.interfaces(
            "set", "kv1", "--mac", "02:00:00:00:00:5e", output=rb"kv1: no address, MAC 02:00:00:00:00:5e\n"
        )
        self.assertEqual((addresses("kv1"), link("kv1")["address"]), ([], "02:00:00:00:00:5e"))
        self.interfaces("set", "kv1", "--netmask", "255.0.0.0", code=2, errors=rb"give both --address and")

    def test_the_mac_is_set_before_the_first_address(self):
        first = ("--address", "10.6.0.1", "--netmask", "255.255.255.0")
        self.interfaces(
            "set", "kv1", "--mac", "03:00:00:00:00:01", *first, code=1, errors=rb"cannot set the MAC address"
        )
        self.assertEqual(addresses("kv1"), [])
        self.interfaces(
            *("set", "kv1", "--mac", "02:00:00:00:00:5e", *first),
            output=rb"kv1: address 10\.6\.0\.1, netmask 255\.255\.255\.0, MAC 02:00:00:00:00:5e\n",
        )
        shell("ip address flush dev lo")
        self.interfaces(
            "set", "lo", "--mac", "02:00:00:00:00:01", *first, code=2, errors=rb"lo has no MAC address"
        )
        self.assertEqual(addresses("lo"), [])

    def test_a_step_that_fails_is_named_with_its_errno(self):
        self.interfaces(
            *("set", "kv0", "--mac", "03:00:00:00:00:01"),
            code=1,
            errors=rb"\Akova: cannot set the MAC address of kv0: error 99 EADDRNOTAVAIL \([^)]*\)\n\Z",
        )
        # What would come next is not done.
        self.interfaces(
            *("set", "kv0", "--mac", "03:00:00:00:00:01", "--address", "10.1.2.77"),
            code=1,
            errors=rb"MAC address",
        )
        self.assertEqual(addresses("kv0"), ["10.1.2.3/24"])

    def test_the_missing_privilege_is_told(self):
        self.assert_unprivileged(rb"cannot take the address of kv0", "down", "kv0")
        self.assert_unprivileged(rb"cannot set the address of kv0", "set", "kv0", "--netmask", "255.255.0.0")
        self.assert_unprivileged(
            rb"cannot set the MAC address of kv0", "set", "kv0", "--mac", "02:00:00:00:00:09"
        )
        first = ("--address", "10.6.0.1", "--netmask", "255.255.255.0")
        self.assert_unprivileged(rb"cannot set the address of kv1", "set", "kv1", *first)
        shell("ip link set kv0 down")
        self.assert_unprivileged(rb"cannot take up kv0", "up", "kv0")
        self.assertEqual((addresses("kv0"), is_up("kv0")), (["10.1.2.3/24"], False))

    def test_interfaces_that_there_are_not_are_usage_errors(self):
        for command in (["up"], ["down"], ["set", "--netmask", "255.0.0.0"]):
            self.interfaces(*command, "kv7", code=2, errors=rb"\Akova: no interface kv7\n\Z")
            self.interfaces(*command, "n" * 16, code=2, errors=rb"'n{16}' is no name of an interface")

    def test_an_interface_behind_the_seventh_is_told(self):
        for number in range(1, 9):
            shell(f"ip address add 10.1.2.{100 + number}/24 dev kv0 label kv0:{number}")
        before = addresses("kv0")
        change = ("--mac", "02:00:00:00:00:09", "--address", "10.1.2.200", "--netmask", "255.255.255.0")
        for arguments in (["down", "kv0:8"], ["up", "kv0:8"], ["set", "kv0:8", *change]):
            self.interfaces(*arguments, code=2, errors=rb"its address is not among the first seven\n\Z")
        self.assertEqual((addresses("kv0"), link("kv0")["address"]), (before, "02:00:00:00:00:01"))

    def test_a_first_address_that_would_stand_behind_the_seventh_is_refused(self):
        shell("ip address flush dev kv0")
        for number in range(1, 7):
            shell(f"ip address add 10.1.2.{100 + number}/24 dev kv1 label kv1:{number}")
        change = ("--mac", "02:00:00:00:00:09", "--address", "10.6.0.1", "--netmask", "255.255.255.0")
        self.interfaces("set", "kv0", *change, code=2, errors=rb"kv0 gets no address: it would not be among ")
        self.assertEqual((addresses("kv0"), link("kv0")["address"]), ([], "02:00:00:00:00:01"))

    def test_a_first_address_before_the_seventh_is_given(self):
        for number in range(1, 9):
            shell(f"ip address add 10.1.2.{100 + number}/24 dev kv0 label kv0:{number}")
        change = ("--address", "10.6.0.1", "--netmask", "255.255.255.0")
        self.interfaces("set", "kv1", *change, output=rb"kv1: address 10\.6\.0\.1, .*\n")
        self.assertEqual(addresses("kv1"), ["10.6.0.1/24"])

    def test_an_interface_with_two_addresses_of_its_name_is_not_changed(self):
        shell("ip address add 10.2.0.1/24 dev kv0")
        shell("ip address add 10.1.2.9/24 dev kv0 label kv0:1")
        before = addresses("kv0")
        two = rb"\Akova: interface kv0 has 2 IPv4 addresses of this name; it can be changed with one only\n\Z"
        self.interfaces("down", "kv0", code=2, errors=two)
        for option, value in (("--address", "10.1.2.7"), ("--netmask", "255.255.0.0")):
            mac = ("--mac", "02:00:00:00:00:09")
            self.interfaces("set", "kv0", option, value, *mac, code=2, errors=two)
        self.assertEqual(link("kv0")["address"], "02:00:00:00:00:01")
        shell("ip link set kv0 down")
        self.interfaces("up", "kv0", code=2, errors=two)
        self.assertEqual((addresses("kv0"), is_up("kv0")), (before, False))

    def test_what_is_told_is_the_kernels(self):
        result = second_host.deaf(SIOCSIFNETMASK, "interfaces", "set", "kv0", "--netmask", "255.255.0.0")
        self.assert_ended(result, 0, output=rb"\Akv0: address 10\.1\.2\.3, netmask 255\.255\.255\.0, MAC ")

    def test_what_cannot_be_set_is_refused(self):
        for option, value, message in (
            ("--address", "10.1.2", rb"--address 10\.1\.2: not a numeric IPv4 address"),
            ("--address", "0.0.0.0", rb"--address 0\.0\.0\.0: "),
            ("--netmask", "255.0.255.0", rb"--netmask 255\.0\.255\.0: not a netmask"),
            ("--mac", "02:00:00:00:00:1", rb"--mac 02:00:00:00:00:1: not a MAC address"),
            ("--mac", "02-00-00-00-00-01", rb"not a MAC address"),
            ("--mac", "0200000000011", rb"not a MAC address"),
            ("--mac", "02000000000g", rb"not a MAC address"),
            ("--address", "", rb"--address: the value is empty"),
            ("--netmask", "", rb"--netmask: the value is empty"),
            ("--mac", "", rb"--mac: the value is empty"),
        ):
            self.interfaces("set", "kv0", option, value, code=2, errors=rb"\Akova: .*" + message)
        self.interfaces("set", "kv0", code=2, errors=rb"nothing to set")
        self.interfaces("set", "lo", "--mac", "02:00:00:00:00:01", code=2, errors=rb"lo has no MAC address")
        self.assertEqual(addresses("kv0"), ["10.1.2.3/24"])

    def test_output_that_cannot_be_written_is_a_failure(self):
        for arguments in ([], ["--json"], ["set", "kv0", "--netmask", "255.255.0.0"], ["--help"]):
            with open("/dev/full", "wb") as full:
                result = subprocess.run(
                    [KOVA, "interfaces", *arguments], stdout=full, stderr=subprocess.PIPE, timeout=LIMIT
                )
            message = b"kova: cannot write to standard output: No space left on device\n"
            self.assertEqual((result.returncode, result.stderr), (1, message), arguments)

    def test_usage_errors(self):
        for arguments in (["frob"], ["up"], ["up", "kv0", "kv1"], ["set"], ["--json", "up", "kv0"]):
            self.interfaces(*arguments, code=2, errors=rb"\Akova: ")

    def test_help(self):
        self.interfaces("--help", output=rb"(?s:.*--json.*nothing is changed.*Exit codes:.*)")
        self.interfaces("set", "--help", output=rb"(?s:.*IF.*--address.*--netmask.*--mac.*CAP_NET_ADMIN.*)")


if __name__ == "__main__":
    unittest.main()
