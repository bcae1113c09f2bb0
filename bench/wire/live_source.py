# SPDX-License-Identifier: MIT
"""A live encoder: a transport stream of constant rate, paced by a clock of its own, to standard output or as RTP.

usage: live_source.py RATE SECONDS PPM JITTER_MS [ADDRESS PORT]

RATE is in bits per second; the encoder's clock is PPM fast. Each datagram of seven packets leaves up to JITTER_MS late,
in order. Writes to standard error when the first one was due (CLOCK_MONOTONIC, nanoseconds).
"""
import random
import socket
import struct
import sys
import time
import zlib

PACKET, PER_DATAGRAM = 188, 7
DATAGRAMS_PER_ROUND, DATAGRAMS_PER_PCR = 112, 7  # 16 PCRs, PATs and PMTs: after a round the counters begin again
PCR_HZ = 27_000_000
PROGRAM, PMT_PID, PCR_PID, DATA_PID = 1, 0x20, 0x101, 0x100


def mpeg_crc(section):
    """ISO/IEC 13818-1, annex A: the CRC of zlib, its bits the other way round."""
    mirrored = bytes(int(f"{byte:08b}"[::-1], 2) for byte in section)
    return int(f"{zlib.crc32(mirrored) ^ 0xFFFFFFFF:032b}"[::-1], 2).to_bytes(4, "big")


def table(pid, counter, table_id, number, body):
    section = struct.pack(">BHHBBB", table_id, 0xB000 | len(body) + 9, number, 0xC1, 0, 0) + body
    header = struct.pack(">BHBB", 0x47, 0x4000 | pid, 0x10 | counter, 0)
    return (header + section + mpeg_crc(section)).ljust(PACKET, b"\xff")


def pcr_packet(ticks):
    field = (ticks // 300 % (1 << 33) << 15 | 0x7E00 | ticks % 300).to_bytes(6, "big")
    return struct.pack(">BHBBB", 0x47, PCR_PID, 0x20, 183, 0x10) + field + b"\xff" * 176


def round_of_packets():
    """The packets of a round, with PCRs of 0."""
    pat = struct.pack(">HH", PROGRAM, 0xE000 | PMT_PID)
    pmt = struct.pack(">HHBHH", 0xE000 | PCR_PID, 0xF000, 0x1B, 0xE000 | DATA_PID, 0xF000)
    packets, data = bytearray(), 0
    for datagram in range(DATAGRAMS_PER_ROUND):
        count = PER_DATAGRAM
        if datagram % DATAGRAMS_PER_PCR == 0:
            counter = datagram // DATAGRAMS_PER_PCR
            packets += pcr_packet(0) + table(0, counter, 0, 1, pat) + table(PMT_PID, counter, 2, PROGRAM, pmt)
            count -= 3
        for _ in range(count):
            packets += struct.pack(">BHB", 0x47, DATA_PID, 0x10 | data % 16) + bytes(184)
            data += 1
    assert data % 16 == 0
    return packets


def datagrams(rate):
    """Datagrams without end."""
    packets = round_of_packets()
    size, number = PER_DATAGRAM * PACKET, 0
    while True:
        at = number % DATAGRAMS_PER_ROUND * size
        if number % DATAGRAMS_PER_PCR == 0:
            packets[at : at + PACKET] = pcr_packet(number * size * 8 * PCR_HZ // rate)
        yield bytes(packets[at : at + size])
        number += 1


def paced(rate, seconds, ppm, jitter_ms):
    """Yields each datagram when it is to leave."""
    gap = PER_DATAGRAM * PACKET * 8e9 / rate / (1 + ppm * 1e-6)
    delays = random.Random(1)
    start = time.monotonic_ns() + 100_000_000
    print(start, file=sys.stderr, flush=True)
    for number, datagram in enumerate(datagrams(rate)):
        due = number * gap
        if due >= seconds * 1e9:
            break
        wait = start + due + delays.random() * jitter_ms * 1e6 - time.monotonic_ns()
        if wait > 0:
            time.sleep(wait / 1e9)
        yield number, datagram


def main():
    rate, seconds, ppm, jitter_ms = int(sys.argv[1]), *map(float, sys.argv[2:5])
    if len(sys.argv) == 5:
        for _, datagram in paced(rate, seconds, ppm, jitter_ms):
            sys.stdout.buffer.write(datagram)
            sys.stdout.buffer.flush()
        return
    sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sender.connect((sys.argv[5], int(sys.argv[6])))
    for number, datagram in paced(rate, seconds, ppm, jitter_ms):
        ticks = number * PER_DATAGRAM * PACKET * 8 * 90_000 // rate
        sender.send(struct.pack(">BBHII", 0x80, 33, number & 0xFFFF, ticks & 0xFFFFFFFF, 1) + datagram)


if __name__ == "__main__":
    main()
