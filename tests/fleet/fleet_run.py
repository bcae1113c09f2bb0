# SPDX-License-Identifier: MIT
"""A lineup that a cluster plays in parts, by the batch script of examples/fleet, and what the meter says about it."""
import itertools
import json
import os
import struct
import subprocess
import time

IPPLAY = os.environ["IPPLAY"]
EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples", "fleet")
DATAGRAM = 7 * 188  # bytes of payload
RATE = 1_000_000  # bits of transport stream per second, of a channel
ROUND = 95 * 7  # packets of a second
GAP_NS = DATAGRAM * 8 * 10**9 // RATE


def write_prolog(cluster_folder):
    """The example's prolog for the adapter of these nodes, whose clock is the machine's and needs no check."""
    path = os.path.join(cluster_folder, "prolog")
    with open(path, "w", encoding="ascii") as file:
        file.write(f'#!/bin/sh\nPATH="{os.path.dirname(IPPLAY)}:$PATH" IPPLAY_ADAPTER=port IPPLAY_MAX_CLOCK_ERROR=none '
                   f"exec {os.path.join(EXAMPLES, 'prolog.sh')}\n")
    os.chmod(path, 0o755)
    return path


def group_of(number):
    return f"239.9.{number // 250}.{number % 250 + 1}"


def spread_of(name):
    """Where in its first gap a channel starts, 0 to 1: FNV-1a of its name, folded and multiplied."""
    value = 14695981039346656037
    for byte in name.encode():
        value = (value ^ byte) * 1099511628211 % 2**64
    value ^= value >> 32
    return (value * 0x9E3779B97F4A7C15 % 2**64 >> 11) / 2**53


class FleetRun:
    """One lineup on all nodes of the cluster: submitted by the constructor, to start so many seconds later."""

    def __init__(self, cluster, name, *, channels, seconds, delay):
        self.cluster = cluster
        cluster.arrivals.begin()
        self.groups = {f"channel {number:03}": group_of(number) for number in range(1, channels + 1)}
        self.folder = cluster.path(name)
        self.results = os.path.join(self.folder, "results")
        os.makedirs(self.results)
        self.lineup = self._write_lineup(channels, seconds)
        self.start = int(time.time()) + delay  # since 1970
        self.parts = len(cluster.nodes)
        self.job = cluster.submit(
            os.path.join(EXAMPLES, "lineup.sbatch"), f"--array=1-{self.parts}", f"--output={self.folder}/log-%a",
            "--open-mode=append", PATH=f"{os.path.dirname(IPPLAY)}:{os.environ['PATH']}", LINEUP=self.lineup, RESULTS=self.results,
            START_AT=time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(self.start)))

    def _write_lineup(self, channels, seconds):
        with open(os.path.join(self.folder, "stream.ts"), "wb") as file:
            file.write(b"".join(struct.pack(">BHB", 0x47, 0x100, 0x10 | index % 16) + bytes(184) for index in range(ROUND)))
        path = os.path.join(self.folder, "channels.toml")
        with open(path, "w", encoding="ascii") as file:
            file.write(f"""
                [defaults]
                device = "port"
                bitrate = {RATE}
                loop = {seconds}
                [[generate]]
                name = "channel {{n:3}}"
                count = {channels}
                input = "stream.ts"
                to = "rtp://239.9.{{n/250}}.{{n%250+1}}:5004"
                """)
        return path

    def sleep_until(self, seconds):
        """Since the start."""
        time.sleep(max(0, self.start + seconds - time.time()))

    def wait_until_all_play(self, seconds=60):
        self.cluster.wait_for(self.job, lambda tasks: [task[0] for task in tasks.values()] == ["RUNNING"] * self.parts, seconds,
                              "starting the tasks")

    def wait_until_all_ended(self, seconds):
        def are_over(tasks):
            return tasks and all(state in ("COMPLETED", "FAILED", "CANCELLED") for state, *_ in tasks.values())
        return self.cluster.wait_for(self.job, are_over, seconds, "playing to the end")

    def node_of(self, machine):
        return next(node for node in self.cluster.nodes if node.name == machine)

    def gather(self, *options):
        """(exit status, what is printed)"""
        done = subprocess.run([IPPLAY, "gather", self.results, "--lineup", self.lineup, *options], stdout=subprocess.PIPE, text=True,
                              check=False)
        return done.returncode, done.stdout

    def gathered(self, *options):
        status, text = self.gather("--json", *options)
        return status, json.loads(text)

    # ---- By the meter ----

    def start_errors(self):
        """machine -> how much later than ordered each of its channels started, ns; of the first run only."""
        errors = {}
        for node in self.cluster.nodes:
            for name, group in self.groups.items():
                first = self.cluster.arrivals.first.get((node.mac, group))
                due = self.start * 10**9 + spread_of(name) * GAP_NS
                if first is not None and first - due < 10**9:
                    errors.setdefault(node.name, []).append(round(first - due))
        return errors

    def mismatches(self, document):
        """Channels whose frames at the meter are not those of their results: each of the run, each once, in order."""
        wrong = []
        for channel in document["channels"]:
            key = self.node_of(channel["machine"]).mac, self.groups[channel["name"]]
            numbers = self.cluster.arrivals.sequences[key]
            steps = {(after - before) % 2**16 for before, after in zip(numbers, numbers[1:])}
            if len(numbers) != channel["datagrams"] or steps != {1}:
                wrong.append((channel["name"], channel["machine"], channel["datagrams"], len(numbers), sorted(steps)[:4]))
        return wrong


def skews(errors):
    """Between any two channels on different machines, sorted, ns."""
    return sorted(abs(a - b) for (_, one), (_, other) in itertools.combinations(errors.items(), 2) for a in one for b in other)


def percentile(values, share):
    return values[min(len(values) - 1, int(share * len(values)))]
