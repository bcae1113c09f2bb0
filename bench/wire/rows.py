# SPDX-License-Identifier: MIT
"""The rows of the yardstick. Each runs its senders in alternation and returns a Table."""
import json
import math
import subprocess
import time
from contextlib import nullcontext

import numpy

import analysis
import jitter_model
from bed import busy_processors
from live_rows import LiveRows
from schedule_rows import ScheduleRows
from senders import gap_ns
from serve_rows import ServeRows
from table import Table

WARM_UP = 0.5  # seconds from the start of a sender to the part that counts


class Yardstick(ScheduleRows, LiveRows, ServeRows):
    def __init__(self, bed, senders, rounds, seconds, wanted="", minutes=1.0):
        self.bed, self.senders, self.rounds, self.seconds, self.wanted = bed, senders, rounds, seconds, wanted
        self.minutes = minutes

    def alternate(self, commands, table, measure):
        """Measures every sender once per round: measure(command) for the commands, by name."""
        for _ in range(self.rounds):
            for name, command in commands.items():
                if self.wanted in name:
                    table.add(name, measure(name, command))
        return table

    # Frames at a rate.

    def record(self, command, megabits, seconds, load=nullcontext):
        """Records a sender in its stride: what arrived, and the share of a processor that it took."""
        argv = command(megabits, int(seconds + 2))
        with self.bed.recording() as result, self.bed.sender(argv) as sender:
            time.sleep(WARM_UP)
            start, spent = time.monotonic_ns(), sender.cpu_ns()
            with load():
                time.sleep(seconds)
            end, spent = time.monotonic_ns(), sender.cpu_ns() - spent
            if sender.process.poll() is not None:
                raise RuntimeError(f"{argv} ended early: {sender.process.stderr.read()}")
        return result[0].between(start, end), spent / (end - start)

    def paced(self, megabits, names):
        seconds = self.seconds
        table = Table(
            f"{megabits} Mb/s: gap error, rate error against CLOCK_MONOTONIC, processor",
            {"p50": "µs", "p99": "µs", "p99.9": "µs", "max": "µs", "rate": "ppm", "cpu": "%"},
        )

        def measure(name, command):
            recording, cpu = self.record(command, megabits, seconds)
            gap = gap_ns(megabits)
            errors = numpy.sort(numpy.abs(numpy.diff(recording.times) - gap) / 1000)
            ranks = numpy.unique(numpy.geomspace(1, len(errors), 400).astype(int))
            table.draw(name, errors[-ranks], ranks / len(errors))
            return {
                **analysis.gap_errors(recording.times, gap),
                "rate": analysis.rate_error(recording.times, gap),
                "cpu": cpu * 100,
            }

        return self.alternate(self.pick(names), table, measure)

    def pick(self, names):
        every = {
            "tcpreplay (gtod)": self.senders.tcpreplay("gtod"),
            "tcpreplay (nano)": self.senders.tcpreplay("nano"),
            "tcpreplay (select)": self.senders.tcpreplay("select"),
            "multicat": self.senders.multicat,
            "multicat -i": self.senders.multicat_realtime,
            "GStreamer": self.senders.gstreamer,
            "ffmpeg": self.senders.ffmpeg,
            "bare pacing": self.senders.bare_pacing,
            "ipplay": self.senders.ipplay,
            "ipplay --economy": self.senders.ipplay_economy,
            "library": self.senders.library(),
        }
        return {name: every[name] for name in names}

    def rate2(self):
        return self.paced(2, ["tcpreplay (nano)", "multicat", "ipplay"])

    def rate10(self):
        return self.paced(
            10,
            [
                "tcpreplay (gtod)",
                "tcpreplay (nano)",
                "tcpreplay (select)",
                "multicat",
                "multicat -i",
                "GStreamer",
                "ffmpeg",
                "bare pacing",
                "ipplay",
                "ipplay --economy",
            ],
        )

    def rate100(self):
        return self.paced(
            100,
            [
                "tcpreplay (gtod)",
                "tcpreplay (nano)",
                "multicat",
                "GStreamer",
                "ffmpeg",
                "bare pacing",
                "ipplay",
            ],
        )

    def rate950(self):
        return self.paced(950, ["tcpreplay (gtod)", "tcpreplay (nano)", "bare pacing", "ipplay", "library"])

    def rate4000(self):
        return self.paced(4000, ["tcpreplay (nano)", "bare pacing", "ipplay", "library"])

    def busy(self):
        """Both processors busy for a time, at 10 Mb/s; what is left of it afterwards."""
        table = Table(
            "10 Mb/s while stress-ng keeps every processor busy",
            {"p50": "µs", "p99": "µs", "p99.9": "µs", "max": "µs", "delay after": "µs", "cpu": "%"},
        )

        def measure(name, command):
            argv = command(10, int(self.seconds + 4))
            with self.bed.recording() as result, self.bed.sender(argv) as sender:
                time.sleep(WARM_UP)
                with busy_processors():
                    start, spent = time.monotonic_ns(), sender.cpu_ns()
                    time.sleep(self.seconds)
                    end, spent = time.monotonic_ns(), sender.cpu_ns() - spent
                time.sleep(WARM_UP)
            times = result[0].times
            late = analysis.lateness(times, gap_ns(10))
            before, after = times < start - 3e8, times > times[-1] - 3e8
            return {
                **analysis.gap_errors(result[0].between(start, end).times, gap_ns(10)),
                "delay after": float(numpy.median(late[after]) - numpy.median(late[before])),
                "cpu": spent / (end - start) * 100,
            }

        return self.alternate(
            self.pick(
                ["tcpreplay (nano)", "tcpreplay (gtod)", "multicat", "multicat -i", "bare pacing", "ipplay"]
            ),
            table,
            measure,
        )

    # Many streams at once.

    def many(self):
        """Streams of 5 Mb/s with contents of their own: playouts in one process, and as many processes."""
        table = Table(
            "Many streams of 5 Mb/s",
            {"p50": "µs", "p99": "µs", "p99.9": "µs", "max": "µs", "missing": "", "cpu": "%", "memory": "MiB"},
        )
        kinds = {
            "playouts": self.senders.playouts(),
            "economical playouts": self.senders.playouts("economical"),
            "multicat": self.senders.multicats,
        }
        for count in (1, 10, 100, 200, 500):
            commands = {f"{count} {kind}": command for kind, command in kinds.items()}
            self.alternate(commands, table, lambda _, command, count=count: self.measure_many(command, count))
        return table

    def measure_many(self, command, count):
        megabits = 5
        argv = command(count, megabits, int(self.seconds + 3))
        with self.bed.recording() as result, self.bed.sender(argv) as sender:
            time.sleep(3 * WARM_UP)
            start, spent = time.monotonic_ns(), sender.cpu_ns()
            time.sleep(self.seconds)
            end, spent, memory = time.monotonic_ns(), sender.cpu_ns() - spent, sender.memory_kib()
        seen = result[0].between(start, end)
        gap = gap_ns(megabits)
        return {
            **analysis.gap_errors_by_stream(seen.times, seen.destinations, gap),
            "missing": analysis.missing(seen.sequence, seen.destinations) if argv[0] != "sh" else math.nan,
            "cpu": spent / (end - start) * 100,
            "memory": memory / 1024,
        }

    # As fast as possible.

    def measure_top(self, _, command):
        argv = command(0, 1 + round(WARM_UP) + 1)
        before_all = self.bed.arrived()
        with self.bed.sender(argv) as sender:
            time.sleep(WARM_UP)
            start, frames, spent = time.monotonic_ns(), self.bed.arrived(), sender.cpu_ns()
            time.sleep(1)
            end, frames, spent = time.monotonic_ns(), self.bed.arrived() - frames, sender.cpu_ns() - spent
            measured = {"frames/s": frames / (end - start) * 1e9, "cpu/frame": spent / frames}
            if argv[0] == self.bed.programs / "play_steady":
                reported = int(sender.wait().split()[-1]) * int(argv[4])
                measured["reported/arrived"] = reported / (self.bed.arrived() - before_all)
        return measured

    def top(self):
        """Top speed, counted by the far adapter, and whether what is reported as sent has arrived."""
        table = Table("Top speed", {"frames/s": "1/s", "cpu/frame": "ns", "reported/arrived": ""})
        return self.alternate(
            {
                "tcpreplay --topspeed": self.senders.tcpreplay_top,
                "trafgen": self.senders.trafgen_top,
                "bare sendmmsg": self.senders.sendmmsg_top,
                "library": self.senders.library_top(),
            },
            table,
            self.measure_top,
        )

    def copies(self):
        """What a frame costs when it is one of 1,000 streams, at top speed and at 1 Gb/s in all."""
        table = Table(
            "1,000 replicated streams against one",
            {"frames/s": "1/s", "cpu/frame": "ns", "rate": "ppm", "cpu": "%", "reported/arrived": ""},
        )

        def measure(name, copies):
            top = self.measure_top(name, self.senders.library_top(copies))
            recording, cpu = self.record(
                lambda _, seconds: self.senders.library(str(copies))(1000 / copies, seconds),
                1000,
                self.seconds,
            )
            return {**top, "rate": analysis.rate_error(recording.times, gap_ns(1000)), "cpu": cpu * 100}

        return self.alternate({"1 stream": 1, "1,000 streams": 1000}, table, measure)

    # One program at a time.

    def start(self):
        """IPStart to the arrival of the first frame."""
        table = Table("IPStart to first frame", {"p50": "ms", "p99": "ms", "max": "ms"})
        for _ in range(self.rounds):
            argv = [self.bed.programs / "play_starts", self.bed.NEAR, "10", "20"]
            with self.bed.recording() as result, self.bed.sender(argv) as sender:
                called = numpy.array([int(line) for line in sender.wait().split()]) - 0
            times = result[0].times
            first = times[numpy.searchsorted(times, called - result[0].realtime_lead)]
            taken = (first - (called - result[0].realtime_lead)) / 1e6
            table.add(
                "library",
                {
                    "p50": float(numpy.median(taken)),
                    "p99": analysis.percentile(taken, 99),
                    "max": float(taken.max()),
                },
            )
        return table

    def record_library(self, megabits, seconds, *settings):
        """A whole run of the library, from its first frame on; and when the program was started."""
        launched = time.monotonic_ns()
        argv = [self.bed.programs / "play_steady", self.bed.NEAR, megabits, seconds, "1", *settings]
        with self.bed.recording() as result, self.bed.sender(argv) as sender:
            sender.wait()
        return result[0].times, launched

    def record_batches(self, batch, *settings):
        """The same at 10 Mb/s without the last batches, which a stop sends before their time."""
        times, launched = self.record_library(10, 1.5, *settings)
        return times[: -2 * batch], launched

    def patterns(self):
        """Jitter and bursts as measured, against what they are defined to be."""
        table = Table(
            "Jitter patterns and bursts at 10 Mb/s, against the computed gaps",
            {"correlation": "", "median offset": "µs"},
        )
        gap = gap_ns(10) / 1000
        amounts = {
            jitter_model.SQUARE: 400,
            jitter_model.GAUSSIAN: 50,
            jitter_model.SQUARED_DIFFERENCE: 50,
            jitter_model.SINE: 50,
        }
        for _ in range(self.rounds):
            for pattern, amount in amounts.items():
                batch = 200 if pattern == jitter_model.SINE else 10
                times, launched = self.record_batches(batch, f"jitter={pattern}:{amount}")
                measured = numpy.diff(times) / 1000
                seeds = range(launched // 1_000_000, times[0] // 1_000_000 + 1)
                correlation, apart, computed = jitter_model.best_agreement(
                    measured, pattern, amount, gap, batch, seeds
                )
                name = jitter_model.NAMES[pattern]
                table.draw(name, measured[:100], computed[:100])
                table.add(name, {"correlation": correlation, "median offset": apart})
            table.add("bursts of 20", self.bursts(20, gap))
        return table

    def bursts(self, size, gap):
        """Frames of a burst back to back, and its first frames as far apart as all its gaps."""
        times, _ = self.record_batches(size, f"burst={size}")
        computed = numpy.zeros(len(times))
        computed[::size] = size * gap
        correlation, _ = jitter_model.agreement(numpy.diff(times) / 1000, computed)
        apart = numpy.abs(numpy.diff(times[::size]) / 1000 - size * gap)
        return {"correlation": correlation, "median offset": float(numpy.median(apart))}

    def catch_up(self):
        """What a receiver sees after a pause of 200 ms, and after the ring was empty for as long."""
        table = Table(
            "After 200 ms without frames",
            {"longest gap": "ms", "back on the grid after": "ms", "delay after": "µs"},
        )
        modes = {
            "single frames, 10 Mb/s": (10, 1, []),
            "batches of 10, 100 Mb/s": (100, 1, []),
            "bursts of 20, 10 Mb/s": (10, 20, ["burst=20"]),
        }
        for mode, (megabits, together, settings) in modes.items():
            for cause in ("pause", "starve"):
                times, _ = self.record_library(megabits, 2, f"{cause}=0.5:0.2", *settings)
                name = f"{cause}: {mode}"
                table.add(
                    name, self.after_silence(times[::together], gap_ns(megabits) * together, table, name)
                )
        return table

    @staticmethod
    def after_silence(times, gap, table, name):
        """Judges the recovery of a grid of frames, or of the first frames of bursts."""
        late = analysis.lateness(times, gap)
        silence = int(numpy.argmax(numpy.diff(times)))
        resumed = times[silence + 1]
        table.draw(name, (times - times[0]) / 1e9, late / 1000)
        back = numpy.flatnonzero(late[silence + 1 :] < 1000)
        return {
            "longest gap": float(resumed - times[silence]) / 1e6,
            "back on the grid after": float(times[silence + 1 + back[0]] - resumed) / 1e6
            if len(back)
            else math.nan,
            "delay after": float(numpy.median(late[times > times[-1] - 5e8]) - numpy.median(late[:silence])),
        }

    def judges(self):
        """The same two seconds judged by this receiver and by ipplay measure, each with its own capture."""
        table = Table(
            "Two judges of the same frames at 10 Mb/s", {"p50": "µs", "p99": "µs", "max": "µs", "rate": "ppm"}
        )
        gap = gap_ns(10)
        for _ in range(self.rounds):
            measuring = subprocess.Popen(
                self.bed.far
                + [
                    self.senders.ipplay_program,
                    "measure",
                    self.bed.FAR,
                    "--json",
                    "--duration",
                    "2s",
                    "--expect-rate",
                    "10M",
                ],
                stdout=subprocess.PIPE,
                stderr=subprocess.PIPE,
                text=True,
            )
            while not measuring.stderr.readline().startswith("Measuring on"):
                pass
            with self.bed.recording() as result, self.bed.sender(self.senders.library()(10, 3)) as sender:
                seen = json.loads(measuring.communicate()[0])["streams"][0]
                sender.wait()
            times = result[0].times[result[0].times <= result[0].times[0] + 2e9]
            errors = seen["spacing"]["gap_error_ns"]
            table.add(
                "ipplay measure",
                {
                    "rate": seen["rate"]["error_ppm"],
                    **{name: errors[name] / 1000 for name in ("p50", "p99", "max")},
                },
            )
            table.add(
                "wire_receiver", {**analysis.gap_errors(times, gap), "rate": analysis.rate_error(times, gap)}
            )
        return table

    def pump(self):
        """The pump's work on a frame, and the checksum in it."""
        shown = subprocess.run(
            [
                self.bed.programs / "frame_path_bench",
                "--benchmark_format=json",
                f"--benchmark_repetitions={self.rounds}",
                "--benchmark_min_time=0.1",
                "--benchmark_filter=FramePath/ipv[46]/1$|UdpChecksum",
            ],
            capture_output=True,
            check=True,
            text=True,
        ).stdout
        table = Table("Pump work on a frame of 1,370 bytes", {"time": "ns"})
        for run in json.loads(shown)["benchmarks"]:
            if run["run_type"] == "iteration":
                frame_time = run["ns_per_frame"] * 1e9 if "ns_per_frame" in run else run["cpu_time"]
                table.add(run["name"], {"time": frame_time})
        return table


ROWS = [
    "top",
    "rate2",
    "rate10",
    "rate100",
    "rate950",
    "rate4000",
    "busy",
    "copies",
    "many",
    "vbr",
    "slope",
    "replay",
    "twins",
    "live",
    "watched",
    "start",
    "patterns",
    "catch_up",
    "judges",
    "pump",
]
