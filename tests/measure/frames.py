# SPDX-License-Identifier: MIT
"""Builds captures of played streams with known damage, and says what is in them.

Written from the RFCs, apart from the code under test: no figure here comes from it.
"""

import ipaddress
import random
import struct
from dataclasses import dataclass, field

TS_LENGTH = 188
PCR_MODULUS = (1 << 33) * 300


def ones_complement_sum(data):
    if len(data) % 2:
        data += b"\0"
    # 2^16 is 1 modulo FFFF, so the remainder of the whole number is the folded sum of its words.
    return int.from_bytes(data, "big") % 0xFFFF


def crc32_mpeg(data):
    crc = 0xFFFFFFFF
    for byte in data:
        crc ^= byte << 24
        for _ in range(8):
            crc = ((crc << 1) ^ 0x04C11DB7 if crc & 0x80000000 else crc << 1) & 0xFFFFFFFF
    return crc


def ts_packet(pid, counter, payload=b"", pcr=None, start=False, error=False):
    """One transport stream packet; what the payload leaves over is stuffing."""
    flags = (0x80 if error else 0) | (0x40 if start else 0)
    room = TS_LENGTH - 4
    adaptation = b""
    if pcr is not None:
        base, extension = divmod(pcr % PCR_MODULUS, 300)
        value = (base << 15) | (0x3F << 9) | extension
        adaptation = bytes([7, 0x10]) + value.to_bytes(6, "big")
    payload = payload[: room - len(adaptation)].ljust(room - len(adaptation), b"\xff")
    control = (0x30 if adaptation else 0x10) | (counter & 15)
    return struct.pack(">BHB", 0x47, flags << 8 | pid, control) + adaptation + payload


def psi_packet(pid, counter, table_id, body):
    section = struct.pack(">BH", table_id, 0xB000 | (len(body) + 4)) + body
    section += crc32_mpeg(section).to_bytes(4, "big")
    return ts_packet(pid, counter, b"\0" + section, start=True)


def transport_stream(packets, bit_rate=10_000_000, seed=1):
    """A stream of one programme: PAT and PMT every 100 packets, a PCR every 20, some nulls."""
    chance = random.Random(seed)
    counters = {0: 0, 256: 0, 257: 0}
    ticks_per_packet = TS_LENGTH * 8 * 27_000_000 / bit_rate
    stream = []

    def counted(pid):
        counters[pid] += 1
        return counters[pid] - 1

    for i in range(packets):
        if i % 100 == 0:
            body = struct.pack(">HBBBHH", 1, 0xC1, 0, 0, 1, 0xE000 | 257)
            stream.append(psi_packet(0, counted(0), 0, body))
        elif i % 100 == 1:
            body = struct.pack(">HBBBHHBHH", 1, 0xC1, 0, 0, 0xE100, 0xF000, 0x1B, 0xE100, 0xF000)
            stream.append(psi_packet(257, counted(257), 2, body))
        elif i % 20 == 10:
            pcr = round(i * ticks_per_packet)
            stream.append(ts_packet(256, counted(256), chance.randbytes(176), pcr=pcr))
        elif i % 10 == 5:
            stream.append(ts_packet(0x1FFF, 0))
        else:
            stream.append(ts_packet(256, counted(256), chance.randbytes(184)))
    return b"".join(stream)


