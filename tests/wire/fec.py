# SPDX-License-Identifier: MIT
"""SMPTE ST 2022-1 apart from the code under test: fields, parity, what can be repaired; ffmpeg and GStreamer."""
import json
import os
import struct
import subprocess
import tempfile
from dataclasses import dataclass, field

from playouts import TO_FILE, read_pcapng
from testbed import Capture, Namespace, write_pcap
from wire_case import TYPICAL, stream

MEDIA, COLUMN, ROW = 0, 2, 4  # steps of the destination port
FEC_HEADER = 16
PAYLOAD = 1316
SOURCE = ("-f", "lavfi", "-i", "testsrc2=duration=2", "-c:v", "mpeg2video", "-bf", "0", "-b:v", "3M")
GSTREAMER = ("filesrc location={0}/in ! {caps} ! rtpstreamdepay ! rtpptdemux name=types types.src_33 ! fec.sink "
             "types.src_96 ! fec.fec_0 types.src_97 ! fec.fec_1 rtpst2022-1-fecdec name=fec size-time=60000000000 "
             "fec.src ! rtpstreampay ! filesink location={0}/out")
GSTREAMER_CAPS = "application/x-rtp-stream,media=video,clock-rate=90000,encoding-name=MP2T"
COLUMN_TYPE, ROW_TYPE = 96, 97  # payload types by which the pipeline takes the three streams apart


def udp_at(frame):
    """Where the UDP header begins, behind a tag if there is one."""
    ip = 18 if frame[12:14] == b"\x81\x00" else 14
    return ip + (40 if frame[ip] >> 4 == 6 else (frame[ip] & 15) * 4)


def port_of(frame):
    return struct.unpack_from(">H", frame, udp_at(frame) + 2)[0]


@dataclass
class Datagram:
    """One RTP datagram with the frame that it came in."""
    time: float
    frame: bytes
    kind: int  # MEDIA, COLUMN or ROW
    rtp: bytes = field(init=False)

    def __post_init__(self):
        self.rtp = self.frame[udp_at(self.frame) + 8:]

    @property
    def number(self):
        return struct.unpack(">H", self.rtp[2:4])[0]

    def protected(self):
        """The numbers that an FEC datagram protects."""
        base, = struct.unpack(">H", self.rtp[12:14])
        offset, count = self.rtp[25:27]
        return [(base + i * offset) & 0xFFFF for i in range(count)]

    def fields(self):
        """By the names of tshark."""
        names = ("snbase_low", "lr", "ptr", "mask", "tsr", "d", "offset", "na", "snbase_ext")
        base, length, kind, mask, stamp, flags, offset, count, extension = struct.unpack(
            ">HHB3sIBBBB", self.rtp[12:28])
        assert kind & 0x80 and flags & 0xBF == 0, "E is 1; N, type and index are 0"
        return dict(zip(names, (base, length, kind & 0x7F, int.from_bytes(mask, "big"), stamp, flags >> 6, offset,
                                count, extension)))


def of_kind(datagrams, kind):
    return [datagram for datagram in datagrams if datagram.kind == kind]


def take_apart(arrivals, port):
    """The datagrams of a stream to the port and of its FEC; other frames are left out."""
    kinds = {port + step: step for step in (MEDIA, COLUMN, ROW)}
    return [Datagram(time, frame, kinds[to]) for time, frame in arrivals
            if (to := port_of(frame)) in kinds]


def play(playouts, columns, rows, count=0, data=b"", marks=(), ledger=None, **more):
    """A playout with FEC in virtual time; its datagrams in the order in which they leave."""
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "playout.pcapng")
        playout = playouts.open({**TYPICAL, "FecColumns": columns, "FecRows": rows, **more}, To=TO_FILE,
                                Destination=path.encode(), RingBytes=1 << 20, StartBytes=0)
        playout.play(data or stream(PAYLOAD * count), marks)
        if ledger is not None:
            ledger += playout.ledger()
        playout.call("Close")
        return take_apart(read_pcapng(path), TYPICAL["DestinationPort"])


def parity_of(parts):
    """Length, payload type, time stamp and payload, each the parity of those of RTP datagrams."""
    length = kind = stamp = payload = 0
    for part in parts:
        length ^= len(part) - 12
        kind ^= part[1] & 0x7F
        stamp ^= struct.unpack(">I", part[4:8])[0]
        payload ^= int.from_bytes(part[12:].ljust(2000, b"\0"), "big")
    return length, kind, stamp, payload


