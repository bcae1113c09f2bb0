# SPDX-License-Identifier: MIT
"""ffmpeg receives and decodes what ipplay sends; tshark finds the ordered faults and no others."""
import os
import select
import socket
import subprocess
import threading
import unittest
from collections import Counter

from playbed import FAR4, FAR6, NEAR4, SAMPLE, PlayBed, PlayCase, interrupt
from testbed import Capture, Namespace

PICTURES = 60  # of the 75 of a round
BAD, GOOD = "0", "1"


class Receiver:
    """ffmpeg in a namespace; ready, and in its group, when the object is there."""

    def __init__(self, namespace, source, group=None):
        command = ["ffmpeg", "-nostdin", "-loglevel", "error", "-progress", "pipe:1", "-protocol_whitelist",
                   "file,udp,rtp", "-i", source, "-frames:v", str(PICTURES), "-f", "null", "-"]
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
        return any(f":{5004:04X} " in self.table(name) for name in ("udp", "udp6"))

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
