# SPDX-License-Identifier: MIT
"""What hosts do and suffer: feed badly, stop, fork, lose time; and eight threads that call anything."""
import os
import random
import signal
import subprocess
import sys
import threading
import time
import unittest

from harness import SECONDS, Host, Model, ReliabilityCase, TYPICAL, datagrams
from host import in_thread
from library import Library
from testbed import libc

FAST = {**TYPICAL, "IPBitRate": 100.0}
BUSY_PROCESSES = 4 * (os.cpu_count() or 1)


def feed_nothing_for_long(host, data):
    half = len(data) // 8 * 4
    host.library.write(data[:half])
    time.sleep(SECONDS / 5)
    host.library.write(data[half:])


def feed_four_bytes_at_a_time(host, data):
    for start in range(0, len(data), 4):
        assert host.library.IPWrite(data[start:start + 4], 1) == 0


def be_stopped_by_a_signal(host, data):
    """A helper stops this process for a while; what is due by then leaves afterwards."""
    host.library.write(data)
    helper = os.fork()
    if helper == 0:
        os.kill(os.getppid(), signal.SIGSTOP)
        time.sleep(SECONDS / 10)
        os.kill(os.getppid(), signal.SIGCONT)
        os._exit(0)
    os.waitpid(helper, 0)


def fork_while_playing(host, data):
    """Children end at once, by exit with its destructors, or turn into another program."""
    part = len(data) // 12 * 4
    ends = (lambda: os._exit(0), lambda: libc.exit(0), lambda: os.execlp("true", "true"))
    for end, start in zip(ends, range(0, len(data), part)):
        host.library.write(data[start:start + part])
        child = os.fork()
        if child == 0:
            end()
        assert os.waitpid(child, 0)[1] == 0
    host.library.write(data[3 * part:])


def set_the_clock_back(host, data):
    host.library.write(data[:len(data) // 8 * 4])
    host.faults.shift_clock(-3600)
    assert abs(time.time() + 3600 - os.stat("/proc/self").st_ctime) < 600, "the clock was not set back"
    host.library.write(data[len(data) // 8 * 4:])


def be_short_of_processors(host, data):
    busy = [subprocess.Popen([sys.executable, "-c", "while True: pass"]) for _ in range(BUSY_PROCESSES)]
    try:
        host.library.write(data)
        host.library.IPWriteTerminate()
    finally:
        for process in busy:
            process.kill()
            process.wait()


class Hosts(ReliabilityCase):
    def test_feeding_and_time(self):
        """Whatever happens to the host in mid-run, every byte leaves once and in order."""
        def body(library, incident, data):
            host = Host(library, settings=FAST)
            begun = time.monotonic()
            assert library.IPStart() == 0
            incident(host, data)
            library.IPWriteTerminate()
            seconds = time.monotonic() - begun
            statistics = library.statistics()
            library.IPStop()
            host.assert_nothing_left(incident.__name__)
            return {"first": statistics, "seconds": seconds, "statistics": host.play(data)}
        for incident in (feed_nothing_for_long, feed_four_bytes_at_a_time, be_stopped_by_a_signal,
                         fork_while_playing, set_the_clock_back, be_short_of_processors):
            # Each call yields the processor, which comes back late where others want it.
            data = datagrams(Model(FAST), 30 if incident is feed_four_bytes_at_a_time else 2000)
            expected, statistics = Model(FAST).play(data)
            with self.subTest(incident=incident.__name__):
                outcome = self.bed.run(body, incident, data)
                self.check_end(outcome, FAST, data)
                self.assertEqual(outcome.value["first"], statistics)
                self.assertTrue(outcome.frames[-2 * len(expected):] == expected * 2, "frames differ")
                self.report(incident=incident.__name__, seconds=round(outcome.value["seconds"], 2))

    def test_several_writers(self):
        """Each write stays whole and each thread's writes stay in order, whoever else writes."""
        def body(library, writers, writes, size):
            host = Host(library, settings={**FAST, **raw})
            assert library.IPStart() == 0

            def feed(writer):
                for number in range(writes):
                    library.write(bytes((writer, number)) * (size // 2))
            for join in [in_thread(feed, writer) for writer in range(writers)]:
                join()
            library.IPWriteTerminate()
            library.IPStop()
            host.assert_nothing_left()
        raw = {"TSPacketSize": 0, "PacketSizeMode": 0, "IPPacketSize": 1454}  # payloads of 1400
        writers, writes, size = 6, 200, 2800
        outcome = self.bed.run(body, writers, writes, size)
        payload = b"".join(frame[54:] for frame in outcome.frames)[-writers * writes * size:]
        pieces = [payload[start:start + size] for start in range(0, len(payload), size)]
        seen = {writer: [piece[1] for piece in pieces if piece[0] == writer] for writer in range(writers)}
        self.assertEqual(seen, {writer: list(range(writes)) for writer in range(writers)})
        self.assertTrue(all(piece == piece[:2] * (size // 2) for piece in pieces), "a write was torn")


class Storm(ReliabilityCase):
    def test_anything_from_eight_threads(self):
        """Nothing hangs or breaks, and what comes after is a clean playout."""
        def body(library, data, seed):
            host = Host(library, settings={"IPBitRate": 300.0})
            end = time.monotonic() + SECONDS
            counts = [0] * 8
            blocked = [threading.Event() for _ in counts]

            def act(thread):
                chance = random.Random(seed + thread)
                actions = self.actions(library, chance)
                while time.monotonic() < end:
                    chance.choice(actions)()
                    counts[thread] += 1
                blocked[thread].set()
            joins = [in_thread(act, thread) for thread in range(len(counts))]
            time.sleep(SECONDS)
            while not all(event.wait(0.01) for event in blocked):
                library.IPPause(0)
                library.IPStop()
            for join in joins:
                join()
            library.IPPause(0)
            library.IPStop()
            left, before = host.traces(), host.before
            assert left[:2] == before[:2], (left, before)
            assert left[2] - before[2] < 5, "memory was lost"  # what a one-shot request sets up stays
            library.configure(TYPICAL)
            return {"calls": sum(counts), "statistics": host.play(data)}
        data = datagrams(Model(TYPICAL), 5)
        seed = random.randrange(1 << 30)
        with self.subTest(seed=seed):
            outcome = self.bed.run(body, data, seed)
            self.check_end(outcome, TYPICAL, data)
            self.report(calls=outcome.value["calls"], seconds=SECONDS)

    @staticmethod
    def actions(library, chance):
        chunk = bytes(Library.LARGEST_WRITE)
        often = [lambda: library.IPPause(chance.randrange(2)), library.statistics, library.ClearStatistics,
                 library.IsPlayoutComplete, library.GeneratePacketLoss, library.GenerateSequenceError,
                 library.GenerateIPChecksumError, library.GenerateUDPChecksumError, library.GetIPStopEvent,
                 lambda: library.IPWrite(chunk, chance.randrange(65536))]
        return often * 3 + [library.IPStart] * 4 + [library.IPStop, library.IPStopImmediate,
                                                    library.IPWriteTerminate]


if __name__ == "__main__":
    unittest.main()
