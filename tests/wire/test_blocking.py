# SPDX-License-Identifier: MIT
"""Full rings, lost adapters, pauses and long waits: whoever waits is released."""
import itertools
import os
import time
import unittest

from host import CRAWL, RING, begin, blocked_writer, in_thread, ready, reap, until_refused, until_sent
from library import Library
from testbed import Testbed
from wire_case import TYPICAL, Model, WireCase, datagrams, play, stream

SLOW = {**TYPICAL, "IPBitRate": 1e-5}  # 10 bit/s: a frame lasts 18 minutes
DATA = datagrams(Model(TYPICAL), 3)
EXPECTED, STATISTICS = Model(TYPICAL).play(DATA)


class Blocking(WireCase):
    def check_end(self, outcome):
        """What plays last, in good order again, is a playout of DATA."""
        self.assertEqual(outcome.frames[-len(EXPECTED):], EXPECTED)
        self.assertEqual(outcome.value, STATISTICS)

    def test_more_than_the_ring_holds(self):
        settings = {**TYPICAL, "IPBitRate": 2000.0, "TSPacketSize": 0, "PacketSizeMode": 0,
                    "IPPacketSize": 1401}
        data = stream(RING + (3 << 20))
        outcome = self.bed.run(play, settings, data)
        self.assertTrue(b"".join(frame[54:] for frame in outcome.frames) == data, "the payload differs")

    def test_blocked_writer_is_released_by_a_stop(self):
        def body(library):
            ready(library, CRAWL)
            for stop in ("IPStop", "IPStopImmediate"):
                begin(library)
                writer = blocked_writer(library)
                reap(library, stop)
                assert writer() == Library.FAILED
                library.IPStop()  # discards what a late writer has put into the emptied ring
            library.configure(TYPICAL)
            return library.play(DATA)
        self.check_end(self.bed.run(body))

    def test_blocked_writer_is_released_by_a_lost_adapter(self):
        """Taken down or unplugged in mid-run: the writer hears of it, and so does every later write."""
        def body(library):
            ready(library, {**CRAWL, "IPBitRate": 1.0})
            library.register(event := os.eventfd(0))
            for lose, find in ((self.bed.near, Testbed.NEAR), (self.bed.far, Testbed.FAR)):
                begin(library)
                writer = blocked_writer(library)
                lose.run("ip", "link", "set", find, "down")
                assert writer() == Library.FAILED
                assert library.IPWriteTerminate() == 0
                assert library.IsPlayoutComplete() == 1
                assert os.eventfd_read(event) == 1
                assert library.write(DATA) == library.IPWrite(None, 0) == Library.FAILED
                library.IPStop()
                lose.run("ip", "link", "set", find, "up")
            library.configure(TYPICAL)
            return library.play(DATA)
        outcome = self.bed.run(body)
        self.check_end(outcome)
        self.assertEqual(outcome.printed.count("An error occurred sending the packets:  Only "), 2)

    def test_full_ring_between_runs(self):
        """A host that goes on writing after the end is refused once the ring is full."""
        def body(library, data):
            ready(library)
            begin(library, data)
            library.IPWriteTerminate()
            written = []
            assert until_refused(library, written) == Library.FAILED
            library.IPStop()
            return sum(written)
        taken = self.bed.run(body, stream(4000)).value
        self.assertEqual(taken, RING // Library.LARGEST_WRITE * Library.LARGEST_WRITE)

    def test_frame_that_the_adapter_refuses(self):
        """A frame beyond the adapter's own MTU ends the run as a failed one, for every batch size; so
        does an adapter that is down from the start."""
        def body(library):
            ready(library, {**TYPICAL, "IPFragmentation": 1, "TSPacketCount": 80})
            for changes in ({}, {"IPBitRate": 200.0}, {"BurstMode": 1, "BurstValueType": 1, "BurstSize": 3},
                            {"BurstMode": 0, "IPFragmentation": 0}):
                library.configure(changes)
                if "IPFragmentation" in changes:
                    self.bed.set_link("down")
                if library.IPStart() == 0:
                    while library.write(DATA) == 0:
                        pass
                    library.IPWriteTerminate()
                library.IPStop()
            self.bed.set_link("up")
            library.configure(TYPICAL)
            return library.play(DATA)
        self.bed.near.run("ip", "link", "set", Testbed.NEAR, "mtu", "1500")
        self.addCleanup(self.bed.near.run, "ip", "link", "set", Testbed.NEAR, "mtu", str(Testbed.MTU))
        outcome = self.bed.run(body)
        self.check_end(outcome)
        self.assert_frames(outcome, EXPECTED)

    def test_pause(self):
        """Nothing leaves, is lost or repeated; a stop ends a pause, and the next run is not paused."""
        def body(library, data):
            ready(library)
            begin(library)
            library.IPPause(1)
            library.write(data)
            ended = in_thread(library.IPWriteTerminate)
            time.sleep(0.1)
            assert library.statistics()["DatagramsSent"] <= 1  # asked for before the pause
            for _ in range(20):
                assert library.IPPause(1) == 1
                assert library.IPPause(2) == 1  # anything but 1 resumes
            ended()
            statistics = reap(library)
            for stop in ("IPStop", "IPStopImmediate"):
                begin(library)
                library.IPPause(1)
                library.write(data)
                reap(library, stop)
            return statistics, library.play(data)
        data = datagrams(Model(TYPICAL), 60)
        expected, statistics = Model(TYPICAL).play(data)
        outcome = self.bed.run(body, data)
        self.assertEqual(outcome.value, (statistics, statistics))
        self.assertEqual(outcome.frames[:len(expected)], expected)
        self.assertEqual(outcome.frames[-len(expected):], expected)

    def test_stop_at_ten_bits_per_second(self):
        """A stop cuts the pacing short; of what is left, two batches and the datagram in hand leave with the one in transit.

        All that was counted as sent has left. The best of three times.
        """
        def body(library, settings, data, stop):
            ready(library, settings)
            begin(library, data)
            until_sent(library, 1)
            time.sleep(0.1)
            begun = time.monotonic()
            sent = reap(library, stop)["DatagramsSent"]
            return time.monotonic() - begun, sent
        batches = {**SLOW, "JitterEnabled": 1, "JitterPeriod": 10.0}
        for settings, stop in itertools.product((SLOW, batches), ("IPStop", "IPStopImmediate")):
            with self.subTest(batches="JitterEnabled" in settings, stop=stop):
                data = datagrams(Model(settings), 40)
                expected = Model(settings).play(data)[0]
                per_batch = int(settings.get("JitterPeriod", 1))
                for attempt in range(3):
                    outcome = self.bed.run(body, settings, data, stop)
                    duration, sent = outcome.value
                    # A machine that stands still for half a second has a stop give up frames.
                    if duration < 1.0 and outcome.frames == expected[:sent]:
                        break
                self.assert_frames(outcome, expected[:sent])
                self.assertLessEqual(sent, 3 * per_batch + 1)
                self.assertLess(duration, 1.0)


if __name__ == "__main__":
    unittest.main()
