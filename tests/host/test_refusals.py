# SPDX-License-Identifier: MIT
"""Every value that is refused is refused before anything starts, in one line: the option as it was typed,
what is wrong with its value, and what to give instead."""
import os
import re
import unittest

from playbed import SAMPLE, PlayCase, is_playout, read_file

USAGE, NO_ACCESS = 2, 3
RTP, UDP, UDP6 = "rtp://239.1.1.1:5004", "udp://239.1.1.1:5004", "udp://[ff3e::1]:5004"

# One kind of value to a row: words of what to give instead, a value, and the options that are of this kind.
PLAY = (
    ("rtp://ADDRESS:PORT", "http://1.2.3.4:1", "--to"), ("rtp://ADDRESS:PORT", "rtp://239.1.1.256:1", "--to"),
    ("rtp://ADDRESS:PORT", "rtp://239.1.1.1", "--to"), ("IPv6 in [ ]", "udp://ff3e::1:5000", "--to"),
    ("IPv4 or IPv6", "1.2.3", "--src-ip --dst-ip"), ("IPv4 or IPv6", "::g", "--src-ip --dst-ip"),
    ("six bytes", "1:2:3", "--src-mac --dst-mac"), ("six bytes", "02:00:5e:10:00:0g", "--src-mac --dst-mac"),
    ("65536 is out of range; give 0 to 65535", "65536",
     "--src-port --dst-port --ethertype --vlan-tpid --identification"),
    ("256 is out of range; give 0 to 255", "256",
     "--ttl --hop-limit --tos --traffic-class --protocol --next-header --payload-type"),
    ("0 to 65535", "-1", "--src-port"),
    ('"udp" is not a whole number; give 0 to 255', "udp", "--next-header"),
    ("0 to 255", "1.5", "--tos"), ("0 to 4095", "4096", "--vlan"), ("0 to 7", "8", "--vlan-priority"),
    ("0 to 15", "16", "--ip-version"), ("0 to 63", "64", "--dscp"),
    ("0 to 1048575", "0x100000", "--flow-label"),
    ("on or off", "maybe", "--dont-fragment"), ("0 to 3", "4", "--rtp-version"),
    ("random or 0 to 65535", "65536", "--sequence"), ("0 to 4294967295", "4294967296", "--ssrc"),
    ("1 to 85", "0", "--ts-per-datagram"), ("1 to 16128", "16129", "--frame-size"),
    ("1k or above", "999", "--bitrate --frame-bitrate"), ("1k or above", "1e6", "--frame-bitrate"),
    ("as 9.75M", "fast", "--bitrate"), ("0 to 8191", "8192", "--pcr-pid"),
    ("-100000 to 100000", "200000", "--ppm"), ("forever or a number from 1", "0", "--loop"),
    ("whole milliseconds", "1.5ms", "--burst"), ("a number of datagrams", "0", "--burst"),
    ("up to 100%", "sine:101%", "--jitter"), ("square:TIME", "round:10%", "--jitter"),
    ("10 s", "square:11s", "--jitter"), ("PERCENT%", "sine:10", "--jitter"),
    ("1 to 1000000", "1000001", "--copies"),
    ("dst-ip, src-ip", "color=1", "--step"), ("FIELD=VALUE", "payload-type=128", "--step"),
    ("FIELD=VALUE", "dst-ip=1", "--step"), ("N from 1 to RANGE", "3/2", "--lose --bad-ip-checksum"),
    ("N from 1 to RANGE", "0/2", "--bad-ip-checksum"), ("N from 1 to RANGE", "1/0", "--bad-udp-checksum"),
    ("0% to 100%", "101%", "--lose --duplicate --bad-ip-checksum --bad-udp-checksum"),
    ("BITS from 1", "1%:0", "--corrupt"), ("BITS from 1", "1%:1001", "--corrupt"),
    ("to turn bad and good", "1%", "--loss-model"), ("to turn bad and good", "1%,0%", "--loss-model"),
    ("to turn bad and good", "1%,2%,3%,4%,5%", "--loss-model"), ("kept or closed", "open", "--holes"),
    ("break:TIME", "1s break", "--at"), ("lose[:N]", "1s lose:0", "--at"), ("corrupt[:BITS]", "1s corrupt:1001", "--at"),
    ("pcr-jump:TIME", "pcr-jump=1/2", "--ts-fault"), ("pcr-jump:TIME", "sync:1s=1/2", "--ts-fault"),
    ("=N/RANGE or =P%", "continuity", "--ts-fault"), ("@PID", "sync@8192=1/2", "--ts-fault"),
    ("D from 1", "1/2:0", "--delay"), ("time-critical", "extreme", "--priority"),
    ("500ms", "-1s", "--prefill"),
    ("text or json", "xml", "--stats"), ("a file", "/nonexistent", "--config"),
    ("No such file", "/nonexistent", "--input"),
    ("PIDs from 0 to 8190", "256,", "--pid"), ("PIDs from 0 to 8190", "8191", "--pid"), ("pcr or capture", "rtp", "--timing"),
    ("a time", "soon lose", "--at"), ("pause[:TIME]", "1s explode", "--at"),
    ("pause[:TIME]", "1s lose:2s", "--at"),
    ("pause[:TIME]", "1s pause:0s", "--at"), ("TIME ACTION", "1s", "--at"))
