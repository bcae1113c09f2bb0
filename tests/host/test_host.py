# SPDX-License-Identifier: MIT
"""ipplay as a program: exit statuses, messages, JSON, configuration files, keys, signals."""
import fcntl
import json
import os
import pty
import re
import struct
import subprocess
import termios
import unittest

from playbed import FAR4, NEAR4, NEAR6, SAMPLE, PlayCase, events_of, interrupt, read_file, wait_until_sending

TARGET = ("--to", "rtp://239.1.1.1:5004")
PLAYED, FAILED = 0, 1


class Statuses(PlayCase):
    def test_neighbour_that_does_not_answer(self):
        played = self.play(SAMPLE, "--to", "udp://10.77.0.99:5", status=FAILED)
        self.assertEqual((played.frames, played.output), ([], ""))
        self.assertIn("ipplay: 10.77.0.99 does not answer on near", played.errors)

    def test_devices_and_resolve(self):
        def run(*arguments):
            process = self.bed.start(*arguments)
            output, errors = process.communicate()
            return process.returncode, output, errors

        status, output, errors = run("devices", "--json")
        near = next(device for device in json.loads(output)["devices"] if device["name"] == "near")
        self.assertEqual((status, errors), (PLAYED, ""))
        self.assertEqual((near["ipv4"], near["ipv6"], near["link"]), ([NEAR4], [NEAR6], "up"))
        self.assertEqual(near["description"], "Network device")
        self.assertIn(near["mac"], run("devices")[1])
        for address, answer in ((FAR4, f"{self.bed.far_mac}  ARP"),
                                ("fd77::2", f"{self.bed.far_mac}  neighbour discovery"),
                                ("239.129.1.1", "01:00:5e:01:01:01  multicast mapping"),
                                ("ff3e::1:2", "33:33:00:01:00:02  multicast mapping"),
                                ("10.77.0.255", "ff:ff:ff:ff:ff:ff  broadcast"),
                                (NEAR4, f"{near['mac']}  the adapter's own address")):
            self.assertEqual(run("resolve", address, "--device", "near"), (PLAYED, answer + "\n", ""))
        self.assertEqual(run("--version")[0], PLAYED)


class Failing(PlayCase):
    def test_adapter_that_goes_down(self):
        player = self.bed.start("play", SAMPLE, *TARGET, "--stats", "json", "--loop", "forever")
        wait_until_sending(player)
        self.bed.set_link("down")
        output, errors = player.communicate()
        self.assertEqual(player.returncode, FAILED, errors)
        self.assertIn("a frame could not be sent", errors)
        self.assertIn("--wait-link", errors)
        self.assertEqual(json.loads(output.splitlines()[-1])["outcome"], "Failed")

    def test_last_frames_that_cannot_be_sent(self):
        """The library reports them on its output only; whatever the timing, it is no success."""
        stream = read_file(SAMPLE) * 2
        self.bed.set_link("down")
        self.addCleanup(self.bed.set_link, "up")
        for datagrams, options in ((150, ("--burst", 200)), (21, ("--speed", "285"))):
            with open(self.path("short.ts"), "wb") as file:
                file.write(stream[:datagrams * 7 * 188])
            for _ in range(5):
                played = self.play(self.path("short.ts"), *TARGET, "--device", "near", *options,
                                   status=FAILED)
                lost = re.search(r"(\d+) frames at the end could not be sent|at least \d+ lost",
                                 played.errors)
                self.assertIsNotNone(lost, played.errors)
                self.assertIn(lost[1], (str(datagrams), None), played.errors)
                self.assertIn("Failed: ", played.output)

    @unittest.skipIf(os.environ.get("IPPLAYOUT_SANITIZE"), "sanitizers need address space and descriptors")
    def test_start_that_is_refused(self):
        """The reason is found out and not guessed."""
        for limit, reason in (("-n 9", "descriptors have run out; raise the limit of open files (ulimit -n)"),
                              ("-v 100000", "memory has run out")):  # the program fits, with the second of data ahead it does not
            player = self.bed.start("play", SAMPLE, *TARGET, "--device", "near", "--speed", "1000",
                                    prefix=("sh", "-c", f'ulimit {limit}; exec "$0" "$@"'))
            self.assertEqual(player.communicate()[1].splitlines()[-1], f"ipplay: the playout cannot start: {reason}")
            self.assertEqual(player.returncode, FAILED)


