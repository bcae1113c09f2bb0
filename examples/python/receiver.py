# SPDX-License-Identifier: MIT
"""A small RTP receiver: joins a group, puts packets in order, counts what is wrong. What the tests here test."""
from __future__ import annotations

import heapq
import socket
import struct
import time
from dataclasses import dataclass

CLOCK = 90_000  # ticks per second of the RTP time of a transport stream (RFC 3551)
HEADER = 12  # bytes


@dataclass
class Counts:
    received: int = 0
    lost: int = 0
    late: int = 0  # came when their place had been given up
    reordered: int = 0
    jitter: float = 0.0  # seconds, RFC 3550, 6.4.1


class Receiver:
    """Receives while ``receive()`` runs; ``payload`` is what came, in order.

    So many packets as ``window`` says are waited for, at the start and before a gap is given up as lost.
    """

    def __init__(self, group: str, port: int, interface: str, window: int = 8) -> None:
        self.counts = Counts()
        self.payload = bytearray()
        self._window = window
        self._waiting: list[tuple[int, bytes]] = []  # by extended sequence number
        self._next: int | None = None
        self._highest = 0
        self._transit: float | None = None
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind((group, port))
        self._socket.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                                socket.inet_aton(group) + socket.inet_aton(interface))

    def receive(self, packets: int | None = None, wait: float = 10.0, silence: float = 0.5) -> None:
        """Receives so many packets, or until nothing has come for ``silence`` seconds, at first for ``wait`` seconds."""
        self._socket.settimeout(wait)
        try:
            while packets is None or self.counts.received < packets:
                self.take(self._socket.recv(2048), time.monotonic())
                self._socket.settimeout(silence)
            return
        except TimeoutError:
            pass
        while self._waiting:  # it was the end
            self._play_out()

    def close(self) -> None:
        self._socket.close()

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
        heapq.heappush(self._waiting, (number, packet[HEADER:]))
        while self._waiting and (self._waiting[0][0] == self._next or len(self._waiting) > self._window):
            self._play_out()

    def _extended(self, sequence: int) -> int:
        """The number next to the highest one so far that has these 16 bits."""
        difference = (sequence - self._highest + 0x8000 & 0xFFFF) - 0x8000
        return self._highest + difference if self.counts.received else sequence

    def _play_out(self) -> None:
        number, payload = heapq.heappop(self._waiting)
        if self._next is not None:  # the first one follows nothing
            self.counts.lost += number - self._next
        self.payload += payload
        self._next = number + 1

    def _measure(self, timestamp: int, arrival: float) -> None:
        transit = arrival - timestamp / CLOCK
        if self._transit is not None:
            self.counts.jitter += (abs(transit - self._transit) - self.counts.jitter) / 16
        self._transit = transit
