# SPDX-License-Identifier: MIT
"""The stream's own rate against ffprobe's view, and rounds that a receiver does not see."""
import json
import subprocess
import unittest
from collections import defaultdict

from playbed import SAMPLE, SAMPLE_RATE, PlayCase, make_stream, make_varying_stream, packets, read_file

PCR_HZ, PCR_MODULUS = 27_000_000, 300 << 33
H264 = ("-c:v", "libx264", "-preset", "ultrafast", "-crf", "25")


def ffprobe(path, *what):
    text = subprocess.run(["ffprobe", "-v", "error", "-of", "json", *what, path], check=True,
                          stdout=subprocess.PIPE).stdout
    return json.loads(text)


def complaints(path):
    """What ffmpeg's demuxer and decoders say of a stream, continuity checks included."""
    # As a pipe: where it seeks, it may take any 0x47 for the start of a packet.
    with open(path, "rb") as stream:
        text = subprocess.run(["ffmpeg", "-v", "debug", "-f", "mpegts", "-i", "-", "-f", "null", "-"],
                              check=True, text=True, stdin=stream, stderr=subprocess.PIPE).stderr
    words = ("Continuity", "discontinuity", "corrupt", "non monoton", "Non-monoton", "out of order",
             "Invalid")
    return [line for line in text.splitlines() if any(word in line for word in words)]


def program_clocks(stream):
    """(index of packet, PCR) of each PCR."""
    clocks = []
    for index, packet in enumerate(packets(stream)):
        if packet[3] & 0x20 and packet[4] >= 7 and packet[5] & 0x10:
            base = int.from_bytes(packet[6:10], "big") << 1 | packet[10] >> 7
            clocks.append((index, base * 300 + ((packet[10] & 1) << 8 | packet[11])))
    return clocks


class VaryingRate(PlayCase):
    def stream(self):
        path = self.path("varying.ts")
        make_varying_stream(path)
        return path

    def test_is_played_at_the_times_of_its_pcrs(self):
        """RTP time is the time at which a datagram is to leave; from round to round the clock jumps."""
        played = self.play(self.stream(), "--to", "rtp://239.1.1.1:5004", "--json")
        self.assertIn("at the times of its PCRs", played.errors)
        times = [int.from_bytes(frame[46:50], "big") for frame in played.frames]
        steps = [(b - a) & 0xFFFFFFFF for a, b in zip(times, times[1:])]
        # Over the jump time goes on at the rate before.
        self.assertEqual(steps, (([180] * 600 + [720] * 150) * 2)[:-1])
        summary = json.loads(played.output.splitlines()[-1])
        departures = summary["departures"]
        self.assertEqual((departures["on_time"] + departures["late"], departures["not_sent"]), (1500, 0))
        self.assertGreaterEqual(departures["lateness_ns"]["max"], departures["lateness_ns"]["p50"])

    def test_a_given_rate_makes_it_constant(self):
        """Null packets fill it up, and every PCR is where the rate says. Nothing plays faster."""
        path = self.stream()
        played = self.play(path, "--to", "rtp://239.1.1.1:5004", "--bitrate", "20M", "--json")
        times = [int.from_bytes(frame[46:50], "big") for frame in played.frames]
        steps = {b - a for a, b in zip(times, times[1:])}
        self.assertEqual(steps, {47, 48})  # 1,316 bytes at 20 Mb/s: 47.376 ticks of 90 kHz
        stream = played.payload(54)
        clocks = program_clocks(stream)
        clocks = [clocks[:750], clocks[750:]]  # they jump
        for half in clocks:
            for (before, a), (after, b) in zip(half, half[1:]):
                self.assertAlmostEqual(b - a, (after - before) * 188 * 8 / 20e6 * PCR_HZ, delta=1.5)
        self.assertAlmostEqual(len(stream) * 8 / 20e6, 2 * 2.4, delta=0.02)

        def content(packet):
            return packet[12:] if packet[3] & 0x20 else packet

        kept = [content(packet) for packet in packets(stream) if packet[1:3] != b"\x1f\xff"]
        self.assertEqual(kept, [content(packet) for packet in packets(read_file(path))])

    def test_a_rate_that_is_too_little_is_refused(self):
        played = self.play(SAMPLE, "--to", "udp://239.1.1.1:5004", "--bitrate", "100k", status=2)
        self.assertRegex(played.errors, r"\Aipplay: --bitrate 100k: too little: [^\n]*--speed[^\n]*\n\Z")


class OwnRate(PlayCase):
    def rate(self, path):
        """The bit rate that ipplay takes from the PCRs, and its notes."""
        played = self.play(path, "--to", "udp://239.1.1.1:5000", "--dry-run")
        line = next(line for line in played.output.splitlines() if "stream bit rate" in line)
        self.assertIn("by the PCRs of PID 256", line)
        return float(line.split()[3]), played.output

    def test_agrees_with_ffprobe(self):
        for name, options, muxrate in (("constant", {"rate": 2_000_000}, 2_000_000),
                                       ("constant H.264", {"rate": 5_000_000, "video": H264}, 5_000_000),
                                       ("variable", {}, None), ("variable H.264", {"video": H264}, None)):
            with self.subTest(name):
                path = self.path("stream.ts")
                make_stream(path, seconds=60, **options)
                own, _ = self.rate(path)
                theirs = float(ffprobe(path, "-show_format")["format"]["bit_rate"])
                self.assertAlmostEqual(own / theirs, 1, delta=1e-3)
                if muxrate:
                    self.assertAlmostEqual(own / muxrate, 1, delta=1e-5)

    def test_wraps_and_jumps(self):
        """A recording that crosses the wrap of its clock, and two joined ones."""
        make_stream(self.path("a.ts"), "-output_ts_offset", "95440", rate=1_000_000, seconds=8)
        make_stream(self.path("b.ts"), rate=1_000_000, seconds=8)
        clocks = program_clocks(read_file(self.path("a.ts")))
        self.assertLess(clocks[-1][1], clocks[0][1])
        self.assertAlmostEqual(self.rate(self.path("a.ts"))[0], 1_000_000, delta=10)
        with open(self.path("joined.ts"), "wb") as file:
            file.write(read_file(self.path("a.ts")) + read_file(self.path("b.ts")))
        rate, output = self.rate(self.path("joined.ts"))
        self.assertAlmostEqual(rate, 1_000_000, delta=10)
        self.assertIn("jump 1 time;", output)


