# SPDX-License-Identifier: MIT
"""Faults on order: what is asked for is what is on the wire, and what is reported is what was done."""
import json
import struct
import unittest

from playbed import RTP, SAMPLE, PlayCase, read_file
from playouts import read_pcapng

TO = ("--to", "rtp://239.1.1.1:5004", "--sequence", "0")
HEADERS = 54
PAYLOAD = 1316
GAP = PAYLOAD * 8 / 700_000  # of the sample, in seconds
COUNT = 203


def number(frame):
    return struct.unpack_from(">H", frame, HEADERS - RTP + 2)[0]


def flipped(frame, at):
    """Bits of the payload that are not those of the sample."""
    payload = read_file(SAMPLE)[at * PAYLOAD:][:PAYLOAD]
    return sum(bin(a ^ b).count("1") for a, b in zip(frame[HEADERS:], payload))


def sums_up(frame):
    """Whether the UDP checksum (RFC 768) is right."""
    datagram = frame[34:]
    pseudo = frame[26:34] + struct.pack(">HH", 17, len(datagram))
    words = pseudo + datagram + b"\0" * (len(datagram) % 2)
    total = sum(struct.unpack(f">{len(words) // 2}H", words))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return total == 0xFFFF


class InFiles(PlayCase):
    """Times are those of the schedule, so all of it is exact."""

    def written(self, *options):
        path = self.path("out.pcapng")
        played = self.play(SAMPLE, *TO, "--into", path, *options)
        frames = [(time / 1e9, frame) for time, frame in read_pcapng(path)]
        return [(time - frames[0][0], frame) for time, frame in frames], played

    def test_orders_of_one_moment(self):
        """From 1 s on, which is number 67 (from 0) of 15.04 ms each."""
        frames, played = self.written("--at", "1s", "lose:3", "--at", "1s", "lose", "--at", "1s", "duplicate:2",
                                      "--at", "1s", "delay:2", "--at", "1s", "corrupt:9")
        expected = [n for n in range(COUNT) if not 67 <= n <= 70]
        expected.remove(73)
        expected.insert(expected.index(75) + 1, 73)
        for twice in (71, 72):
            expected.insert(expected.index(twice), twice)
        self.assertEqual([number(frame) for _, frame in frames], expected)
        for time, frame in frames:
            place = 76 if number(frame) == 73 else number(frame)
            self.assertAlmostEqual(time, place * GAP, delta=1e-5)
            self.assertEqual(flipped(frame, number(frame)), 9 if number(frame) == 74 else 0)
            self.assertTrue(sums_up(frame))
        for line in ("1.007  --at: lost 3 datagrams, from number 68", "lost 1 datagram, number 71",
                     "sent twice: 2 datagrams, from number 72", "delayed 1 datagram, number 74",
                     "corrupted 1 datagram, number 75"):
            self.assertIn(line, played.errors)
        self.assertIn("ordered    lost 4, delayed 1, IP checksum 0, UDP checksum 0, sent twice 2, corrupted 1", played.output)

    def test_a_break_of_the_link(self):
        frames, played = self.written("--at", "1s", "break:500ms", "--delay", "1/66:3")
        lost = [n for n in range(COUNT) if GAP * n >= 1 and GAP * n < 67 * GAP + 0.5]
        # 66 was held back and is due in the break; 0, 132 and 198 leave 3 later.
        self.assertEqual({number(frame) for _, frame in frames}, set(range(COUNT)) - set(lost) - {66})
        self.assertIn(f"link broken, lost {len(lost)} datagrams, from number 68", played.errors)

    def test_holes_are_closed_on_wish(self):
        """What follows leaves a gap earlier for each, with RTP time as it would be."""
        kept, _ = self.written("--seed", "1", "--lose", "2/50")
        closed, _ = self.written("--seed", "1", "--lose", "2/50", "--holes", "closed")
        self.assertEqual([frame for _, frame in closed], [frame for _, frame in kept])
        for (before, frame), (after, _) in zip(kept, closed):
            lost = 2 * (number(frame) // 50) + min(2, number(frame) % 50)
            first = 2  # of the stream: times here count from the first that leaves
            self.assertAlmostEqual(before - after, (lost - first) * GAP, delta=1e-5)

    def test_shares_and_bursts(self):
        """Of 10 rounds; the limits are those of 1 in 100,000 playouts (four standard deviations and more)."""
        frames, _ = self.written("--loop", 10, "--lose", "10%", "--duplicate", "5%", "--seed", "3")
        sent = [number(frame) for _, frame in frames]
        count = 10 * 1418 // 7 + 1
        self.assertAlmostEqual(len(set(sent)) / count, 0.9, delta=0.03)
        self.assertAlmostEqual((len(sent) - len(set(sent))) / len(set(sent)), 0.05, delta=0.022)
        frames, _ = self.written("--loop", 10, "--loss-model", "2%,20%", "--seed", "3")
        here = {number(frame) for _, frame in frames}
        bursts = sum(n not in here and n - 1 in here for n in range(1, count))
        self.assertAlmostEqual((count - len(here)) / count, 0.02 / 0.22, delta=0.06)
        self.assertAlmostEqual((count - len(here)) / bursts, 5, delta=2.5)

    def test_a_seed_repeats_all_of_it(self):
        options = ("--lose", "5%", "--loss-model", "1%,20%")[:2] + (
            "--delay", "2%:3", "--corrupt", "1/30:5", "--random", "--duplicate", "3%", "--bad-udp-checksum", "4%",
            "--jitter", "gaussian:30%", "--at", "1s", "corrupt:100")
        first, _ = self.written(*options, "--seed", "11")
        again, played = self.written(*options, "--seed", "11")
        other, _ = self.written(*options, "--seed", "12")
        self.assertEqual(first, again)
        self.assertNotEqual(first, other)
        self.assertIn("seed       11", played.output)

    def test_what_the_end_came_before_is_said(self):
        _, played = self.written("--at", "1h", "lose", "--at", "3s", "delay:50")
        self.assertIn("1 of the ordered errors was not made: the playout ended before", played.errors)
        self.assertIn("held back  1 of the delayed", played.output)


class OnTheWire(PlayCase):
    def test_orders_of_one_moment(self):
        """The example of the log that promised what the wire did not show."""
        order = [part for _ in range(4) for part in ("--at", "500ms", "lose")]
        order += [part for _ in range(2) for part in ("--at", "500ms", "delay")]
        order += ["--at", "400ms", "lose", "--at", "500ms", "bad-ip-checksum", "--at", "500ms", "bad-udp-checksum"]
        played = self.play(SAMPLE, *TO, *order)
        numbers = [number(frame) for frame in played.frames]
        self.assertEqual(set(range(COUNT)) - set(numbers), {27, 34, 35, 36, 37})
        # 38 goes behind 39, which is held back too and goes behind 40.
        self.assertEqual(numbers[numbers.index(33) + 1:][:4], [38, 40, 39, 41])
        self.assertEqual([n for n, frame in zip(numbers, played.frames) if not sums_up(frame)], [41])
        self.assertIn("ordered    lost 5, delayed 2, IP checksum 1, UDP checksum 1", played.output)
        self.assertEqual(played.errors.count("  --at: "), 9)

    def test_in_batches_each_order_waits_for_the_one_before(self):
        """The process-wide playout takes one request at a time."""
        order = [part for _ in range(4) for part in ("--at", "300ms", "lose")]
        played = self.play(SAMPLE, *TO, *order, "--priority", "normal", "--at", "400ms", "bad-udp-checksum:2")
        numbers = [number(frame) for frame in played.frames]
        self.assertEqual(len(set(range(COUNT)) - set(numbers)), 4)
        self.assertEqual(sum(not sums_up(frame) for frame in played.frames), 2)
        self.assertEqual(played.errors.count("--at: lost 1 datagram"), 4)

    def test_events(self):
        played = self.play(SAMPLE, *TO, "--json", "--at", "1s", "lose:2", "--at", "1500ms", "pause:200ms", "--at", "9s", "stop",
                           "--at", "2s", "corrupt")
        events = [json.loads(line) for line in played.output.splitlines()]
        told = [(event["event"], event.get("action"), event.get("count")) for event in events if event["event"] != "progress"]
        self.assertEqual(told, [("fault", "lose", 2), ("paused", None, None), ("playing", None, None), ("fault", "corrupt", 1),
                                ("summary", None, None)])
        fault = next(event for event in events if event["event"] == "fault")
        self.assertEqual((fault["by"], fault["first_datagram"]), ("--at", 68))
        self.assertAlmostEqual(fault["at_ns"] / 1e9, 67 * GAP, delta=1e-3)
        corrupt = [event for event in events if event["event"] == "fault"][1]
        self.assertAlmostEqual(corrupt["at_ns"] / 1e9, 133 * GAP + 0.2, delta=0.1)  # moved by the pause


if __name__ == "__main__":
    unittest.main()