class Running(PlayCase):
    def test_json_and_nothing_else(self):
        played = self.play(SAMPLE, *TARGET, "--json", "--lose", "1/100")
        objects = events_of(played.output)
        self.assertEqual([o["event"] for o in objects], ["progress"] * (len(objects) - 1) + ["summary"])
        self.assertGreater(len(objects), 2)
        summary = objects[-1]
        self.assertEqual({**{name: summary[name] for name in ("outcome", "datagrams", "ts_packets",
                                                              "percent")},
                          "lost": summary["ordered"]["lost"]},
                         {"outcome": "Played", "datagrams": 203, "ts_packets": 1418, "lost": 3,
                          "percent": 100.0})
        self.assertEqual(sorted(objects, key=lambda o: o["datagrams"]), objects)

    def test_pause_holds_the_stream(self):
        times = [time for time, _ in self.play(SAMPLE, *TARGET, "--speed", "5.7", "--at", "100ms",
                                               "pause:300ms").arrivals]
        self.assertGreater(max(b - a for a, b in zip(times, times[1:])), 0.25)
        self.assertEqual(len(times), 203)

    def test_stop_by_time_line_and_signal(self):
        played = self.play(SAMPLE, *TARGET, "--loop", "forever", "--at", "200ms", "stop")
        self.assertIn("Stopped by --at", played.output)
        self.assertLess(len(played.frames), 203)
        for arguments in ((SAMPLE, "--speed", "0.015"), (SAMPLE, "--at", "0", "pause")):
            player = self.bed.start("play", *arguments, *TARGET, "--stats", "json", "--loop", "forever")
            player.stdout.readline()
            interrupt(player)
            output, errors = player.communicate()
            self.assertEqual(player.returncode, PLAYED, errors)
            self.assertEqual(json.loads(output.splitlines()[-1])["outcome"], "Stopped by Ctrl-C")

    def test_pipe_that_stays_open_can_be_stopped(self):
        read_end, write_end = os.pipe()
        player = self.bed.start("play", "-", *TARGET, "--stats", "json", stdin=read_end)
        os.close(read_end)
        os.write(write_end, read_file(SAMPLE)[:188 * 1100])  # more than is read ahead
        while json.loads(player.stdout.readline()).get("ts_packets", 0) < 98:
            pass
        interrupt(player)
        output, _ = player.communicate()
        os.close(write_end)
        self.assertEqual(json.loads(output.splitlines()[-1])["outcome"], "Stopped by Ctrl-C")


def read_until(terminal, pattern):
    """What the screen shows anew, until the pattern is in it."""
    fresh = ""
    while not re.search(pattern, fresh):
        fresh += os.read(terminal, 4096).decode()
    return fresh


class LiveTable(PlayCase):
    def test_is_drawn_over_and_over_and_fits(self):
        user, terminal = pty.openpty()
        self.addCleanup(os.close, user)
        self.addCleanup(os.close, terminal)
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("4H", 24, 80, 0, 0))
        meter = subprocess.Popen([os.environ["IPPLAY"], "measure", self.bed.FAR, "--filter", "udp port 5004"],
                                 preexec_fn=self.bed.far.enter, stdout=subprocess.PIPE, stderr=terminal,
                                 text=True)
        read_until(user, "Measuring on")
        player = self.bed.start("play", SAMPLE, *TARGET, "--loop", "forever", "--quiet")
        shown = read_until(user, r"(?s)239\.1\.1\.1:5004.*\x1b\[\d+A\r\x1b\[J.*239\.1\.1\.1:5004 .*\n")
        for process in (player, meter):
            interrupt(process)
            output = process.communicate()[0]
        self.assertRegex(output, r"239\.1\.1\.1:5004")
        self.assertLessEqual(max(len(line) for line in re.sub(r"\x1b\[\d*.|\r", "", shown).split("\n")), 80)


class Keys(PlayCase):
    """A user at a terminal."""

    def setUp(self):
        super().setUp()
        self.user, terminal = pty.openpty()
        self.before = termios.tcgetattr(terminal)

        def sit_down():
            self.bed.near.enter()
            os.setsid()
            fcntl.ioctl(terminal, termios.TIOCSCTTY, 0)

        self.player = subprocess.Popen([os.environ["IPPLAY"], "play", SAMPLE, *TARGET, "--loop", "forever"],
                                       stdin=terminal, stdout=terminal, stderr=terminal, preexec_fn=sit_down)
        self.terminal = terminal
        self.screen = ""

    def tearDown(self):
        os.close(self.user)
        os.close(self.terminal)

    def wait_for(self, pattern):
        self.screen += read_until(self.user, pattern)

    def press(self, keys):
        os.write(self.user, keys.encode())

    def test_keys(self):
        self.wait_for("keys: space pause")
        self.wait_for(r"0:0\d  round 1  (0.7000M set  )?0.\d+M real  \d+ datagrams")
        for key, effect in (("l", "lost 1"), ("i", "bad IP 1"), ("u", "bad UDP 1"), ("s", "delayed 1")):
            self.press(key)
            self.wait_for(effect)
        self.press(" ")
        self.wait_for(r"(0:0\d|round 1|set)  paused")
        self.press(" ")
        self.wait_for("playing")
        self.press("?")
        self.wait_for("keys: space pause")
        self.press("q")
        self.wait_for(r"Stopped by key: .*(\n.*)*lost 1, delayed 1, IP checksum 1, UDP checksum 1")
        self.assertEqual(self.player.wait(), PLAYED)
        self.assertEqual(termios.tcgetattr(self.terminal), self.before)

    def test_control_c(self):
        self.wait_for(" datagrams")
        self.press("\x03")
        self.wait_for("Stopped by Ctrl-C: ")
        self.assertEqual(self.player.wait(), PLAYED)
        self.assertEqual(termios.tcgetattr(self.terminal), self.before)


if __name__ == "__main__":
    unittest.main()
