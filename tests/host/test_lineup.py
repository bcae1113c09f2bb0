# SPDX-License-Identifier: MIT
"""`ipplay lineup` and `ipplay gather`: many channels on the wire, what is refused, reload, restart and parts."""
import collections
import json
import os
import select
import signal
import socket
import subprocess
import time
import unittest

from playbed import IPPLAY, SAMPLE, PlayCase, install, is_playout, read_file

HEADERS = 14 + 20 + 8 + 12
RATE = 4_000_000


def run(*arguments, environment=None):
    return subprocess.run([IPPLAY, *map(str, arguments)], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                          env={**os.environ, **(environment or {})}, check=False)


def by_target(frames):
    """Payloads of the RTP datagrams to each multicast address, in the order of arrival."""
    found = collections.defaultdict(list)
    for frame in frames:
        if frame[12:14] == b"\x08\x00" and frame[23] == 17:
            found[socket.inet_ntoa(frame[30:34])].append(frame[HEADERS:])
    return found


class Files(PlayCase):
    def write(self, name, text):
        path = self.path(name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return path

    def write_streams(self, count):
        """Files that differ in each packet, of 700 packets each."""
        for number in range(1, count + 1):
            with open(self.path(f"s{number}.ts"), "wb") as file:
                file.write(b"".join(bytes((0x47, 0x01, number, 0x10 | index % 16)) + bytes((number,)) * 184 for index in range(700)))


class OnTheWire(Files):
    def lineup(self, path, *options):
        """Plays it to its end; the document and the frames on the far side."""
        self.bed.capture.begin()
        process = self.bed.start("lineup", path, "--json", *options)
        ended = os.pidfd_open(process.pid)
        while ended not in select.select([ended, self.bed.capture.socket], [], [])[0]:
            self.bed.capture.drain()
        os.close(ended)
        self.bed.catch_up()
        output, errors = process.communicate()
        return process.returncode, output, errors, [frame for _, frame in self.bed.capture.frames]

    def test_a_series_plays_each_file_to_its_own_target(self):
        self.write_streams(12)
        path = self.write("series.toml", f"""
            [defaults]
            device = "{self.bed.NEAR}"
            bitrate = {RATE}
            [[generate]]
            name = "c{{n:2}}"
            count = 12
            input = "s{{n}}.ts"
            to = "rtp://239.1.{{n/10}}.{{n%10}}:5004"
            [[channel]]
            name = "faulty"
            input = "s1.ts"
            to = "rtp://239.2.0.1:5004"
            lose = "1/10"
            [[channel]]
            name = "asked"
            input = "s1.ts"
            to = "rtp://239.2.0.2:5004"
            at = ["50ms", "lose", "60ms", "lose", "100ms", "pause:100ms"]
            """)
        status, output, errors, frames = self.lineup(path)
        self.assertEqual(status, 0, errors)
        channels = {channel["name"]: channel for channel in json.loads(output)["channels"]}
        arrived = by_target(frames)
        for number in range(1, 13):
            channel, payloads = channels[f"c{number:02}"], arrived[f"239.1.{number // 10}.{number % 10}"]
            self.assertEqual(b"".join(payloads), read_file(self.path(f"s{number}.ts")), number)
            self.assertEqual((channel["state"], channel["datagrams"]), ("ended", 100))
            sent = [(time, frame) for time, frame in self.bed.capture.frames
                    if by_target([frame])[f"239.1.{number // 10}.{number % 10}"]]
            times = [time for time, _ in sent]
            stamps = [int.from_bytes(frame[HEADERS - 8:HEADERS - 4], "big") for _, frame in sent]  # the schedule's, 90 kHz
            self.assertAlmostEqual(channel["mean_rate_bps"] / (99 * 1316 * 8 / (times[-1] - times[0])), 1, delta=0.02)
            self.assertAlmostEqual((stamps[-1] - stamps[0]) % 2**32, 99 * 1316 * 8 / RATE * 90_000, delta=1)
        self.assertEqual(len(arrived["239.2.0.1"]), 90)
        self.assertEqual(channels["faulty"]["ordered"]["lost"], 10)
        self.assertEqual(len(arrived["239.2.0.2"]), 98)
        self.assertEqual(channels["asked"]["ordered"]["on_request"], 2)
        self.assertGreaterEqual(channels["asked"]["departures"]["longest_gap_ns"], 100_000_000)

    def test_a_channel_that_cannot_start_is_tried_again_and_the_others_play(self):
        self.write_streams(1)
        path = self.write("fails.toml", f"""
            [defaults]
            device = "{self.bed.NEAR}"
            bitrate = {RATE}
            [[channel]]
            name = "good"
            input = "s1.ts"
            to = "rtp://239.1.0.1:5004"
            [[channel]]
            name = "late"
            input = "appears.ts"
            to = "rtp://239.1.0.2:5004"
            restart = "on-failure"
            restart-after = "50ms"
            [[channel]]
            name = "lost"
            input = "missing.ts"
            to = "rtp://239.1.0.3:5004"
            """)
        self.bed.capture.begin()
        process = self.bed.start("lineup", path, "--json")
        self.await_line(process, "late: failed")
        os.link(self.path("s1.ts"), self.path("appears.ts"))
        output, errors = process.communicate()
        self.bed.catch_up()
        self.assertEqual(process.returncode, 1, errors)
        found = {channel["name"]: (channel["state"], channel["starts"]) for channel in json.loads(output)["channels"]}
        self.assertEqual(found, {"good": ("ended", 1), "late": ("ended", 1), "lost": ("failed", 0)})
        arrived = by_target([frame for _, frame in self.bed.capture.frames])
        self.assertEqual({target: len(payloads) for target, payloads in arrived.items()}, {"239.1.0.1": 100, "239.1.0.2": 100})

    def test_as_a_service_it_needs_two_capabilities_and_reports(self):
        self.write_streams(1)
        program = install(self.folder.name)
        for name in ("s1.ts", "ipplay"):
            os.chmod(self.path(name), 0o755)
        path = self.write("service.toml", f"""
            [[channel]]
            name = "one"
            input = "s1.ts"
            to = "rtp://239.1.0.1:5004"
            device = "{self.bed.NEAR}"
            bitrate = {RATE}
            """)
        rights = "+net_raw,+sys_nice"
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(self.path("notify"))
            os.chmod(self.path("notify"), 0o777)
            process = subprocess.run(["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", "--no-new-privs",
                                      "--bounding-set", f"-all,{rights}", "--inh-caps", f"-all,{rights}", "--ambient-caps", rights,
                                      program, "lineup", path, "--quiet"], preexec_fn=self.bed.near.enter, check=False, text=True,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                     env={"NOTIFY_SOCKET": self.path("notify")})
            self.assertEqual(process.returncode, 0, process.stderr)
            manager.setblocking(False)
            told = []
            try:
                while True:
                    told.append(manager.recv(1000))
            except BlockingIOError:
                pass
        self.assertEqual((told[0], told[-1]), (b"READY=1", b"STOPPING=1"))
        self.bed.capture.drain()

    def await_line(self, process, wanted):
        for line in process.stderr:
            if wanted in line:
                return
        self.fail(f"{wanted} was never reported")

    def start_endless(self, path, *options):
        """A lineup with results that has begun to send."""
        self.bed.capture.drain()  # what still comes is no other run's
        self.bed.capture.begin()
        process = self.bed.start("lineup", path, "--json", "--results", self.folder.name, *options)
        while not by_target([frame for _, frame in self.bed.capture.frames]):
            select.select([self.bed.capture.socket], [], [])
            self.bed.capture.drain()
        return process

    def test_a_part_that_was_killed_and_runs_again_says_so(self):
        self.write_streams(1)
        path = self.write("again.toml", f"""
            [[channel]]
            name = "one"
            input = "s1.ts"
            to = "rtp://239.1.0.1:5004"
            device = "{self.bed.NEAR}"
            bitrate = {RATE}
            loop = "forever"
            """)
        began = time.time_ns()
        for number in (1, 2):
            process = self.start_endless(path, "--part", "1/1")
            process.kill()
            process.communicate()
        process = self.start_endless(path, "--part", "1/1")
        process.send_signal(signal.SIGINT)
        self.assertEqual(len(json.loads(process.communicate()[0])["broken_runs"]), 2)
        gathered = json.loads(run("gather", self.folder.name, "--json").stdout)
        self.assertEqual(gathered["outcome"], "ended")
        runs = gathered["parts"][0]["broken_runs"]
        self.assertEqual([each["machine"] for each in runs], [os.uname().nodename] * 2)
        self.assertTrue(began < runs[0]["started_ns"] < runs[1]["started_ns"] < gathered["parts"][0]["started_ns"])
        # One that has ended is no part of the next one's story.
        process = self.start_endless(path, "--part", "1/1")
        process.send_signal(signal.SIGINT)
        self.assertEqual(json.loads(process.communicate()[0])["broken_runs"], [])
        self.bed.capture.drain()

    def test_all_start_at_a_time_of_the_command_line(self):
        self.write_streams(2)
        path = self.write("at.toml", f"""
            start-at = "+1h"
            [defaults]
            device = "{self.bed.NEAR}"
            bitrate = {RATE}
            [[generate]]
            name = "c{{n}}"
            count = 2
            input = "s{{n}}.ts"
            to = "rtp://239.1.0.{{n}}:5004"
            """)
        second = time.time_ns() // 10**9 + 2
        at = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(second))
        status, output, errors, frames = self.lineup(path, "--start-at", at)
        self.assertEqual(status, 0, errors)
        in_time = "at once" not in errors
        self.assertEqual({target: len(payloads) for target, payloads in by_target(frames).items()},
                         {"239.1.0.1": 100, "239.1.0.2": 100})
        for channel in json.loads(output)["channels"]:
            if in_time:
                self.assertAlmostEqual(channel["started_ns"], second * 10**9, delta=5_000_000)
            else:  # the machine took so long to begin
                self.assertGreater(channel["started_ns"], second * 10**9)
        self.assertGreaterEqual(min(time for time, frame in self.bed.capture.frames if is_playout(frame)), second)
        status, _, errors, _ = self.lineup(path, "--start-at", at)
        self.assertEqual(status, 0, errors)
        self.assertIn("starting 2 channels at once", errors)

    def test_a_reload_touches_only_what_changed(self):
        self.write_streams(3)
        text = f"""
            [defaults]
            device = "{self.bed.NEAR}"
            bitrate = {RATE}
            loop = "forever"
            [[channel]]
            name = "stays"
            input = "s1.ts"
            to = "rtp://239.1.0.1:5004"
            [[channel]]
            name = "changes"
            input = "s2.ts"
            to = "rtp://239.1.0.2:5004"
            """
        path = self.write("reload.toml", text)
        self.bed.capture.begin()
        process = self.bed.start("lineup", path, "--json")
        while len(by_target([frame for _, frame in self.bed.capture.frames])) < 2:
            select.select([self.bed.capture.socket], [], [])
            self.bed.capture.drain()
        self.write("reload.toml", text + "ttl = 999\n")
        process.send_signal(signal.SIGHUP)
        self.await_line(process, "not reloaded")
        self.write("reload.toml", text.replace("s2.ts", "s3.ts"))
        process.send_signal(signal.SIGHUP)
        self.await_line(process, "reloaded: 1 untouched, 1 ended, 1 begun")
        self.bed.capture.begin()
        while not any(payload[2] == 3 for payload in by_target([frame for _, frame in self.bed.capture.frames])["239.1.0.2"]):
            select.select([self.bed.capture.socket], [], [])
            self.bed.capture.drain()
        process.send_signal(signal.SIGINT)
        output, errors = process.communicate()
        self.bed.capture.drain()  # what still comes is no other test's
        self.assertEqual(process.returncode, 0, errors)
        channels = {channel["name"]: channel for channel in json.loads(output)["channels"]}
        self.assertEqual([channels[name]["starts"] for name in ("stays", "changes")], [1, 1])
        self.assertLess(channels["stays"]["started_ns"], channels["changes"]["started_ns"])


