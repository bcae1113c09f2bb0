# SPDX-License-Identifier: MIT
"""Plays datagrams at 5 Mb/s and faster and faster, by marks: usage play_slope.py DEVICE SECONDS GROWTH."""
import sys

import ipplayout

FRAME, PAYLOAD, RATE = 1370, 1316, 5e6 / 8 / 1370  # bytes, bytes, datagrams/s at the start
MARKS = 10  # per second


def main():
    device, seconds, growth = sys.argv[1], int(sys.argv[2]), float(sys.argv[3])
    block = (b"\x47\x1f\xff\x10" + b"\xff" * 184) * 7
    with ipplayout.Playout(device, destination="239.1.2.3:5004") as playout:
        for mark in range(seconds * MARKS + 1):
            at = mark / MARKS
            playout.mark(round(PAYLOAD * RATE * (at + growth / seconds * at * at / 2)), round(at * 1e9))
        playout.play(block for _ in range(int(RATE * seconds)))


main()
