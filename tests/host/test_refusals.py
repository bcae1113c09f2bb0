# SPDX-License-Identifier: MIT
"""Every value that is refused is refused before anything starts, in one line: the option as it was typed, what is
wrong with its value, and what to give instead."""
import os
import re
import unittest

from playbed import SAMPLE, PlayCase, is_playout, read_file

USAGE, NO_ACCESS = 2, 3
RTP, UDP, UDP6 = "rtp://239.1.1.1:5004", "udp://239.1.1.1:5004", "udp://[ff3e::1]:5004"

# Option: a value, and words of what to give instead.
PLAY = {
    "--to": ("http://1.2.3.4:1", "rtp://ADDRESS:PORT"), "--device": ("", "a name or a number"),
    "--src-ip": ("1.2.3", "IPv4 or IPv6"), "--dst-ip": ("::g", "IPv4 or IPv6"),
    "--src-mac": ("1:2:3", "six bytes"), "--dst-mac": ("02:00:5e:10:00:0g", "six bytes"),
    "--src-port": ("-1", "0 to 65535"), "--dst-port": ("65536", "0 to 65535"),
    "--ethertype": ("0x10000", "0 to 65535"), "--vlan": ("4096", "0 to 4095"), "--vlan-priority": ("8", "0 to 7"),
    "--vlan-cfi": ("=3", "true or false"), "--vlan-tpid": ("65536", "0 to 65535"), "--ip-version": ("16", "0 to 15"),
    "--ttl": ("256", "0 to 255"), "--hop-limit": ("256", "0 to 255"), "--tos": ("1.5", "0 to 255"),
    "--traffic-class": ("256", "256 is out of range; give 0 to 255"), "--dscp": ("64", "0 to 63"), "--flow-label": ("0x100000", "0 to 1048575"),
    "--identification": ("65536", "0 to 65535"), "--dont-fragment": ("maybe", "on or off"),
    "--protocol": ("256", "0 to 255"), "--next-header": ("udp", '"udp" is not a whole number; give 0 to 255'), "--rtp-version": ("4", "0 to 3"),
    "--payload-type": ("256", "0 to 255"), "--rtp-extension": ("=yes", "true or false"),
    "--sequence": ("65536", "random or 0 to 65535"), "--ssrc": ("4294967296", "0 to 4294967295"),
    "--ts-per-datagram": ("0", "1 to 85"), "--frame-size": ("16129", "1 to 16128"), "--cut": ("=2", "true or false"),
    "--raw": ("=2", "true or false"), "--bitrate": ("0", "above 0"), "--frame-bitrate": ("1e6", "above 0"),
    "--pcr-pid": ("8192", "0 to 8191"), "--ppm": ("200000", "-100000 to 100000"),
    "--loop": ("0", "forever or a number from 1"), "--restamp": ("=2", "true or false"),
    "--near-wrap": ("=2", "true or false"), "--burst": ("1.5ms", "whole milliseconds"),
    "--jitter": ("sine:101%", "up to 100%"), "--copies": ("1000001", "1 to 1000000"),
    "--step": ("color=1", "dst-ip, src-ip"), "--lose": ("3/2", "N from 1 to RANGE"),
    "--delay": ("1/2:0", "D from 1"), "--bad-ip-checksum": ("0/2", "N from 1 to RANGE"),
    "--bad-udp-checksum": ("1/0", "N from 1 to RANGE"), "--random": ("=2", "true or false"),
    "--priority": ("extreme", "time-critical"), "--prefill": ("-1s", "500ms"), "--stats": ("xml", "text or json"), "--json": ("=2", "true or false"),
    "--economy": ("=2", "true or false"), "--quiet": ("=2", "true or false"), "--dry-run": ("=2", "true or false"), "--write-config": ("", "a file"),
    "--input": ("", "a file"), "--config": ("/nonexistent", "a file"),
}
# Those of which one bad value does not show all.
PLAY_MORE = (
    ("--burst", "0", "a number of datagrams"), ("--jitter", "round:10%", "square:TIME"), ("--jitter", "square:11s", "10 s"),
    ("--jitter", "sine:10", "PERCENT%"), ("--step", "payload-type=128", "FIELD=VALUE"), ("--step", "dst-ip=1", "FIELD=VALUE"),
    ("--bitrate", "fast", "as 9.75M"), ("--to", "rtp://239.1.1.256:1", "rtp://ADDRESS:PORT"),
    ("--to", "rtp://239.1.1.1", "rtp://ADDRESS:PORT"), ("--to", "udp://ff3e::1:5000", "IPv6 in [ ]"),
    ("--at", ("soon", "lose"), "a time"), ("--at", ("1s", "explode"), "pause[:TIME]"), ("--at", ("1s", "lose:2s"), "pause[:TIME]"),
    ("--at", ("1s", "pause:0s"), "pause[:TIME]"), ("--at", ("1s",), "TIME ACTION"))
