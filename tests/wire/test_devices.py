# SPDX-License-Identifier: MIT
"""The list of adapters, and the neighbours that address resolution finds on a real network."""
import os
import socket
import struct
import tempfile
import unittest
from ctypes import addressof, byref, c_char_p, c_void_p, create_string_buffer

from model import ones_complement_sum
from testbed import MS_BIND, Testbed, mount

NEAR_MAC, FAR_MAC, OTHER_MAC = (bytes((2, 0, 0, 0, 0, last)) for last in (1, 2, 3))
NEAR, FAR, SILENT, ELSEWHERE = "10.77.0.1", "10.77.0.2", "10.77.0.9", "192.0.2.1"
UNTOUCHED, BROADCAST = b"\x09" * 6, b"\xff" * 6
ARP, IPV4 = b"\x08\x06", b"\x08\x00"


def devices(library):
    """(index, name, description, IPv4 addresses, netmasks, IPv6 addresses, MAC) of each adapter."""
    assert library.InitIpPlayout() == 1
    return [(entry.Index, entry.Name.decode(), entry.Description.decode(),
             *([text.decode() for text in texts[:count]] for texts, count in (
                 (entry.IPv4Addresses, entry.IPv4AddressCount),
                 (entry.IPv4Netmasks, entry.IPv4NetmaskCount),
                 (entry.IPv6Addresses, entry.IPv6AddressCount))), bytes(entry.MacAddress))
            for entry in library.devices()]


def resolve(library, *targets, adapter=Testbed.NEAR):
    """(result, MAC) for each target."""
    library.initialise(adapter)
    return [ask(library, target, library.GetDeviceIndex()) for target in targets]


def ask(library, target, position):
    family = socket.AF_INET6 if ":" in target else socket.AF_INET
    mac = create_string_buffer(UNTOUCHED, 6)
    result = library.GetMacAddressForIP(int(":" in target), socket.inet_pton(family, target),
                                        byref(c_void_p(addressof(mac))), position)
    return result, mac.raw


def solicitation(source, target):
    """RFC 4861 section 4.3, sent to the group of RFC 4291 section 2.7.1."""
    source, target = (socket.inet_pton(socket.AF_INET6, address) for address in (source, target))
    group = socket.inet_pton(socket.AF_INET6, "ff02::1:ff00:0")[:13] + target[13:]
    message = b"\x87\0\0\0" + bytes(4) + target + b"\1\1" + NEAR_MAC
    total = ones_complement_sum(source + group + struct.pack(">II", len(message), 58) + message)
    message = message[:2] + struct.pack(">H", 0xFFFF - total or 0xFFFF) + message[4:]
    header = struct.pack(">IHBB", 6 << 28, len(message), 58, 255)
    return b"\x33\x33" + group[12:] + NEAR_MAC + b"\x86\xdd" + header + source + group + message


class Network(unittest.TestCase):
    """A test bed of its own for each test; the kernel gives a silent neighbour up soon."""

    def setUp(self):
        self.bed = Testbed()
        self.addCleanup(self.bed.close)
        self.near(f"""ip link set near address 02:00:00:00:00:01
            ip address add {NEAR}/24 dev near
            echo 1 > /proc/sys/net/ipv4/neigh/near/mcast_solicit
            echo 100 > /proc/sys/net/ipv4/neigh/near/retrans_time_ms""")
        self.far(f"""ip link set far address 02:00:00:00:00:02
            ip address add {FAR}/24 dev far""")

    def near(self, script):
        self.bed.near.run("sh", "-ec", script)

    def far(self, script):
        self.bed.far.run("sh", "-ec", script)

    def resolve(self, *targets, **more):
        """What resolve gives, the frames that it sent, the error codes that it reported."""
        outcome = self.bed.run(lambda library: resolve(library, *targets, **more))
        errors = outcome.errors.split("Error: SendArp failed with error: ")[1:]
        return outcome.value, [frame[12:14] for frame in outcome.frames], list(map(int, errors))