class Checked(Files):
    def test_everything_that_is_wrong_has_its_line(self):
        path = self.write("wrong.toml", f"""start-at = "tomorrow"
[defaults]
device = "lo"
ttl = 300
[[channel]]
name = "one"
input = "{SAMPLE}"
to = "rtp://239.1.1.1:5004"
ttl = 1
[[channel]]
name = "one"
ton = "rtp://239.1.1.1"
restart = "maybe"
[[generate]]
name = "g{{n}}"
count = 2
input = "a{{n/0}}.ts"
[[channel]]
name = "json"
input = "missing.ts"
to = "rtp://239.1.1.1:5004"
ttl = 1
start-at = "+1s"
[other]
""")
        result = run("lineup", path, "--check")
        self.assertEqual(result.returncode, 2)
        found = [line[len(path) + 1:].split(": ")[:2] for line in result.stderr.splitlines()[1:]]
        self.assertEqual({(int(line), what.split(" ")[0]) for line, what in found},
                         {(1, "start-at"), (4, "ttl"), (10, "input"), (10, "to"), (11, "name"), (12, "ton"),
                          (13, "restart"), (17, "input"), (18, "json"), (24, "other")})

    def test_an_input_that_is_not_there_yet_is_checked_by_its_name(self):
        os.mkfifo(self.path("pipe"))
        path = self.write("live.toml", "".join(
            f'[[channel]]\nname = "{source}"\ninput = "{source}"\nto = "rtp://239.1.1.1:5004"\ndevice = "lo"\n'
            for source in ("udp://239.1.1.2", "rtp://239.1.1.2:5004", self.path("pipe"), self.path(""))))
        result = run("lineup", path, "--check")
        self.assertEqual((result.returncode, result.stderr.splitlines()[0]), (2, f"ipplay: {path}: 2 mistakes; nothing was sent"))
        self.assertIn("is a folder", result.stderr)
        self.assertIn(f'{path}:1: udp://239.1.1.2: INPUT: "udp://239.1.1.2" is not valid', result.stderr)

    def test_broken_toml_has_its_line(self):
        path = self.write("broken.toml", "[defaults]\nttl = = 3\n")
        result = run("lineup", path, "--check")
        self.assertEqual(result.returncode, 2)
        self.assertIn(f"{path}:2: ", result.stderr)


