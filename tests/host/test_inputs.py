# SPDX-License-Identifier: MIT
"""Inputs that are no stream or end in the middle, and a terminal that goes away."""
import fcntl
import json
import os
import pty
import re
import shutil
import signal
import socket
import subprocess
import termios
import unittest

from playbed import SAMPLE, PlayCase, read_file, wait_until_sending

PLAYED, FAILED, USAGE = 0, 1, 2
TARGET = ("--to", "udp://239.1.1.1:5004")
# What waits in the library at this rate is played within a second or two.
FAST = (*TARGET, "--speed", "570", "--loop", "forever", "--stats", "json")


class Inputs(PlayCase):
    def make(self, name):
        """An input of each kind that is none."""
        path = self.path(name)
        if name == "folder":
            os.mkdir(path)
        elif name == "socket":
            with socket.socket(socket.AF_UNIX) as listener:
                listener.bind(path)
        elif name != "missing":
            with open(path, "wb") as file:
                if name == "short":
                    file.write(b"G")
                if name == "sparse":
                    file.truncate(10 << 30)
                if name == "unreadable":
                    os.fchmod(file.fileno(), 0)
        return path

    def test_what_cannot_be_played(self):
        for name, message in (("folder", "is a folder; give a file or -"), ("empty", "is empty"),
                              ("missing", "No such file"), ("short", "has 1 byte, fewer than a transport packet"),
                              ("unreadable", "Permission denied"), ("socket", "No such device or address"),
                              ("sparse", "sync lost at offset 0;")):
            with self.subTest(name):
                process = self.bed.start("play", self.make(name), *TARGET, prefix=(
                    "setpriv", "--bounding-set=-dac_override,-dac_read_search",
                    "--inh-caps=-dac_override,-dac_read_search"))
                output, errors = process.communicate(timeout=30)
                self.assertEqual((process.returncode, output), (USAGE, ""))
                self.assertRegex(errors, rf"\Aipplay: INPUT: [^\n]*{self.path(name)}[^\n]*\n\Z")
                self.assertIn(message, errors)
        played = self.play(self.path("sparse"), *TARGET, "--raw", "--bitrate", "1G", "--dry-run")
        self.assertIn("raw bytes, 10.7374 GB", played.output)

    def test_damage_is_left_out_with_one_note(self):
        sample = read_file(SAMPLE)
        spoilt, cut = bytearray(sample), 188 * 50 + 30
        spoilt[-188] = 0
        del spoilt[cut:cut + 100]
        intact = sample[:188 * 50] + sample[188 * 51:-188]
        path = self.path("spoilt.ts")
        with open(path, "wb") as file:
            file.write(spoilt)
        note = "INPUT is damaged in 2 places, first at offset 9400: 276 bytes are left out"
        for options, status in (((), PLAYED), (("--no-damage",), FAILED)):
            for name in (path, "-"):
                with self.subTest(name, options=options), open(path, "rb") as file:
                    source = subprocess.Popen(("cat",), stdin=file, stdout=subprocess.PIPE)
                    played = self.play(name, *TARGET, "--speed", "11", "--json", *options, status=status,
                                       stdin=source.stdout)
                    source.stdout.close()
                    source.wait()
                    self.assertEqual(played.payload(42), intact)
                    self.assertEqual(played.errors.count(f"note: {note}\n"), 1, played.errors)
                    self.assertEqual(json.loads(played.output.splitlines()[-1])["input"],
                                     {"left_out_bytes": 276, "left_out_places": 2})

    def test_part_by_time_is_what_ffprobe_sees(self):
        self.bed.capture.drain()
        played = self.play(SAMPLE, *TARGET, "--speed", "28", "--from", "1s", "--duration", "1s")
        part = self.path("part.ts")
        with open(part, "wb") as file:
            file.write(played.payload(42))
        self.assertTrue(read_file(part) in read_file(SAMPLE))

        def times(path):
            command = ("ffprobe", "-v", "quiet", "-select_streams", "v", "-show_entries", "packet=pts_time", "-of", "csv=p=0", path)
            text = subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE).stdout
            return [float(line.strip(",")) for line in text.split() if line.strip(",") != "N/A"]

        whole, cut = times(SAMPLE), times(part)
        self.assertAlmostEqual(min(cut) - min(whole), 1, delta=0.4)
        self.assertAlmostEqual(max(cut) - min(cut), 1, delta=0.4)

    def test_one_programme_of_several(self):
        self.bed.capture.drain()
        path, alone = self.path("several.ts"), self.path("alone.ts")
        sources = [part for size in ("160x120", "320x240", "64x48")
                   for part in ("-f", "lavfi", "-i", f"testsrc2=size={size}:rate=25")]
        programs = [part for i in range(3) for part in ("-map", f"{i}:v", "-program", f"program_num={11 * (i + 1)}:st={i}")]
        subprocess.run(("ffmpeg", "-nostdin", "-loglevel", "error", *sources, "-t", "3", *programs, "-c:v", "mpeg2video",
                        "-muxrate", "4M", path), check=True)
        played = self.play(path, *TARGET, "--speed", "10", "--program", "22")
        with open(alone, "wb") as file:
            file.write(played.payload(42))
        self.assertEqual(os.path.getsize(alone), os.path.getsize(path))

        def probe(name):
            text = subprocess.run(("ffprobe", "-v", "error", "-show_programs", "-count_packets", "-of", "json", name), check=True,
                                  text=True, stdout=subprocess.PIPE).stdout
            return {each["program_num"]: [(stream["id"], stream["width"], stream["nb_read_packets"]) for stream in each["streams"]]
                    for each in json.loads(text)["programs"]}

        before, after = probe(path), probe(alone)
        self.assertEqual(sorted(before), [11, 22, 33])
        self.assertEqual(after, {22: before[22]})
        errors = self.play(path, *TARGET, "--program", "23", status=USAGE).errors
        self.assertIn(f"--program 23: {path} has no programme 23; give one of 11, 22, 33", errors)

    def start_and_wait(self, *arguments, **more):
        player = self.bed.start("play", *arguments, **more)
        wait_until_sending(player)
        return player

    def test_file_that_ends_in_the_middle(self):
        mark = self.path("mark")
        modules = {**os.environ, "LD_PRELOAD": os.environ["BROKEN_READS_MODULE"], "BROKEN_READS": mark,
                   "ASAN_OPTIONS": "verify_asan_link_order=0"}  # the module may stand before the sanitizer
        for name, spoil, message in (
                ("truncated", lambda path: os.truncate(path, 188 * 100), "the file has become shorter"),
                ("emptied", lambda path: os.truncate(path, 0), "the file has become shorter"),
                ("broken", lambda _: os.mknod(mark), "Input/output error")):
            with self.subTest(name):
                path = shutil.copy(SAMPLE, self.path(name))
                environment = modules if name == "broken" else dict(os.environ)
                player = self.start_and_wait(path, *FAST, env=environment)
                spoil(path)
                output, errors = player.communicate(timeout=60)
                self.assertEqual(player.returncode, FAILED)
                summary = json.loads(output.splitlines()[-1])
                self.assertEqual((summary["event"], summary["outcome"]), ("summary", "Failed"))
                self.assertIn(f"ipplay: reading INPUT failed: {message}; playing what has been read so far\n",
                              errors)
                sent = re.search(r"ipplay: INPUT could not be read to its end; sent until then: "
                                 r"([\d,]+) datagrams with [\d.]+ MB\n", errors)
                self.assertEqual(int(sent[1].replace(",", "")), summary["datagrams"])

    def test_file_that_is_removed_is_still_played(self):
        path = shutil.copy(SAMPLE, self.path("removed"))
        player = self.start_and_wait(path, *TARGET, "--stats", "json", "--speed", "3")
        os.remove(path)
        summary = json.loads(player.communicate(timeout=60)[0].splitlines()[-1])
        self.assertEqual((player.returncode, summary["ts_packets"]), (PLAYED, 1418))


