# SPDX-License-Identifier: MIT
"""What reaches a command from outside while it runs: signals, links, pipes."""

import json
import select
import signal
import subprocess
import unittest

from playbed import IPPLAY, SAMPLE, PlayCase

PLAY = ("play", SAMPLE, "--to", "rtp://239.1.1.1:5004", "--loop", "forever", "--stats", "json", "--quiet")
MEASURE = ("measure", "any", "--json")


class Signals(PlayCase):
    def begin(self, command, ignored=()):
        def prepare():
            self.bed.near.enter()
            for number in ignored:
                signal.signal(number, signal.SIG_IGN)
        process = subprocess.Popen([IPPLAY, *command], preexec_fn=prepare, text=True,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        # The first line says that it runs.
        select.select([process.stdout if command is PLAY else process.stderr], [], [])
        return process

    def test_two_at_once_are_one_wish(self):
        for command in (PLAY, MEASURE):
            for first, second in ((signal.SIGINT, signal.SIGINT), (signal.SIGTERM, signal.SIGHUP)):
                with self.subTest(command=command[0], first=first):
                    process = self.begin(command)
                    process.send_signal(first)
                    process.send_signal(second)
                    output, errors = process.communicate()
                    self.assertEqual(process.returncode, 0, errors)
                    json.loads(output if command is MEASURE else output.splitlines()[-1])

    def test_an_ignored_one_stays_ignored(self):
        for command in (PLAY, MEASURE):
            with self.subTest(command=command[0]):
                process = self.begin(command, ignored=(signal.SIGHUP, signal.SIGINT))
                with open(f"/proc/{process.pid}/status", encoding="ascii") as file:
                    ignored = int(next(line for line in file if line.startswith("SigIgn")).split()[1], 16)
                for number in (signal.SIGHUP, signal.SIGINT):
                    self.assertTrue(ignored >> (number - 1) & 1)
                    process.send_signal(number)
                process.send_signal(signal.SIGTERM)
                self.assertEqual((process.wait(), process.communicate()[1].count("Ctrl-C")), (0, 0))


if __name__ == "__main__":
    unittest.main()
