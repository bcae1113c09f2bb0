# SPDX-License-Identifier: MIT
"""Files that ipplay writes, and configuration files, which repeat a test exactly."""
import json
import os
import resource
import subprocess
import unittest

from playbed import SAMPLE, PlayCase, read_file, write_pcap

PLAYED, FAILED, USAGE = 0, 1, 2
TARGET = ("--to", "rtp://239.1.1.1:5004")


def left_alone(path):
    """What a write would change, but not the time of access, which reading a link does."""
    info = os.lstat(path)
    return *info[:7], info.st_mtime_ns


class FileCase(PlayCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.frames = os.path.join(cls.folder.name, "frames.pcap")
        played = cls.bed.play(SAMPLE, *TARGET, "--speed", "28", "--bad-udp-checksum", "1/50")
        write_pcap(cls.frames, played.arrivals)

    def run_ipplay(self, *arguments, **more):
        process = self.bed.start(*arguments, **more)
        output, errors = process.communicate(timeout=30)
        return process.returncode, output, errors


class Quoted(PlayCase):
    def test_names_control_no_terminal(self):
        """Whatever a name holds: it stands in one line, and neither colours nor turns it."""
        name = "\x1b[31m\n\x07\u202egpj\x9b2J.pcap"
        path = self.path(name)
        shown = r"\u001b[31m\u000a\u0007\u202egpj\u009b2J.pcap"
        write_pcap(path, [])
        for arguments in (("measure", path), ("measure", path + "x"), ("play", path, "--dry-run", *TARGET)):
            process = subprocess.run([os.environ["IPPLAY"], *arguments], capture_output=True, check=False)
            text = (process.stdout + process.stderr).decode()
            self.assertIn(shown, text)
            self.assertEqual([c for c in text if not c.isprintable() and c != "\n"], [])
        process = subprocess.run([os.environ["IPPLAY"], "measure", path, "--json"], capture_output=True, check=True)
        self.assertEqual(json.loads(process.stdout)["capture"]["source"], path)


class Written(FileCase):
    def setUp(self):
        super().setUp()
        self.shared = self.path("shared")
        os.mkdir(self.shared)
        os.chmod(self.shared, 0o1777)
        self.addCleanup(lambda: subprocess.run(["rm", "-r", self.shared], check=True))
        self.file = os.path.join(self.shared, "file")

    def write(self, option, path=None, umask=0o022, **more):
        command = {"--write-config": ("play", SAMPLE, *TARGET, "--dry-run"),
                   "--report": ("measure", self.frames)}[option]

        def enter():
            os.umask(umask)
            if more.get("limit"):
                resource.setrlimit(resource.RLIMIT_FSIZE, (more["limit"],) * 2)

        process = subprocess.Popen([os.environ["IPPLAY"], *command, option, path or self.file], text=True,
                                   preexec_fn=lambda: (self.bed.near.enter(), enter()),
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        output, errors = process.communicate(timeout=30)
        return process.returncode, output, errors

    def test_regular_files(self):
        for option, mark in (("--write-config", b"[play]\n"), ("--report", b"<!")):
            with self.subTest(option):
                self.assertEqual(self.write(option, umask=0o027)[0], PLAYED)
                self.assertEqual(os.stat(self.file).st_mode & 0o7777, 0o640)
                self.assertTrue(read_file(self.file).startswith(mark))
                # What others hold of an older file is not written into.
                with open(self.file, "w", encoding="ascii") as file:
                    file.write("old")
                os.chmod(self.file, 0o600)
                os.link(self.file, self.file + ".linked")
                self.assertEqual(self.write(option)[0], PLAYED)
                self.assertEqual(os.stat(self.file).st_mode & 0o7777, 0o600)
                self.assertTrue(read_file(self.file).startswith(mark))
                self.assertEqual(read_file(self.file + ".linked"), b"old")
                os.remove(self.file + ".linked")
                os.remove(self.file)

    def test_what_is_refused_or_fails_leaves_all_as_it_was(self):
        victim = self.path("victim")

        def lay_link():
            with open(victim, "w", encoding="ascii") as file:
                file.write("precious")
            os.symlink(victim, self.file)

        def lay_old():
            with open(self.file, "w", encoding="ascii") as file:
                file.write("precious")

        def lay_foreign_fifo():
            os.mkfifo(self.file)
            os.chown(self.file, 65534, 65534)

        for option in ("--write-config", "--report"):
            for name, lay, status, message, more in (
                    ("link", lay_link, USAGE, "it is a link", {}),
                    ("dangling link", lambda: os.symlink("nowhere", self.file), USAGE, "it is a link", {}),
                    ("folder", lambda: os.mkdir(self.file), USAGE, "not a regular file", {}),
                    ("somebody else's FIFO", lay_foreign_fifo, USAGE, "another user's", {}),
                    ("no room", lay_old, FAILED, "File too large", {"limit": 100})):
                with self.subTest(option=option, name=name):
                    lay()
                    before = left_alone(self.file)
                    got, _, errors = self.write(option, **more)
                    self.assertEqual(got, status, errors)
                    self.assertIn(f"{option} {self.file}: cannot be written: ", errors)
                    self.assertIn(message, errors)
                    self.assertEqual(os.listdir(self.shared), ["file"])
                    self.assertEqual(left_alone(self.file), before)
                    if os.path.isfile(self.file):
                        self.assertEqual(read_file(self.file), b"precious")
                    os.rmdir(self.file) if os.path.isdir(self.file) else os.remove(self.file)

    def test_fifos_and_descriptors(self):
        os.mkfifo(self.file)
        with subprocess.Popen(["cat", self.file], stdout=subprocess.PIPE) as reader:
            self.assertEqual(self.write("--write-config")[0], PLAYED)
            self.assertTrue(reader.stdout.read().startswith(b"[play]\n"))
        for path in ("/dev/stdout", "/dev/fd/1", "/proc/self/fd/1"):
            self.assertIn("[play]\ninput = ", self.write("--write-config", path)[1])
        self.assertIn("[play]\n", self.write("--write-config", "/dev/stderr")[2])
        self.assertEqual(self.write("--report", "/dev/null")[0], PLAYED)
        status, _, errors = self.write("--report", "/dev/full")
        self.assertEqual(status, FAILED)
        self.assertIn("/dev/full: cannot be written: No space left on device", errors)

    def test_results_that_cannot_be_written(self):
        for command in (("devices",), ("measure", self.frames, "--json"),
                        ("play", SAMPLE, *TARGET, "--dry-run"), ("--help",)):
            with self.subTest(command), open("/dev/full", "w", encoding="ascii") as full:
                process = subprocess.run([os.environ["IPPLAY"], *command], stdout=full,
                                         stderr=subprocess.PIPE, text=True, preexec_fn=self.bed.near.enter)
                self.assertEqual((process.returncode, process.stderr),
                                 (FAILED, "ipplay: standard output cannot be written\n"))
            # A reader that has seen enough is no fault to speak of.
            with self.subTest(command, reader="none"):
                reader, writer = os.pipe()
                os.close(reader)
                with open(writer, "w", encoding="ascii") as pipe:
                    process = subprocess.run([os.environ["IPPLAY"], *command], stdout=pipe,
                                             stderr=subprocess.PIPE, text=True, preexec_fn=self.bed.near.enter)
                self.assertEqual((process.returncode, process.stderr), (FAILED, ""))


class Repeated(FileCase):
    PLAY = (
        (), ("--bitrate", "9.75M", "--ppm", "-20", "--loop", "forever", "--restamp"),
        ("--burst", "10ms", "--jitter", "square:500us", "--copies", 16, "--step", "dst-ip=0.0.0.1",
         "--step", "dst-port=2"),
        ("--lose", "2/1000", "--delay", "1/1000:3", "--random", "--at", "1m30s", "pause:2s", "--at", "10s",
         "lose"),
        ("--hop-limit", 9, "--traffic-class", "0x28", "--next-header", 2, "--vlan", 5, "--vlan-cfi",
         "--vlan-priority", 3),
        ("--frame-size", 1400, "--cut", "--dont-fragment", "off", "--sequence", 9, "--ssrc", 7,
         "--prefill", "0"),
        ("--frame-bitrate", "1M", "--near-wrap", "--payload-type", 96, "--rtp-extension",
         "--priority", "highest"),
        ("--src-mac", "02:00:00:00:00:01", "--device", "near", "--stats", "json", "--quiet"))
    NAMES = ("plain.ts", "with blank.ts", "a#b.ts", "quo\"te's.ts", "back\\slash\\n.ts", "[in], brackets]",
             "=.ts", "new\nline.ts", "caf\u00e9.ts", "true", "0x10", "-dash.ts")

    def test_play(self):
        config, again = self.path("test.conf"), self.path("again.conf")
        cases = [(SAMPLE, options) for options in self.PLAY]
        for name in self.NAMES:
            os.symlink(os.path.realpath(SAMPLE), self.path(name))
            cases.append((self.path(name), ()))
        for path, options in cases:
            with self.subTest(path=path, options=options):
                first = self.run_ipplay("play", path, *TARGET, *options, "--dry-run",
                                        "--write-config", config)
                self.assertEqual((first[0], first[2]), (PLAYED, ""))
                self.assertEqual(self.run_ipplay("play", "--config", config, "--dry-run",
                                                 "--write-config", again), first)
                self.assertEqual(read_file(again), read_file(config))
                # The command line comes first.
                other = self.run_ipplay("play", "--config", config, "--dry-run", "--ttl", 77)
                self.assertNotEqual(other[1], first[1])

    def test_report_named_in_a_file_replaces_reports_only(self):
        config, victim, report = self.path("evil.conf"), self.path("victim"), self.path("report.html")
        os.mkfifo(self.path("fifo"))
        for path in (victim, self.path("empty")):
            with open(path, "w", encoding="ascii") as file:
                file.write("precious" if path == victim else "")
        for path in (victim, self.path("empty"), self.path("fifo"), config):
            with open(config, "w", encoding="ascii") as file:
                file.write(f'[measure]\nsource = "{self.frames}"\nreport = "{path}"\n')
            before = left_alone(path)
            status, output, errors = self.run_ipplay("measure", "--config", config)
            self.assertEqual((status, output, left_alone(path)), (USAGE, "", before), path)
            self.assertIn("name it on the command line to replace it", errors)
        with open(config, "w", encoding="ascii") as file:
            file.write(f'[measure]\nsource = "{self.frames}"\nreport = "{report}"\n')
        for _ in range(2):  # a new one, and over itself
            self.assertEqual(self.run_ipplay("measure", "--config", config)[0], PLAYED)
        self.assertEqual(read_file(victim), b"precious")
        self.assertEqual(self.run_ipplay("measure", "--config", config, "--report", victim)[0], PLAYED)
        self.assertEqual(read_file(victim)[:15], b"<!doctype html>")

    def measured(self, *arguments):
        """Figures and verdict alone: when it was and by which options differs."""
        status, output, errors = self.run_ipplay("measure", *arguments)
        result = json.loads(output)
        del result["run"]
        return status, errors, result

    def test_measure(self):
        config, again = self.path("test.conf"), self.path("again.conf")
        plain = self.measured(self.frames, "--json")
        for options, changes in ((("--no-ts",), True), (("--no-udp-checksum",), True),
                                 (("--no-ts=false",), False),
                                 (("--rtp", "off"), True), (("--count", 50), True),
                                 (("--filter", "udp port 5004 and not port 7"), False),
                                 (("--max-loss", "0.1%", "--min-streams", 1), True),
                                 (("--expect", SAMPLE), True),
                                 (("--expect-rate", "20.82M", "--max-rate-error", "900ppm",
                                   "--clump-gap", "50us"), True),
                                 (("--rows", 5, "--buffer", 64, "--quiet"), False)):
            with self.subTest(options):
                first = self.measured(self.frames, "--json", *options, "--write-config", config)
                self.assertEqual(first != plain, changes)
                self.assertEqual(self.measured("--config", config, "--write-config", again), first)
                self.assertEqual(read_file(again), read_file(config))


if __name__ == "__main__":
    unittest.main()