@dataclass
class Playout:
    """One playout: what is sent, and which datagrams are damaged in which way."""

    ipv6: bool = False
    vlan: int | None = None
    rtp: bool = True
    copies: int = 1
    datagrams: int = 1000
    ts_per_datagram: int = 7
    first_sequence: int = 0
    payload_type: int = 33
    ssrc: int = 0x1234
    gap_ns: int = 1_000_000
    jitter_ns: int = 0
    lose: set = field(default_factory=set)
    delay: dict = field(default_factory=dict)  # datagram: by how many later ones it is overtaken
    bad_ip: set = field(default_factory=set)
    bad_udp: set = field(default_factory=set)
    double: set = field(default_factory=set)
    seed: int = 1

    def payloads(self):
        size = self.ts_per_datagram * TS_LENGTH
        content = transport_stream(self.datagrams * self.ts_per_datagram, seed=self.seed)
        return [content[i : i + size] for i in range(0, len(content), size)]

    def frame(self, index, copy, payload):
        if self.rtp:
            sequence = (self.first_sequence + index) & 0xFFFF
            timestamp = index * self.gap_ns * 90_000 // 1_000_000_000 & 0xFFFFFFFF
            header = struct.pack(
                ">BBHII", 0x80, self.payload_type, sequence, timestamp, self.ssrc + copy)
            payload = header + payload
        length = 8 + len(payload)
        ports = struct.pack(">HH", 5000, 5004 + 2 * copy)
        addresses, ip_header = self._ip(index, copy, length)
        pseudo = addresses + struct.pack(">IBBBB", length, 0, 0, 0, 17)
        unsummed = ports + struct.pack(">HH", length, 0) + payload
        # One above FFFF would read as no checksum at all; it does not fit, so that it cannot pass.
        checksum = 0xFFFF - ones_complement_sum(pseudo + unsummed) + (index in self.bad_udp)
        udp = ports + struct.pack(">HH", length, checksum) + payload
        tag = b"" if self.vlan is None else struct.pack(">HH", 0x8100, self.vlan)
        ether_type = struct.pack(">H", 0x86DD if self.ipv6 else 0x0800)
        return bytes.fromhex("01005e010101 020000000001") + tag + ether_type + ip_header + udp

    def _ip(self, index, copy, length):
        if self.ipv6:
            source = ipaddress.ip_address("fd00::1").packed
            target = ipaddress.ip_address(f"ff3e::8000:{copy + 1:x}").packed
            header = struct.pack(">IHBB", 0x60000000, length, 17, 16) + source + target
            return source + target, header
        source = ipaddress.ip_address("10.1.2.3").packed
        target = ipaddress.ip_address(f"239.1.1.{copy + 1}").packed
        fields = [0x4500, 20 + length, index & 0xFFFF, 0, 0x4011, 0]
        unsummed = struct.pack(">6H", *fields) + source + target
        fields[5] = 0xFFFF - ones_complement_sum(unsummed)
        if index in self.bad_ip:
            fields[5] = (fields[5] + 1) & 0xFFFF
        return source + target, struct.pack(">6H", *fields) + source + target

    def order(self):
        """Datagram indices in the order in which they leave; one that is still held at the end does not."""
        leaving = []
        held = []  # (index after which it leaves, index)
        for index in range(self.datagrams):
            if index in self.lose:
                pass
            elif index in self.delay:
                held.append((index + self.delay[index], index))
            else:
                leaving += [index, index] if index in self.double else [index]
            leaving += [i for after, i in held if after == index]
            held = [(after, i) for after, i in held if after != index]
        return leaving

    def truth(self):
        """What a measurement has to find in each copy."""
        truth = Truth()
        seen, highest = set(), -1
        for index in self.order():
            truth.frames += 1
            truth.bad_ip += index in self.bad_ip and not self.ipv6
            truth.bad_udp += index in self.bad_udp
            if index in seen:
                truth.duplicates += 1
            elif index < highest:
                truth.reordered += 1
                truth.distance = max(truth.distance, highest - index)
            seen.add(index)
            highest = max(highest, index)
        truth.lost = highest - min(seen) + 1 - len(seen)
        return truth

    def capture(self):
        """A list of (time in ns, frame)."""
        chance = random.Random(self.seed)
        payloads = self.payloads()
        frames = []
        base = 1_700_000_000_000_000_000
        for slot, index in enumerate(self.order()):
            time_ns = base + slot * self.gap_ns + chance.randint(0, self.jitter_ns)
            for copy in range(self.copies):
                frames.append((time_ns + copy * 1000, self.frame(index, copy, payloads[index])))
        return frames


@dataclass
class Truth:
    frames: int = 0
    lost: int = 0
    duplicates: int = 0
    reordered: int = 0
    distance: int = 0
    bad_ip: int = 0
    bad_udp: int = 0


def found_in(stream):
    """What ipplay measure found, as a Truth has it."""
    rtp, checksums = stream["rtp"], stream["checksums"]
    return {
        "frames": stream["rate"]["frames"],
        "lost": rtp["lost"],
        "duplicates": rtp["duplicates"],
        "reordered": rtp["reordered"],
        "distance": rtp["reorder_distance"]["max"],
        "bad_ip": checksums["ipv4_header_bad"],
        "bad_udp": checksums["udp_bad"],
    }


def write_pcap(path, frames, cut=()):
    """With nanosecond time stamps. Of the frames whose places are in `cut` 200 bytes were captured."""
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 65535, 1))
        for place, (time_ns, frame) in enumerate(frames):
            seconds, ns = divmod(time_ns, 1_000_000_000)
            captured = frame[:200] if place in cut else frame
            file.write(struct.pack("<IIII", seconds, ns, len(captured), len(frame)) + captured)
