# SPDX-License-Identifier: MIT
"""A small RTP receiver: joins a group, puts packets in order, repairs, counts what is wrong. What the tests here test."""
from __future__ import annotations

import functools
import heapq
import select
import socket
import struct
import time
from dataclasses import dataclass

CLOCK = 90_000  # ticks per second of the RTP time of a transport stream (RFC 3551)
HEADER = 12  # bytes
FEC_HEADER = 16  # bytes behind that of RTP, SMPTE ST 2022-1
SO_RCVBUFFORCE = 33  # of Linux; Python has no name for it
COLUMNS = 2  # by which the port of FEC is above that of the stream


def xor(one: bytes, other: bytes) -> bytes:
    return (int.from_bytes(one, "big") ^ int.from_bytes(other, "big")).to_bytes(len(one), "big")


@dataclass
class Counts:
    received: int = 0
    lost: int = 0
    repaired: int = 0
    late: int = 0  # came when their place had been given up
    reordered: int = 0
    jitter: float = 0.0  # seconds, RFC 3550, 6.4.1: mostly of the last dozen packets
    deviation: float = 0.0  # seconds, the mean over all packets of what that running estimate takes up


class Receiver:
    """Receives while ``receive()`` runs; ``payload`` is what came, in order.

    So many packets as ``window`` says are waited for, at the start and before a gap is given up as lost. With ``fec``,
    a packet that is missing is then made from a parity of SMPTE ST 2022-1, column by column; packets are of one length.
    """

    def __init__(self, group: str, port: int, interface: str, window: int = 8, fec: bool = False) -> None:
        self.counts = Counts()
        self.payload = bytearray()
        self._window = window
        self._waiting: list[tuple[int, bytes]] = []  # by extended sequence number
        self._next: int | None = None
        self._highest = 0
        self._transit: float | None = None
        self._recent: dict[int, bytes] = {}  # payload by extended sequence number
        self._parities: dict[int, tuple[list[int], bytes]] = {}  # by each number in it: all of them, and the parity
        self._socket = self._join(group, port, interface)
        self._fec_socket = self._join(group, port + COLUMNS, interface) if fec else None

    @staticmethod
    def _join(group: str, port: int, interface: str) -> socket.socket:
        joined = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        # Beyond the system's limit, as root may: what waits while the machine is busy is not the network's loss.
        joined.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 1 << 22)
        joined.bind((group, port))
        joined.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, socket.inet_aton(group) + socket.inet_aton(interface))
        return joined

    def receive(self, packets: int | None = None, wait: float = 10.0, silence: float = 1.0) -> None:
        """Receives so many packets, or until nothing has come for ``silence`` seconds, at first for ``wait`` seconds."""
        sockets = [self._socket] if self._fec_socket is None else [self._socket, self._fec_socket]
        while packets is None or self.counts.received < packets:
            ready, _, _ = select.select(sockets, [], [], wait)
            if self._fec_socket in ready and self._fec_socket is not None:
                self.take_parity(self._fec_socket.recv(2048))
            if self._socket in ready:
                self.take(self._socket.recv(2048), time.monotonic())
            if not ready:
                break
            wait = silence
        else:
            return
        while self._waiting:  # it was the end
            self._play_out()

    def close(self) -> None:
        self._socket.close()
        if self._fec_socket is not None:
            self._fec_socket.close()

    def take(self, packet: bytes, arrival: float) -> None:
        """One packet, as it arrives."""
        sequence, timestamp = struct.unpack_from(">HI", packet, 2)
        number = self._extended(sequence)
        self.counts.received += 1
        self._measure(timestamp, arrival)
        if number < self._highest:
            self.counts.reordered += 1
        self._highest = max(self._highest, number)
        if self._next is not None and number < self._next:
            self.counts.late += 1
            return
        self._recent[number] = packet[HEADER:]
        self._recent.pop(number - 4 * self._window, None)
        heapq.heappush(self._waiting, (number, packet[HEADER:]))
        while self._waiting and (self._waiting[0][0] == self._next or len(self._waiting) > self._window):
            self._play_out()

    def take_parity(self, packet: bytes) -> None:
        """One packet of FEC: the parity of ``count`` packets that are ``offset`` apart."""
        base, = struct.unpack_from(">H", packet, HEADER)
        offset, count = packet[HEADER + 13], packet[HEADER + 14]
        numbers = [self._extended(base) + offset * n for n in range(count)]
        for number in numbers:
            self._parities[number] = numbers, packet[HEADER + FEC_HEADER:]

    def _repair(self, number: int) -> None:
        """Puts a packet that is missing back, if it is the only one of a parity."""
        numbers, parity = self._parities.get(number, ([], b""))
        others = [self._recent.get(each) for each in numbers if each != number]
        if parity and None not in others:
            payload = functools.reduce(xor, [parity, *(each for each in others if each is not None)])
            self._recent[number] = payload
            heapq.heappush(self._waiting, (number, payload))
            self.counts.repaired += 1

    def _extended(self, sequence: int) -> int:
        """The number next to the highest one so far that has these 16 bits."""
        difference = (sequence - self._highest + 0x8000 & 0xFFFF) - 0x8000
        return self._highest + difference if self.counts.received else sequence

    def _play_out(self) -> None:
        if self._next is not None:
            for missing in range(self._next, self._waiting[0][0]):
                self._repair(missing)
        number, payload = heapq.heappop(self._waiting)
        if self._next is not None:  # the first one follows nothing
            self.counts.lost += number - self._next
        self.payload += payload
        self._next = number + 1

    def _measure(self, timestamp: int, arrival: float) -> None:
        transit = arrival - timestamp / CLOCK
        if self._transit is not None:
            deviation = abs(transit - self._transit)
            self.counts.jitter += (deviation - self.counts.jitter) / 16
            self.counts.deviation += (deviation - self.counts.deviation) / (self.counts.received - 1)
        self._transit = transit
