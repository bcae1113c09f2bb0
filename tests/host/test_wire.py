# SPDX-License-Identifier: MIT
"""What leaves the adapter is what was ordered: payload, rates, RTP time, headers."""
import os
import socket
import subprocess
import unittest

from playbed import (ETHERNET, FAR4, IPV4, IPV6, RTP, SAMPLE, SAMPLE_RATE, UDP, PlayCase, packets, read_file,
                     rtp_header)

TARGET = "rtp://239.1.1.1:5004"
FAST = ("--speed", "57")


class Payload(PlayCase):
    def test_bit_for_bit(self):
        stream = read_file(SAMPLE)
        tts = b"".join(i.to_bytes(4, "big") + packet for i, packet in enumerate(packets(stream)))
        parity = b"".join(packet + bytes(16) for packet in packets(stream))
        for name, content in (("188", stream), ("192", tts), ("204", parity)):
            with self.subTest(name):
                with open(self.path(name), "wb") as file:
                    file.write(content)
                played = self.play(self.path(name), "--to", TARGET, *FAST)
                self.assertEqual(played.payload(ETHERNET + IPV4 + UDP + RTP), content)
                sizes = {len(frame) for frame in played.frames[:-1]}
                self.assertEqual(sizes, {7 * int(name) + 54})

    def test_other_cuts(self):
        stream = read_file(SAMPLE)
        for options, size in ((("--ts-per-datagram", "3"), 3 * 188 + 54),
                              (("--frame-size", "1000"), 5 * 188 + 54),
                              (("--frame-size", "1000", "--cut"), 1000)):
            with self.subTest(options):
                played = self.play(SAMPLE, "--to", TARGET, *FAST, *options)
                self.assertEqual(played.payload(54), stream)
                self.assertEqual({len(frame) for frame in played.frames[:-1]}, {size})

    def test_raw_bytes_and_rounds(self):
        content = os.urandom(100_001)
        with open(self.path("raw"), "wb") as file:
            file.write(content)
        played = self.play(self.path("raw"), "--to", "udp://[ff3e::1]:5004", "--raw", "--loop", 3,
                           "--bitrate", "40M")
        self.assertEqual(played.payload(ETHERNET + IPV6 + UDP), 3 * content + bytes(1))
        self.assertIn("padded with 1 zero byte:", played.errors)

    def test_packets_without_what_surrounds_them(self):
        stream = packets(read_file(SAMPLE))
        for name, before, behind in (("stamped", bytes(4), b""), ("protected", b"", bytes(16))):
            with self.subTest(name):
                with open(self.path(name), "wb") as file:
                    file.write(b"".join(before + packet + behind for packet in stream))
                played = self.play(self.path(name), "--to", TARGET, *FAST, "--as-188")
                self.assertEqual(played.payload(54), b"".join(stream))

    def test_ipv6_unicast_of_a_usual_host(self):
        """Several addresses of its own: a neighbour, one by its link-local address, and what is behind a router."""
        for namespace, name, own in ((self.bed.near, self.bed.NEAR, "fe80::a"), (self.bed.far, self.bed.FAR, "fe80::b")):
            namespace.run("ip", "address", "add", f"{own}/64", "dev", name, "nodad")
        self.bed.near.run("ip", "-6", "route", "add", "fd99::/64", "via", "fe80::b", "dev", self.bed.NEAR)
        for host, source in (("fd77::2", "fd77::1"), (f"fe80::b%{self.bed.NEAR}", "fe80::a"), ("fd99::5", "fd77::1")):
            with self.subTest(host):
                frames = self.play(SAMPLE, "--to", f"udp://[{host}]:5000", *FAST).frames
                self.assertEqual(len(frames), 203)
                self.assertEqual({frame[:6].hex(":") for frame in frames}, {self.bed.far_mac})
                for at, address in ((22, source), (38, host.partition("%")[0])):
                    self.assertEqual({frame[at:at + 16] for frame in frames},
                                     {socket.inet_pton(socket.AF_INET6, address)})
        errors = self.play(SAMPLE, "--to", "udp://[fd77::9]:5000", status=1).errors
        self.assertIn("fd77::9 does not answer on", errors)

    def test_standard_input(self):
        source = subprocess.Popen(["cat", SAMPLE], stdout=subprocess.PIPE)
        played = self.play("-", "--to", TARGET, *FAST, stdin=source.stdout)
        source.stdout.close()
        source.wait()
        self.assertEqual(played.payload(54), read_file(SAMPLE))