MEASURE = (
    ("a length of time", "soon", "--duration --clump-gap"), ("a length", "-1", "--wait"),
    ("above 0", "0", "--count --expect-rate --media-rate"), ("No such file", "/nonexistent", "--expect"),
    ("auto, on or off", "maybe", "--rtp"), ("1 to 1000000000", "0", "--rtp-clock"),
    ("1 to 1000000", "0", "--max-streams"), ("10000 packets", "0", "--reorder-window"),
    ("up to 10s", "32:11s", "--reorder-window"), ("64:200ms", "100ms", "--reorder-window"),
    ("a whole number", "-1", "--min-streams"), ("pcap-filter", "udp prot 5", "--filter"),
    ("in, out or both", "up", "--direction"), ("1 to 2047", "2048", "--buffer"),
    ("64 to 65535", "63", "--snaplen"),
    ("0 to 100000", "100001", "--rows"), ("No such file", "/nonexistent/file", "--report --write-config"),
    ("a file", "/nonexistent", "--config"), ("parts per million", "1%", "--max-rate-error"))
DEMO = (("above 0", "-1", "--bitrate"), ("100ms to 60s", "61s", "--length"),
        ("No such file", "/nonexistent/x", "--report"))


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

    def refuse_values(self, command, rows, *fixed):
        """The rows, and for each option that the help names a value that it cannot have."""
        def refuse(option, words, *needed):
            given = {"--to": fixed[:1], "--input": fixed[1:], "--source": ()}.get(option, fixed)
            self.refuse([command, *given, *words], *needed)

        for wanted, value, options in rows:
            for option in options.split():
                if option in ("--at", "--filter"):
                    refuse(option, [option, *(value.split() if option == "--at" else [value])], option,
                           wanted)
                else:
                    refuse(option, [f"{option}={value}"], option, value, wanted)
        text = self.bed.start(command, "--help").communicate()[0]
        options = re.findall(r"^  (?:-\w,)?(--\S+)(?: (\S+))?", text, re.M)
        self.assertGreater(len(options), 3)
        for names, kind in options:
            for option in {*names.split(",")} - {"--help"}:
                if re.search("FILE|NAME|DEVICE", kind):
                    refuse(option, [option, ""], option)
                else:
                    refuse(option, [option + "=?"], option, "?", *([] if kind else ["true or false"]))

    def test_values_of_play(self):
        self.refuse_values("play", PLAY, SAMPLE, "--to", RTP)

    def test_values_of_the_others(self):
        self.refuse_values("measure", MEASURE, "frames.pcap")
        self.refuse_values("demo", DEMO)
        self.refuse(["resolve", "far", "--device", "near"], 'ADDRESS: "far"', "an IPv4 or IPv6 address")
        self.refuse(["resolve", "10.77.0.2", "--device", ""], '--device: ""', "a name or a number")
        self.refuse(["resolve", "10.77.0.2", "--device", "eth7"], "--device eth7: ", "near, lo",
                    status=NO_ACCESS)
        self.refuse(["devices", "--json=2"], '--json: "2"', "true or false")

    def test_what_is_missing_unknown_or_given_twice(self):
        for arguments, *needed in (
                ([], "measure, lineup, gather, serve or demo"), (["plai"], "plai: ", "did you mean play?", "--help"),
                (["play", SAMPLE, "--to", RTP, "--copis", "3"], "--copis: ", "did you mean --copies?"),
                (["play", SAMPLE, "--to", RTP, "--bitraet=1M"], "did you mean --bitrate?"),
                (["play", SAMPLE, "--to", "rtp://no-such-host.invalid:5004"], "no host that this machine knows"),
                (["play", SAMPLE, "--to", RTP, "--start-at", "9999-12-31T23:59:59Z"], "--start-at", "give a time"),
                (["play", SAMPLE, "--to", RTP, "--start-at", "+9000000000s"], "--start-at", "give a time"),
                (["play", "--to", RTP], "INPUT is required"), (["play", SAMPLE], "--to is required"),
                (["play", SAMPLE, "--to", RTP, "--bogus", "1"], "--bogus", "ipplay play --help"),
                (["play", SAMPLE, "--to", RTP, "more.ts"], "INPUT: cannot read more.ts: No such file"),
                (["play", SAMPLE, "-", "--to", RTP], "INPUT: - can be read only once"),
                (["play", SAMPLE, "udp://@:5000", "--to", RTP], "INPUT: udp://@:5000 can be read only once"),
                (["play", SAMPLE, "no_pcr.ts", "--to", RTP], "INPUT: no_pcr.ts has no PCRs"),
                (["play", SAMPLE, SAMPLE, "--to", RTP, "--from", "1s"], "--from needs a single INPUT, and 2 are given"),
                (["play", SAMPLE, "--to", RTP, "--lose"], "--lose: the value is missing", "N/RANGE"),
                (["play", SAMPLE, "--to", RTP, "--lose", "1/2", "--lose", "1/3"], '--lose: "1/2 1/3"',
                 "one N/RANGE"),
                (["devices", "x"], "x: ", "ipplay devices --help"),
                (["resolve", "--device", "near"], "ADDRESS is required"),
                (["resolve", "10.77.0.2"], "--device is required"), (["measure"], "SOURCE is required"),
                (["demo", SAMPLE, "--length", "1s"], "--length 1s: ", "built-in stream"),
                (["demo", "--listen", "[::1]:80"], "--listen [::1]:80: ", "add --serve"),
                (["demo", "--token-file", "x"], "--token-file x: ", "add --serve"),
                (["demo", "--serve", "--bitrate", "5M"], "--bitrate 5M: ", "--serve")):
            self.refuse(arguments, *needed)

    def test_what_does_not_go_together_or_with_the_input(self):
        for options, *needed in (
                ((UDP, "--ssrc", "4"), "--ssrc needs an rtp:// target"),
                ((UDP, "--payload-type", "96"), "needs an rtp:// target"),
                ((RTP, "--raw", "--bitrate", "1M", "--ts-fault", "sync=1/2"), "--ts-fault", "raw input has no packets"),
                ((UDP, "--delay", "1/10"), "--delay needs an rtp:// target"),
                ((UDP6, "--bad-ip-checksum", "1/10"), "--bad-ip-checksum needs an IPv4 target"),
                ((RTP, "--bad-ip-checksum", "1/9", "--bad-udp-checksum", "1/8"),
                 "--bad-ip-checksum and --bad-udp-checksum exclude each other"),
                ((UDP, "--at", "1s", "delay"), "--at 1s delay: delay needs an rtp:// target"),
                ((UDP6, "--at", "1s", "bad-ip-checksum"), "--at 1s bad-ip-checksum: ", "IPv4"),
                ((RTP, "--random"), "--random needs --lose"),
                ((RTP, "--random", "--lose", "1%"), "a share in per cent is at random anyway"),
                ((RTP, "--holes", "closed"), "--holes closed needs --lose, --loss-model or --at"),
                ((RTP, "--lose", "1%", "--loss-model", "1%,25%"), "exclude each other in per cent"),
                ((RTP, "--priority", "normal", "--corrupt", "1/9"), "--corrupt needs frames that are paced one by one"),
                ((RTP, "--priority", "normal", "--at", "1s", "break:1s"), "needs frames that are paced one by one"),
                ((RTP, "--fec", "21x4"), '--fec: "21x4" is not valid', "L from 1 to 20"),
                ((RTP, "--fec", "10x11"), '--fec: "10x11" is not valid', "up to 100"),
                ((RTP, "--fec", "10x5:rows"), '--fec: "10x5:rows" is not valid', "LxD:columns"),
                ((UDP, "--fec", "10x5"), "--fec needs an rtp:// target"),
                ((RTP, "--fec-lose", "1/9"), "--fec-lose needs --fec"),
                ((RTP, "--fec-staggered"), "--fec-staggered needs --fec"),
                ((RTP, "--fec", "10x5", "--dst-port", "65532"), "--fec 10x5: the destination port is 65532", "up to 65531"),
                ((RTP, "--fec", "10x5", "--frame-size", "1502", "--cut"),
                 "--fec makes IP packets of 1504 bytes", "fewer"),
                ((RTP, "--fec", "10x5", "--priority", "highest"), "--fec needs frames that are paced one by one"),
                ((RTP, "--fec", "10x5", "--socket"), "--socket: --fec needs an adapter"),
                ((RTP, "--twin", UDP), "--twin needs rtp:// targets"),
                ((RTP, "--twin", RTP), "--twin rtp://239.1.1.1:5004: the target is that of --to", "--twin-device"),
                ((RTP, "--twin", "rtp://[ff3e::1]:5004"), "--twin rtp://[ff3e::1]:5004: the target of --to is IPv4"),
                ((RTP, "--twin", "rtp://239.9.9.9:5", "--twin-skew", "451ms"), '--twin-skew: "451ms"', "up to 450ms"),
                ((RTP, "--twin-lose", "1/9"), "--twin-lose needs --twin"),
                ((RTP, "--at", "1s", "twin-lose"), "--at with twin-... needs --twin"),
                ((RTP, "--at", "1s", "twin-stop"), '--at: "twin-stop"'), ((RTP, "--at", "1s", "outage"), '--at: "outage"'),
                ((RTP, "--twin", "rtp://239.9.9.9:5", "--priority", "highest"), "--twin needs frames that are paced one by one"),
                ((RTP, "--src-ip", "fd00::1"),
                 "--src-ip fd00::1: the target is IPv4; give an address of that version"),
                ((UDP6, "--dst-ip", "1.2.3.4"), "--dst-ip 1.2.3.4: the target is IPv6"),
                ((RTP, "--step", "dst-ip=::1"), "--step dst-ip=::1: the target is IPv4"),
                ((RTP, "--step", "vlan=1"), "--step vlan=1 needs --vlan"),
                ((RTP, "--step", "flow-label=1"), "--step flow-label=1 needs an IPv6 target"),
                ((UDP, "--step", "ssrc=1"), "--step ssrc=1 needs an rtp:// target"),
                ((RTP, "--vlan-priority", "3"), "--vlan-priority needs --vlan"),
                ((RTP, "--vlan-cfi"), "--vlan-cfi needs --vlan"),
                ((RTP, "--flow-label", "5"), "--flow-label needs an IPv6 target"),
                ((UDP6, "--identification", "5"), "--identification needs an IPv4 target"),
                ((RTP, "--traffic-class", "1", "--dscp", "2"),
                 "--traffic-class and --dscp exclude each other; give one"),
                ((RTP, "--frame-size", "60"),
                 "--frame-size 60 is too small: the headers take 54 bytes; give 242 or more"),
                ((RTP, "--frame-size", "1400", "--ts-per-datagram", "3"),
                 "--frame-size and --ts-per-datagram exclude each other"),
                ((RTP, "--cut"), "--cut needs --frame-size"),
                ((RTP, "--ts-per-datagram", "8"),
                 "--ts-per-datagram 8 makes IP packets of 1544 bytes; near takes at most 1500"),
                ((RTP, "--ts-per-datagram", "8", "--dont-fragment", "on"),
                 "--ts-per-datagram 8 makes frames of 1558 bytes; give at most 1500"),
                ((RTP, "--ts-per-datagram", "7", "--raw"), "--ts-per-datagram and --raw exclude each other"),
                ((RTP, "--bitrate", "1M", "--frame-bitrate", "2M"),
                 "--bitrate and --frame-bitrate exclude each other"),
                ((RTP, "--bitrate", "5G"), "--bitrate 5G: frames at 5.2", "4.29 Gbit/s"),
                ((RTP, "--burst", "10000000"), "--burst 10000000: 10000000 frames", "give at most"),
                ((RTP, "--raw"), "--bitrate is required"),
                ((RTP, "--pcr-pid", "9"), "--pcr-pid 9: INPUT has no PCRs there"),
                ((RTP, "--restamp", "--raw", "--bitrate", "1M"), "--restamp and --raw exclude each other"),
                ((RTP, "--pid", "4000"), "has no PID 4000; give some of "),
                ((RTP, "--pid", "256", "--raw", "--bitrate", "1M"), "--pid and --raw exclude each other"),
                ((RTP, "--timing", "capture"), "--timing capture needs one pcap or pcapng file"),
                ((RTP, "--keep-losses"), "--keep-losses needs --timing capture"),
                ((RTP, "--timing", "capture", "--bitrate", "5M"), "--timing capture and --bitrate exclude each other"),
                ((RTP, "--pcr-pid", "9", "--raw", "--bitrate", "1M"),
                 "--pcr-pid and --raw exclude each other")):
            self.refuse(["play", SAMPLE, "--to", *options], *needed)
        self.refuse(["play", "no_pcr.ts", "--to", RTP],
                    "--bitrate is required: INPUT has no PCRs to take its rate from")
        self.refuse(["play", "no_pcr.ts", "--to", RTP, "--bitrate", "1M", "--restamp"],
                    "--restamp needs PCRs, and INPUT has none")
        read_end, write_end = os.pipe()
        os.write(write_end, read_file(SAMPLE)[:50_000])
        os.close(write_end)
        self.refuse(["play", "-", "--to", RTP, "--loop", "2"], "--loop needs a file", stdin=read_end)
        os.close(read_end)
        self.refuse(["play", SAMPLE, "--to", RTP, "--device", "eth7"],
                    "--device eth7: ", "give one of: near, lo", status=NO_ACCESS)
        self.refuse(["play", SAMPLE, "--to", "udp://8.8.8.8:5"],
                    "--device is required: ", "no route to 8.8.8.8", status=NO_ACCESS)
        self.refuse(["measure", "frames.pcap", "--max-rate-error", "5ppm"],
                    "--max-rate-error needs --expect-rate")
        self.refuse(["measure", "frames.pcap", "--wait", "5s"], "--wait 5s: frames.pcap is a file that ends by itself; leave it out")
        self.refuse(["measure", "eth7"], "SOURCE: there is no adapter or file eth7", status=NO_ACCESS)
        self.refuse(["measure", "./noise.ts"], "SOURCE: ", "noise.ts")

    def test_configuration_files(self):
        for content, *needed in (
                (b"[play]\nttl = 256\n", "--ttl: 256 is out of range; give 0 to 255"),
                (b"[play]\nvolume = 11\n", "volume", "--write-config"),
                (b"[play]\ndry-run = true\n", "dry-run"),
                (b"[play]\nlose = \"1/2\n", "line 2", "quotation mark"),
                (b"[play]\nstep = [\"ttl=1\", \"color=2\"]\n", '--step: "color=2"', "dst-ip"),
                (b"[play]\nat = [\"1s\"]\n", '--at: "1s"', "TIME ACTION"),
                (b"[play]\ncut = maybe\n", '--cut: "maybe"', "true or false"),
                (b"[play]\nttl 5\n", "line 2", "NAME = VALUE"), (b"[play\n", "line 1"), (b"=\n", "line 1"),
                (b"[play]\nttl = \n", "line 2"),
                (b"\x00\xff\x47" * 99, "--config"), (b"#" * (1 << 21), "1048576 bytes"),
                (b"[measure]\nrows = 5\n[plai]\nttl = 5\n", "plai.ttl")):
            with open(self.path("bad.conf"), "wb") as file:
                file.write(content)
            self.refuse(["play", SAMPLE, "--to", RTP, "--config", "bad.conf"], *needed)
        self.refuse(["play", SAMPLE, "--to", RTP, "--config", "/dev/zero"], "1048576 bytes")
        self.refuse(["play", SAMPLE, "--to", RTP, "--config", "."], "--config .: ")


if __name__ == "__main__":
    unittest.main()
