# SPDX-License-Identifier: MIT
"""ipplay demo: what it says is so, and whatever ends it, nothing of it is left."""

import glob
import json
import os
import select
import signal
import subprocess
import tempfile
import unittest
import urllib.error
import urllib.request

IPPLAY = os.environ["IPPLAY"]
SAMPLE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "sample.ts")


class Demo(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.report = os.path.join(folder.name, "report.html")

    def start(self, *arguments):
        return subprocess.Popen([IPPLAY, "demo", "--report", self.report, *arguments],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def test_plays_and_measures(self):
        # 500 ms at 10 Mbit/s are 3324 whole packets, in 475 datagrams; the sample has 1418, in 203.
        for arguments, datagrams in ((("--length", "500ms"), 475), ((SAMPLE, "--bitrate", "5M"), 203)):
            with self.subTest(arguments=arguments):
                demo = self.start(*arguments)
                output, complaints = demo.communicate()
                self.assertEqual(demo.returncode, 0, output + complaints)
                self.assertRegex(output,
                                 rf"datagrams +{datagrams} in .*none lost, none out of order, none twice")
                self.assertRegex(output, "content +identical with the file, byte for byte")
                with open(self.report, encoding="utf-8") as page:
                    self.assertTrue(page.read().rstrip().endswith("</html>"))
                os.unlink(self.report)

    def test_serves_what_it_plays_and_measures(self):
        demo = subprocess.Popen([IPPLAY, "demo", "--serve", "--listen", "127.0.0.1:0"], stdout=subprocess.PIPE, text=True)
        address = demo.stdout.readline().strip()
        with urllib.request.urlopen(f"{address}api/v1/playouts") as answer:
            playouts = json.load(answer)["playouts"]
        self.assertEqual([playout["state"] for playout in playouts], ["playing"] * 3)
        seen = set()
        with urllib.request.urlopen(f"{address}api/v1/events?after=0") as events:
            for line in events:
                if line.startswith(b"data:"):
                    event = json.loads(line[5:])
                    seen |= {stream["destination"] for stream in event.get("streams", ())}
                if len(seen) == 3:
                    break
        self.assertEqual(seen, {playout["target"].removeprefix("rtp://") for playout in playouts})
        demo.send_signal(signal.SIGINT)
        demo.communicate()
        self.assertEqual(demo.returncode, 0)
        self.assertFalse(os.path.exists("/mnt/demo"))

    def test_serves_others_with_a_token_alone(self):
        command = [IPPLAY, "demo", "--serve", "--listen", "0.0.0.0:0"]
        refused = subprocess.run(command, stderr=subprocess.PIPE, text=True, check=False)
        self.assertIn("give --token-file", refused.stderr)
        with tempfile.NamedTemporaryFile("w") as token:
            token.write("0123456789abcdef")
            token.flush()
            demo = subprocess.Popen([*command, "--token-file", token.name], stdout=subprocess.PIPE, text=True)
            address = demo.stdout.readline().strip().replace("0.0.0.0", "127.0.0.1")
            with self.assertRaises(urllib.error.HTTPError) as unknown:
                urllib.request.urlopen(f"{address}api/v1")
            self.assertEqual(unknown.exception.code, 401)
            request = urllib.request.Request(f"{address}api/v1", headers={"Authorization": "Bearer 0123456789abcdef"})
            with urllib.request.urlopen(request) as answer:
                self.assertIn("demo", json.load(answer)["media_folders"])
            demo.send_signal(signal.SIGINT)
            demo.communicate()
            self.assertEqual(demo.returncode, 0)

    def test_refuses_in_one_line(self):
        with open(self.report, "wb") as file:
            file.write(bytes(5000))
        demo = self.start(self.report)
        self.assertEqual(len(demo.communicate()[1].splitlines()), 1)
        self.assertEqual(demo.returncode, 2)

    def test_ends_with_all_its_processes(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGKILL):
            with self.subTest(number=number):
                demo = self.start("--length", "60s")
                self.assertIn("Playing", demo.stdout.readline())
                player = self.wait_for_child(demo)
                demo.send_signal(number)
                ended = select.select([player], [], [], 20)[0]
                self.assertTrue(ended, "the player plays on" if ended else self.threads_of(demo))
                os.close(player)
                demo.communicate()
                if number != signal.SIGKILL:  # of what was measured so far
                    self.assertEqual(os.listdir(os.path.dirname(self.report)), ["report.html"])

    @staticmethod
    def threads_of(demo):
        """Where each thread of the demo and its children is, and which signals wait for it."""
        with open(f"/proc/{demo.pid}/task/{demo.pid}/children", encoding="ascii") as file:
            processes = [str(demo.pid), *file.read().split()]
        lines = ["the player plays on"]
        for process in processes:
            for task in glob.glob(f"/proc/{process}/task/*"):
                with open(f"{task}/status", encoding="ascii") as status, open(f"{task}/wchan", encoding="ascii") as place:
                    known = [line.strip() for line in status if line.startswith(("Name", "State", "SigPnd", "ShdPnd", "SigBlk"))]
                    lines.append(" ".join([task, *known, place.read()]))
        return "\n".join(lines)

    def wait_for_child(self, demo):
        """A descriptor of the player, which is the one child that stays."""
        while True:
            self.assertIsNone(demo.poll())
            with open(f"/proc/{demo.pid}/task/{demo.pid}/children", encoding="ascii") as file:
                for child in file.read().split():
                    try:
                        with open(f"/proc/{child}/cmdline", "rb") as command:
                            if command.read().startswith(b"ipplay\0play\0"):
                                return os.pidfd_open(int(child))
                    except (FileNotFoundError, ProcessLookupError):
                        pass  # one of ip's, which has ended meanwhile


if __name__ == "__main__":
    unittest.main()
