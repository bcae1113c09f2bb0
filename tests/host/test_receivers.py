# SPDX-License-Identifier: MIT
"""ffmpeg receives and decodes what ipplay sends; tshark finds the ordered faults and no others."""
import os
import select
import socket
import struct
import subprocess
import threading
import unittest
from collections import Counter
from ipaddress import ip_address

from playbed import (ETHERNET, FAR4, FAR6, IPV4, IPV6, NEAR4, NEAR6, SAMPLE, UDP, PlayBed, PlayCase, interrupt, is_playout)
from testbed import Capture, Namespace

PICTURES = 60  # of the 75 of a round
BAD, GOOD = "0", "1"


class Receiver:
    """ffmpeg in a namespace; ready, and in its group, when the object is there."""

    def __init__(self, namespace, source, group=None, port=5004):
        self.port = port
        command = ["ffmpeg", "-nostdin", "-loglevel", "error", "-progress", "pipe:1", "-protocol_whitelist",
                   "file,udp,rtp,sap", "-i", source, "-frames:v", str(PICTURES), "-f", "null", "-"]
        self.process = subprocess.Popen(command, preexec_fn=namespace.enter, text=True,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        # Nothing tells when another program listens, but the kernel's tables show it.
        while not (self.listens() and (group is None or self.joined(group))):
            if self.process.poll() is not None:
                raise AssertionError(self.process.stderr.read())

    def table(self, name):
        with open(f"/proc/{self.process.pid}/net/{name}", encoding="ascii") as file:
            return file.read().upper()

    def listens(self):
        return any(f":{self.port:04X} " in self.table(name) for name in ("udp", "udp6"))

    def joined(self, group):
        if ":" in group:
            return socket.inet_pton(socket.AF_INET6, group).hex().upper() in self.table("igmp6")
        return socket.inet_aton(group)[::-1].hex().upper() in self.table("igmp")

    def result(self):
        """Pictures decoded and what ffmpeg complained about."""
        progress, complaints = self.process.communicate()
        frames = [int(line[6:]) for line in progress.splitlines() if line.startswith("frame=")]
        return max(frames, default=0), complaints


class AccessPort:
    """What a switch does: frames of one VLAN leave untagged into a further namespace."""

    ADDRESS = "10.78.0.2"

    def __init__(self, bed, vlan):
        self.namespace = Namespace()
        self.vlan = vlan
        bed.far.run("ip", "link", "add", "trunk", "type", "veth", "peer", "name", "access", "netns",
                    self.namespace.path)
        self.namespace.run("sh", "-c", f"ip address add {self.ADDRESS}/24 dev access; ip link set access up")
        bed.far.run("ip", "link", "set", "trunk", "up")
        self.mac = bed.read_sys(self.namespace, "/sys/class/net/access/address")
        self.frames = bed.far.packet_socket(PlayBed.FAR)
        self.out = bed.far.packet_socket("trunk")
        self.stop_reading, self.stop_writing = os.pipe()
        self.thread = threading.Thread(target=self.forward, args=(Capture(self.frames),))
        self.thread.start()

    def forward(self, capture):
        while self.stop_reading not in select.select([self.frames, self.stop_reading], [], [])[0]:
            capture.drain()
            for _, frame in capture.frames:
                if frame[12:16] == b"\x81\x00" + self.vlan.to_bytes(2, "big"):
                    self.out.send(frame[:12] + frame[16:])
            capture.frames.clear()

    def close(self):
        os.close(self.stop_writing)
        self.thread.join()
        os.close(self.stop_reading)
        self.frames.close()
        self.out.close()
        self.namespace.close()


class Decoder(PlayCase):
    def describe(self, address):
        """An RTP session for ffmpeg, which drops the first datagram of a URL to learn the payload type."""
        version = 6 if ":" in address else 4
        with open(self.path("session.sdp"), "w", encoding="ascii") as file:
            file.write(f"v=0\no=- 0 0 IN IP{version} {address}\ns=test\nc=IN IP{version} {address}\nt=0 0\n"
                       "m=video 5004 RTP/AVP 33\n")
        return self.path("session.sdp")

    def decode(self, protocol, address, *options, namespace=None, group=None, session=None):
        host = f"[{address}]" if ":" in address else address
        target = f"{protocol}://{host}:5004"
        receiver = Receiver(namespace or self.bed.far,
                            session or (self.describe(address) if protocol == "rtp" else target), group)
        player = self.bed.start("play", SAMPLE, "--to", target, "--speed", "5.7", "--loop", "forever",
                                "--restamp", *options)
        try:
            pictures, complaints = receiver.result()
        finally:
            interrupt(player)
            output, errors = player.communicate()
        self.assertEqual(player.returncode, 0, errors)
        self.assertIn("Stopped by Ctrl-C", output)
        self.assertEqual((pictures, complaints), (PICTURES, ""), errors)

    def test_every_way(self):
        for protocol in ("rtp", "udp"):
            for address in ("239.1.1.1", "ff3e::8000:1", FAR4, FAR6):
                group = None if address in (FAR4, FAR6) else address
                with self.subTest(protocol=protocol, address=address):
                    self.decode(protocol, address, group=group)

    def test_described_by_the_player(self):
        for address in ("239.1.1.1", "ff3e::8000:1", FAR4):
            with self.subTest(address):
                session = self.path("written.sdp")
                host = f"[{address}]" if ":" in address else address
                self.play(SAMPLE, "--to", f"rtp://{host}:5004", "--speed", "57", "--sdp", session)
                self.decode("rtp", address, group=None if address == FAR4 else address, session=session)

    def test_vlan(self):
        port = AccessPort(self.bed, 100)
        self.addCleanup(port.close)
        self.decode("rtp", port.ADDRESS, "--vlan", 100, "--device", "near", "--src-ip", NEAR4,
                    "--dst-mac", port.mac, namespace=port.namespace)


class Announced(PlayCase):
    """Session announcements (RFC 2974), and the streams that are opened by them."""

    PORT, HOPS = 9875, 255
    HOLDS, IS_OVER = 0x20, 0x24  # first bytes, of IPv4

    def announcements(self, frames, version=4):
        """Group, hops and SAP packet of each."""
        headers = ETHERNET + (IPV4 if version == 4 else IPV6)
        hops, group = (22, slice(30, 34)) if version == 4 else (21, slice(38, 54))
        return [(str(ip_address(frame[group])), frame[hops], frame[headers + UDP:]) for frame in frames
                if is_playout(frame) and struct.unpack_from(">H", frame, headers + 2)[0] == self.PORT]

    def counts(self):
        """Of what has been captured: announcements by group and kind."""
        self.bed.capture.drain()
        frames = [frame for _, frame in self.bed.capture.frames]
        return Counter((group, packet[0]) for group, _, packet in self.announcements(frames))

    def test_announced_to_those_whom_the_stream_reaches_and_withdrawn(self):
        # The highest address of the scope of RFC 2365, or that of RFC 2974 for the world and for each scope of IPv6.
        groups = {"239.1.1.1": "224.2.127.254", "232.1.1.1": "224.2.127.254", "239.255.7.1": "239.255.255.255",
                  "239.191.0.1": "224.2.127.254", "239.192.0.1": "239.195.255.255", "239.195.1.1": "239.195.255.255",
                  "239.196.0.1": "224.2.127.254", "224.0.0.200": "224.0.0.255", "ff3e::8000:1": "ff0e::2:7ffe",
                  "ff15::1": "ff05::2:7ffe"}
        identifiers = set()
        for target, group in groups.items():
            with self.subTest(target):
                version = ip_address(target).version
                host = target if version == 4 else f"[{target}]"
                played = self.play(SAMPLE, "--to", f"rtp://{host}:5004", "--speed", "57", "--sap", "--sdp", self.path("sdp"))
                with open(self.path("sdp"), "rb") as file:
                    sdp = file.read()
                (*to, first), (*to_again, last) = self.announcements(played.frames, version)
                self.assertEqual([to, to_again], [[group, self.HOPS]] * 2)
                source = ip_address(NEAR4 if version == 4 else NEAR6).packed
                identifier = first[2:4]
                self.assertNotEqual(identifier, b"\0\0")
                identifiers.add(identifier)
                begin = b"\x20\x00" if version == 4 else b"\x30\x00"  # version 1, A for IPv6; no authentication
                self.assertEqual(first, begin + identifier + source + b"application/sdp\0" + sdp)
                origin = next(line for line in sdp.splitlines(keepends=True) if line.startswith(b"o="))
                withdrawn = bytes([begin[0] | 0x04]) + b"\0"
                self.assertEqual(last, withdrawn + identifier + source + b"application/sdp\0" + origin)
        self.assertGreater(len(identifiers), len(groups) // 2)  # of 16 bits, so that two may meet

    def test_again_and_again_to_any_end_for_each_target(self):
        self.bed.capture.begin()
        player = self.bed.start("play", SAMPLE, "--to", "rtp://239.1.1.1:5004", "--to", "rtp://239.255.1.1:5004", "--to",
                                f"rtp://{FAR4}:5004", "--sap", "--sap-interval", "1s", "--loop", "10", "--restamp", "--json")
        groups = ("224.2.127.254", "239.255.255.255")
        while min(self.counts()[group, self.HOLDS] for group in groups) < 3:
            self.assertIsNone(player.poll())
        player.terminate()
        player.communicate()
        counts = self.counts()
        self.assertEqual(set(counts), {(group, kind) for group in groups for kind in (self.HOLDS, self.IS_OVER)})
        self.assertEqual([counts[group, self.IS_OVER] for group in groups], [1, 1])

    def test_opened_by_its_announcement(self):
        receiver = Receiver(self.bed.far, "sap://", "224.2.127.254", port=self.PORT)
        player = self.bed.start("play", SAMPLE, "--to", "rtp://239.1.1.1:5004", "--speed", "5.7", "--loop", "forever",
                                "--restamp", "--sap", "--sap-interval", "1s")
        pictures, complaints = receiver.result()
        interrupt(player)
        _, errors = player.communicate()
        self.assertEqual((player.returncode, pictures), (0, PICTURES), complaints + errors)

    def test_refused_where_it_cannot_be(self):
        """Before anything is written."""
        sdp = self.path("refused.sdp")
        for options, why in ((("--to", f"rtp://{FAR4}:5004"), "--sap needs a multicast target"),
                             (("--to", "udp://239.1.1.1:5004"), "--sap needs a multicast target"),
                             (("--to", "rtp://239.1.1.1:5004", "--into", self.path("x.pcapng"), "--sdp", sdp), "--sap needs"),
                             (("--to", f"rtp://{FAR4}:5004", "--sdp", sdp), "--sap needs a multicast target"),
                             (("--to", f"rtp://{FAR4}:5004", "--dry-run"), "--sap needs a multicast target"),
                             (("--to", "rtp://239.1.1.1:5004", "--vlan", "5"), "--sap and --vlan exclude each other")):
            with self.subTest(options):
                self.assertIn(why, self.play(SAMPLE, *options, "--sap", status=2).errors)
                self.assertFalse(os.path.exists(sdp))


class Dissector(PlayCase):
    """`rows` are the RTP sequence number from 0 and the two checksum verdicts of each frame."""

    COUNT = 203  # datagrams of the sample

    def rows(self, *options, target="rtp://239.1.1.1:5004"):
        played = self.play(SAMPLE, "--to", target, "--speed", "28", "--sequence", 0, *options)
        fields = ("rtp.seq", "ip.checksum.status", "udp.checksum.status", "_ws.malformed", "udp.length",
                  "ip.len", "ipv6.plen", "frame.len")
        rows = self.dissect(played.arrivals, *fields)
        for _, _, _, malformed, udp, ip, ipv6, frame in rows:
            self.assertEqual(malformed, "")
            self.assertEqual(int(udp), int(ip) - 20 if ip else int(ipv6))
            self.assertEqual(int(frame), int(udp) + (34 if ip else 54))
        return [(int(row[0]), *row[1:3]) for row in rows], played

    def test_clean(self):
        for target, ip in (("rtp://239.1.1.1:5004", GOOD), ("rtp://[ff3e::1]:5004", "")):
            rows, _ = self.rows(target=target)
            self.assertEqual(rows, [(n, ip, GOOD) for n in range(self.COUNT)])

    def test_lost_at_random(self):
        numbers = {row[0] for row in self.rows("--lose", "2/50", "--random")[0]}
        for start in range(0, 200, 50):
            self.assertEqual(sum(n not in numbers for n in range(start, start + 50)), 2)
        self.assertNotEqual({n for n in range(200) if n % 50 > 1}, {n for n in numbers if n < 200})

    def test_delayed_beyond_the_end(self):
        """Of 203 datagrams 198 and 199 are due with 205 and 206."""
        rows, played = self.rows("--delay", "2/99:6")
        self.assertEqual({row[0] for row in rows}, set(range(203)) - {198, 199})
        self.assertIn("held back  2 of the delayed datagrams", played.output)

    def test_one_shots_of_the_time_line(self):
        count = 20 * 1418 // 7 + 1  # datagrams go on across the rounds
        for fault, missing, backwards, bad_ip, bad_udp in (
                ("lose", 1, 0, 0, 0), ("delay", 0, 1, 0, 0), ("bad-ip-checksum", 0, 0, 1, 0),
                ("bad-udp-checksum", 0, 0, 0, 1)):
            with self.subTest(fault):  # one at a time: two that come late could damage the same datagram
                rows, played = self.rows("--loop", 20, "--at", "50ms", fault)
                numbers = [row[0] for row in rows]
                self.assertEqual(len(set(range(count)) - set(numbers)), missing)
                self.assertEqual(len(numbers), count - missing)
                self.assertEqual(sum(a > b for a, b in zip(numbers, numbers[1:])), backwards)
                self.assertEqual(Counter(row[1:] for row in rows),
                                 Counter({(GOOD, GOOD): count - missing - bad_ip - bad_udp,
                                          (BAD, GOOD): bad_ip, (GOOD, BAD): bad_udp}) - Counter())
                self.assertIn(f"lost {missing}, delayed {backwards}, IP checksum {bad_ip}, "
                              f"UDP checksum {bad_udp}", played.output)


if __name__ == "__main__":
    unittest.main()