class Parts(Files):
    def parts_of(self, count, names):
        """Which names --check counts in each part."""
        path = self.write("parts.toml", "".join(
            f'[[channel]]\nname = "{name}"\ninput = "{SAMPLE}"\nto = "rtp://239.1.1.1:5004"\ndevice = "lo"\n' for name in names))
        counts = []
        for number in range(1, count + 1):
            result = run("lineup", path, "--check", "--part", f"{number}/{count}")
            self.assertEqual(result.returncode, 0, result.stderr)
            counts.append(int(result.stdout.split(": ")[1].split()[0]))
        return counts

    def test_parts_make_the_whole_and_stay_when_it_grows(self):
        names = [f"channel {number}" for number in range(30)]
        counts = self.parts_of(3, names)
        self.assertEqual(sum(counts), 30)
        self.assertTrue(all(counts), counts)
        grown = self.parts_of(3, ["a new one", *names])
        self.assertEqual(sorted(after - before for before, after in zip(counts, grown)), [0, 0, 1])

    def test_the_part_that_a_scheduler_gives(self):
        path = self.write("empty.toml", "")
        for environment, part, valid in (
                ({"SLURM_ARRAY_TASK_ID": "12", "SLURM_ARRAY_TASK_MIN": "10", "SLURM_ARRAY_TASK_COUNT": "3"}, "auto", True),
                ({"SLURM_ARRAY_TASK_ID": "2", "SLURM_ARRAY_TASK_STEP": "4", "SLURM_ARRAY_TASK_COUNT": "4"}, "auto", False),
                ({"SLURM_ARRAY_TASK_ID": "x", "SLURM_PROCID": "0", "SLURM_NTASKS": "1"}, "auto", False),
                ({"SLURM_ARRAY_TASK_ID": "4294967296", "SLURM_PROCID": "0", "SLURM_NTASKS": "1"}, "auto", False),
                ({"SLURM_ARRAY_TASK_ID": "3", "SLURM_ARRAY_TASK_MIN": "3", "SLURM_ARRAY_TASK_COUNT": "1"}, "auto/8", False),
                ({"SLURM_ARRAY_TASK_ID": "0", "SLURM_ARRAY_TASK_COUNT": "2", "SLURM_STEP_NUM_TASKS": "4"}, "auto", False),
                ({"SLURM_ARRAY_TASK_ID": "0", "SLURM_ARRAY_TASK_COUNT": "2", "SLURM_STEP_NUM_TASKS": "1"}, "auto/2", True),
                ({"JOB_COMPLETION_INDEX": "0", "OMPI_COMM_WORLD_SIZE": "2"}, "auto/4", False),
                ({"SLURM_PROCID": "1", "SLURM_NTASKS": "2"}, "auto", True),
                ({"SLURM_PROCID": "1", "SLURM_NTASKS": "2", "SLURM_STEP_NUM_TASKS": "1"}, "auto", False),
                ({"OMPI_COMM_WORLD_RANK": "2", "OMPI_COMM_WORLD_SIZE": "2"}, "auto", False),
                ({"JOB_COMPLETION_INDEX": "3"}, "auto", False),
                ({"JOB_COMPLETION_INDEX": "3"}, "auto/4", True),
                ({}, "auto", False), ({}, "0/3", False), ({}, "4/3", False), ({}, "3/3", True)):
            with self.subTest(part, **environment):
                result = run("lineup", path, "--check", "--part", part, environment=environment)
                self.assertEqual("--part" not in result.stderr, valid, result.stderr)

    @staticmethod
    def result(number, outcome="ended", age=0, channels=()):
        now = time.time_ns() - age
        return {"schema": 1, "outcome": outcome, "machine": f"m{number}", "clock_error_ns": 2_000_000, "started_ns": now,
                "updated_ns": now, "part": {"number": number, "of": 3},
                "channels": [{"name": name, "state": "ended", "last_error": None,
                              "departures": {"late": 0, "not_sent": not_sent, "lateness_ns": {"p99": p99}}}
                             for name, p99, not_sent in channels]}

    def lineup_of(self, *names):
        return self.write(f"{'-'.join(names)}.toml", "".join(
            f'[[channel]]\nname = "{name}"\ninput = "{SAMPLE}"\nto = "rtp://239.1.1.1:5004"\n' for name in names))

    def gather(self, *results, options=()):
        folder = self.path(f"gathered{time.monotonic_ns()}")
        os.mkdir(folder)
        for number, result in enumerate(results):
            with open(os.path.join(folder, f"{number}.json"), "w", encoding="utf-8") as file:
                file.write(result if isinstance(result, str) else json.dumps(result))
        done = run("gather", folder, "--json", *options)
        return done.returncode, json.loads(done.stdout)

    def test_gathered(self):
        good = [self.result(number, channels=[(f"c{number}", 1000 * number, 0)]) for number in (1, 2, 3)]
        status, whole = self.gather(*good)
        self.assertEqual((status, whole["outcome"], whole["wrong"]), (0, "ended", []))
        self.assertEqual([channel["name"] for channel in whole["channels"]], ["c3", "c2", "c1"])
        for wrong, results, options in (
                ("part 2/3 is missing", [good[0], good[2]], ()),
                ("part 3/3 died on m3: last heard of 16 min 40 s ago", [*good[:2], self.result(3, "running", 10**12)], ()),
                ("part 3/3 has not ended on m3", [*good[:2], self.result(3, "running")], ()),
                ("part 1/3 is in both 0.json and 3.json", [*good, good[0]], ()),
                ("3.json: no result of a lineup", [*good, "{"], ()),
                ("3.json: no result of a lineup", [*good, {**good[0], "schema": "1"}], ()),
                ("3.json: no result of a lineup", [*good, {**good[0], "part": {"number": "1", "of": 3}}], ()),
                ("c4 is missing", good, ("--lineup", self.lineup_of("c1", "c2", "c3", "c4"))),
                ("c3 failed", [*good[:2], self.result(3, channels=[("c3", 1, 5)])], ()),
                ("c2: lateness 2 us at 99 %", [good[0], good[1], self.result(3)], ("--max-lateness", "1500ns")),
                ("c3: lateness not known: no frame left", [*good[:2], self.result(3, channels=[("c3", None, 0)])],
                 ("--max-lateness", "1s")),
                # What is left of another run, was copied, or comes from another lineup.
                ("part 2/3 ended 16 min 40 s before part 3/3 began: it is of an earlier run",
                 [good[0], self.result(2, age=10**12), self.result(3)], ()),
                ("c2 is in both part 2 and part 3", [*good[:2], self.result(3, channels=[("c2", 1, 0)])], ()),
                ("c3 is not in the lineup", good, ("--lineup", self.lineup_of("c1", "c2"))),
                ("part 3/3 failed on m3", [*good[:2], self.result(3, "failed")], ()),
                ("3.json: no result of a lineup", [*good, {**good[0], "channels": [1]}], ()),
                ("c3: lateness not known: no frame left", [*good[:2], self.result(3, channels=[("c3", 2**64 - 5, 0)])],
                 ("--max-lateness", "1s")),
                ("part 1/3: the clock may be wrong by 2 ms", good, ("--max-clock-error", "1ms"))):
            with self.subTest(wrong):
                status, whole = self.gather(*results, options=options)
                self.assertEqual(status, 4 if options and options[0].startswith("--max") else 1)
                self.assertIn(wrong, whole["wrong"])

    def test_a_part_that_is_played_again_belongs_to_its_run(self):
        again = [{**self.result(number, age=number * (10**12 + 10**8)), "start_at_ns": 10**18} for number in (1, 2, 3)]
        self.assertEqual(self.gather(*again)[1]["wrong"], [])
        again[1]["start_at_ns"] += 1
        self.assertIn("part 2/3 ended 16 min 40 s before part 1/3 began: it is of an earlier run", self.gather(*again)[1]["wrong"])
        first = {**self.result(1), "broken_runs": [{"machine": "m7", "started_ns": again[0]["started_ns"], "updated_ns": 0}]}
        self.assertEqual(self.gather(first, self.result(2, age=10**12), self.result(3, age=10**12))[1]["wrong"], [])

    def test_what_is_no_file_is_not_read(self):
        os.mkdir(self.path("run"))
        os.mkfifo(self.path("run/fifo.json"))
        os.mkdir(self.path("run/folder.json"))
        with open(self.path("run/1.json"), "w", encoding="utf-8") as file:
            json.dump({**self.result(1), "part": None}, file)
        done = run("gather", self.path("run"), "--json")
        self.assertEqual(json.loads(done.stdout)["wrong"], [f"{name}.json: no result of a lineup" for name in ("fifo", "folder")])

    def test_the_page_shows_what_is_wrong_and_obeys_nothing(self):
        page = self.path("page.html")
        evil = "<b>channel</b>"
        broken = {**self.result(1), "broken_runs": [{"machine": "m7", "started_ns": 1, "updated_ns": 2}]}
        status, _ = self.gather(broken, self.result(3, channels=[(evil, 1, 5)]), options=("--report", page))
        self.assertEqual(status, 1)
        text = read_file(page).decode()
        self.assertNotIn(evil, text)
        for wanted in ("&lt;b&gt;channel&lt;/b&gt; failed", "part 2/3 is missing", "part 1/3 broke off on m7", "its last run was on m1"):
            self.assertIn(wanted, text)


if __name__ == "__main__":
    unittest.main()
