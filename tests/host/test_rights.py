# SPDX-License-Identifier: MIT
"""An ordinary user with file capabilities: what it takes to play, and what is left once it plays."""
import json
import os
import shutil
import subprocess
import unittest

from playbed import SAMPLE, PlayCase, install, is_playout, wait_until_sending

NOBODY = "65534"
TARGET = ("--to", "rtp://239.1.1.1:5004")
PLAYED, FAILED, USAGE, NO_ACCESS = 0, 1, 2, 3
REAL_TIME = 2  # SCHED_RR


class Rights(PlayCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        shutil.copy(SAMPLE, cls.path(cls, "stream.ts"))
        cls.program = install(cls.folder.name)

    def start(self, *arguments, user=NOBODY, capabilities=None, environment=None, limit=()):
        if capabilities:
            subprocess.run(["/usr/sbin/setcap", capabilities + "+ep", self.program], check=True)
        else:
            subprocess.run(["/usr/sbin/setcap", "-r", self.program], check=False, stderr=subprocess.DEVNULL)
        prefix = ["setpriv", "--reuid", user, "--regid", user, "--clear-groups",
                  "--inh-caps=-all"] if user else []
        return subprocess.Popen([*prefix, *limit, self.program, *arguments], preexec_fn=self.bed.near.enter,
                                text=True,
                                env={**{name: value for name, value in os.environ.items()
                                        if not name.startswith("SUDO_")}, **(environment or {})}, cwd=self.folder.name,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    @staticmethod
    def status(process):
        with open(f"/proc/{process.pid}/status", encoding="ascii") as file:
            return dict(line.split(":\t", 1) for line in file.read().splitlines() if ":\t" in line)

    @staticmethod
    def threads(process):
        """Of each thread its name, capabilities and scheduling class."""
        found = []
        for thread in os.listdir(f"/proc/{process.pid}/task"):
            with open(f"/proc/{process.pid}/task/{thread}/status", encoding="ascii") as file:
                status = dict(line.split(":\t", 1) for line in file.read().splitlines() if ":\t" in line)
            found.append((status["Name"], *(int(status[kind], 16) for kind in ("CapPrm", "CapEff", "CapAmb")),
                          os.sched_getscheduler(int(thread))))
        return found

    def test_start_without_threads(self):
        player = self.start("play", "stream.ts", *TARGET, capabilities="cap_net_raw", limit=("prlimit", "--nproc=1"))
        self.assertEqual(player.communicate()[1], "ipplay: a thread cannot be started: Resource temporarily unavailable; "
                                                  "raise the limit of processes (ulimit -u) or of memory (-v)\n")
        self.assertEqual(player.returncode, FAILED)

    def test_nothing_is_left_while_it_plays(self):
        for user, capabilities, real_time in ((NOBODY, "cap_net_raw", False),
                                              (NOBODY, "cap_net_raw,cap_sys_nice", True), (None, None, True)):
            with self.subTest(user=user, capabilities=capabilities):
                player = self.start("play", "stream.ts", *TARGET, "--loop", "forever", "--stats", "json",
                                    "--priority", "highest", "--economy",
                                    user=user, capabilities=capabilities)
                self.addCleanup(player.kill)
                wait_until_sending(player)
                threads = self.threads(player)
                # Itself, the reader of the input, and the library's two.
                self.assertEqual(len(threads), 4, threads)
                self.assertEqual([thread[1:4] for thread in threads], [(0, 0, 0)] * 4)
                self.assertEqual(os.getpriority(os.PRIO_PROCESS, player.pid), 10)
                classes = [thread[4] == REAL_TIME for thread in threads
                           if thread[0] in ("DataPumpThread", "PacketTransmit")]
                self.assertEqual(any(classes), real_time)
                for protocol in ("tcp", "tcp6", "udp", "udp6", "raw", "raw6"):
                    with open(f"/proc/{player.pid}/net/{protocol}", encoding="ascii") as file:
                        self.assertEqual(file.read().count("\n"), 1, protocol)
                player.terminate()
                output, errors = player.communicate(timeout=30)
                self.assertEqual(player.returncode, PLAYED, errors)
                self.assertEqual(json.loads(output.splitlines()[-1])["outcome"], "Stopped by a signal")

    def test_measuring(self):
        # A report is root's, whoever writes it.
        report = self.path("report.html")
        for user, capabilities, left, report_words in (
                (NOBODY, "cap_net_raw", 0, ()), (None, None, 0, ()),
                (None, None, 1 << 0 | 1 << 1 | 1 << 3 | 1 << 5, ("--report", report))):
            with self.subTest(user=user, report=report_words):
                meter = self.start("measure", "near", "--wait", "20s", *report_words,
                                   user=user, capabilities=capabilities)
                self.addCleanup(meter.kill)
                self.assertEqual(meter.stderr.readline(), "Measuring on near\n")
                while (threads := self.threads(meter))[0][1:4] != (left, left, 0):
                    self.assertIsNone(meter.poll())
                self.assertEqual(len(threads), 1)
                while (status := self.status(meter))["Seccomp"] == "0":
                    self.assertIsNone(meter.poll())
                self.assertEqual((status["Seccomp"], status["NoNewPrivs"], status["Uid"], status["Gid"],
                                  status["Groups"].strip()),
                                 ("2", "1", "\t".join([NOBODY] * 4), "\t".join([NOBODY] * 4), ""))
                meter.terminate()
                meter.communicate(timeout=30)
                self.assertEqual(meter.returncode, PLAYED)
        self.assertEqual((os.stat(report).st_uid, os.stat(report).st_gid), (0, 0))

    def test_without_rights(self):
        play, measure = ("play", "stream.ts", *TARGET, "--vlan", "5"), ("measure", "near")
        no_right = "CAP_NET_RAW is missing (and CAP_SYS_NICE, for exact timing); run as root, or "
        advice = f"chgrp GROUP {self.program}; chmod 750 {self.program}; setcap cap_net_raw"
        for arguments, run_path, words in (
                (play, True, no_right + "install ipplay and give the installed program its rights\n"),
                (measure, True, "near: run as root, or install ipplay"),
                (play, False, no_right + f"once as root, for a group of users: {advice},cap_sys_nice+ep"),
                (measure, False, f"{advice}+ep {self.program}\n")):
            if not run_path:
                subprocess.run(["patchelf", "--remove-rpath", self.program], check=True)
            process = self.start(*arguments, environment={"LD_LIBRARY_PATH": self.folder.name})
            output, errors = process.communicate(timeout=30)
            self.assertEqual((process.returncode, output), (NO_ACCESS, ""))
            self.assertIn(words, errors)
        install(self.folder.name)
        # What a socket can do it does.
        self.bed.capture.begin()
        process = self.start("play", "stream.ts", "--to", "udp://239.1.1.1:5999", capabilities="cap_sys_nice")
        errors = process.communicate(timeout=30)[1]
        self.assertEqual(process.returncode, PLAYED)
        self.assertIn("a UDP socket sends the datagrams, in headers of the system's: no permission to send "
                      "frames: CAP_NET_RAW is missing; run as root", errors)
        self.bed.capture.drain()
        self.assertEqual(sum(is_playout(frame) and frame[36:38] == (5999).to_bytes(2, "big")
                             for _, frame in self.bed.capture.frames), 203)


if __name__ == "__main__":
    unittest.main()
