# SPDX-License-Identifier: MIT
"""What a playout says about its own timing, and what becomes of datagrams that are late."""
import json
import subprocess
import unittest

from playbed import SAMPLE, PlayCase, read_file, rtp_header

TARGET = ("--to", "rtp://239.1.1.1:5004")
PAUSE = 0.4


class LateInput(PlayCase):
    def play_with_a_pause(self, *options, status=0):
        """0.5 s of stream by a pipe; the second half comes too late."""
        half = len(read_file(SAMPLE)) // 2
        script = f"head -c {half} {SAMPLE}; sleep {PAUSE}; tail -c +{half + 1} {SAMPLE}"
        with subprocess.Popen(["sh", "-c", script], stdout=subprocess.PIPE) as source:
            return self.play("-", *TARGET, "--raw", "--bitrate", "4M", "--json", *options, stdin=source.stdout,
                             status=status)

    def test_each_rule_says_what_it_did(self):
        """All but dropping deliver every byte; how late, or how many were left out, is in the record."""
        for rule in ("bounded", "catch-up", "shift", "drop"):
            with self.subTest(rule):
                played = self.play_with_a_pause("--late", rule)
                self.assertIn("INPUT was not there in time: ", played.errors)
                record = json.loads(played.output.splitlines()[-1])["departures"]
                self.assertGreaterEqual(record["dry_times"], 1)
                # No longer than what the pause left of the first half's time, and the machine's own delays.
                self.assertGreater(record["dry_ns"], PAUSE * 0.2e9)
                self.assertLess(record["dry_ns"], PAUSE * 1e9)
                self.assertEqual(record["left_out"] > 0, rule == "drop")
                self.assertEqual(record["shift_ns"] > PAUSE * 0.2e9, rule == "shift")
                self.assertEqual(record["on_time"] + record["late"], len(played.frames))
                self.assertEqual(len(played.frames) + record["left_out"], 203)
                if rule != "drop":
                    self.assertEqual(played.payload(54), read_file(SAMPLE))
                    self.assertGreater(record["lateness_ns"]["max"], PAUSE * 0.2e9)

    def test_limits_make_the_exit_status(self):
        for options, reason in ((("--max-late", "10ms"), "--max-late: a datagram left "),
                                (("--no-underrun",), "--no-underrun: INPUT was not there in time"),
                                (("--max-late", "10ms", "--late", "drop"), "too late to be sent")):
            played = self.play_with_a_pause(*options, status=1)
            self.assertIn(reason, played.errors)
            self.assertEqual(json.loads(played.output.splitlines()[-1])["outcome"], "Failed")
        self.play_with_a_pause("--max-late", "10s")

    def test_what_paces_in_batches_refuses_them(self):
        for option in (("--late", "drop"), ("--max-late", "1s"), ("--no-underrun",), ("--seed", "1")):
            played = self.play(SAMPLE, *TARGET, "--priority", "normal", *option, status=2)
            self.assertIn(f"{option[0]} needs frames that are paced one by one", played.errors)


class Seeds(PlayCase):
    def test_a_seed_repeats_a_run(self):
        runs = {}
        for name, seed in (("first", ("--seed", 7)), ("again", ("--seed", 7)), ("other", ("--seed", 8))):
            played = self.play(SAMPLE, *TARGET, "--speed", "57", "--lose", "9/50", "--random", "--json",
                               *seed)
            summary = json.loads(played.output.splitlines()[-1])
            self.assertEqual(summary["seed"], seed[1])
            self.assertEqual(len(played.frames) + summary["ordered"]["lost"], 203)
            runs[name] = played.frames
        self.assertEqual(runs["first"], runs["again"])
        self.assertNotEqual(rtp_header(runs["first"][0], 42), rtp_header(runs["other"][0], 42))

    def test_without_one_each_run_has_its_own(self):
        seeds = {json.loads(self.play(SAMPLE, *TARGET, "--speed", "57", "--json").output
                            .splitlines()[-1])["seed"] for _ in range(2)}
        self.assertEqual(len(seeds), 2)


if __name__ == "__main__":
    unittest.main()
