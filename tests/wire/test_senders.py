"""The two ways in which frames leave: which one is taken, and that a fault of the adapter hides in neither."""
import os
import shutil
import tempfile
import threading

from host import begin, in_thread, ready, reap, until_sent
from library import Library
from testbed import Testbed
from wire_case import TYPICAL, Model, WireCase, datagrams, play

FAST = {**TYPICAL, "IPBitRate": 500.0}  # ten frames to a batch, as many as are due to a burst
DATA = datagrams(Model(FAST), 20000)
EXPECTED, STATISTICS = Model(FAST).play(DATA)
LEAVE = "frames leave through "
SENDERS = {"socket": "packet socket", "xdp": "AF_XDP", "auto": "AF_XDP"}


def choose(sender):
    os.environ["IPPLAYOUT_SENDER"] = sender  # read when an adapter is opened for the first time


def play_through(library, sender, data):
    choose(sender)
    return play(library, FAST, data)


def keep_writing(library, done):
    result = 0
    while not done.is_set() and result == 0:
        result = library.write(DATA)
    return result


def interrupted(library, sender, run, *commands):
    """A playout in the middle of which `commands` are run; what its writer was told, and the statistics.
    Without a second command it lasts until the writer is refused."""
    choose(sender)
    ready(library, FAST)
    begin(library)
    done = threading.Event()
    written = in_thread(keep_writing, library, done)
    until_sent(library, 2000)
    for command in commands:
        run(*command.split())
    if len(commands) > 1:
        done.set()
    result = written()
    library.IPWriteTerminate()
    return result, reap(library)


class Senders(WireCase):
    def test_choice(self):
        for sender, name in SENDERS.items():
            outcome = self.bed.run(play_through, sender, DATA)
            self.assert_frames(outcome, EXPECTED)
            self.assertEqual(outcome.value, STATISTICS)
            self.assertIn(LEAVE + name, outcome.printed)

    def test_second_playout_on_an_adapter(self):
        """One AF_XDP socket has the adapter's queue; others fall back, or are refused where they may not."""
        def body(library, sender):
            with tempfile.TemporaryDirectory() as folder:
                choose("auto")
                ready(library)
                begin(library)
                choose(sender)
                other = Library(shutil.copy(self.bed.library_path, folder))
                ready(other, FAST)
                started = other.IPStart()
                if started == 0:
                    assert other.write(DATA) == 0
                    other.IPWriteTerminate()
                reap(other)
                reap(library)
                return started
        outcome = self.bed.run(body, "auto")
        self.assertEqual(outcome.value, 0)
        self.assert_frames(outcome, EXPECTED)
        for name in SENDERS.values():
            self.assertEqual(outcome.printed.count(LEAVE + name), 1)
        self.assertEqual(self.bed.run(body, "xdp").value, Library.FAILED)

    def test_adapter_that_changes_in_mid_run(self):
        """What the adapter can no longer take ends the run, and what came before is whole and in order."""
        for sender in ("socket", "xdp"):
            for change in ("set near mtu 1000", "set near down", "delete near"):
                with self.subTest(sender=sender, change=change):
                    bed = Testbed()
                    self.addCleanup(bed.close)
                    outcome = bed.run(interrupted, sender, bed.near.run, "ip link " + change)
                    self.assertEqual(outcome.value[0], Library.FAILED)
                    self.assertIn("An error occurred sending the packets", outcome.printed)
                    whole = EXPECTED[:-1]
                    self.assertTrue(outcome.frames[:len(whole)] == whole[:len(outcome.frames)])

    def test_link_that_comes_back(self):
        """A link lost for a moment costs what was on the wire; all the rest arrives once and in order."""
        for sender in ("socket", "xdp"):
            with self.subTest(sender=sender):
                outcome = self.bed.run(interrupted, sender, self.bed.far.run,
                                       *["ip link set far down", "ip link set far up"] * 5)
                result, statistics = outcome.value
                self.assertEqual(result, 0)
                self.assertNotIn("An error occurred", outcome.printed)
                numbers = [int.from_bytes(frame[44:46], "big") for frame in outcome.frames]
                for before, after in zip(numbers, numbers[1:]):
                    self.assertLess((after - before - 1) % 65536, 32768, "a frame came twice or late")
                last = FAST["SequenceNumber"] + statistics["DatagramsSent"] - 1
                self.assertEqual(numbers[-1], last % 65536)
