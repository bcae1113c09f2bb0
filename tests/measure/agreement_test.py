# SPDX-License-Identifier: MIT
"""ipplay measure against captures whose contents are known, and against tshark.

IPPLAY names the program. TABLE, if set, names a file for the table of both programs' figures.
"""

import json
import math
import os
import random
import subprocess
import tempfile
import unittest

from frames import Playout, found_in, transport_stream, write_pcap

IPPLAY = os.environ["IPPLAY"]


def measure(*arguments, status=0):
    run = subprocess.run([IPPLAY, "measure", *arguments, "--json"], capture_output=True, text=True)
    if run.returncode != status:
        raise AssertionError(f"exit status {run.returncode}: {run.stdout}{run.stderr}")
    return json.loads(run.stdout)


def mixed_playouts():
    """24 playouts: every combination of IP version, tag and copies, with damage of all kinds."""
    chance = random.Random(20)
    for number in range(24):
        datagrams = 600
        # The first and last ones stay, so that all damage shows; each suffers one thing at most.
        victims = chance.sample(range(20, datagrams - 60), 70)
        yield number, Playout(
            ipv6=number % 2 == 1,
            vlan=(None, 100, 4095)[number % 3],
            copies=(1, 3, 1, 2)[number % 4],
            datagrams=datagrams,
            first_sequence=(0, 65_000, 32_000)[number % 3],
            jitter_ns=(0, 50_000)[number // 2 % 2],
            lose=set(victims[:20]) if number % 5 else set(),
            delay={v: chance.randint(1, 40) for v in victims[20:35]} if number % 7 else {},
            bad_ip=set(victims[35:50]),
            bad_udp=set(victims[45:60]),  # some with both
            double=set(victims[60:]) if number % 3 == 0 else set(),
            seed=number,
        )


def tshark(path):
    """Its counts of (bad IPv4 header checksums, bad UDP checksums), and its RTP streams by SSRC."""
    command = ["tshark", "-r", path, "-o", "ip.check_checksum:TRUE", "-o", "udp.check_checksum:TRUE",
               "-d", "udp.port==5000,rtp", "-z", "rtp,streams",
               "-T", "fields", "-e", "ip.checksum.status", "-e", "udp.checksum.status"]
    lines = subprocess.run(command, capture_output=True, text=True, check=True).stdout.splitlines()
    statuses = [line.split("\t") for line in lines if line[:1] in ("", "0", "1", "2", "3", "\t")]
    bad = tuple(sum(row[column : column + 1] == ["0"] for row in statuses) for column in (0, 1))
    streams = {}
    for words in map(str.split, lines):
        ssrc = next((w for w in words if w.startswith("0x")), None)
        if ssrc is None:
            continue
        rest = words[words.index(ssrc) + 1 :]
        # Payload type (one or more words), packets, lost (share), then three deltas and jitters.
        share = next(i for i, w in enumerate(rest) if w.startswith("("))
        figures = [float(w) for w in rest[share + 1 : share + 7]]
        streams[int(ssrc, 16)] = {
            "packets": int(rest[share - 2]),
            "lost": int(rest[share - 1]),
            "delta_ms": figures[:3],  # min, mean, max
            "jitter_ms": figures[3:],
        }
    return bad, streams


class KnownCaptures(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = os.path.join(folder.name, "capture.pcap")

    def test_damage_is_counted_exactly_and_as_tshark_counts_it(self):
        rows = []
        for number, playout in mixed_playouts():
            with self.subTest(number=number):
                truth = playout.truth()
                write_pcap(self.path, playout.capture())
                result = measure(self.path)
                self.assertEqual(len(result["streams"]), playout.copies)
                their_bad, theirs = tshark(self.path)
                for stream in result["streams"]:
                    self.assertEqual(found_in(stream), vars(truth))
                    self.assertEqual(stream.get("vlan"), playout.vlan and str(playout.vlan))
                    self.compare(stream, theirs[stream["ssrc"]], truth, playout)
                    rows.append((number, playout, truth, stream, theirs[stream["ssrc"]]))
                total = result["total"]["checksums"]
                self.assertEqual((total["ipv4_header_bad"], total["udp_bad"]), their_bad)
        write_table(rows)

    def compare(self, stream, theirs, truth, playout):
        self.assertEqual(stream["rate"]["frames"], theirs["packets"])
        # tshark takes doubled packets off what is lost, and counts a round of numbers too many when
        # a packet is late across their wrap.
        self.assertEqual((truth.lost - truth.duplicates - theirs["lost"]) % 65536, 0)
        gap, jitter = stream["spacing"]["gap_ns"], stream["rtp"]["jitter_ns"]
        for name, delta in zip(("min", "mean", "max"), theirs["delta_ms"]):
            self.assertAlmostEqual(gap[name] / 1e6, delta, delta=0.0015, msg=name)
        self.assertAlmostEqual(jitter["mean"] / 1e6, theirs["jitter_ms"][1], delta=0.002)
        self.assertAlmostEqual(jitter["max"] / 1e6, theirs["jitter_ms"][2], delta=0.002)


class Content(unittest.TestCase):
    """--expect: the payload against the file that was played."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.capture = os.path.join(folder.name, "capture.pcap")
        self.file = os.path.join(folder.name, "played.ts")

    def write(self, playout, file_datagrams, alike=0, change=None):
        """The played file holds the first `file_datagrams` payloads, over and over."""
        payloads = playout.payloads()[:file_datagrams]
        payloads[:alike] = payloads[:1] * alike
        with open(self.file, "wb") as file:
            file.write(b"".join(payloads))
        sent = [payloads[i % file_datagrams] for i in range(playout.datagrams)]
        if change is not None:
            datagram, offset, value = change
            damaged = bytearray(sent[datagram])
            damaged[offset] ^= value
            sent[datagram] = bytes(damaged)
        playout.payloads = lambda: sent
        return playout.capture()

    def compare(self, frames, status=0, cut=()):
        write_pcap(self.capture, frames, cut)
        return measure(self.capture, "--expect", self.file, status=status)["streams"][0]["compare"]

    def test_loops_losses_and_late_packets_are_no_difference(self):
        for rtp in (True, False):
            damage = {"lose": {31, 32, 33, 250}, "delay": {40: 5, 199: 3}, "double": {60}} if rtp else {}
            for alike in (0, 60):  # datagrams that say little about the place in the file
                frames = self.write(Playout(rtp=rtp, datagrams=500, **damage), 201, alike)
                # From the start, and joined in the middle of a round.
                for first in (0, 47):
                    with self.subTest(rtp=rtp, alike=alike, first=first):
                        found = self.compare(frames[first:])
                        self.assertEqual(found["datagrams_equal"], len(frames) - first)
                        self.assertEqual(found["datagrams_different"], 0)

    def test_frames_captured_in_part_keep_their_places(self):
        frames = self.write(Playout(datagrams=300, lose={150}), 200)
        found = self.compare(frames, cut={0, 50, 51, 150, 298})  # one behind the loss
        self.assertEqual((found["datagrams_equal"], found["datagrams_different"]), (294, 0))

    def test_one_changed_byte_is_found_where_it_is(self):
        for rtp in (True, False):
            with self.subTest(rtp=rtp):
                frames = self.write(Playout(rtp=rtp, datagrams=300), 200,
                                    change=(260, 777, 0x40))
                found = self.compare(frames, status=4)
                self.assertEqual(found["datagrams_different"], 1)
                self.assertEqual(found["datagrams_equal"], 299)
                first = found["first_difference"]
                self.assertEqual((first["datagram"], first["datagram_offset"]), (260, 777))
                self.assertEqual(first["file_offset"], 60 * 1316 + 777)
                with open(self.file, "rb") as file:
                    file.seek(first["file_offset"])
                    expected = list(file.read(16))
                self.assertEqual(first["expected"], expected)
                self.assertEqual(first["received"], [expected[0] ^ 0x40] + expected[1:])

    def test_a_loss_without_sequence_numbers_is_passed_over_and_told(self):
        frames = self.write(Playout(rtp=False, datagrams=300), 300)
        del frames[100:110]
        found = self.compare(frames, status=4)
        self.assertEqual(found["datagrams_equal"], 290)
        self.assertEqual(found["datagrams_different"], 0)
        self.assertEqual(found["skipped_bytes"], 10 * 1316)


class Sources(unittest.TestCase):
    """The same frames in every kind of file, as another program converts them."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.original = self.path("original")
        self.playout = Playout(datagrams=200, gap_ns=1_000_500, lose={50})
        write_pcap(self.original, self.playout.capture())

    def path(self, name):
        return os.path.join(self.folder, name)

    def convert(self, *options):
        subprocess.run(["editcap", *options, self.original, self.path("file")], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return self.path("file")

    def test_formats_and_their_time_stamps(self):
        raw = ("-C", "14", "-L", "-T", "rawip")  # the Ethernet header cut off
        for options, longest_gap in ((("-F", "nsecpcap"), 1_000_500), (("-F", "pcap"), 1_001_000),
                                     (("-F", "pcapng"), 1_000_500), (("-F", "nsecpcap", *raw), 1_000_500)):
            with self.subTest(options=options):
                result = measure(self.convert(*options))
                stream, = result["streams"]
                self.assertEqual(found_in(stream), vars(self.playout.truth()))
                self.assertEqual(stream["spacing"]["gap_ns"]["max"], longest_gap)

    def test_a_pcap_file_goes_on_behind_2038(self):
        frames = list(Playout(datagrams=200).capture())
        start = (1 << 31) * 1_000_000_000 - 100_000_000  # the seconds' upper bit comes in mid-capture
        write_pcap(self.path("file"), [(start + time_ns - frames[0][0], frame) for time_ns, frame in frames])
        result = measure(self.path("file"))
        self.assertEqual(result["capture"]["clock_steps"], 0)
        self.assertEqual(result["streams"][0]["last_seen_ns"], start + 199_000_000)

    def test_cut_files_are_measured_up_to_there(self):
        for options in (("-F", "nsecpcap"), ("-F", "pcapng")):
            path = self.convert(*options)
            os.truncate(path, os.path.getsize(path) - 700)
            run = subprocess.run([IPPLAY, "measure", path, "--json"], capture_output=True, text=True)
            self.assertEqual(run.returncode, 1)
            self.assertEqual(len(run.stderr.splitlines()), 1)
            self.assertEqual(json.loads(run.stdout)["total"]["rate"]["frames"], 198)

    def test_other_files_are_refused_in_one_line(self):
        with open(self.path("text"), "w") as file:
            file.write("no capture at all\n" * 10)
        for path, said in ((self.convert("-T", "ieee-802-11"), "IEEE802_11"), (self.path("text"), "text"),
                           (self.path("missing"), "missing"), (self.folder, self.folder)):
            run = subprocess.run([IPPLAY, "measure", path], capture_output=True, text=True)
            self.assertEqual((run.returncode, run.stdout, len(run.stderr.splitlines())), (2, "", 1), path)
            self.assertIn(said, run.stderr)
        run = subprocess.run([IPPLAY, "measure", "no-such-device"], capture_output=True, text=True)
        self.assertEqual((run.returncode, len(run.stderr.splitlines())), (3, 1))


class Limits(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = os.path.join(folder.name, "capture.pcap")

    def status(self, *arguments):
        run = subprocess.run([IPPLAY, "measure", self.path, *arguments], capture_output=True)
        return run.returncode

    def test_exit_status_follows_the_limits(self):
        # 1370-byte frames every millisecond are 10.96 Mbit/s; two of a thousand are lost.
        playout = Playout(lose={500, 501}, bad_udp={7})
        write_pcap(self.path, playout.capture())
        rate = ["--expect-rate", "10.96M"]
        for arguments, status in (
            ([], 0),
            (["--max-loss", "2"], 0),
            (["--max-loss", "1"], 4),
            (["--max-loss", "0.2%"], 0),
            (["--max-loss", "0.19%"], 4),
            (["--max-p99", "1us", *rate], 0),
            (["--max-gap", "1ms"], 0),
            (["--max-gap", "999us"], 4),
            (["--max-checksum-errors", "1"], 0),
            (["--max-checksum-errors", "0"], 4),
            (["--max-rate-error", "20ppm", *rate], 0),
            (["--max-rate-error", "20ppm", "--expect-rate", "10.961M"], 4),
            (["--max-mlr", "14"], 0),
            (["--max-mlr", "13"], 4),
            (["--min-streams", "2"], 4),
            (["--max-reordered", "0", "--max-duplicates", "0"], 0),
            (["--max-reordered", "0", "--rtp", "off"], 4),  # cannot be measured: not met
            (["--max-rate-error", "20ppm"], 2),  # of which rate?
            (["--max-loss", "few"], 2),
            (["--expect", "/nonexistent"], 2),
            (["--count", "500", "--max-loss", "0"], 0),
            (["--duration", "499ms", "--max-loss", "0"], 0),
        ):
            with self.subTest(arguments=arguments):
                self.assertEqual(self.status(*arguments), status)

    def test_each_limit_is_of_its_figure(self):
        """Met at the figure, and not one unit below; no two figures are alike."""
        playout = Playout(jitter_ns=50_000, lose={500, 501}, delay={100: 3, 200: 1, 300: 9, 400: 20},
                          double={50, 60, 70, 80, 90})
        stream = transport_stream(7000, bit_rate=10_000_019)  # PCRs are rounded
        playout.payloads = lambda: [stream[at:at + 1316] for at in range(0, len(stream), 1316)]
        write_pcap(self.path, playout.capture())
        stream, = measure(self.path)["streams"]
        spacing, rtp, mdi, ts = (stream[name] for name in ("spacing", "rtp", "mdi", "ts"))
        pcr, = (pid["pcr"] for pid in ts["pids"] if "pcr" in pid)
        errors = ("sync_losses", "sync_byte_errors", "pat_errors", "pmt_errors", "continuity_errors",
                  "transport_errors")
        times = {
            "--max-p99": spacing["gap_error_ns"]["p99"], "--max-gap": spacing["gap_ns"]["max"],
            "--max-peak-to-peak": spacing["grid_peak_to_peak_ns"], "--max-jitter": rtp["jitter_ns"]["max"],
            "--max-df": mdi["delay_factor_ns"]["max"], "--max-pcr-accuracy": pcr["accuracy_peak_to_peak_ns"],
            "--max-pcr-jitter": pcr["arrival_peak_to_peak_ns"]}
        counts = {
            "--max-loss": rtp["lost"], "--max-reordered": rtp["reordered"],
            "--max-duplicates": rtp["duplicates"],
            "--max-mlr": mdi["loss_rate_packets"]["max"], "--max-ts-errors": sum(ts[name] for name in errors)}
        for figures, unit in ((times, "ns"), (counts, "")):
            limits = {option: math.ceil(figure) for option, figure in figures.items()}
            self.assertEqual(len(set(limits.values())), len(limits), limits)
            for option, limit in limits.items():
                with self.subTest(option):
                    self.assertEqual([self.status(option, f"{value}{unit}") for value in (limit, limit - 1)],
                                     [0, 4])

    def test_nothing_to_measure_meets_no_limit(self):
        write_pcap(self.path, [])
        self.assertEqual(self.status(), 0)
        self.assertEqual(self.status("--max-loss", "0"), 4)


def write_table(rows):
    """The figures of both programs side by side, as Markdown."""
    if "TABLE" not in os.environ:
        return
    titles = ("capture", "IP", "VLAN", "packets", "lost", "doubled", "tshark lost", "late",
              "gap max ms", "tshark", "jitter mean ms", "tshark", "jitter max ms", "tshark",
              "bad IP", "bad UDP")
    with open(os.environ["TABLE"], "w") as table:
        table.write("|" + "|".join(titles) + "|\n" + "|---" * len(titles) + "|\n")
        for number, playout, truth, ours, theirs in rows:
            jitter = ours["rtp"]["jitter_ns"]
            cells = (number, 6 if playout.ipv6 else 4, playout.vlan or "-", truth.frames,
                     ours["rtp"]["lost"], ours["rtp"]["duplicates"], theirs["lost"],
                     ours["rtp"]["reordered"],
                     f"{ours['spacing']['gap_ns']['max'] / 1e6:.3f}", theirs["delta_ms"][2],
                     f"{jitter['mean'] / 1e6:.3f}", theirs["jitter_ms"][1],
                     f"{jitter['max'] / 1e6:.3f}", theirs["jitter_ms"][2],
                     ours["checksums"]["ipv4_header_bad"], ours["checksums"]["udp_bad"])
            table.write("|" + "|".join(map(str, cells)) + "|\n")


if __name__ == "__main__":
    unittest.main()
