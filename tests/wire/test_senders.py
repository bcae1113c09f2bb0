# SPDX-License-Identifier: MIT
"""The two ways in which frames leave: which one is taken, and that a fault of the adapter hides in neither;
and what else a playout asks of the system."""
import os
import shutil
import socket
import tempfile
import threading
import time

from host import AF_XDP, begin, descriptors, families, in_thread, ready, reap, until_sent
from library import Library
from testbed import Testbed
from wire_case import TYPICAL, Model, WireCase, datagrams

# Ten frames to a batch; no second, for which a sender is patient, has half as many frames as RTP has numbers.
FAST = {**TYPICAL, "IPBitRate": 300.0}
DATA = datagrams(Model(FAST), 20000)
EXPECTED, STATISTICS = Model(FAST).play(DATA)
PATIENCE = 1.0  # seconds that a playout waits for a link


def senders():
    """AF_XDP sockets among those that frames can leave through."""
    return families().count(AF_XDP)


def keep_writing(library, done):
    result = 0
    while not done.is_set() and result == 0:
        result = library.write(DATA)
    return result


def interrupted(library, run, *commands):
    """A playout in the middle of which `commands` are run; the result of its last write, the statistics, and how long
    the commands took. Without a second one it lasts until the writer is refused."""
    ready(library, FAST)
    begin(library, through_xdp=True)
    done = threading.Event()
    written = in_thread(keep_writing, library, done)
    until_sent(library, 2000)
    begun = time.monotonic()
    for command in commands:
        run(*command.split())
    took = time.monotonic() - begun
    if len(commands) > 1:
        done.set()
    result = written()
    library.IPWriteTerminate()
    return result, reap(library), took


class Senders(WireCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        socket.socket(AF_XDP, socket.SOCK_RAW).close()  # this kernel has it

    def test_which_one(self):
        """AF_XDP where frames leave in batches; given back at the end."""
        def body(library):
            used = []
            for rate in (TYPICAL["IPBitRate"], FAST["IPBitRate"]):
                ready(library, {**FAST, "IPBitRate": rate})
                begin(library, through_xdp=rate == FAST["IPBitRate"])
                used.append(senders())
                reap(library)
                used.append(senders())
            begin(library, DATA)
            library.IPWriteTerminate()
            return used, reap(library)
        outcome = self.bed.run(body)
        self.assert_frames(outcome, EXPECTED)
        self.assertEqual(outcome.value, ([0, 0, 1, 0], STATISTICS))

    def test_processors_stay_awake(self):
        """While it plays, but for gaps that are longer than any wake-up."""
        def body(library):
            held = []
            for rate in (TYPICAL["IPBitRate"], 0.01):
                ready(library, {**TYPICAL, "IPBitRate": rate})
                begin(library)
                held.append(list(descriptors().values()).count("/dev/cpu_dma_latency"))
                reap(library)
            return held + [list(descriptors().values()).count("/dev/cpu_dma_latency")]
        expected = [1, 0, 0] if os.access("/dev/cpu_dma_latency", os.W_OK) else [0, 0, 0]
        self.assertEqual(self.bed.run(body).value, expected)

    def test_second_playout_on_an_adapter(self):
        """One AF_XDP socket has the adapter's queue; others do without it."""
        def body(library):
            with tempfile.TemporaryDirectory() as folder:
                ready(library, FAST)
                begin(library, through_xdp=True)
                other = Library(shutil.copy(self.bed.library_path, folder))
                ready(other, FAST)
                begin(other, DATA)
                assert senders() == 1
                other.IPWriteTerminate()
                reap(library)
                return reap(other)
        outcome = self.bed.run(body)
        self.assert_frames(outcome, EXPECTED)
        self.assertEqual(outcome.value, STATISTICS)

    def test_adapter_that_changes_in_mid_run(self):
        """What the adapter can no longer take ends the run, and what came before is whole and in order."""
        taken_name = "set near name moved; add near mtu 9000 type veth peer name other; set moved mtu 1000"
        for change in ("set near mtu 1000", "set near down", "delete near", taken_name):
            with self.subTest(change=change):
                bed = Testbed()
                self.addCleanup(bed.close)

                def run(*_, bed=bed, change=change):
                    for command in change.split("; "):
                        bed.near.run("ip", "link", *command.split())
                outcome = bed.run(interrupted, run, "")
                self.assertEqual(outcome.value[0], Library.FAILED)
                self.assertIn("An error occurred sending the packets", outcome.printed)
                whole = EXPECTED[:-1]
                self.assertTrue(outcome.frames[:len(whole)] == whole[:len(outcome.frames)])

    def test_link_that_comes_back(self):
        """A link lost for a moment costs what was on the wire; all the rest arrives once and in order."""
        with tempfile.NamedTemporaryFile("w") as steps:
            print("link set far down\nlink set far up", file=steps, flush=True)
            outcome = self.bed.run(interrupted, self.bed.far.run, *[f"ip -batch {steps.name}"] * 5)
        result, statistics, took = outcome.value
        numbers = [int.from_bytes(frame[44:46], "big") for frame in outcome.frames]
        for before, after in zip(numbers, numbers[1:]):
            self.assertLess((after - before - 1) % 65536, 32768, "a frame came twice or late")
        if took < PATIENCE:  # else the machine may have kept the link away for longer than a playout waits for one
            self.assertEqual(result, 0)
            self.assertNotIn("An error occurred", outcome.printed)
            last = FAST["SequenceNumber"] + statistics["DatagramsSent"] - 1
            self.assertEqual(numbers[-1], last % 65536)