class Devices(Network):
    def test_lists_what_is_framed_as_ethernet_and_nothing_else(self):
        self.near("""ip tuntap add mode tun name tun0; ip link set tun0 up
            ip link add name bridge0 address 02:00:00:00:00:03 type bridge
            ip address add 172.20.1.2/14 dev near
            ip link set near addrgenmode none
            echo 0 > /proc/sys/net/ipv6/conf/near/disable_ipv6
            ip address add 2001:db8::1/64 dev near nodad; ip address add fe80::77/64 dev near nodad""")
        outcome = self.bed.run(devices)
        found = {name: rest for _, name, *rest in outcome.value}
        self.assertEqual([entry[0] for entry in outcome.value], [0, 1, 2])
        for name, *expected in (
                ("near", [NEAR, "172.20.1.2"], ["255.255.255.0", "255.252.0.0"], ["2001:db8::1", "fe80::77"],
                 NEAR_MAC),
                ("bridge0", [], [], [], OTHER_MAC), ("lo", [], [], [], bytes(6))):
            description, *addresses, mac = found.pop("rpcap://" + name)
            addresses[2].sort()
            self.assertEqual([*addresses, mac], expected)
            self.assertEqual(description, f"Network device (rpcap://{name})")
            self.assertIn("The MAC address of the adapter is " + mac.hex(":"), outcome.printed)
        self.assertEqual(found, {})
        # A line for each netmask that is not of IPv4, none for link-layer addresses.
        self.assertEqual(outcome.printed.count("\tAddress Family Name: Unknown\n"), 2)

    def test_the_array_comes_and_goes(self):
        def body(library):
            library.InitIpPlayout()
            assert library.CreateListOfDevices() == 1
            counts = [len(library.devices())]
            assert library.DeleteListOfDevices() == 1
            assert not library.GetListOfDevices(None)
            library.CreateListOfDevices()
            counts.append(len(library.devices()))
            for index, entry in enumerate(library.devices()):
                library.SetDeviceIndex(index)
                assert library.GetDeviceName() == entry.Description
            library.SetDeviceIndex(99)
            assert (library.GetDeviceIndex(), library.GetDeviceName()) == (99, entry.Description)
            library.CleanupIpPlayout()
            return counts + [len(library.devices())]
        self.assertEqual(self.bed.run(body).value, [2, 2, 0])