class Rates(PlayCase):
    def test_transport_stream_rate_on_the_wire(self):
        """Payload against the time of its arrival. Headers make 4 % of a frame."""
        for options, rate in (((), SAMPLE_RATE), (("--speed", "2"), 1_400_000)):
            with self.subTest(options):
                arrivals = self.play(SAMPLE, "--to", TARGET, *options).arrivals
                lateness, due = [], 0.0
                for at, frame in arrivals:
                    lateness.append(at - due)
                    due += 8 * (len(frame) - 54) / rate
                # A busy machine makes frames late, never early: the least late ones are on the grid.
                third = len(lateness) // 3
                drift = min(lateness[-third:]) - min(lateness[:third])
                self.assertAlmostEqual(drift / (due * 2 / 3), 0, delta=0.02)

    def test_rtp_time_is_90_khz_of_the_stream(self):
        """A stream of a known rate is a clock: each bit lasts equally many ticks, whatever the packet size."""
        for options in ((), ("--frame-size", "1500"), ("--frame-size", "1100", "--cut"), ("--vlan", "7"),
                        ("--ts-per-datagram", "1"), ("--copies", "2", "--step", "dst-port=2")):
            with self.subTest(options):
                frames = self.play(SAMPLE, "--to", TARGET, "--speed", "14.2857143", *options).frames
                copies = 2 if "--copies" in options else 1
                headers = 58 if "--vlan" in options else 54
                stream = frames[::copies]
                first, last = rtp_header(stream[0], headers - RTP)[1], rtp_header(stream[-1],
                                                                                  headers - RTP)[1]
                bits = 8 * sum(len(frame) - headers for frame in stream[:-1])
                self.assertAlmostEqual((last - first) / (bits / 10e6 * 90_000), 1, delta=1e-4)

    def test_copies_differ_by_their_steps(self):
        """Each field, as tshark reads the first two copies; what one version's settings mean to the other."""
        for target, options, fields in (
                ("udp://239.1.1.254:5004", (), {
                    "dst-ip=0.0.0.2": ("ip.dst", "239.1.1.254", "239.1.2.0"),
                    "dst-port=2": ("udp.dstport", "5004", "5006"),
                    "src-port=3": ("udp.srcport", "5004", "5007"), "ttl=255": ("ip.ttl", "64", "63"),
                    "tos=4": ("ip.dsfield", "0x00", "0x04"),
                    None: ("eth.dst", "01:00:5e:01:01:fe", "01:00:5e:01:02:00")}),
                ("rtp://239.1.1.1:5004", ("--vlan", "100", "--ssrc", "7"), {
                    "src-ip=0.0.1.0": ("ip.src", "10.77.0.1", "10.77.1.1"),
                    "vlan=5": ("vlan.id", "100", "105"),
                    "payload-type=3": ("rtp.p_type", "33", "36"),
                    "ssrc=16": ("rtp.ssrc", "0x00000007", "0x00000017"),
                    "dst-mac=00:00:00:00:02:00": ("eth.dst", "01:00:5e:01:01:01", "01:00:5e:01:03:01")}),
                ("udp://[ff3e::8000:1]:5004", ("--src-mac", "02:00:00:00:00:01"), {
                    "dst-ip=::1:1": ("ipv6.dst", "ff3e::8000:1", "ff3e::8001:2"),
                    "src-ip=::4": ("ipv6.src", "fd77::1", "fd77::5"),
                    "ttl=1": ("ipv6.hlim", "64", "65"), "tos=8": ("ipv6.tclass", "0x00000000", "0x00000008"),
                    "flow-label=0x10": ("ipv6.flow", "0x000000", "0x000010"),
                    "src-mac=00:00:00:00:00:09": ("eth.src", "02:00:00:00:00:01", "02:00:00:00:00:0a")})):
            with self.subTest(target):
                steps = [part for step in fields if step for part in ("--step", step)]
                played = self.play(SAMPLE, "--to", target, *FAST, "--copies", 2, *options, *steps)
                rows = self.dissect(played.arrivals[:2], *(name for name, *_ in fields.values()))
                self.assertEqual(rows, [[values[copy] for values in fields.values()] for copy in (1, 2)])

    def test_four_copies_take_four_steps(self):
        played = self.play(SAMPLE, "--to", "udp://239.1.1.254:5004", *FAST, "--copies", 4,
                           "--step", "dst-ip=0.0.0.1")
        self.assertEqual(self.dissect(played.arrivals[:8], "ip.dst", "eth.dst"), 2 * [
            ["239.1.1.254", "01:00:5e:01:01:fe"], ["239.1.1.255", "01:00:5e:01:01:ff"],
            ["239.1.2.0", "01:00:5e:01:02:00"], ["239.1.2.1", "01:00:5e:01:02:01"]])

    def test_copies_of_other_protocols(self):
        """As bytes, since the second copy is UDP to nobody."""
        for step, offset, values in (("ethertype=0x10", 12, (0x0800, 0x0810)),
                                     ("protocol=2", 22, (0x4011, 0x4013))):
            self.bed.capture.begin()
            self.bed.play(SAMPLE, "--to", TARGET, *FAST, "--copies", 2, "--step", step)
            frames = [frame for _, frame in self.bed.capture.frames if len(frame) > 1000]
            self.assertEqual(tuple(int.from_bytes(frame[offset:offset + 2], "big") for frame in frames[:2]),
                             values)


