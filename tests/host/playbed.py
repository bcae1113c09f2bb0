# SPDX-License-Identifier: MIT
"""Two network namespaces joined by a veth pair: ipplay plays in one, programs of others receive in the
other. Builds on the test bed of the wire tests."""
import json
import os
import select
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import unittest
from dataclasses import dataclass

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "wire"))

from testbed import Testbed, write_pcap  # noqa: E402

IPPLAY = os.environ["IPPLAY"]
SAMPLE = os.path.join(HERE, "..", "data", "sample.ts")
SAMPLE_RATE = 700_000  # as it was made
NEAR4, FAR4, NEAR6, FAR6 = "10.77.0.1", "10.77.0.2", "fd77::1", "fd77::2"
ETHERNET, IPV4, IPV6, UDP, RTP = 14, 20, 40, 8, 12


@dataclass
class Played:
    status: int
    output: str
    errors: str
    arrivals: list  # (time, frame) as captured on the far side

    @property
    def frames(self):
        return [frame for _, frame in self.arrivals]

    def payload(self, headers):
        return b"".join(frame[headers:] for frame in self.frames)


class PlayBed(Testbed):
    def __init__(self):
        super().__init__()
        self.players = []
        for namespace, name, four, six in ((self.near, self.NEAR, NEAR4, NEAR6),
                                           (self.far, self.FAR, FAR4, FAR6)):
            # One IPv6 address, so that neighbours can be asked; ready at once. No router or listener
            # reports: a test counts every frame.
            namespace.run("sh", "-c", f"""
                ip link set lo up
                ip link set {name} addrgenmode none
                echo 0 > /proc/sys/net/ipv6/conf/{name}/disable_ipv6
                ip address add {four}/24 dev {name}
                ip address add {six}/64 dev {name} nodad
                ip route add 224.0.0.0/4 dev {name}
                ip route add ff00::/8 dev {name} table local""")
        self.far_mac = self.read_sys(self.far, f"/sys/class/net/{self.FAR}/address")

    def start(self, *arguments, stdin=subprocess.DEVNULL, prefix=(), **more):
        """ipplay in the near namespace."""
        player = subprocess.Popen([*prefix, IPPLAY, *map(str, arguments)], preexec_fn=self.near.enter,
                                  stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                  **more)
        self.players.append(player)
        return player

    def end_players(self):
        """Those that a test which failed has left behind: one that plays for ever would starve the others."""
        for player in self.players:
            if player.poll() is None:
                player.kill()
                player.communicate()
        self.players.clear()

    def play(self, *arguments, **more):
        """Plays to the end. Captured are the frames that ipplay sent, not the kernel's own."""
        self.capture.begin()
        with tempfile.TemporaryFile("w+") as output, tempfile.TemporaryFile("w+") as errors:
            process = subprocess.Popen([IPPLAY, "play", *map(str, arguments)], preexec_fn=self.near.enter,
                                       stdout=output, stderr=errors,
                                       stdin=more.pop("stdin", subprocess.DEVNULL), **more)
            ended = os.pidfd_open(process.pid)
            while ended not in select.select([ended, self.capture.socket], [], [])[0]:
                self.capture.drain()
            os.close(ended)
            self.catch_up()
            texts = []
            for file in (output, errors):
                file.seek(0)
                texts.append(file.read())
        mine = [arrival for arrival in self.capture.frames if is_playout(arrival[1])]
        return Played(process.wait(), *texts, mine)

    @staticmethod
    def read_sys(namespace, path):
        """A file of /sys as the namespace sees it."""
        command = ["unshare", "--mount", "--propagation", "unchanged", "sh", "-c",
                   f"mount -t sysfs sysfs /sys && cat {path}"]
        return subprocess.run(command, preexec_fn=namespace.enter, check=True, text=True,
                              stdout=subprocess.PIPE).stdout.strip()