def parity_in(fec):
    fields = fec.fields()
    return (fields["lr"], fields["ptr"], fields["tsr"],
            int.from_bytes(fec.rtp[12 + FEC_HEADER:].ljust(2000, b"\0"), "big"))


def repair(datagrams):
    """RTP datagrams by number that a receiver can rebuild from what came, whatever the order."""
    have = {d.number: d.rtp for d in of_kind(datagrams, MEDIA)}
    ssrc = next(iter(have.values()))[8:12]
    waiting, rebuilt = [d for d in datagrams if d.kind != MEDIA], {}
    while True:
        ready = [(fec, missing) for fec in waiting
                 if len(missing := [n for n in fec.protected() if n not in have]) == 1]
        if not ready:
            return rebuilt
        for fec, (number,) in ready:
            if number not in have:
                others = parity_of(have[n] for n in fec.protected() if n != number)
                length, kind, stamp, payload = (a ^ b for a, b in zip(others, parity_in(fec)))
                have[number] = rebuilt[number] = struct.pack(">BBHI", 0x80, kind, number, stamp) + ssrc \
                    + payload.to_bytes(2000, "big")[:length]
            waiting.remove(fec)


def gstreamer(datagrams):
    """What GStreamer's decoder puts out: RTP datagrams by number, in a list where there are several."""
    types = {MEDIA: 33, COLUMN: COLUMN_TYPE, ROW: ROW_TYPE}
    with tempfile.TemporaryDirectory() as folder:
        first = of_kind(datagrams, MEDIA)[0]
        # The first datagram that it gets is one that it takes for missing (1.22): one that no FEC protects.
        packets = [struct.pack(">BBH", 0x80, 33, (first.number - 1) & 0xFFFF) + first.rtp[4:]]
        packets += [d.rtp[:1] + bytes([d.rtp[1] & 0x80 | types[d.kind]]) + d.rtp[2:] for d in datagrams]
        with open(f"{folder}/in", "wb") as file:  # framed as RFC 4571 has it
            file.write(b"".join(struct.pack(">H", len(rtp)) + rtp for rtp in packets))
        command = ["gst-launch-1.0", "-q", *GSTREAMER.format(folder, caps=GSTREAMER_CAPS).split()]
        # A sanitizer that is preloaded for the library would judge GStreamer's threads, too.
        own = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
        subprocess.run(command, check=True, timeout=60, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=own)
        with open(f"{folder}/out", "rb") as file:
            data = file.read()
    at, out = 0, {}
    while at < len(data):
        length, = struct.unpack_from(">H", data, at)
        rtp = data[at + 2:at + 2 + length]
        out.setdefault(struct.unpack(">H", rtp[2:4])[0], []).append(rtp)
        at += 2 + length
    return out


def measure(datagrams, *options, status=0):
    """What ipplay measure says of them: the protected stream, and all of it."""
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "fec.pcap")
        write_pcap(path, [(d.time * 1e-9 if isinstance(d.time, int) else d.time, d.frame) for d in datagrams])
        run = subprocess.run([os.environ["IPPLAY"], "measure", path, "--json", *options], stdout=subprocess.PIPE,
                             check=False)
    assert run.returncode == status, run.returncode
    result = json.loads(run.stdout)
    return next((stream for stream in result["streams"] if "protects_stream" not in stream), None), result


def play_with_ffmpeg(columns, rows, port=5004):
    """ffmpeg's RTP of a stream whose times do not go back, with its FEC, captured on a loopback of its own."""
    namespace = Namespace()
    capture = Capture(namespace.packet_socket("lo"))
    try:
        namespace.run("ip", "link", "set", "lo", "up")
        namespace.run("ffmpeg", "-v", "error", *SOURCE, "-f", "rtp_mpegts", "-fec",
                      f"prompeg=l={columns}:d={rows}", f"rtp://127.0.0.1:{port}")
        capture.drain()
        assert capture.dropped() == 0
        udp = [arrival for arrival in capture.frames if arrival[1][23] == 17]  # not what says that nobody listens
        return take_apart(udp, port)
    finally:
        capture.socket.close()
        namespace.close()