class Neighbours(Network):
    def test_one_that_answers_is_asked_once(self):
        found, frames, errors = self.resolve(NEAR, FAR, FAR)
        self.assertEqual(found, [(1, NEAR_MAC), (1, FAR_MAC), (1, FAR_MAC)])
        self.assertEqual((frames, errors), ([ARP], []))

    def test_silence_ends_with_the_kernels_verdict(self):
        self.assertEqual(self.resolve(SILENT, SILENT), ([(0, UNTOUCHED)] * 2, [ARP] * 2, [67, 67]))
        self.far(f"ip address add {SILENT}/24 dev far")
        self.assertEqual(self.resolve(SILENT), ([(1, FAR_MAC)], [ARP], []))

    def test_unprivileged_process_finds_neighbours_too(self):
        def body(library):
            library.initialise(Testbed.NEAR)
            os.setgid(65534)
            os.setuid(65534)
            return [ask(library, target, library.GetDeviceIndex()) for target in (FAR, SILENT)]
        outcome = self.bed.run(body)
        self.assertEqual(outcome.value, [(1, FAR_MAC), (0, UNTOUCHED)])
        # An empty datagram to the discard port made the kernel look.
        self.assertIn((17, 9, 8), [struct.unpack_from(">B12xHH", frame, 23) for frame in outcome.frames
                                   if frame[12:14] == IPV4])

    def test_targets_that_need_no_arp(self):
        for target, mac in (("239.129.2.3", bytes.fromhex("01005e010203")), ("255.255.255.255", BROADCAST),
                            ("10.77.0.255", BROADCAST)):
            self.assertEqual(self.resolve(target), ([(1, mac)], [], []), target)

    def test_targets_that_cannot_be_reached(self):
        for target, error in (("0.1.2.3", 87), ("240.0.0.1", 87), (ELSEWHERE, 1168)):
            self.assertEqual(self.resolve(target), ([(0, UNTOUCHED)], [], [error]), target)
        self.near("ip route add unreachable 192.0.2.0/24")
        self.assertEqual(self.resolve(ELSEWHERE), ([(0, UNTOUCHED)], [], [1168]))

    def test_gateways(self):
        self.near(f"ip route add default via {FAR}; ip route add 198.51.100.0/24 via {SILENT}")
        self.assertEqual(self.resolve(ELSEWHERE, "198.51.100.1"),
                         ([(1, FAR_MAC), (0, bytes(6))], [ARP, ARP], [67, 67, 67]))

    def test_point_to_point_links_have_no_addresses(self):
        self.near("""ip tuntap add mode tun name tun0; ip link set tun0 up
            ip route add 198.51.100.0/24 dev tun0""")
        outcome = self.bed.run(lambda library: resolve(library, "198.51.100.1"))
        self.assertEqual(outcome.value[0][0], 0)
        self.assertIn("Warning: SendArp completed successfully, but returned length=0\n", outcome.errors)

    def test_the_adapter_decides_where_to_look(self):
        """The same subnet behind two adapters, each with a default route."""
        self.near("""ip link add near1 address 02:00:00:00:00:04 type veth peer name near2
            ip link set near1 up; ip address add 10.77.0.3/24 dev near1
            ip route add default via 10.77.0.2 dev near metric 10
            ip route add default via 10.77.0.4 dev near1 metric 20""")
        # The kernel knows who is where: the far end of near1 need not answer.
        self.near("""ip neigh add 10.77.0.2 lladdr 02:00:00:00:00:05 dev near1
            ip neigh add 10.77.0.4 lladdr 02:00:00:00:00:06 dev near1""")
        self.assertEqual(self.resolve("10.77.0.2", "10.77.0.3", ELSEWHERE)[0],
                         [(1, FAR_MAC), (1, bytes((2, 0, 0, 0, 0, 4))), (1, FAR_MAC)])
        self.assertEqual(self.resolve("10.77.0.2", ELSEWHERE, adapter="near1")[0],
                         [(1, bytes((2, 0, 0, 0, 0, 5))), (1, bytes((2, 0, 0, 0, 0, 6)))])


class SolicitedNeighbours(Network):
    TARGET = "2001:db8::aa:bbcc"

    def setUp(self):
        super().setUp()
        for run, name in ((self.near, "near"), (self.far, "far")):
            run(f"ip link set {name} addrgenmode none; echo 0 > /proc/sys/net/ipv6/conf/{name}/disable_ipv6")
        self.far(f"ip address add {self.TARGET}/64 dev far nodad")

    def test_answer_to_a_solicitation(self):
        # From the second source the checksum comes out as zero, which is sent as all ones.
        for source in ("2001:db8::1", "2001:db8::a33e"):
            self.near(f"ip address add {source}/64 dev near nodad")

            def body(library):
                for _ in range(20):  # on a busy machine an answer may miss the ten reads; a host asks again
                    found = resolve(library, self.TARGET)
                    if found[0][0] == 1:
                        break
                return found + resolve(library, source, "2001:db8::99")
            outcome = self.bed.run(body)
            self.assertEqual(outcome.value, [(1, FAR_MAC), (1, NEAR_MAC), (0, UNTOUCHED)])
            self.assertIn(solicitation(source, self.TARGET), outcome.frames)
            self.near(f"ip address del {source}/64 dev near")

    def test_two_addresses_cannot_ask(self):
        self.near("ip address add 2001:db8::1/64 dev near nodad; ip address add fe80::1/64 dev near nodad")
        outcome = self.bed.run(lambda library: resolve(library, self.TARGET, "fe80::1"))
        self.assertEqual(outcome.value, [(0, UNTOUCHED), (1, NEAR_MAC)])
        self.assertNotIn(solicitation("2001:db8::1", self.TARGET), outcome.frames)


