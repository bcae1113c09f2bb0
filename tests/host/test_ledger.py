# SPDX-License-Identifier: MIT
"""The ledger of a playout, as tshark reads it, against what a capture at the far end has and lacks."""
import json
import os
import re
import subprocess
import unittest

from playbed import SAMPLE, PlayCase
from playouts import read_pcapng
from test_faults import COUNT, TO, flipped, number, sums_up

FIELDS = ("frame.time_epoch", "frame.comment", "rtp.seq")
FORM = re.compile(r"datagram (\d+): (?:(\d+\.\d{3}) us (?:late|early) \((kernel stamp|hand-over)\)|not sent)(.*)")
HELD = "an earlier one, delayed on purpose until here"


class Ledger(PlayCase):
    def ledger(self, path):
        """A row for each frame: time in nanoseconds, RTP sequence number, stamp or hand-over or None, words; with the
        bytes of the frame."""
        command = ["tshark", "-n", "-r", path, "-T", "fields", "-d", "udp.port==5004,rtp"]
        text = subprocess.run(command + [part for field in FIELDS for part in ("-e", field)], check=True, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
        rows = []
        for line, (time, frame) in zip(text.splitlines(), read_pcapng(path), strict=True):
            epoch, comment, sequence = line.split("\t")
            form = FORM.fullmatch(comment)
            self.assertIsNotNone(form, comment)
            seconds, nanoseconds = epoch.split(".")
            self.assertEqual(int(seconds) * 10**9 + int(nanoseconds), time)
            marks = form[4].split("; ")[1:]
            if HELD not in marks:
                self.assertEqual(int(form[1]) % 65536, int(sequence))
            rows.append((time, int(sequence), form[3], marks, frame))
        return rows

    def test_it_has_what_the_far_end_has_and_what_it_lacks(self):
        path = self.path("wire.pcapng")
        played = self.play(SAMPLE, *TO, "--speed", "4", "--lose", "1/20", "--bad-udp-checksum", "1/50", "--at", "100ms",
                           "duplicate:3", "--at", "200ms", "corrupt:4", "--at", "400ms", "delay", "--at", "500ms", "delay",
                           "--ledger", path, "--json")
        rows = self.ledger(path)
        sent = [row for row in rows if row[2] is not None]
        # Each frame of the far end, in its order, and no other one.
        self.assertEqual([frame for *_, frame in sent], played.frames)
        self.assertEqual({how for _, _, how, _, _ in sent}, {"kernel stamp"})
        for (left, *_), (arrived, _) in zip(sent, played.arrivals):
            self.assertLess(left / 1e9, arrived + 2e-6)  # for what two clocks can be compared to
        # What is missing there, and what is wrong with what is there, by the frames alone.
        arrived = [number(frame) for frame in played.frames]
        self.assert_marks(rows, "lost on purpose", sorted(set(range(COUNT)) - set(arrived)))
        self.assert_marks(rows, "duplicate on purpose",
                          [n for n, before in zip(arrived[1:], arrived) if n == before])
        self.assert_marks(rows, "corrupted on purpose",
                          sorted({n for n, frame in zip(arrived, played.frames) if flipped(frame, n)}))
        self.assert_marks(rows, "wrong UDP checksum on purpose",
                          [n for n, frame in zip(arrived, played.frames) if not sums_up(frame)])
        behind = [n for n, before in zip(arrived[1:], arrived) if n < before]
        self.assertEqual(len(behind), 2)
        self.assert_marks(rows, "delayed on purpose", behind)
        self.assert_marks(rows, HELD, behind)
        summary = json.loads(played.output.splitlines()[-1])
        self.assertEqual(summary["ledger"], {"file": path, "left_out": 0})

    def assert_marks(self, rows, words, numbers):
        self.assertEqual([sequence for _, sequence, _, marks, _ in rows if words in marks], numbers, words)
        self.assertNotEqual(numbers, [], words)

    def test_that_of_a_file_is_the_file_and_what_it_lacks(self):
        """More frames than there is room for at a time: none is left out where time is virtual."""
        path, into = self.path("file-ledger.pcapng"), self.path("into.pcapng")
        played = self.play(SAMPLE, *TO, "--loop", "12", "--lose", "1/10", "--into", into, "--ledger", path)
        rows = self.ledger(path)
        self.assertEqual([(time, frame) for time, _, how, _, frame in rows if how], read_pcapng(into))
        self.assertEqual({how for _, _, how, _, _ in rows}, {"hand-over", None})
        self.assertEqual([sequence for _, sequence, *_ in rows], list(range(len(rows))))
        self.assertEqual([sequence for _, sequence, how, *_ in rows if not how], list(range(0, len(rows), 10)))
        self.assertGreater(len(rows), 2 * 1024)
        self.assertIn(f"  ledger     {path}\n", played.output)

    def test_what_cannot_be_written(self):
        """Not under that name, not in that folder, and over no file that is read, written, or named in a configuration file only."""
        taken, config = self.path("taken.pcapng"), self.path("config")
        played = self.play(SAMPLE, *TO, "--into", taken)
        with open(config, "w", encoding="ascii") as file:
            file.write(f"[play]\nledger={taken}\n")
        with open(SAMPLE, "rb") as sample, open(self.path("copy.ts"), "wb") as copy:
            copy.write(sample.read())
        os.link(self.path("copy.ts"), self.path("other.pcapng"))
        rows = [
            ((SAMPLE, self.path("copy.ts"), "--ledger", self.path("other.pcapng")), 2, "other.pcapng is INPUT; give another file"),
            ((self.path("copy.ts"), "--sdp", self.path("copy.ts")), 2, "copy.ts is INPUT; give another file"),
            ((SAMPLE, "--to", "rtp://239.1.1.2:5004", "--to", self.path("c.pcapng"), "--ledger", self.path("c.pcapng")), 2,
             "is the file of --to; give another one"),
            ((SAMPLE, "--ledger", "ledger.csv"), 2, "a file whose name ends in .pcapng"),
            ((taken, "--ledger", taken), 2, f"--ledger {taken} is INPUT; give another file"),
            ((SAMPLE, "--config", config), 2, "a configuration file replaces no other file; give it with --ledger"),
            ((SAMPLE, "--into", self.path("a.pcapng"), "--ledger", self.path("a.pcapng")), 2,
             "is the file of --into; give another one"),
            ((SAMPLE, "--priority", "normal", "--ledger", self.path("b.pcapng")), 2,
             "--ledger needs frames that are paced one by one"),
            ((SAMPLE, "--ledger", self.path("none/ledger.pcapng")), 1, "none/ledger.pcapng: cannot create the file"),
        ]
        for arguments, status, message in rows:
            with self.subTest(message):
                played = self.play(*arguments, *TO, status=status)
                self.assertIn(message, played.errors)
                self.assertEqual(played.frames, [])
        self.assertFalse(os.path.exists(self.path("a.pcapng")))


if __name__ == "__main__":
    unittest.main()