def is_playout(frame):
    """UDP of any version, tagged or not; not ARP, neighbour discovery or group management."""
    at = 18 if frame[12:14] == b"\x81\x00" else 14
    kind = frame[at - 2:at]
    to_discard = frame[at + 42:at + 44] == b"\0\x09"  # which has the kernel look for a neighbour
    return (kind == b"\x08\x00" and frame[at + 9] == 17) or \
        (kind == b"\x86\xdd" and frame[at + 6] == 17 and not to_discard)


class PlayCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.bed = PlayBed()
        cls.addClassCleanup(cls.bed.close)
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)

    def setUp(self):
        self.bed.players.clear()  # what all tests of a class share goes on
        self.addCleanup(self.bed.end_players)

    def path(self, name):
        return os.path.join(self.folder.name, name)

    def play(self, *arguments, status=0, **more):
        played = self.bed.play(*arguments, **more)
        self.assertEqual(played.status, status, f"{arguments}\n{played.output}\n{played.errors}")
        return played

    def dissect(self, arrivals, *fields):
        """What tshark reads in the frames: one list of fields per frame."""
        path = self.path("frames.pcap")
        write_pcap(path, arrivals)
        command = ["tshark", "-n", "-r", path, "-T", "fields", "-o", "ip.check_checksum:TRUE",
                   "-o", "udp.check_checksum:TRUE", "-d", "udp.port==5004,rtp", "-E", "occurrence=f"]
        text = subprocess.run(command + [part for field in fields for part in ("-e", field)], check=True,
                              text=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
        return [line.split("\t") for line in text.splitlines()]


def install(folder):
    """Copies of program and library that an ordinary user reaches."""
    built, program = os.path.dirname(os.environ["IPPLAYOUT_LIBRARY"]), os.path.join(folder, "ipplay")
    os.chmod(folder, 0o755)
    shutil.copy(IPPLAY, program)
    for name in os.listdir(built):
        if name.startswith("libipplayout.so"):
            shutil.copy(os.path.join(built, name), folder)
    # A program with capabilities finds nothing by $ORIGIN.
    subprocess.run(["patchelf", "--set-rpath", folder, program], check=True)
    return program


def events_of(output):
    """By the lines of JSON, but for what a busy machine adds: that frames leave late."""
    events = [json.loads(line) for line in output.splitlines()]
    return [each for each in events if each["event"] != "warning" or not each["text"].startswith("frames leave late")]


def wait_until_sending(player):
    """By its JSON, in which warnings of a busy machine may come first."""
    while json.loads(player.stdout.readline()).get("datagrams", 0) == 0:
        pass


def read_file(path):
    with open(path, "rb") as file:
        return file.read()


def make_stream(path, *options, seconds=3, rate=None, video=("-c:v", "mpeg2video", "-b:v", "1M")):
    """A transport stream by ffmpeg's own muxer."""
    subprocess.run(["ffmpeg", "-nostdin", "-loglevel", "error", "-y",
                    "-f", "lavfi", "-i", "testsrc2=size=352x288:rate=25",
                    "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=48000", "-t", str(seconds),
                    *video, "-c:a", "mp2", "-b:a", "64k", "-f", "mpegts",
                    *(["-muxrate", str(rate)] if rate else []), *options, path], check=True)


def make_varying_stream(path):
    """A PCR in every seventh packet: 600 times 2 ms apart, then 150 times 8 ms; and that twice."""
    pcr, stream = 1_000_000, []
    for index in range(5250):
        clock = b""
        if index % 7 == 0:
            clock = bytes((7, 0x10)) + (pcr // 300 << 15 | 0x7E00 | pcr % 300).to_bytes(6, "big")
            pcr += 27_000 * (2 if index < 4200 else 8)
        header = bytes((0x47, 0x01, 0x00, (0x30 if clock else 0x10) | index % 16))
        stream.append((header + clock).ljust(188, bytes((index % 251,))))
    with open(path, "wb") as file:
        file.write(b"".join(stream * 2))


def packets(stream, size=188):
    return [stream[at:at + size] for at in range(0, len(stream), size)]


def rtp_header(frame, at):
    """Sequence number and time stamp of the RTP header at an offset."""
    return struct.unpack_from(">HI", frame, at + 2)


def interrupt(process):
    process.send_signal(signal.SIGINT)
