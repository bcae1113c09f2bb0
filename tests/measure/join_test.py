# SPDX-License-Identifier: MIT
"""ipplay measure --join: the kernel is a member, the network hears of it, and nothing of it is left.

The reports are captured at the far end of a veth pair and read by tshark.
"""

import os
import select
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "host"))

from playbed import SAMPLE, PlayBed, write_pcap  # noqa: E402

# More than a socket takes of groups (20) and of sources of one group (10).
GROUPS = [*(f"239.2.0.{number}" for number in range(240)), *(f"ff3e::8000:{number:x}" for number in range(100))]
SOURCES = [*(("232.1.1.1", f"10.0.0.{number}") for number in range(1, 26)),
           *(("ff3e::9000:1", f"fd00::{number:x}") for number in range(1, 81))]
REFUSED = ("10.0.0.1", "239.1.1.1@ff3e::1", "239.1.1.1@239.1.1.2", "239.1.1.1@", "@10.0.0.1", "239.1.1.1@0.0.0.0")
FIELDS = ("igmp.maddr", "igmp.saddr", "icmpv6.mldr.mar.multicast_address", "icmpv6.mldr.mar.source_address")


def read_in(namespace, path):
    return subprocess.run(["cat", path], preexec_fn=namespace.enter, check=True, text=True, stdout=subprocess.PIPE).stdout


class Join(unittest.TestCase):
    def setUp(self):
        self.bed = PlayBed()
        self.addCleanup(self.bed.close)

    def start(self, *arguments):
        process = self.bed.start("measure", self.bed.NEAR, "--json", *arguments)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        self.assertEqual(process.stderr.readline(), f"Measuring on {self.bed.NEAR}\n")
        return process

    def memberships(self):
        """(groups, (group, source)) of the near end, as the kernel lists them."""
        groups, sources = set(), set()
        for line in read_in(self.bed.near, "/proc/net/igmp").splitlines():
            if line.startswith("\t"):
                groups.add(socket.inet_ntoa(int(line.split()[0], 16).to_bytes(4, sys.byteorder)))
        for line in read_in(self.bed.near, "/proc/net/igmp6").splitlines():
            if line.split()[1] == self.bed.NEAR:
                groups.add(socket.inet_ntop(socket.AF_INET6, bytes.fromhex(line.split()[2])))
        for line in read_in(self.bed.near, "/proc/net/mcfilter").splitlines()[1:]:
            sources.add(tuple(socket.inet_ntoa(int(word, 16).to_bytes(4, "big")) for word in line.split()[2:4]))
        for line in read_in(self.bed.near, "/proc/net/mcfilter6").splitlines()[1:]:
            sources.add(tuple(socket.inet_ntop(socket.AF_INET6, bytes.fromhex(word)) for word in line.split()[2:4]))
        return groups, sources

    def reported(self, folder):
        """Groups and sources in the reports so far, by tshark."""
        path = os.path.join(folder, "reports.pcap")
        write_pcap(path, self.bed.capture.frames)
        options = [option for field in FIELDS for option in ("-e", field)]
        text = subprocess.run(["tshark", "-r", path, "-T", "fields", "-E", "separator= ", *options],
                              check=True, text=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
        return set(text.replace(",", " ").split())

    def test_joins_many_reports_them_and_leaves_them_whatever_the_end(self):
        before = self.memberships()
        joins = [option for group in GROUPS for option in ("--join", group)]
        joins += [option for pair in SOURCES for option in ("--join", "@".join(pair))]
        for number in (signal.SIGTERM, signal.SIGKILL):
            with self.subTest(number=number), tempfile.TemporaryDirectory() as folder:
                self.bed.capture.begin()
                process = self.start(*joins)
                groups, sources = self.memberships()
                self.assertEqual(groups - before[0], set(GROUPS) | {group for group, _ in SOURCES})
                self.assertEqual(sources - before[1], set(SOURCES))
                expected = set(GROUPS) | {address for pair in SOURCES for address in pair}
                while not expected <= self.reported(folder):
                    self.assertTrue(select.select([self.bed.capture.socket], [], [], 20)[0], "no more reports")
                    self.bed.capture.drain()
                process.send_signal(number)
                process.wait()
                self.assertEqual(self.memberships(), before)

    def test_names_what_cannot_be_joined(self):
        self.bed.near.run("sh", "-c", "echo 0 > /proc/sys/net/ipv4/igmp_max_memberships")
        process = self.bed.start("measure", self.bed.NEAR, "--join", "239.1.1.1", "--join", "ff3e::8000:1")
        output, complaints = process.communicate()
        self.assertEqual((process.returncode, output), (1, ""))
        self.assertEqual(complaints, f"ipplay: {self.bed.NEAR} cannot join 1 of 2 groups: "
                                     "239.1.1.1 (No buffer space available)\n")

    def test_refuses_in_one_line(self):
        for arguments in (("any", "--join", "239.1.1.1"), (SAMPLE, "--join", "239.1.1.1"),
                          *((self.bed.NEAR, "--join", text) for text in REFUSED)):
            with self.subTest(arguments=arguments):
                process = self.bed.start("measure", *arguments)
                complaints = process.communicate()[1]
                self.assertEqual((process.returncode, len(complaints.splitlines())), (2, 1), complaints)
                self.assertIn("--join", complaints)


if __name__ == "__main__":
    unittest.main()
