# SPDX-License-Identifier: MIT
"""Many datagrams over a veth pair: what was written, what is counted as sent, what arrives.

IPPLAYOUT_LOSSLESS_DATAGRAMS, _RATE (Mbit/s of all streams) and _STREAMS make it long or wide; _SAMPLES names
a file that gets the player's resident memory and descriptors every ten seconds.
"""
import json
import os
import random
import subprocess
import time
import unittest

from playbed import IPPLAY, PlayCase

FILE_DATAGRAMS, PAYLOAD, FRAME = 5000, 1316, 1370
SHORT = ((200_000, 600, 1), (50_000, 400, 4))  # datagrams in each stream, rate of all, streams


def settings(name, default=None):
    return os.environ.get("IPPLAYOUT_LOSSLESS_" + name, default)


def wanted_runs():
    if datagrams := settings("DATAGRAMS"):
        return [(int(datagrams), float(settings("RATE", 800)), int(settings("STREAMS", 1)))]
    return SHORT


class Samples:
    def __init__(self, process):
        self.folder, self.start, self.rows = f"/proc/{process.pid}", time.monotonic(), []

    def take(self):
        with open(f"{self.folder}/statm", encoding="ascii") as file:
            resident = int(file.read().split()[1]) * os.sysconf("SC_PAGESIZE") // 1024
        self.rows.append((round(time.monotonic() - self.start), resident,
                          len(os.listdir(f"{self.folder}/fd"))))

    def save(self, path):
        with open(path, "w", encoding="ascii") as file:
            file.write("seconds,resident_kib,descriptors\n" + "".join("%d,%d,%d\n" % row
                                                                      for row in self.rows))


class Lossless(PlayCase):
    def test_what_is_written_arrives(self):
        """Each datagram once, in order, byte for byte; every counter tells the same."""
        path = self.path("stream.ts")
        with open(path, "wb") as file:  # no two datagrams are equal
            numbers = random.Random(1)
            file.write(b"".join(b"\x47" + numbers.randbytes(187) for _ in range(FILE_DATAGRAMS * 7)))
        for datagrams, rate, streams in wanted_runs():
            with self.subTest(datagrams=datagrams, rate=rate, streams=streams):
                seen, summary = self.run_pair(path, datagrams, rate, streams)
                self.assertEqual(seen["capture"]["dropped_by_kernel"], 0, "the receiver could not keep up")
                self.assertEqual(len(seen["streams"]), streams)
                for stream in seen["streams"]:
                    self.assertEqual((stream["rate"]["frames"], stream["compare"]["datagrams_equal"]),
                                     (datagrams,) * 2)
                    self.assertEqual([stream["rtp"][name]
                                      for name in ("lost", "duplicates", "reordered", "restarts")], [0] * 4)
                self.assertEqual((summary["datagrams"], summary["frames"], summary["frame_bytes"],
                                  summary["ts_packets"]),
                                 (datagrams, datagrams * streams, datagrams * FRAME, datagrams * 7))
                print(f"{datagrams} datagrams in {streams} streams equal, "
                      f"in {summary['elapsed_ns'] / 1e9:.0f} s", flush=True)

    def run_pair(self, path, datagrams, rate, streams):
        """What ipplay measure saw, and the summary of ipplay play."""
        meter = subprocess.Popen([IPPLAY, "measure", self.bed.FAR, "--json", "--expect", path, "--no-ts",
                                  "--filter", "udp port 5004", "--silence", "2s"],
                                 preexec_fn=self.bed.far.enter, text=True, stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE)
        self.assertEqual(meter.stderr.readline(), f"Measuring on {self.bed.FAR}\n")
        player = self.bed.start("play", path, "--to", "rtp://239.1.1.1:5004",
                                "--frame-bitrate", f"{rate / streams}M", "--copies", streams,
                                "--step", "dst-ip=0.0.0.1", "--sequence", 0,
                                "--loop", datagrams // FILE_DATAGRAMS, "--stats", "json")
        samples = Samples(player)
        for line in player.stdout:
            event = json.loads(line)
            if event["event"] == "progress" and len(samples.rows) <= event["elapsed_ns"] // 10**10:
                samples.take()
        self.assertEqual(player.wait(), 0, player.communicate()[1])
        if file := settings("SAMPLES"):
            samples.save(file)
        seen = json.loads(meter.communicate()[0])
        return seen, event


if __name__ == "__main__":
    unittest.main()
