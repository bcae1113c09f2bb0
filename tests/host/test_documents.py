# SPDX-License-Identifier: MIT
"""What the documents promise: every recipe runs, every option is described and
completed, every field of JSON exists."""
import csv
import glob
import json
import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "measure"))

from frames import Playout, psi_packet, ts_packet, write_pcap  # noqa: E402
from playbed import HERE, IPPLAY, SAMPLE, PlayCase, make_varying_stream, install  # noqa: E402

ROOT = os.path.join(HERE, "..", "..")
NOBODY = "65534"


def text_of(*path):
    with open(os.path.join(ROOT, *path), encoding="utf-8") as file:
        return file.read()


def recipes(text):
    """Heading -> commands of the block below it."""
    return {heading: block.strip() for heading, block in
            re.findall(r"^## ([^\n]*)\n(?:(?!^##).)*?^```sh\n(.*?)^```", text, re.MULTILINE | re.DOTALL)}


def options_of(*command):
    text = subprocess.run([IPPLAY, *command, "--help"], check=True, text=True, stdout=subprocess.PIPE).stdout
    return set(re.findall(r"(?<=[ ,])--[a-z][a-z-]*", text))


class Recipes(PlayCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        for name in ("stream.ts", "film.ts"):
            shutil.copy(SAMPLE, os.path.join(cls.folder.name, name))
        write_pcap(os.path.join(cls.folder.name, "capture.pcapng"), Playout(datagrams=100).capture())
        install(cls.folder.name)

    def run_recipe(self, commands, *options, user=None, outcome="^(Played|Stopped by --at): (stream.ts|capture.pcapng)"):
        """Runs the commands as they stand, but for the reader's own names: adapter, sudo, root's shell."""
        script = "\n".join(line + (f" {' '.join(options)}" if line.startswith("ipplay play") else "")
                           for line in commands.replace("eth0", self.bed.NEAR).splitlines())
        prefix = ["setpriv", "--reuid", user, "--regid", user, "--clear-groups",
                  "--inh-caps=-all"] if user else []
        environment = {**os.environ, "PATH": f"{self.folder.name}:{os.environ['PATH']}:/usr/sbin"}
        self.bed.capture.begin()
        process = subprocess.run([*prefix, "bash", "-eu", "-c", script], cwd=self.folder.name,
                                 env=environment,
                                 preexec_fn=self.bed.near.enter, text=True, stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE)
        self.assertEqual(process.returncode, 0, process.stderr)
        self.assertRegex(process.stdout, outcome)
        self.bed.capture.drain()
        return process.stdout

    def test_recipes(self):
        found = recipes(text_of("docs", "recipes.md"))
        self.assertEqual(len(found), 13)
        endless = "Endless loop as an unprivileged user"
        many = "Many channels from one file"
        with self.subTest(many), open(os.path.join(self.folder.name, "channels.toml"), "w", encoding="utf-8") as lineup:
            lineup.write(re.search(r"^```toml\n(.*?)^```", text_of("docs", "recipes.md"), re.MULTILINE | re.DOTALL)[1]
                         .replace("eth0", self.bed.NEAR))
            lineup.flush()
            self.run_recipe(found[many], outcome="^channels.toml: 21 channels, nothing wrong\n(?s:.*)\n21 channels: 21 ended\n$")
        for heading, commands in found.items():
            if heading not in (endless, many):
                with self.subTest(heading):
                    self.run_recipe(commands)
        with self.subTest(endless):
            *rights, play = found[endless].splitlines()
            # For nobody's group, so that the machine keeps its list of groups.
            self.assertRegex("\n".join(rights[:2]), "^sudo groupadd .* ipplay\nsudo usermod .* ipplay ")
            program = os.path.join(self.folder.name, "ipplay")
            commands = "\n".join(rights[2:]).replace("sudo ", "").replace("chgrp ipplay", f"chgrp {NOBODY}")
            subprocess.run(["bash", "-euc", commands.replace("$(command -v ipplay)", program)],
                           check=True, env={**os.environ, "PATH": f"{os.environ['PATH']}:/usr/sbin"})
            self.run_recipe(play, "--at", "1s", "stop", user=NOBODY)
            self.assertEqual(os.stat(program).st_mode & 0o7, 0)


def documented_fields(command):
    """The fields in the table of docs/json.md below the heading of the command."""
    section = re.search(rf"^## {re.escape(command)}\n(.*?)(?=^## |\Z)", text_of("docs", "json.md"),
                        re.MULTILINE | re.DOTALL)[1]
    return {name for row in re.findall(r"^\| (`[^|]*)\|", section, re.MULTILINE)
            for name in re.findall(r"`([^`]+)`", row)}


def fields_of(value, path=""):
    """Paths as in docs/json.md; an array of plain values is one field."""
    if isinstance(value, dict):
        return set().union(*(fields_of(part, f"{path}.{name}" if path else name)
                             for name, part in value.items()))
    if isinstance(value, list) and value and isinstance(value[0], dict):
        return set().union(*(fields_of(part, path + "[]") for part in value))
    return {path}


def service_packets(counter):
    """A service with a name, sound in a language, and an event: one section of each table."""
    head = struct.pack(">HBBB", 1, 0xC1, 0, 0)
    service = b"\x48\x05\x01\x01P\x01N"
    return b"".join((
        psi_packet(0, counter, 0x00, head + struct.pack(">HH", 1, 0xE101)),
        psi_packet(0x101, counter, 0x02, head + struct.pack(">HHBHH", 0xE100, 0xF000, 4, 0xE100, 0xF006) + b"\x0a\x04deu\0"),
        psi_packet(0x11, counter, 0x42, head + struct.pack(">HBHBH", 1, 0xFF, 1, 0xFC, 0x8000 | len(service)) + service),
        psi_packet(0x12, counter, 0x4E, head + struct.pack(">HHBB", 1, 1, 0, 0x4E)),
        *(ts_packet(0x100, 3 * counter + i, pcr=(7 * counter + 4 + i) * 40_000) for i in range(3))))


class Measured(unittest.TestCase):
    def measure(self, folder, frames, *options, cut=0):
        path = os.path.join(folder, "frames.pcap")
        write_pcap(path, frames)
        os.truncate(path, os.path.getsize(path) - cut)
        return self.measure_file(path, *options)

    def measure_file(self, path, *options):
        output = subprocess.run([IPPLAY, "measure", path, "--json", *options], stdout=subprocess.PIPE, check=False).stdout
        return json.loads(output)

    def test_documented_fields_of_seconds_are_those_that_are_written(self):
        with tempfile.TemporaryDirectory() as folder:
            seconds, table = os.path.join(folder, "seconds"), os.path.join(folder, "seconds.csv")
            frames = Playout(vlan=100, datagrams=2500, jitter_ns=1000).capture()
            for path in (seconds, table):
                self.measure(folder, frames, "--per-second", path)
            with open(seconds, encoding="utf-8") as lines:
                written = [json.loads(line) for line in lines]
            with open(table, encoding="utf-8", newline="") as lines:
                rows = list(csv.DictReader(lines))
        documented = {f"all[].{name}" for name in documented_fields("ipplay measure --per-second")}
        self.assertEqual(fields_of({"all": written}), documented)
        self.assertEqual([list(row) for row in rows], [list(written[-1])] * 3)
        self.assertEqual(rows, [{name: str(row.get(name, "")) for name in written[-1]} for row in written])

    def test_documented_fields_of_events_are_those_that_are_written(self):
        faulty = Playout(vlan=100, datagrams=2000, lose={100}, delay={300: 2}, bad_udp=set(range(400, 425)), bad_ip={500})
        frames = faulty.capture()
        plain = Playout(rtp=False)
        for number in range(200):  # a jump of the PCR, a wrong table, a silence and another rate
            content = bytearray(service_packets(number + (16_000 if number > 50 else 0)))
            content[12] ^= number == 70
            time_ns = number * 100_000_000 if number < 120 else 13_000_000_000 + number * 20_000_000
            frames.append((frames[0][0] + time_ns, plain.frame(number, 0, bytes(content))))
        frames.sort()
        with tempfile.TemporaryDirectory() as folder:
            events = os.path.join(folder, "events")
            self.measure(folder, frames, "--events", events)
            with open(events, encoding="utf-8") as lines:
                written = [json.loads(line) for line in lines]
        self.assertEqual([written[0]["event"], written[-1]["event"]], ["start", "end"])
        self.assertEqual(written[-1]["events"],
                         len(written) - 2 + sum(line["count"] - 1 for line in written if line["event"] == "left_out"))
        # A link changes on an adapter only.
        self.assertEqual(fields_of({"all": written}) | {"all[].up"},
                         {f"all[].{name}" for name in documented_fields("ipplay measure --events")})

    def test_documented_fields_are_those_that_are_written(self):
        with tempfile.TemporaryDirectory() as folder:
            file = os.path.join(folder, "expected.ts")
            tagged = Playout(vlan=100, datagrams=400, lose={100})
            with open(file, "wb") as expected:
                expected.write(b"".join(tagged.payloads())[:-100] + bytes(100))
            plain = Playout(rtp=False, datagrams=200)
            services = [(number * 1_000_000, plain.frame(number, 0, service_packets(number))) for number in range(200) if number != 100]
            protected = os.path.join(folder, "protected.pcapng")
            subprocess.run([IPPLAY, "play", SAMPLE, "--to", "rtp://239.1.1.1:5004", "--into", protected, "--fec", "5x4"],
                           check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            twins = [(time, plain.frame(number, path, frame[42:]))
                     for number, (time, frame) in enumerate(Playout(datagrams=200).capture()) for path in (0, 1)]
            documents = [self.measure(folder, twins, "--max-loss", "0"),
                         self.measure_file(protected, "--max-unrepaired", "0"),
                         self.measure_file(protected, "--filter", "udp port 5006", "--max-unrepaired", "0"),
                         self.measure(folder, tagged.capture(), "--expect", file, "--expect-rate", "10M"),
                         self.measure(folder, services, "--max-loss", "0", cut=1)]
        self.assertEqual([document["schema"] for document in documents], [1] * 5)
        documented = documented_fields("ipplay measure --json")

        def named(path):
            """The documented field that the path is, or is a part of."""
            parts = path.split(".")
            names = [".".join(parts[:i + 1]) for i in range(len(parts))]
            return next((name for name in names if name in documented), path)

        self.assertEqual({named(path) for document in documents for path in fields_of(document)}, documented)


class Json(PlayCase):
    def test_documented_fields_are_those_that_are_written(self):
        varying = self.path("varying.ts")
        make_varying_stream(varying)
        target = ("--to", "rtp://239.1.1.1:5004", "--json")
        lineup = self.path("lineup.toml")
        results = self.path("results")
        os.mkdir(results)
        channel = f'[[channel]]\nname = "one"\ninput = "{SAMPLE}"\nto = "rtp://239.1.1.1:5004"\nduration = "500ms"\n'
        with open(lineup, "w", encoding="utf-8") as file:
            file.write(channel)
        with open(os.path.join(results, "part-1-of-1.json"), "w", encoding="utf-8") as file:  # of a run that was killed
            json.dump({"schema": 1, "outcome": "running", "machine": "m", "started_ns": 1, "updated_ns": 2,
                       "part": {"number": 1, "of": 1}, "channels": []}, file)
        faults = ("--at", "10ms", "lose", "--at", "20ms", "pause:10ms", "--at", "9h", "lose", "--ts-fault", "sync=1/100")
        for command, runs in (("ipplay lineup --json", [("lineup", lineup, "--json", "--part", "1/1", "--results", results)]),
                              ("ipplay gather --json", [("gather", results, "--json")]),
                              ("ipplay devices --json", [("devices", "--json")]),
                              ("ipplay play --json", [("play", SAMPLE, *target, "--to", self.path("also.pcapng"),
                                                       "--to", "rtp://127.0.0.1:5000"),
                                                      ("play", SAMPLE, *target, *faults, "--ledger", self.path("ledger.pcapng")),
                                                      ("play", varying, *target), ("play", "-", *target),
                                                      ("play", SAMPLE, *target, "--twin", "rtp://239.1.1.2:5004")])):
            with self.subTest(command):
                with_pipe = ("sh", "-c", f'cat {SAMPLE} | "$@"', "sh")
                outputs = [self.bed.start(*arguments, prefix=with_pipe).communicate(timeout=60)[0] for arguments in runs]
                texts = outputs if len(runs) == 1 else "".join(outputs).splitlines()
                objects = [json.loads(text) for text in texts]
                self.assertEqual(fields_of({"all": objects}),
                                 {f"all[].{name}" for name in documented_fields(command)})
                self.assertEqual({each["schema"] for each in objects}, {1})


class Descriptions(unittest.TestCase):
    def test_what_documents_refer_to_exists(self):
        folders = sorted(name for name in os.listdir(ROOT) if os.path.isdir(os.path.join(ROOT, name)) and name != "build")
        pages = [name for name in os.listdir(ROOT) if name.endswith(".md")]
        pages += [f"docs/{name}" for name in os.listdir(os.path.join(ROOT, "docs")) if name.endswith(".md")]
        missing = set()
        for page in pages:
            text = text_of(page)
            links = [os.path.join(os.path.dirname(page), link) for link in re.findall(r"\]\((?!\w+:)([^)#]+)", text)]
            names = re.findall(rf"`((?:{'|'.join(map(re.escape, folders))})/[\w./-]*)", text)
            for name in links + names:
                # A class is named without its ending, a placeholder in capitals.
                path = os.path.join(ROOT, name)
                if not re.search(r"/[A-Z_]{2,}", name) and not os.path.exists(path) and not glob.glob(path + ".*"):
                    missing.add((page, name))
        self.assertEqual(missing, set())

    def test_man_page_has_every_option(self):
        page = text_of("docs", "man", "ipplay.1").replace("\\-", "-")
        commands = [[], ["play"], ["devices"], ["resolve"], ["measure"], ["lineup"], ["gather"], ["serve"], ["demo"]]
        options = set().union(*(options_of(*command) for command in commands))
        self.assertGreater(len(options), 90)
        self.assertEqual({option for option in options if option not in page}, set())

    def test_man_pages_are_well_formed(self):
        for page in ("ipplay.1", "libipplayout.3"):
            path = os.path.join(ROOT, "docs", "man", page)
            process = subprocess.run(["groff", "-man", "-Tutf8", "-ww", "-z", path], text=True,
                                     stderr=subprocess.PIPE, check=True)
            self.assertEqual(process.stderr, "")

    def complete(self, *words):
        script = f"""source {ROOT}/host/completion/ipplay
            COMP_WORDS=({IPPLAY} {' '.join(f"'{word}'" for word in words)}); COMP_CWORD={len(words)}
            _ipplay {IPPLAY} '{words[-1]}' '{words[-2] if len(words) > 1 else IPPLAY}'
            printf '%s\\n' "${{COMPREPLY[@]}}" """
        return subprocess.run(["bash", "-c", script], check=True, text=True,
                              stdout=subprocess.PIPE).stdout.split()

    def test_completion(self):
        self.assertEqual(self.complete("de"), ["devices", "demo"])
        self.assertEqual(self.complete("li"), ["lineup"])
        self.assertEqual(self.complete("play", "--lo"), ["--loop", "--lose", "--loss-model"])
        self.assertEqual(self.complete("devices", "--j"), ["--json"])
        self.assertIn("lo", self.complete("play", "--device", "lo"))
        self.assertIn("lo", self.complete("measure", "l"))
        self.assertEqual(self.complete("play", "--stats", "j"), ["json"])


if __name__ == "__main__":
    unittest.main()
