# SPDX-License-Identifier: MIT
"""The ways out other than an adapter: UDP sockets for receivers on this machine, and capture files."""
import json
import struct
import subprocess
import sys
import unittest

from playbed import FAR4, IPPLAY, NEAR4, NEAR6, SAMPLE, SAMPLE_RATE, PlayCase, read_file
from testbed import SO_RCVBUFFORCE

FAST = ("--speed", "28")
# Says when it is ready, then writes what comes until an empty datagram. Its buffer holds all of the sample.
RECEIVER = f"""
import socket, sys
SO_RCVBUFFORCE = {SO_RCVBUFFORCE}
address, port = sys.argv[1], 5000
v6 = ":" in address
receiver = socket.socket(socket.AF_INET6 if v6 else socket.AF_INET, socket.SOCK_DGRAM)
receiver.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 1 << 22)
receiver.bind((address, port))
if address.startswith("239."):
    receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                        socket.inet_aton(address) + socket.inet_aton(sys.argv[2]))
print("ready", file=sys.stderr, flush=True)
while datagram := receiver.recv(2000):
    sys.stdout.buffer.write(datagram)
"""
END = """
import socket, sys
sender = socket.socket(socket.AF_INET6 if ":" in sys.argv[1] else socket.AF_INET, socket.SOCK_DGRAM)
if sys.argv[1].startswith("239."):
    sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(sys.argv[2]))
sender.sendto(b"", (sys.argv[1], 5000))
"""


def frames_of(path):
    """Frames of a pcapng file with their times in nanoseconds, by its enhanced packet blocks."""
    content, at, frames = read_file(path), 0, []
    while at < len(content):
        kind, length = struct.unpack_from("<II", content, at)
        if kind == 6:
            high, low, captured = struct.unpack_from("<III", content, at + 12)
            frames.append((high << 32 | low, content[at + 28:at + 28 + captured]))
        at += length
    return frames


class ForwardErrorCorrection(PlayCase):
    def measure(self, *options):
        path = self.path("fec.pcapng")
        self.play(SAMPLE, "--to", "rtp://239.1.1.1:5004", "--into", path, *options)
        result = subprocess.run([IPPLAY, "measure", path, "--json"], stdout=subprocess.PIPE, check=True)
        return json.loads(result.stdout)["streams"]

    def test_orders_are_followed(self):
        """203 datagrams; a matrix of 50 is full four times, and the FEC of the last one follows at once."""
        # Options; streams; of each: FEC of columns and rows, datagrams lost, and those that stay lost.
        for options, copies, columns, rows, lost, stay in (
                (("--fec", "10x5"), 1, 40, 20, 0, 0),
                (("--fec", "10x5:columns", "--lose", "10/60"), 1, 40, 0, 30, 0),
                (("--fec", "5x4", "--vlan", "9", "--random", "--seed", "3", "--lose", "2/20"), 1, 50, 40, None, None),
                (("--fec", "5x4", "--copies", "3", "--step", "dst-ip=0.0.0.1", "--fec-lose", "1/10"), 3, 45, 36, 0, 0),
                (("--fec", "5x4", "--fec-delay", "1/10:3", "--fec-staggered"), 1, None, 40, 0, 0)):
            with self.subTest(options):
                streams = self.measure(*options)
                media = [stream for stream in streams if "protects_stream" not in stream]
                self.assertEqual(len(media), copies)
                for stream in media:
                    fec = stream["fec"]
                    self.assertEqual(fec["parity_wrong"], 0)
                    for figure, expected in (("column_datagrams", columns), ("row_datagrams", rows), ("lost", lost),
                                             ("unrepaired", stay)):
                        if expected is not None:
                            self.assertEqual(fec[figure], expected, figure)

    def test_bit_rate_is_that_of_the_stream(self):
        played = self.play(SAMPLE, "--to", "rtp://239.1.1.1:5004", "--into", self.path("fec.pcapng"), "--fec", "5x4", "--json")
        summary = json.loads(played.output.splitlines()[-1])
        self.assertAlmostEqual(summary["rate_bps"], summary["set_rate_bps"], delta=summary["set_rate_bps"] / 1000)