class Arguments(Network):
    def test_null_pointers_versions_and_positions(self):
        def body(library):
            resolve(library)
            mac, null = create_string_buffer(UNTOUCHED, 6), c_void_p()
            target = bytes((10, 77, 0, 1)) + bytes(12)
            pointer = c_void_p(addressof(mac))
            return [library.GetMacAddressForIP(0, None, byref(pointer), 0),
                    library.GetMacAddressForIP(0, target, None, 0),
                    library.GetMacAddressForIP(0, target, byref(null), 0),
                    library.GetMacAddressForIP(2, target, byref(pointer), library.GetDeviceIndex()),
                    library.GetMacAddressForIP(1, target, byref(pointer), 99),
                    library.GetMacAddressForIP(1, target, byref(pointer), -1),
                    library.GetHostIPAddress(None), library.GetHostIPAddress(byref(null))], mac.raw
        self.assertEqual(self.bed.run(body).value, ([0] * 8, UNTOUCHED))

    def test_host_address(self):
        """Of the host's name; of an adapter where the name has none but those that installers give it."""
        def body(library, names):
            with tempfile.NamedTemporaryFile("w") as file:
                file.write(names.replace("NAME", socket.gethostname()))
                file.flush()
                mount(file.name.encode(), b"/etc/hosts", None, MS_BIND)
            text = create_string_buffer(b"x" * 16, 16)
            assert library.GetHostIPAddress(byref(c_void_p(addressof(text)))) == 1
            return text.value.decode()
        for names, address in (("127.0.0.1 localhost\n127.0.1.1 NAME\n", NEAR),
                               ("198.51.100.7 NAME\n", "198.51.100.7"),
                               ("127.0.1.1 NAME\n198.51.100.7 NAME\n", "198.51.100.7"),
                               ("127.0.0.1 localhost\n", NEAR)):
            self.assertEqual(self.bed.run(body, names).value, address, names)

    def test_dotted_decimals(self):
        cases = {  # text: (result, bytes); bytes that are not stored keep 9
            "10.1.2.3": (1, (10, 1, 2, 3)), "10.1.2.3.4": (1, (10, 1, 2, 3)),
            "255.255.255.255": (1, (255, 255, 255, 255)), "0.0.0.0": (1, (0, 0, 0, 0)),
            "10.1.2": (0, (10, 1, 2, 9)), "10.1.256.3": (0, (10, 1, 9, 9)), "10.-1.2.3": (0, (10, 9, 9, 9)),
            "4294967297.1.1.1": (0, (9, 9, 9, 9)), "a.b.c.d": (1, (0, 0, 0, 0)),
            "1x. 2.+3.04": (1, (1, 2, 3, 4)), "..1..2.3.4.": (1, (1, 2, 3, 4)), "": (0, (9, 9, 9, 9)),
            "...": (0, (9, 9, 9, 9)), "255.255.255.2559": (1, (255, 255, 255, 255)),  # 15 characters are read
            "000001.00002.3.4": (0, (1, 2, 3, 9))}

        def body(library):
            read = library._Z17GetIpAddressBytesPcPh
            assert read(None, create_string_buffer(4)) == 0 and read(c_char_p(b"1.2.3.4"), None) == 0
            found = {}
            for text in cases:
                numbers = create_string_buffer(b"\x09" * 4, 4)
                found[text] = read(text.encode(), numbers), tuple(numbers.raw)
            return found
        self.assertEqual(self.bed.run(body).value, cases)


if __name__ == "__main__":
    unittest.main()
