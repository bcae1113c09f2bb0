# SPDX-License-Identifier: MIT
"""What a playout says about its own timing, and what becomes of datagrams that are late."""
import json
import os
import time
import unittest
from datetime import datetime, timedelta, timezone

from playbed import SAMPLE, PlayCase, Played, interrupt, is_playout, read_file, rtp_header

TARGET = ("--to", "rtp://239.1.1.1:5004")
PAUSE = 0.4
DATAGRAM = 7 * 188


class LateInput(PlayCase):
    def play_with_a_pause(self, *options, status=0):
        """A stream by a pipe, whose second half comes a while after the first has left or was left out."""
        content = read_file(SAMPLE)
        half = len(content) // 2
        self.bed.capture.begin()
        begun = time.monotonic()
        read_end, write_end = os.pipe()
        player = self.bed.start("play", "-", *TARGET, "--raw", "--bitrate", "4M", "--json", *options, stdin=read_end)
        os.close(read_end)
        with open(write_end, "wb", buffering=0) as pipe:
            pipe.write(content[:half])
            over = 0
            while over < half // DATAGRAM:
                record = json.loads(player.stdout.readline()).get("departures", {})
                over = sum(record.get(outcome, 0) for outcome in ("on_time", "late", "left_out"))
            time.sleep(PAUSE)
            pipe.write(content[half:])
        output, errors = player.communicate()
        self.took = time.monotonic() - begun
        self.bed.catch_up()
        self.assertEqual(player.returncode, status, f"{options}\n{output}\n{errors}")
        return Played(status, output, errors, [arrival for arrival in self.bed.capture.frames if is_playout(arrival[1])])

    def test_each_rule_says_what_it_did(self):
        """All but dropping deliver every byte; how late, or how many were left out, is in the record."""
        least = PAUSE * 0.9e9
        for rule in ("bounded", "catch-up", "shift", "drop"):
            with self.subTest(rule):
                played = self.play_with_a_pause("--late", rule)
                self.assertIn("INPUT was not there in time: ", played.errors)
                record = json.loads(played.output.splitlines()[-1])["departures"]
                self.assertGreaterEqual(record["dry_times"], 1)
                # No less than the pause, and no more than all the time that passed.
                self.assertGreater(record["dry_ns"], least)
                self.assertLess(record["dry_ns"], self.took * 1e9)
                self.assertEqual(record["left_out"] > 0, rule == "drop")
                self.assertEqual(record["shift_ns"] > least, rule == "shift")
                self.assertEqual(record["on_time"] + record["late"], len(played.frames))
                self.assertEqual(len(played.frames) + record["left_out"], 203)
                if rule != "drop":
                    self.assertEqual(played.payload(54), read_file(SAMPLE))
                    self.assertGreater(record["lateness_ns"]["max"], least)

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


class Starts(PlayCase):
    def test_time_of_day(self):
        """Not before the time, and no later than the frames are late by the playout's own record."""
        for name, options in (("rate", ("--speed", "20")), ("PCRs", ("--speed", "20", "--bitrate", "1M"))):
            with self.subTest(name):
                at = datetime.now(timezone.utc) + timedelta(seconds=1.5)
                played = self.bed.play(SAMPLE, *TARGET, *options, "--start-at", at.isoformat(), "--json")
                if "has passed" in played.errors:  # which it has on a machine that took so long to begin
                    self.assertGreater(datetime.now(timezone.utc), at)
                    continue
                self.assertEqual(played.status, 0, played.errors)
                self.assertIn("note: --start-at: starts at ", played.errors)
                first = played.arrivals[0][0] - at.timestamp()
                self.assertGreaterEqual(first, 0)
                lateness = json.loads(played.output.splitlines()[-1])["departures"]["lateness_ns"]["max"]
                self.assertLess(first - lateness / 1e9, 1)

    def test_time_that_is_over(self):
        played = self.play(SAMPLE, *TARGET, "--start-at", "2026-01-31T12:00:00+01:00", status=1)
        self.assertIn("the time of --start-at has passed", played.errors)
        self.assertEqual(played.frames, [])


class Links(PlayCase):
    def test_what_a_link_loses_is_counted(self):
        player = self.bed.start("play", SAMPLE, *TARGET, "--wait-link", "--loop", "forever", "--json")
        self.addCleanup(self.bed.set_link, "up")

        def departures(until):
            found = {}
            while not (found and until(found)):
                found = json.loads(player.stdout.readline()).get("departures", {})
            return found

        departures(lambda found: found["on_time"] > 0)
        self.bed.set_link("down")
        departures(lambda found: found["not_sent"] > 0)
        self.bed.set_link("up")
        sent = departures(lambda found: True)
        departures(lambda found: found["on_time"] > sent["on_time"])
        interrupt(player)
        output, errors = player.communicate()
        self.assertEqual(player.returncode, 0, errors)
        self.assertIn("the adapter takes no frames", errors)
        self.assertGreater(json.loads(output.splitlines()[-1])["departures"]["not_sent"], 0)


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