class Pipes(PlayCase):
    def test_pipe_that_closes_is_at_its_end(self):
        for size in (188 * 300, 188 * 300 + 50):
            writer = subprocess.Popen(["head", "-c", str(size), SAMPLE], stdout=subprocess.PIPE)
            played = self.play("-", *TARGET, "--speed", "28", stdin=writer.stdout)
            writer.stdout.close()
            writer.wait()
            self.assertEqual(played.payload(42), read_file(SAMPLE)[:188 * 300])
            self.assertEqual("note: 50 bytes after the last whole transport packet are left out\n" in played.errors,
                             size > 188 * 300)


class Terminals(PlayCase):
    def test_terminal_that_goes_away(self):
        """By the hang-up signal or, where that is ignored, by what the terminal itself tells."""
        for ignored in (False, True):
            with self.subTest(ignored=ignored), open(self.path("output"), "w+", encoding="utf-8") as output:
                user, terminal = pty.openpty()

                def sit_down():
                    self.bed.near.enter()
                    os.setsid()
                    fcntl.ioctl(terminal, termios.TIOCSCTTY, 0)
                    if ignored:
                        signal.signal(signal.SIGHUP, signal.SIG_IGN)

                player = subprocess.Popen([os.environ["IPPLAY"], "play", SAMPLE, *TARGET,
                                           "--loop", "forever"], stdin=terminal,
                                          stdout=output, stderr=terminal, preexec_fn=sit_down)
                os.close(terminal)
                seen = b""
                while b"M real" not in seen:
                    seen += os.read(user, 4096)
                os.close(user)
                self.assertEqual(player.wait(timeout=30), PLAYED)
                output.seek(0)
                self.assertRegex(output.read(),
                                 r"\AStopped(: the terminal is gone| by a signal): (.*\n)+  sent +\d+ data")


if __name__ == "__main__":
    unittest.main()