class Receiver:
    """A program on the near machine that has joined the address when the constructor returns."""

    def __init__(self, case, address):
        self._namespace, self._address = case.bed.near, address
        self._process = subprocess.Popen([sys.executable, "-c", RECEIVER, address, NEAR4],
                                         preexec_fn=self._namespace.enter, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        case.addCleanup(self._process.kill)
        assert self._process.stderr.readline() == b"ready\n"

    def received(self):
        """All that has come until now."""
        subprocess.run([sys.executable, "-c", END, self._address, NEAR4], preexec_fn=self._namespace.enter, check=True)
        return self._process.communicate()[0]


class Sockets(PlayCase):
    def receive(self, address, *options):
        receiver = Receiver(self, address)
        host = f"[{address}]" if ":" in address else address
        played = self.play(SAMPLE, "--to", f"udp://{host}:5000", *FAST, *options)
        return receiver.received(), played

    def test_receivers_on_this_machine_get_every_byte(self):
        for address in ("127.0.0.1", NEAR4, "::1", NEAR6):
            with self.subTest(address):
                received, played = self.receive(address)
                self.assertEqual(received, read_file(SAMPLE))
                self.assertIn("the target is this machine: a UDP socket sends the datagrams", played.errors)

    def test_multicast_arrives_here_and_there(self):
        received, played = self.receive("239.9.9.9", "--socket", "--ttl", "3")
        self.assertEqual(received, read_file(SAMPLE))
        self.assertEqual(played.payload(42), read_file(SAMPLE))
        self.assertEqual({frame[22] for frame in played.frames}, {3})

    def test_what_needs_an_adapter_is_refused(self):
        for option in (("--vlan", "5"), ("--copies", "2"), ("--identification", "1"),
                       ("--bad-udp-checksum", "1/9"), ("--at", "1s", "bad-ip-checksum"),
                       ("--priority", "normal")):
            played = self.play(SAMPLE, "--to", f"udp://{FAR4}:5000", "--socket", *option, status=2)
            self.assertRegex(played.errors, f"^ipplay: --socket: {option[0]}.* needs an adapter")


class Several(PlayCase):
    def test_one_stream_leaves_to_each_target(self):
        """Through the adapter, through a socket and into a file: the same payloads and RTP headers at the same times."""
        path = self.path("also.pcapng")
        receiver = Receiver(self, "127.0.0.1")
        played = self.play(SAMPLE, "--to", "rtp://239.1.1.1:5004", "--to", "rtp://127.0.0.1:5000", "--to", path, "--json",
                           *FAST)
        sent = [frame[42:] for frame in played.frames]
        self.assertEqual(len(sent), 203)
        self.assertEqual(receiver.received(), b"".join(sent))
        self.assertEqual([frame[42:] for _, frame in frames_of(path)], sent)
        outputs = json.loads(played.output.splitlines()[-1])["outputs"]
        self.assertEqual([(output["target"], output["datagrams"], output.get("into"), "late" in output) for output in outputs],
                         [("rtp://127.0.0.1:5000", 203, None, True), ("rtp://239.1.1.1:5004", 203, path, False)])
        text = self.play(SAMPLE, "--to", "rtp://239.1.1.1:5004", "--to", "rtp://127.0.0.1:5000", "--to", path, *FAST).output
        self.assertRegex(text, r"also to    rtp://127\.0\.0\.1:5000: 203 datagrams, late by up to \d")
        self.assertIn(f"also to    {path}: 203 datagrams\n", text)

    def test_two_targets_through_the_adapter(self):
        """The rights that the second one needs at its start are there still."""
        played = self.play(SAMPLE, "--to", "rtp://239.1.1.1:5004", "--to", "rtp://239.1.2.1:5004", *FAST)
        first, second = ([frame[42:] for frame in played.frames if frame[30:34] == group]
                         for group in (b"\xef\x01\x01\x01", b"\xef\x01\x02\x01"))
        self.assertEqual(len(first), 203)
        self.assertEqual(second, first)

    def test_ordered_faults_are_those_of_each_target(self):
        path = self.path("damaged.pcapng")
        sent = self.play(SAMPLE, "--to", "rtp://239.1.1.1:5004", "--to", path, "--at", "50ms", "lose:3", *FAST).frames
        self.assertEqual(len(sent), 200)
        self.assertEqual([frame[42:] for _, frame in frames_of(path)], [frame[42:] for frame in sent])

    def test_one_that_cannot_be_is_refused(self):
        for option, message in ((("--to", "udp://10.99.0.1:5"), "--device is required"),
                                (("--to", "udp://[fe80::1]"), '--to: "udp://[fe80::1]" is not valid')):
            errors = self.play(SAMPLE, "--to", "udp://239.1.1.1:5000", *option, status=3 if "10.99" in option[1] else 2).errors
            self.assertIn(message, errors)


class Files(PlayCase):
    ORDER = (*FAST, "--seed", "5", "--lose", "1/10", "--jitter", "gaussian:20%", "--vlan", "9", "--copies", "2",
             "--step", "dst-ip=0.0.0.1")

    def test_holds_what_would_leave_and_when(self):
        for target in (("--to", "rtp://239.1.1.1:5004"), ("--to", f"udp://{FAR4}:5004")):
            sent = self.play(SAMPLE, *target, *self.ORDER, "--dst-mac", self.bed.far_mac).frames
            path = self.path("out.pcapng")
            played = self.play(SAMPLE, *target, *self.ORDER, "--dst-mac", self.bed.far_mac, "--into", path)
            self.assertEqual(played.frames, [])
            written = frames_of(path)
            self.assertEqual([frame for _, frame in written], sent)
            # 203 datagrams of 1,316 bytes at 20 Mb/s.
            self.assertAlmostEqual((written[-1][0] - written[0][0]) / 1e9, 202.5 * 1316 * 8 / (28 * SAMPLE_RATE), delta=1e-3)

    def test_needs_no_right_no_route_and_no_target(self):
        path = self.path("alone.pcapng")
        subprocess.run(["chmod", "777", self.folder.name], check=True)
        played = subprocess.run(["setpriv", "--reuid", "65534", "--clear-groups", "--inh-caps=-all",
                                 "unshare", "--user", "--net", IPPLAY, "play", SAMPLE, "--to", path],
                                text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.assertEqual(played.returncode, 0, played.stderr)
        self.assertEqual(b"".join(frame[54:] for _, frame in frames_of(path)), read_file(SAMPLE))
        self.assertEqual(frames_of(path)[0][1][26:34].hex("."), "c0.00.02.01.ef.01.01.01")

    def test_refusals(self):
        played = self.play(SAMPLE, "--to", self.path("a.pcapng"), "--at", "1s", "stop", status=2)
        self.assertIn("stop needs a target on the network", played.errors)
        self.play(SAMPLE, "--to", self.path("a.pcapng"))
        played = self.play(self.path("a.pcapng"), "--to", self.path("a.pcapng"), status=2)
        self.assertIn("is INPUT; give another file", played.errors)
        played = self.play(SAMPLE, "--to", self.path("none/a.pcapng"), status=1)
        self.assertIn("cannot create the file: No such file or directory", played.errors)
        config = self.path("play.conf")
        with open(config, "w", encoding="utf-8") as file:
            file.write(f'[play]\nto = "{self.path("a.pcapng")}"\n')
        played = self.play(SAMPLE, "--config", config, status=2)
        self.assertIn("a configuration file replaces no other file", played.errors)


if __name__ == "__main__":
    unittest.main()
