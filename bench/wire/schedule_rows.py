# SPDX-License-Identifier: MIT
"""Rows for what a schedule does beyond a constant rate: the stream's own clock, a bent clock, a capture's times, two paths."""
import json
import math
import os
import subprocess
import sys
import time
from pathlib import Path

import numpy

import analysis
from senders import FRAME, GROUP, PORT
from table import Table

PACKET = 188
PER_DATAGRAM = 7
PCR_HZ = 27_000_000
TWIN_GROUP = "239.1.2.4"


def pcr_times(stream):
    """Where the packets with PCRs stand, in packets, and their times in nanoseconds; of a stream with one programme."""
    packets = numpy.frombuffer(stream, numpy.uint8).reshape(-1, PACKET)
    # An adaptation field that is not empty, with the PCR's flag (ISO/IEC 13818-1, 2.4.3.4).
    places = numpy.flatnonzero((packets[:, 3] & 0x20 != 0) & (packets[:, 4] > 0) & (packets[:, 5] & 0x10 != 0))
    fields = [int.from_bytes(packets[place, 6:12].tobytes(), "big") for place in places]
    ticks = numpy.array([(field >> 15) * 300 + (field & 0x1FF) for field in fields])
    assert numpy.all(numpy.diff(ticks) > 0), "the stream's clock jumps"
    return places, (ticks - ticks[0]) * 1e9 / PCR_HZ


def arrival_errors(arrivals, due):
    """How far each arrival is from where it should be, the usual delay apart; microseconds."""
    late = (arrivals - arrivals[0] - (due - due[0])) / 1000
    return numpy.abs(late - numpy.median(late))


def slope_ppm(due, late):
    """Of a line through nearly all points: a frame that the machine held up says nothing of the rate."""
    apart = numpy.abs(late - numpy.median(late))
    kept = apart < 3 * numpy.percentile(apart, 75)
    return numpy.polyfit(due[kept], late[kept], 1)[0] * 1e6


def irregular_gaps(count, mean_ns):
    """Of an independent stream of datagrams (exponential), none shorter than a frame on a gigabit link; always the same ones."""
    return numpy.maximum(numpy.random.default_rng(1).exponential(mean_ns, count), FRAME * 8).astype(int)


