# SPDX-License-Identifier: MIT
"""Rows for what runs for long: a live pipe, a relay, and the same file beside multicat, all at once."""
import subprocess
import sys
import time
from itertools import islice
from pathlib import Path

import numpy

import analysis
from live_source import datagrams
from schedule_rows import slope_ppm
from senders import PAYLOAD, PORT
from table import Table

RATE = 4_000_000  # bits per second of the streams
GROUP = "239.1.2."  # and the number of a stream
PIPE, RELAY, MULTICAT, FILE = 1, 2, 3, 4
RELAY_INPUT = "127.0.0.1:6000"
WINDOW = 10  # seconds in which the usual delay is taken


class LiveRows:
    def live(self):
        """Encoders with clocks of their own, one 40 ppm fast and one 40 ppm slow, and a file by the system's clock."""
        seconds = round(self.minutes * 60)
        table = Table(
            f"{self.minutes:g} min at 4 Mb/s, all at once: delay behind the encoder, or error against the file's PCRs",
            {
                "datagrams": "", "missing": "", "drift": "ppm", "delay at first": "ms", "at last": "ms",
                "p50": "µs", "p99": "µs", "max": "µs",
            },
        )
        path = self.senders.material.directory / "live.ts"
        with open(path, "wb") as file:
            file.writelines(islice(datagrams(RATE), seconds * RATE // 8 // PAYLOAD))
        subprocess.run(["ingests", "-p", "257", path], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        for _ in range(self.rounds):
            recording, starts = self.play_live(path, seconds)
            for name, number, start, ppm in (
                ("live pipe, 40 ppm fast", PIPE, starts[0], 40), ("relay, 40 ppm slow, 10 ms of jitter", RELAY, starts[1], -40),
                ("file", FILE, None, 0), ("file, multicat", MULTICAT, None, 0),
            ):
                if self.wanted in name:
                    table.add(name, delays_of(recording, number, start, ppm, seconds))
        return table

    def play_live(self, path, seconds):
        """What arrived of all four, and when the two encoders began."""
        near = " ".join(self.bed.near)
        subprocess.run([*self.bed.near, "ip", "link", "set", "lo", "up"], check=True)
        source = f"{near} {sys.executable} {Path(__file__).with_name('live_source.py')} {RATE} {seconds}"
        play = f"{near} {self.senders.ipplay_program} play --device {self.bed.NEAR} --quiet --to rtp://{GROUP}"
        with self.bed.recording() as result:
            relay = run(f"exec {play}{RELAY}:{PORT} rtp://{RELAY_INPUT} --end-after-silence 3s")
            time.sleep(1)  # the encoder would not wait for its receiver
            pipe = run(f"{source} 40 0 | {play}{PIPE}:{PORT} -")
            encoder = run(f"exec {source} -40 10 {RELAY_INPUT.replace(':', ' ')}")
            starts = [int(process.stderr.readline()) for process in (pipe, encoder)]
            others = [run(f"exec {play}{FILE}:{PORT} {path}"), run(f"exec {near} multicat -u {path} {GROUP}{MULTICAT}:{PORT}")]
            for process in (pipe, encoder, relay, *others):
                complaints = process.communicate()[1]
                if process.returncode != 0:
                    raise RuntimeError(f"{process.args} failed: {complaints}")
        return result[0], starts


def run(command):
    return subprocess.Popen(command, shell=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)


def delays_of(recording, number, start, ppm, seconds):
    """Of one stream: against its encoder that began at `start`, or its own PCRs where there is none."""
    mine = recording.destinations == (2 << 8 | number)
    times = recording.times[mine]
    gap = PAYLOAD * 8e9 / RATE / (1 + ppm * 1e-6)
    places = numpy.arange(len(times))
    if number != MULTICAT:  # which has no numbers, and leaves some datagrams out at the end
        places = numpy.unwrap(recording.sequence[mine].astype(int), period=65536)
        places -= places[0]
    due = places * gap
    late = times - (times[0] if start is None else start) - due
    windows = numpy.array_split(numpy.arange(len(times)), max(2, seconds // WINDOW))
    errors = numpy.abs(late - numpy.median(late)) / 1000 if start is None else steady_errors(late, windows)
    expected = int(numpy.ceil(seconds * 1e9 / gap)) if start is not None else seconds * RATE // 8 // PAYLOAD
    measured = {
        "datagrams": len(times), "missing": expected - len(times),
        "drift": slope_ppm(due, late),
        **analysis.spread(errors),
    }
    if start is not None:
        measured |= {"delay at first": numpy.median(late[windows[0]]) / 1e6, "at last": numpy.median(late[windows[-1]]) / 1e6}
    return measured


def steady_errors(late, windows):
    """Against what is usual within each ten seconds, which a recovered clock approaches slowly."""
    return numpy.concatenate([numpy.abs(late[part] - numpy.median(late[part])) / 1000 for part in windows])