MEASURE = {
    "--duration": ("soon", "a length of time"), "--count": ("0", "above 0"), "--silence": ("1", ""), "--wait": ("-1", "a length"),
    "--expect-rate": ("0", "above 0"), "--expect": ("/nonexistent", "No such file"), "--media-rate": ("x", "above 0"),
    "--clump-gap": ("x", "a length of time"), "--rtp": ("maybe", "auto, on or off"), "--rtp-clock": ("0", "1 to 1000000000"),
    "--max-streams": ("0", "1 to 1000000"), "--min-streams": ("-1", "a whole number"),
    "--filter": ("udp prot 5", "pcap-filter"), "--direction": ("up", "in, out or both"), "--buffer": ("2048", "1 to 2047"),
    "--snaplen": ("63", "64 to 65535"), "--adapter-timestamps": ("=2", "true or false"),
    "--no-promiscuous": ("=2", "true or false"), "--no-udp-checksum": ("=2", "true or false"),
    "--no-ts": ("=2", "true or false"), "--json": ("=2", "true or false"), "--quiet": ("=2", "true or false"),
    "--report": ("/nonexistent/report.html", "No such file"), "--rows": ("100001", "0 to 100000"),
    "--write-config": ("/nonexistent/file", "No such file"), "--source": ("", "an adapter or a file"),
    "--config": ("/nonexistent", "a file"), "--max-rate-error": ("1%", "parts per million"),
}
DEMO = {"--bitrate": ("-1", "above 0"), "--length": ("61s", "100ms to 60s"), "--report": ("/nonexistent/x", "No such file")}


def words(option, value):
    """As on a command line. A flag takes its value behind an equals sign."""
    if isinstance(value, tuple):
        return [option, *value]
    if value.startswith("="):
        return [option + value]
    return [f"{option}={value}"] if value else [option, ""]