class Headers(PlayCase):
    EVERY_FIELD = (
        "--src-mac", "02:11:22:33:44:55", "--dst-mac", "02:aa:bb:cc:dd:ee", "--vlan", "1234",
        "--vlan-priority", "5", "--vlan-cfi", "--src-port", "1111", "--dst-port", "2222", "--tos", "0xb8",
        "--ttl", "7", "--payload-type", "96", "--sequence", "65530", "--ssrc", "0xdeadbeef",
        "--rtp-version", "2")

    def dry_run(self, *options):
        """Header bytes by the table, and the names of all settings."""
        played = self.play(SAMPLE, "--dry-run", *options)
        self.assertEqual(played.frames, [])
        table = played.output.split("Headers of the first datagram\n")[1].splitlines()[1:]
        return played, b"".join(bytes.fromhex(line[10:58]) for line in table)

    def test_dry_run_says_what_is_sent(self):
        for target, options in ((TARGET, ()), ("udp://239.1.1.1:5004", ("--protocol", "2")),
                                ("udp://[ff3e::8000:1]:5000", ("--flow-label", "0x54321", "--dscp", "46")),
                                ("rtp://239.1.1.1:5004", ("--identification", "65535", "--near-wrap")),
                                (TARGET, self.EVERY_FIELD), ("rtp://[ff3e::1]:5004", self.EVERY_FIELD),
                                (TARGET, ("--dont-fragment", "off", "--rtp-extension", "--ip-version", "5")),
                                (TARGET, ("--ethertype", "0x1234", "--vlan", "9", "--vlan-tpid", "0x88a8"))):
            with self.subTest(target=target, options=options):
                start = ("--ssrc", "5", "--sequence", "9") if target.startswith("rtp:") and options is not self.EVERY_FIELD else ()
                fixed = ("--to", target, *start, *FAST, *options)
                _, headers = self.dry_run(*fixed)
                self.bed.capture.begin()
                played = self.bed.play(SAMPLE, *fixed)
                # Frames of another EtherType are no playout to is_playout().
                frames = [frame for _, frame in self.bed.capture.frames if len(frame) > 1000] or played.frames
                self.assertEqual(frames[0][:len(headers)].hex(" "), headers.hex(" "))

    def test_dissector_reads_what_was_ordered(self):
        played = self.play(SAMPLE, "--to", TARGET, *FAST, *self.EVERY_FIELD)
        fields = {"eth.src": "02:11:22:33:44:55", "eth.dst": "02:aa:bb:cc:dd:ee", "vlan.id": "1234",
                  "vlan.priority": "5", "vlan.dei": "1", "ip.src": "10.77.0.1", "ip.dst": "239.1.1.1",
                  "ip.dsfield": "0xb8", "ip.ttl": "7", "ip.flags.df": "1", "udp.srcport": "1111",
                  "udp.dstport": "2222"}
        self.assertEqual(dict(zip(fields, self.dissect(played.arrivals[:1], *fields)[0])), fields)

    def test_unicast_goes_to_the_neighbour(self):
        for target in (f"udp://{FAR4}:5004", "udp://[fd77::2]:5004"):
            frames = self.play(SAMPLE, "--to", target, *FAST).frames
            self.assertEqual(frames[0][:6].hex(":"), self.bed.far_mac)

    def test_sequence_and_identification_wrap(self):
        frames = self.play(SAMPLE, "--to", TARGET, "--near-wrap").frames
        numbers = [rtp_header(frame, 42)[0] for frame in frames]
        self.assertEqual([(n - numbers[0]) % 65536 for n in numbers], list(range(len(frames))))
        self.assertIn(0, numbers)
        identifications = [int.from_bytes(frame[18:20], "big") for frame in frames]
        self.assertIn(0, identifications)


if __name__ == "__main__":
    unittest.main()
