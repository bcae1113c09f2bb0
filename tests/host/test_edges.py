# SPDX-License-Identifier: MIT
"""What reaches a command from outside while it runs: signals, links, pipes."""

import array
import contextlib
import fcntl
import json
import os
import select
import signal
import subprocess
import sys
import termios
import unittest

from playbed import IPPLAY, SAMPLE, PlayBed, PlayCase, read_file

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "measure"))
from frames import Playout, write_pcap  # noqa: E402

PLAY = ("play", SAMPLE, "--to", "rtp://239.1.1.1:5004", "--loop", "forever", "--stats", "json", "--quiet")
MEASURE = ("measure", "any", "--json")


def holds_open(process, path):
    folder = f"/proc/{process.pid}/fd"
    for number in os.listdir(folder):
        with contextlib.suppress(FileNotFoundError):  # closed meanwhile
            if os.path.samefile(os.path.join(folder, number), path):
                return True
    return False


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

    def test_a_long_preparation_has_nothing_to_print(self):
        """Measuring has not begun while --expect is read: the signal ends the process as any other."""
        path = self.path("long.ts")
        with open(path, "wb") as file:
            file.truncate(8 << 30)
        process = subprocess.Popen([IPPLAY, "measure", os.devnull, "--expect", path], stdout=subprocess.PIPE)
        while process.poll() is None and not holds_open(process, path):
            pass
        process.send_signal(signal.SIGTERM)
        self.assertEqual((process.communicate()[0], process.returncode), (b"", -signal.SIGTERM))


class Captures(PlayCase):
    """A capture that is still being written, and an adapter whose link goes."""

    PACED = Playout(datagrams=300)

    def feed(self, frames, arguments):
        """Measures a pipe that gives so many whole frames and ten bytes of the next, and stays open."""
        path = self.path("whole.pcap")
        write_pcap(path, self.PACED.capture())
        content = read_file(path)
        length = 16 + int.from_bytes(content[32:36], "little")
        process = subprocess.Popen([IPPLAY, "measure", "-", "--json", *arguments], stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        os.write(process.stdin.fileno(), content[:24 + frames * length + 10])
        return process

    def frames(self, process, status=0):
        with process.stdout, process.stderr:
            output, errors = process.stdout.read(), process.stderr.read()
        self.assertEqual(process.wait(), status, errors)
        return json.loads(output)["total"]["rate"]["frames"]

    def test_a_pipe_is_measured_as_it_comes(self):
        for arguments, frames in ((("--count", "5"), 5), (("--duration", "20ms"), 20),
                                  (("--filter", "udp port 9", "--wait", "100ms"), 0), (("--silence", "100ms"), 40)):
            with self.subTest(arguments=arguments):
                # Whatever comes behind the end has not been waited for: the pipe stays open.
                process = self.feed(40, arguments)
                self.assertEqual(self.frames(process), frames)
                process.stdin.close()

    def test_a_stop_within_a_frame_prints_what_came(self):
        process = self.feed(40, ("--max-loss", "0"))
        waiting = array.array("i", [1])
        while waiting[0] > 0:  # bytes that it has not read
            fcntl.ioctl(process.stdin, termios.FIONREAD, waiting)
        process.send_signal(signal.SIGINT)
        self.assertEqual(self.frames(process), 40)
        process.stdin.close()

    @unittest.skipIf(os.environ.get("IPPLAYOUT_SANITIZE"), "sanitizers need address space without end")
    def test_memory_that_runs_out(self):
        """One stream after the other, until there is no more; the sums are printed."""
        path, playout = self.path("many.pcap"), Playout(datagrams=1, ts_per_datagram=1)
        payload, = playout.payloads()
        frames = []
        for playout.ssrc in range(8000):
            frames.append((10**18 + 1000 * playout.ssrc, playout.frame(0, 0, payload)))
        write_pcap(path, frames)
        for mebibytes in (160, 200, 240):
            run = subprocess.run(["prlimit", f"--as={mebibytes << 20}", IPPLAY, "measure", path, "--json"],
                                 capture_output=True)
            with self.subTest(mebibytes=mebibytes):
                self.assertEqual(run.returncode, 1, run.stderr)
                self.assertIn(b"no memory left", run.stderr)
                self.assertGreater(json.loads(run.stdout)["total"]["rate"]["frames"], 1000)

    def test_a_file_that_grows_and_names(self):
        path = self.path(PlayBed.NEAR)  # as an adapter's
        write_pcap(path, self.PACED.capture())
        content = read_file(path)
        with open(path, "wb") as file:
            file.write(content[:100_000])
            file.flush()
            process = subprocess.Popen([IPPLAY, "measure", "./" + PlayBed.NEAR, "--follow", "--count", "300", "--json"],
                                       cwd=self.folder.name, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            file.write(content[100_000:])
            file.flush()
            self.assertEqual(self.frames(process), 300)
        run = subprocess.run([IPPLAY, "measure", PlayBed.NEAR, "--wait", "1ms", "--json"], cwd=self.folder.name,
                             preexec_fn=self.bed.near.enter, capture_output=True, check=True)
        self.assertTrue(json.loads(run.stdout)["capture"]["live"])

    def test_a_link_that_goes(self):
        for back, status in ((True, 0), (False, 1)):
            with self.subTest(back=back):
                process = subprocess.Popen([IPPLAY, "measure", PlayBed.FAR, "--json"], preexec_fn=self.bed.far.enter,
                                           stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                said = [process.stderr.readline()]
                for state in ("down", "up") if back else ("down",):
                    self.bed.far.run("ip", "link", "set", PlayBed.FAR, state)
                    said.append(process.stderr.readline())
                process.send_signal(signal.SIGINT)
                output, errors = process.communicate()
                self.bed.far.run("ip", "link", "set", PlayBed.FAR, "up")
                self.assertEqual(process.returncode, status, errors)
                self.assertIn(b"is down", said[1])
                json.loads(output)


if __name__ == "__main__":
    unittest.main()