class Refusals(PlayCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.bed.near.run("ip", "link", "set", "near", "mtu", "1500")
        with open(cls.folder.name + "/noise.ts", "wb") as file:
            file.write(b"no transport stream\n" * 1000)
        packets = bytearray(read_file(SAMPLE))
        for at in range(0, len(packets), 188):
            packets[at + 3] &= 0xdf  # no adaptation field, and so no PCR
        with open(cls.folder.name + "/no_pcr.ts", "wb") as file:
            file.write(packets)
        with open(cls.folder.name + "/frames.pcap", "wb") as file:
            file.write(bytes.fromhex("d4c3b2a1020004000000000000000000ffff000001000000"))

    def refuse(self, arguments, *needed, status=USAGE, stdin=None):
        self.bed.capture.begin()
        more = {} if stdin is None else {"stdin": stdin}
        process = self.bed.start(*arguments, cwd=self.folder.name, **more)
        output, errors = process.communicate(timeout=30)
        with self.subTest(arguments):
            self.assertEqual((process.returncode, output), (status, ""), errors)
            self.assertRegex(errors, r"\Aipplay: [^\n]*\n\Z")
            for text in needed:
                self.assertIn(text, errors)
            self.bed.capture.drain()
            self.assertEqual([frame for _, frame in self.bed.capture.frames if is_playout(frame)], [])

    def every_option(self, command, values, *fixed):
        """The tables know each option that the help names, but for those that are tested elsewhere."""
        process = self.bed.start(command, "--help")
        options = set(re.findall(r"^  (?:\S+,)*(--[a-z0-9-]+)(?:,(--[a-z0-9-]+))?", process.communicate()[0], re.M))
        options = {name for pair in options for name in pair if name} - {"--help", "--at"}
        self.assertEqual({name for name in options if not name.startswith("--max-")} - values.keys(), set())
        for name in options - values.keys():
            values = {**values, name: ("-5", "")}
        for option, (value, wanted) in values.items():
            typed = option if value.startswith("=") or value.startswith("/") else f"{option}: "
            if option == "--silence":
                typed, value = "--silence: \"x\"", "x"
            if option == "--filter":
                typed = "--filter udp prot 5: "
            given = {"--to": fixed[:1], "--input": fixed[1:], "--source": ()}.get(option, fixed)
            self.refuse([command, *given, *words(option, value)], typed, value.removeprefix("="), wanted)

    def test_values_of_play(self):
        self.every_option("play", PLAY, SAMPLE, "--to", RTP)
        for option, value, wanted in PLAY_MORE:
            fixed = () if option == "--to" else ("--to", RTP)
            self.refuse(["play", SAMPLE, *fixed, *words(option, value)], option + ": \"", wanted)

    def test_values_of_the_others(self):
        self.every_option("measure", MEASURE, "frames.pcap")
        self.every_option("demo", DEMO)
        self.refuse(["resolve", "far", "--device", "near"], 'ADDRESS: "far"', "an IPv4 or IPv6 address")
        self.refuse(["resolve", "10.77.0.2", "--device", ""], '--device: ""', "a name or a number")
        self.refuse(["resolve", "10.77.0.2", "--device", "eth7"], "--device eth7: ", "near, lo", status=NO_ACCESS)
        self.refuse(["devices", "--json=2"], '--json: "2"', "true or false")

    def test_what_is_missing_unknown_or_given_twice(self):
        for arguments, *needed in (
                ([], "devices, resolve, play, measure or demo"), (["plai"], "plai: ", "--help"),
                (["play", "--to", RTP], "INPUT is required"), (["play", SAMPLE], "--to is required"),
                (["play", SAMPLE, "--to", RTP, "--bogus", "1"], "--bogus", "ipplay play --help"),
                (["play", SAMPLE, "--to", RTP, "more.ts"], "more.ts: ", "ipplay play --help"),
                (["play", SAMPLE, "--to", RTP, "--lose"], "--lose: the value is missing", "N/RANGE"),
                (["play", SAMPLE, "--to", RTP, "--lose", "1/2", "--lose", "1/3"], '--lose: "1/2 1/3"', "one N/RANGE"),
                (["devices", "x"], "x: ", "ipplay devices --help"), (["resolve", "--device", "near"], "ADDRESS is required"),
                (["resolve", "10.77.0.2"], "--device is required"), (["measure"], "SOURCE is required"),
                (["demo", SAMPLE, "--length", "1s"], "--length 1s: ", "built-in stream")):
            self.refuse(arguments, *needed)

    def test_what_does_not_go_together_or_with_the_input(self):
        for options, *needed in (
                ((UDP, "--delay", "1/10"), "--delay needs an rtp:// target"),
                ((UDP6, "--bad-ip-checksum", "1/10"), "--bad-ip-checksum needs an IPv4 target"),
                ((RTP, "--bad-ip-checksum", "1/9", "--bad-udp-checksum", "1/8"), "--bad-ip-checksum and --bad-udp-checksum exclude each other"),
                ((UDP, "--at", "1s", "delay"), "--at 1s delay: delay needs an rtp:// target"),
                ((UDP6, "--at", "1s", "bad-ip-checksum"), "--at 1s bad-ip-checksum: ", "IPv4"),
                ((RTP, "--random"), "--random needs --lose"),
                ((RTP, "--src-ip", "fd00::1"), "--src-ip fd00::1: the target is IPv4; give an address of that version"),
                ((UDP6, "--dst-ip", "1.2.3.4"), "--dst-ip 1.2.3.4: the target is IPv6"),
                ((RTP, "--step", "dst-ip=::1"), "--step dst-ip=::1: the target is IPv4"),
                ((RTP, "--step", "vlan=1"), "--step vlan=1 needs --vlan"),
                ((RTP, "--step", "flow-label=1"), "--step flow-label=1 needs an IPv6 target"),
                ((UDP, "--step", "ssrc=1"), "--step ssrc=1 needs an rtp:// target"),
                ((RTP, "--vlan-priority", "3"), "--vlan-priority needs --vlan"),
                ((RTP, "--vlan-cfi"), "--vlan-cfi needs --vlan"),
                ((RTP, "--flow-label", "5"), "--flow-label needs an IPv6 target"),
                ((UDP6, "--identification", "5"), "--identification needs an IPv4 target"),
                ((RTP, "--traffic-class", "1", "--dscp", "2"), "--traffic-class and --dscp exclude each other; give one"),
                ((RTP, "--frame-size", "60"), "--frame-size 60 is too small: the headers take 54 bytes; give 242 or more"),
                ((RTP, "--frame-size", "1400", "--ts-per-datagram", "3"), "--frame-size and --ts-per-datagram exclude each other"),
                ((RTP, "--cut"), "--cut needs --frame-size"),
                ((RTP, "--ts-per-datagram", "8"), "--ts-per-datagram 8 makes IP packets of 1544 bytes; near takes at most 1500"),
                ((RTP, "--ts-per-datagram", "8", "--dont-fragment", "on"), "--ts-per-datagram 8 makes frames of 1558 bytes; give at most 1500"),
                ((RTP, "--ts-per-datagram", "7", "--raw"), "--ts-per-datagram and --raw exclude each other"),
                ((RTP, "--bitrate", "1M", "--frame-bitrate", "2M"), "--bitrate and --frame-bitrate exclude each other"),
                ((RTP, "--bitrate", "5G"), "--bitrate 5G: frames at 5.2", "4.29 Gbit/s"),
                ((RTP, "--burst", "10000000"), "--burst 10000000: 10000000 frames", "give at most"),
                ((RTP, "--raw"), "--bitrate is required"), ((RTP, "--pcr-pid", "9"), "--pcr-pid 9: INPUT has no PCRs there"),
                ((RTP, "--restamp", "--raw", "--bitrate", "1M"), "--restamp and --raw exclude each other"),
                ((RTP, "--pcr-pid", "9", "--raw", "--bitrate", "1M"), "--pcr-pid and --raw exclude each other")):
            self.refuse(["play", SAMPLE, "--to", *options], *needed)
        self.refuse(["play", "no_pcr.ts", "--to", RTP], "--bitrate is required: INPUT has no PCRs to take its rate from")
        self.refuse(["play", "no_pcr.ts", "--to", RTP, "--bitrate", "1M", "--restamp"], "--restamp needs PCRs, and INPUT has none")
        read_end, write_end = os.pipe()
        os.write(write_end, read_file(SAMPLE)[:50_000])
        os.close(write_end)
        self.refuse(["play", "-", "--to", RTP, "--loop", "2"], "--loop needs a file", stdin=read_end)
        os.close(read_end)
        self.refuse(["play", SAMPLE, "--to", RTP, "--device", "eth7"], "--device eth7: ", "give one of: near, lo", status=NO_ACCESS)
        self.refuse(["play", SAMPLE, "--to", "udp://8.8.8.8:5"], "--device is required: ", "no route to 8.8.8.8", status=NO_ACCESS)
        self.refuse(["measure", "frames.pcap", "--max-rate-error", "5ppm"], "--max-rate-error needs --expect-rate")
        self.refuse(["measure", "frames.pcap", "--wait", "5s"], "--wait 5s: allowed with adapters only")
        self.refuse(["measure", "eth7"], "SOURCE: there is no adapter or file eth7", status=NO_ACCESS)
        self.refuse(["measure", "./noise.ts"], "SOURCE: ", "noise.ts")

    def test_configuration_files(self):
        for content, *needed in (
                (b"[play]\nttl = 256\n", "--ttl: 256 is out of range; give 0 to 255"), (b"[play]\nvolume = 11\n", "volume", "--write-config"),
                (b"[play]\ndry-run = true\n", "dry-run"), (b"[play]\nlose = \"1/2\n", "line 2", "quotation mark"),
                (b"[play]\nstep = [\"ttl=1\", \"color=2\"]\n", '--step: "color=2"', "dst-ip"),
                (b"[play]\nat = [\"1s\"]\n", '--at: "1s"', "TIME ACTION"), (b"[play]\ncut = maybe\n", '--cut: "maybe"', "true or false"),
                (b"[play]\nttl 5\n", "line 2", "NAME = VALUE"), (b"[play\n", "line 1"), (b"=\n", "line 1"), (b"[play]\nttl = \n", "line 2"),
                (b"\x00\xff\x47" * 99, "--config"), (b"#" * (1 << 21), "1048576 bytes"), (b"[measure]\nrows = 5\n[plai]\nttl = 5\n", "plai.ttl")):
            with open(self.path("bad.conf"), "wb") as file:
                file.write(content)
            self.refuse(["play", SAMPLE, "--to", RTP, "--config", "bad.conf"], *needed)
        self.refuse(["play", SAMPLE, "--to", RTP, "--config", "/dev/zero"], "1048576 bytes")
        self.refuse(["play", SAMPLE, "--to", RTP, "--config", "."], "--config .: ")


if __name__ == "__main__":
    unittest.main()
