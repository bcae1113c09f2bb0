"""The stream's own rate against ffprobe's view, and rounds that a receiver does not see."""
import json
import subprocess
import unittest
from collections import defaultdict

from playbed import SAMPLE, SAMPLE_RATE, PlayCase, make_stream, packets, read_file

PCR_HZ, PCR_MODULUS = 27_000_000, 300 << 33
H264 = ("-c:v", "libx264", "-preset", "ultrafast", "-crf", "25")


def ffprobe(path, *what):
    text = subprocess.run(["ffprobe", "-v", "error", "-of", "json", *what, path], check=True, stdout=subprocess.PIPE).stdout
    return json.loads(text)


def complaints(path):
    """What ffmpeg's demuxer and decoders say of a stream, continuity checks included."""
    text = subprocess.run(["ffmpeg", "-nostdin", "-v", "debug", "-i", path, "-f", "null", "-"], check=True, text=True,
                          stderr=subprocess.PIPE).stderr
    words = ("Continuity", "discontinuity", "corrupt", "non monoton", "Non-monoton", "out of order", "Invalid")
    return [line for line in text.splitlines() if any(word in line for word in words)]


def program_clocks(stream):
    """(index of packet, PCR) of each PCR."""
    clocks = []
    for index, packet in enumerate(packets(stream)):
        if packet[3] & 0x20 and packet[4] >= 7 and packet[5] & 0x10:
            base = int.from_bytes(packet[6:10], "big") << 1 | packet[10] >> 7
            clocks.append((index, base * 300 + ((packet[10] & 1) << 8 | packet[11])))
    return clocks


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
        self.assertIn("jump 1 times", output)


class Rounds(PlayCase):
    def receive(self, *options):
        played = self.play(SAMPLE, "--to", "udp://239.1.1.1:5004", "--bitrate", "20M", *options)
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

    def test_clocks_wrap_soon(self):
        stream = self.receive("--near-wrap", "--loop", 2)
        clocks = self.assert_steady(stream)
        self.assertEqual((-clocks[0][1]) % PCR_MODULUS, 3 * PCR_HZ)
        self.assertLess(clocks[-1][1], 4 * PCR_HZ)
        self.assertEqual(complaints(self.path("received.ts")), [])
        self.assertEqual(len(ffprobe(self.path("received.ts"), "-select_streams", "v", "-show_packets")["packets"]), 150)


if __name__ == "__main__":
    unittest.main()
