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
import sys
import termios
import unittest
from itertools import groupby

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "measure"))

from frames import crc32_mpeg  # noqa: E402
from playbed import SAMPLE, PlayCase, make_stream, packets, read_file, wait_until_sending  # noqa: E402

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
        note = "INPUT is damaged in 2 places, first at offset 9400: 276 bytes left out"
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

    def test_some_pids_of_several_programmes(self):
        path, alone = self.path("two.ts"), self.path("pids.ts")
        sources = [part for source in ("testsrc2=size=160x120:rate=25", "sine=frequency=440", "testsrc2=size=64x48:rate=25", "sine",
                                       "sine=frequency=220") for part in ("-f", "lavfi", "-i", source)]
        subprocess.run(("ffmpeg", "-nostdin", "-loglevel", "error", *sources, "-t", "3",
                        *(part for i in range(5) for part in ("-map", str(i))),
                        "-program", "program_num=11:st=0:st=1", "-program", "program_num=22:st=2:st=3:st=4", "-metadata:s:a:0",
                        "language=deu", "-c:v", "mpeg2video", "-c:a", "mp2", "-muxrate", "4M", path), check=True)
        whole = packets(read_file(path))

        def pid_of(packet):
            return (packet[1] & 31) << 8 | packet[2]

        def clocks(stream, pid):
            return [(i, p[6:12]) for i, p in enumerate(stream) if pid_of(p) == pid and p[3] & 0x20 and p[4] >= 7 and p[5] & 0x10]

        # ffmpeg counts from 256 on, and each programme's PCRs are with its video.
        for pids, programs in (("257", {11: ["0x101"]}), ("258,260", {22: ["0x102", "0x104"]}),
                               ("0x101,259", {11: ["0x101"], 22: ["0x103"]})):
            with self.subTest(pids):
                frames = self.path("pids.pcapng")
                self.play(path, *TARGET, "--into", frames, "--pid", pids)
                fields = subprocess.run(("tshark", "-n", "-r", frames, "-d", "udp.port==5004,mp2t", "-o", "mpeg_sect.verify_crc:TRUE",
                                         "-T", "fields", "-e", "udp.payload", "-e", "mpeg_sect.crc.status", "-e", "mp2t.cc.drop"),
                                        check=True, text=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
                rows = [line.split("\t") for line in fields.split("\n")[:-1]]
                statuses = [each for row in rows for each in row[1].split(",") if each]
                self.assertEqual(({*statuses}, {row[2] for row in rows}), ({"1"}, {""}))  # 1: good
                self.assertGreater(len(statuses), 50)
                played = packets(bytes.fromhex("".join(row[0] for row in rows)))
                self.assertEqual(len(played), len(whole))
                with open(alone, "wb") as file:
                    file.write(b"".join(played))
                probed = json.loads(subprocess.run(("ffprobe", "-v", "error", "-show_programs", "-of", "json", alone), check=True,
                                                   text=True, stdout=subprocess.PIPE).stdout)["programs"]
                self.assertEqual({each["program_num"]: [stream["id"] for stream in each["streams"]] for each in probed}, programs)
                kept = {int(each, 0) for each in pids.split(",")}
                for before, after in zip(whole, played):
                    if pid_of(before) in kept:
                        self.assertEqual(before, after)
                for program, clock in ((11, 256), (22, 258)):
                    self.assertEqual(clocks(played, clock), clocks(whole, clock) if program in programs else [])

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


class Lists(PlayCase):
    """Inputs in a row, judged by their packets: ISO/IEC 13818-1, 2.4.3.3 and 2.4.3.5; ETSI TR 101 290, 5.2.2."""

    def play_list(self, *arguments):
        """Packets of what is played, and the time of each."""
        path = self.path("list.pcapng")
        self.play(*arguments, "--to", "udp://239.1.1.1:5004", "--into", path)
        text = subprocess.run(("tshark", "-n", "-r", path, "-T", "fields", "-e", "frame.time_epoch", "-e", "udp.payload"), check=True,
                              text=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
        rows = [line.split("\t") for line in text.splitlines()]
        return [(float(time), packet) for time, payload in rows for packet in packets(bytes.fromhex(payload))]

    def look_at(self, played):
        """PCRs with the times at which they left, in seconds, and packets with a payload of each PID."""
        counters, counts, clocks = {}, {}, []
        for time, packet in played:
            pid = (packet[1] & 31) << 8 | packet[2]
            if pid == 0x1FFF:
                continue
            has_payload = packet[3] >> 4 & 1
            self.assertEqual(packet[3] & 15, (counters.get(pid, packet[3] - has_payload) + has_payload) & 15, pid)
            counters[pid] = packet[3] & 15
            counts[pid] = counts.get(pid, 0) + has_payload
            if packet[3] & 0x20 and packet[4] >= 7 and packet[5] & 0x10:
                clocks.append((int.from_bytes(packet[6:11], "big") >> 7, time))
        return [(clock / 90_000, time) for clock, time in clocks], counts

    def test_seams_cannot_be_seen(self):
        first, second, third = (self.path(name) for name in ("first.ts", "second.ts", "third.ts"))
        make_stream(first, rate=3_000_000)
        make_stream(second, "-mpegts_start_pid", "0x200", seconds=2, rate=5_000_000)
        make_stream(third, rate=3_000_000)
        with open(third, "rb+") as file:
            cut = file.read()[188 * 100 + 50:188 * 4000 + 100]
            file.seek(0)
            file.truncate()
            file.write(cut)
        for names, options, rounds in (((first, second, third), (), 1), ((first, second), ("--loop", "2"), 2),
                                       ((first, third), ("--bitrate", "6M"), 1)):
            with self.subTest(options=options):
                clocks, counts = self.look_at(self.play_list(*names, *options))
                steps = [after[0] - before[0] for before, after in zip(clocks, clocks[1:])]
                self.assertTrue(0 < min(steps) and max(steps) <= 0.0401, (min(steps), max(steps)))
                # Every PCR leaves when it says, but for its place in the datagram.
                ahead = [clock - time for clock, time in clocks]
                self.assertLess(max(ahead) - min(ahead), 7 * 188 * 8 / 3e6)
                wanted = {}
                for name in names:
                    data = read_file(name)
                    data = data[next(i for i in range(188) if data[i::188][:8] == b"G" * 8):]
                    for packet in packets(data[:len(data) // 188 * 188]):
                        pid = (packet[1] & 31) << 8 | packet[2]
                        if pid != 0x1FFF:
                            wanted[pid] = wanted.get(pid, 0) + rounds * (packet[3] >> 4 & 1)
                self.assertEqual(counts, wanted)

    def tables(self, stream):
        """Version and content of the PATs and PMTs (ISO/IEC 13818-1, 2.4.4), those of one kind in a row once."""
        found, sections, pmt_pid = {0: [], 2: []}, {}, None
        for packet in stream:
            pid = (packet[1] & 31) << 8 | packet[2]
            if pid not in (0, pmt_pid):
                continue
            begun = b"" if packet[1] & 0x40 else sections[pid]
            section = sections[pid] = begun + packet[4 if begun else 5:]
            length = 3 + (int.from_bytes(section[1:3], "big") & 0xFFF)
            if len(section) < length:
                continue
            self.assertEqual(crc32_mpeg(section[:length]), 0)
            if pid == 0:
                pmt_pid = int.from_bytes(section[10:12], "big") & 0x1FFF
            found[section[0]].append((section[5] >> 1 & 31, section[:5] + section[6:length - 4]))
        return [[table for table, _ in groupby(tables)] for tables in found.values()]

    def test_tables_that_change_have_new_versions(self):
        """Only those: of a table whose version stays a receiver keeps what it has read."""
        own = {}
        for name, more in (("first", {"video": ("-c:v", "libx264", "-preset", "ultrafast")}), ("codec", {}),
                           ("long", {"options": ("-mpegts_pmt_start_pid", "0x1100", "-map", "0:v", *("-map", "1:a") * 45)}),
                           ("version", {"options": ("-tables_version", "5")})):
            make_stream(self.path(name), *more.pop("options", ()), seconds=0.4, rate=5_000_000, **more)
            own[name] = [tables[0][1] for tables in self.tables(packets(read_file(self.path(name))))]
        self.assertGreater(len(own["long"][1]), 184)  # more than a packet's payload
        wrapping = [n % 32 for n in range(34)]
        for names, rounds, pats, pmts in (("first first", 2, [0] * 4, [0] * 4), ("first codec", 2, [0] * 4, [0, 1, 2, 3]),
                                          ("first version", 2, [0, 5] * 2, [0, 5] * 2), ("first long", 17, wrapping, wrapping)):
            with self.subTest(names):
                names = names.split()
                played = self.play_list(*map(self.path, names), "--loop", rounds)
                wanted = [zip(versions, [own[name][kind] for name in names * rounds]) for kind, versions in enumerate((pats, pmts))]
                self.assertEqual(self.tables(packet for _, packet in played), [[table for table, _ in groupby(each)] for each in wanted])


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
