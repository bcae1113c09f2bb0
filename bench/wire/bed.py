# SPDX-License-Identifier: MIT
"""The two ends of the wire: senders run in the near namespace, the receiver listens in the far one."""
import json
import os
import signal
import subprocess
import tempfile
import time
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

import numpy

ARRIVAL = numpy.dtype(
    [("time", "<u8"), ("length", "<u2"), ("destination", "<u2"), ("sequence", "<u2"), ("", "<u2")]
)


@dataclass
class Recording:
    """What arrived, with CLOCK_MONOTONIC times in nanoseconds."""

    times: numpy.ndarray
    lengths: numpy.ndarray
    destinations: numpy.ndarray
    sequence: numpy.ndarray
    realtime_lead: int

    def between(self, start, end):
        inside = (self.times >= start) & (self.times < end)
        return Recording(
            self.times[inside],
            self.lengths[inside],
            self.destinations[inside],
            self.sequence[inside],
            self.realtime_lead,
        )


class Sender:
    """A running sender. Each one leads a session of its own, and so a scheduling group of its own."""

    def __init__(self, process):
        self.process = process

    def cpu_ns(self):
        """Time on a processor of all threads that live, from the scheduler's own account."""
        return sum(cpu_ns_of(process) for process in self.processes())

    def processes(self):
        """The sender and what it has forked."""
        children = Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text()
        return [self.process.pid, *map(int, children.split())]

    def memory_kib(self):
        """Of the sender and what it has forked; pages that several share count in shares."""
        return sum(memory_kib_of(process) for process in self.processes())

    def wait(self):
        """Returns what the sender wrote to standard error."""
        complaints = self.process.communicate()[1]
        if self.process.returncode != 0:
            raise RuntimeError(f"{self.process.args} failed: {complaints}")
        return complaints


def cpu_ns_of(process):
    spent = 0
    for schedstat in Path(f"/proc/{process}/task").glob("*/schedstat"):
        try:
            spent += int(schedstat.read_text().split()[0])
        except OSError:
            pass  # the thread has ended since
    return spent


def memory_kib_of(process):
    try:
        rollup = Path(f"/proc/{process}/smaps_rollup").read_text()
    except OSError:
        return 0  # the process has ended since
    return sum(int(line.split()[1]) for line in rollup.splitlines() if line.startswith("Pss:"))


class Bed:
    NEAR, FAR = "near", "far"
    NEAR_TWO, FAR_TWO = "near2", "far2"  # a second path
    BOTH = "both"  # at the far end: what comes on either

    def __init__(self, near_namespace, far_namespace, programs):
        self.near = ["nsenter", f"--net=/run/netns/{near_namespace}"]
        self.far = ["nsenter", f"--net=/run/netns/{far_namespace}"]
        self.programs = Path(programs)

    @contextmanager
    def sender(self, command, environment=None):
        """Runs a command until the block ends; ended by force if it has not ended itself."""
        process = subprocess.Popen(
            self.near + [str(part) for part in command],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,
            env=environment,
        )
        try:
            yield Sender(process)
        finally:
            end_group(process)

    @contextmanager
    def recording(self, device=FAR):
        """Yields a list that holds the Recording once the block has ended."""
        result = []
        with tempfile.TemporaryDirectory() as directory:
            path = os.path.join(directory, "arrivals")
            # Hundreds of senders that are behind would leave a judge of ordinary rank no time to keep up.
            receiver = subprocess.Popen(
                self.far + ["nice", "-n", "-20", self.programs / "wire_receiver", device, path],
                stdout=subprocess.PIPE,
                text=True,
            )
            if receiver.stdout.readline() != "ready\n":
                raise RuntimeError("the receiver did not start")
            try:
                yield result
            finally:
                receiver.terminate()
                report = json.loads(receiver.communicate()[0])
            if report["dropped"] > 0:
                raise RuntimeError(f"the receiver missed {report['dropped']} frames")
            result.append(read_recording(path, report["realtime_lead_ns"]))

    @contextmanager
    def both_paths(self):
        """While it lasts what comes on either path is seen on a bridge, too, which passes nothing on from one to the other."""
        commands = [f"ip link add {self.BOTH} type bridge mcast_snooping 0", f"ip link set dev {self.BOTH} up"]
        for port in (self.FAR, self.FAR_TWO):
            commands += [f"ip link set dev {port} master {self.BOTH}", f"bridge link set dev {port} isolated on"]
        for command in commands:
            subprocess.run([*self.far, *command.split()], check=True)
        try:
            yield
        finally:
            subprocess.run([*self.far, "ip", "link", "delete", self.BOTH], check=True)

    def arrived(self):
        """Frames that have arrived at the far adapter so far, whether anybody listens or not."""
        shown = subprocess.run(
            self.far + ["ip", "-json", "-stats", "link", "show", "dev", self.FAR],
            capture_output=True,
            check=True,
            text=True,
        ).stdout
        return json.loads(shown)[0]["stats64"]["rx"]["packets"]


def read_recording(path, leads):
    arrivals = numpy.fromfile(path, ARRIVAL)
    if abs(leads[1] - leads[0]) > 1_000_000:
        raise RuntimeError("the system's clock was set while frames were recorded")
    lead = sum(leads) // 2
    return Recording(
        arrivals["time"].astype(numpy.int64) - lead, arrivals["length"], arrivals["destination"], arrivals["sequence"], lead
    )


def end_group(process):
    """Ends a process and its children: it leads their group."""
    for number in (signal.SIGTERM, signal.SIGKILL):
        if process.poll() is None:
            os.killpg(process.pid, number)
            try:
                process.wait(timeout=3)
            except subprocess.TimeoutExpired:
                pass
    if process.stderr is not None:
        process.stderr.close()


@contextmanager
def busy_processors():
    """Keeps every processor busy, in a session of its own as every sender."""
    stress = subprocess.Popen(
        ["stress-ng", "--quiet", "--cpu", str(os.cpu_count())],
        start_new_session=True,
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
    )
    try:
        time.sleep(0.3)
        yield
    finally:
        end_group(stress)