class Rounds(PlayCase):
    def receive(self, *options, path=SAMPLE):
        played = self.play(path, "--to", "udp://239.1.1.1:5004", "--speed", "20", *options)
        stream = played.payload(42)
        with open(self.path("received.ts"), "wb") as file:
            file.write(stream)
        return stream

    def assert_steady(self, stream):
        """PCRs as far apart as the packets between them, at the file's own rate."""
        clocks = program_clocks(stream)
        per_packet = 188 * 8 / SAMPLE_RATE * PCR_HZ
        for (before, a), (after, b) in zip(clocks, clocks[1:]):
            self.assertAlmostEqual((b - a) % PCR_MODULUS, (after - before) * per_packet, delta=PCR_HZ / 1e6,
                                   msg=f"packet {after}")
        return clocks

    def test_without_restamping_the_seam_shows(self):
        self.assertEqual(self.receive("--loop", 3), 3 * read_file(SAMPLE))
        self.assertNotEqual(complaints(self.path("received.ts")), [])

    def test_restamped_rounds_are_one_stream(self):
        stream = self.receive("--loop", 5, "--restamp")
        self.assertEqual(stream[:len(read_file(SAMPLE))], read_file(SAMPLE))
        self.assert_steady(stream)
        self.assertEqual(complaints(self.path("received.ts")), [])
        times = defaultdict(list)
        for packet in ffprobe(self.path("received.ts"), "-show_packets")["packets"]:
            times[packet["stream_index"]].append(int(packet["dts"]))
        for index, frames in ((0, 5 * 75), (1, 5 * 125)):
            self.assertEqual(len(times[index]), frames)
            steps = [b - a for a, b in zip(times[index], times[index][1:])]
            # A round lasts 3.047 s and its pictures 3.0 s: the seam is a longer step, but no jump.
            self.assertGreater(min(steps), 0)
            self.assertLess(max(steps), 0.3 * 90_000)

    def test_seams_of_other_streams(self):
        """A constant and a variable rate, content that is longer than its packets take, and a round that ends
        or begins far from a PCR. PCRs come at the mean rate and at most 40 ms apart, however far apart they
        are in the file."""
        for name, cut, options in (("constant", (0, 0), {"rate": 2_000_000}),
                                   ("H.264", (0, 0), {"rate": 5_000_000, "video": H264}),
                                   ("variable", (0, 0), {}), ("variable H.264", (0, 0), {"video": H264}),
                                   ("cut", (188 * 90, -188 * 30), {"video": H264})):
            with self.subTest(name):
                path, rounds = self.path("file.ts"), 3
                make_stream(path, seconds=4, **options)
                content = read_file(path)[cut[0]:cut[1] or None]
                with open(path, "wb") as file:
                    file.write(content)
                received = self.receive("--loop", rounds, "--restamp", path=path)
                size = len(received) // 188 // rounds
                clocks, own = program_clocks(received), program_clocks(content)
                mean = (own[-1][1] - own[0][1]) / (own[-1][0] - own[0][0])
                for seam in range(size, rounds * size, size):
                    first = max(index for index, _ in clocks if index < seam - (size - own[-1][0]) + 2)
                    near = [clock for clock in clocks if first <= clock[0] <= seam + own[0][0] + 2]
                    self.assertGreater(len(near), 1)
                    for (before, a), (after, b) in zip(near, near[1:]):
                        self.assertLessEqual((b - a) / PCR_HZ, 0.0401)
                        self.assertAlmostEqual((b - a) / ((after - before) * mean), 1, delta=1e-3)
                if cut == (0, 0):
                    self.assertEqual(complaints(self.path("received.ts")), [])
                    for stream in ("v", "a"):
                        times = [int(packet["dts"]) for packet in
                                 ffprobe(self.path("received.ts"), "-select_streams", stream,
                                         "-show_packets")["packets"]]
                        self.assertGreater(min(b - a for a, b in zip(times, times[1:])), 0)

    def test_clocks_wrap_soon(self):
        stream = self.receive("--near-wrap", "--loop", 2)
        clocks = self.assert_steady(stream)
        self.assertEqual((-clocks[0][1]) % PCR_MODULUS, 3 * PCR_HZ)
        self.assertLess(clocks[-1][1], 4 * PCR_HZ)
        self.assertEqual(complaints(self.path("received.ts")), [])
        self.assertEqual(len(ffprobe(self.path("received.ts"), "-select_streams", "v",
                                     "-show_packets")["packets"]), 150)


if __name__ == "__main__":
    unittest.main()