class ScheduleRows:
    ERRORS = {"p50": "µs", "p99": "µs", "p99.9": "µs", "max": "µs", "cpu": "%"}

    def record_whole(self, argv, environment=None):
        """A run from its first frame to its last one, and the share of a processor that it took."""
        with self.bed.recording() as result, self.bed.sender(argv, environment) as sender:
            spent, start = 0, time.monotonic_ns()
            while sender.process.poll() is None:
                spent = max(spent, sender.cpu_ns())
                time.sleep(0.05)
            took = time.monotonic_ns() - start
            sender.wait()
        return result[0], spent / took * 100

    def vbr(self):
        """A stream whose rate varies, against the times that its PCRs give to its datagrams."""
        table = Table("A stream of variable rate, arrivals against its PCRs", self.ERRORS)
        path = self.senders.material.variable_stream(round(max(self.seconds, 6)))
        stream = path.read_bytes()
        places, times = pcr_times(stream)
        datagrams = numpy.arange(math.ceil(places[0] / PER_DATAGRAM), places[-1] // PER_DATAGRAM)
        due = numpy.interp(datagrams * PER_DATAGRAM, places, times)

        def measure(name, argv):
            recording, cpu = self.record_whole(argv)
            # A datagram is known by its place: multicat has no numbers. It leaves some out at the end.
            missing = math.ceil(len(stream) / PER_DATAGRAM / PACKET) - len(recording.times)
            assert 0 <= missing <= (20 if name == "multicat" else 0), f"{name} lost {missing}"
            came = datagrams < len(recording.times)
            return {**analysis.spread(arrival_errors(recording.times[datagrams[came]], due[came])), "cpu": cpu}

        target = f"{GROUP}:{PORT}"
        play = [self.senders.ipplay_program, "play", path, "--device", self.bed.NEAR, "--quiet", "--to", f"rtp://{target}"]
        commands = {"multicat": ["multicat", "-u", path, target], "ipplay": play, "ipplay --economy": [*play, "--economy"]}
        return self.alternate(commands, table, measure)

    def replay(self):
        """A capture whose frames came at irregular times, played at those times."""
        table = Table("A capture of 1,000 frames/s at random times, gaps against its own", self.ERRORS)
        gaps = irregular_gaps(round(1000 * max(self.seconds, 5)), 1e6)
        path = self.senders.material.irregular_capture(gaps)

        def measure(name, argv):
            recording, cpu = self.record_whole(argv)
            assert len(recording.times) == len(gaps) + 1, f"{name} lost some"
            return {**analysis.spread(numpy.abs(numpy.diff(recording.times) - gaps) / 1000), "cpu": cpu}

        replay = [self.senders.ipplay_program, "play", path, "--timing", "capture", "--to", f"rtp://{GROUP}:{PORT}"]
        replay += ["--device", self.bed.NEAR, "--quiet"]
        commands = {
            f"tcpreplay ({timer})": ["tcpreplay", "-q", "-K", f"--timer={timer}", "-i", self.bed.NEAR, path]
            for timer in ("gtod", "nano")
        }
        return self.alternate({**commands, "ipplay": replay, "ipplay --economy": [*replay, "--economy"]}, table, measure)

    def slope(self):
        """A rate that grows by 30 ppm in a minute, by marks from Python: its rate in each ten seconds against the order."""
        seconds, windows, growth = 60, 6, 30e-6
        table = Table("A rate that grows by 30 ppm in 60 s, in each ten seconds", {"largest error": "ppm", "cpu": "%"})
        script = Path(__file__).with_name("play_slope.py")
        here = {"IPPLAYOUT_LIBRARY": str(self.bed.programs.parent / "libipplayout.so"), "PYTHONPATH": "python/src"}

        def measure(_, argv):
            recording, cpu = self.record_whole(argv, {**os.environ, **here})
            index = numpy.arange(len(recording.times))
            rate = 5e6 / 8 / FRAME  # frames/s at the start; then rate * (1 + growth / seconds * t)
            bend = growth / seconds
            due = (numpy.sqrt(1 + 2 * bend * index / rate) - 1) / bend
            late = (recording.times - recording.times[0]) / 1e9 - due
            errors = [slope_ppm(due[part], late[part]) for part in numpy.array_split(index, windows)]
            return {"largest error": float(numpy.abs(errors).max()), "cpu": cpu}

        return self.alternate({"library": [sys.executable, script, self.bed.NEAR, seconds, growth]}, table, measure)

    def twins(self):
        """The same stream on two paths, each of which loses 1 %: the meter against the frames of each path."""
        with self.bed.both_paths():
            return self.measure_twins()

    def measure_twins(self):
        table = Table(
            "Two paths, 50 ms apart, 1 % lost on each",
            {
                **{name: "" for name in ("packets", "lost on one", "lost on the other", "lost on both")},
                **{f"skew {name}": "µs" for name in ("minimum", "mean", "maximum")},
            },
        )
        stream = self.senders.material.stream(50, 10)
        play = [self.senders.ipplay_program, "play", stream, "--device", self.bed.NEAR, "--to", f"rtp://{GROUP}:{PORT}"]
        play += ["--twin", f"rtp://{TWIN_GROUP}:{PORT}", "--twin-device", self.bed.NEAR_TWO, "--twin-skew", "50ms"]
        play += ["--lose", "1/100", "--twin-lose", "1/100", "--random", "--sequence", "0", "--quiet"]
        measure = [self.senders.ipplay_program, "measure", self.bed.BOTH, "--json", "--silence", "1s"]
        for _ in range(self.rounds):
            measuring = subprocess.Popen(
                [*self.bed.far, *measure], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
            )
            while not measuring.stderr.readline().startswith("Measuring on"):
                pass
            with self.bed.recording() as one, self.bed.recording(self.bed.FAR_TWO) as other:
                with self.bed.sender(play) as sender:
                    sender.wait()
                seen = json.loads(measuring.communicate()[0])["twins"][0]
            table.add("frames of both", self.of_both_paths(one[0], other[0]))
            skew = {name: seen["skew_ns"][short] / 1000
                    for name, short in (("skew minimum", "min"), ("skew mean", "mean"), ("skew maximum", "max"))}
            lost = {"lost on one": "first_lost", "lost on the other": "second_lost", "lost on both": "lost_together"}
            table.add("ipplay measure", {"packets": seen["packets"], **{name: seen[key] for name, key in lost.items()}, **skew})
        return table

    @staticmethod
    def of_both_paths(one, other):
        numbers = [numpy.unwrap(path.sequence.astype(int), period=65536).astype(int) for path in (one, other)]
        common, first, second = numpy.intersect1d(*numbers, return_indices=True)
        # Before the first frame of the later path nobody knows that there are two.
        both = one.times[first] >= other.times[0]
        skew = (other.times[second] - one.times[first])[both] / 1000
        last = max(path[-1] for path in numbers)
        lost = [last + 1 - len(path) for path in numbers]
        return {
            "packets": int(last + 1), "lost on one": int(lost[0]), "lost on the other": int(lost[1]),
            "lost on both": int(last + 1 - len(numpy.union1d(*numbers))),
            "skew minimum": float(skew.min()), "skew mean": float(skew.mean()), "skew maximum": float(skew.max()),
        }
