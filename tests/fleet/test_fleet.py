# SPDX-License-Identifier: MIT
"""Two nodes under Slurm's own daemons: one fails in mid-run, its part is queued again, and the results are whole."""
import os
import subprocess
import unittest

from cluster import Cluster
from fleet_run import EXAMPLES, IPPLAY, FleetRun, write_prolog

CHANNELS, SECONDS = 12, 4
DOWN_AFTER = 4  # seconds without an answer
HURRIED = {**os.environ, "PATH": f"{os.path.dirname(IPPLAY)}:{os.environ['PATH']}"}


class Fleet(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.cluster = Cluster(2, prolog=write_prolog, timeout=DOWN_AFTER)
        cls.addClassCleanup(cls.cluster.close)

    def prolog(self, node, **environment):
        done = subprocess.run([os.path.join(EXAMPLES, "prolog.sh")], preexec_fn=node.network.enter, check=False, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              env={**HURRIED, "SLURM_JOB_USER": "root", "IPPLAY_MAX_CLOCK_ERROR": "none", **environment})
        return done.returncode, done.stdout

    def test_a_machine_that_cannot_play_is_refused(self):
        node = self.cluster.nodes[0]
        self.assertEqual(self.prolog(node, IPPLAY_ADAPTER="port"), (0, ""))
        node.network.run("ip", "link", "add", "loose", "type", "veth", "peer", "name", "end")
        for reason, environment in (("nothing is not here", {"IPPLAY_ADAPTER": "nothing"}),
                                    ("loose is down", {"IPPLAY_ADAPTER": "loose"}),
                                    ("lacks rights", {"IPPLAY_ADAPTER": "port", "SLURM_JOB_USER": "nobody"}),
                                    ("the clock", {"IPPLAY_ADAPTER": "port", "IPPLAY_MAX_CLOCK_ERROR": "0.000000001"})):
            with self.subTest(reason):
                status, text = self.prolog(node, **environment)
                self.assertEqual(status, 1)
                self.assertIn(reason, text)

    def test_the_part_of_a_node_that_failed_is_played_by_the_other_one(self):
        whole, other = self.cluster.nodes
        run = FleetRun(self.cluster, "kill", channels=CHANNELS, seconds=SECONDS, delay=10)
        run.wait_until_all_play()
        shares = {machine: part for part, (_, machine, _) in self.cluster.tasks(run.job).items()}
        run.sleep_until(SECONDS / 2)
        self.cluster.power_off(other)
        # Slurm finds out by itself; the other node has its own part first.
        part = shares[other.name]
        self.cluster.wait_for(run.job, lambda tasks: tasks[part][2] == 1, 40, "queueing the part again")
        status, document = run.gathered()
        self.assertEqual((status, document["outcome"]), (1, "failed"))
        self.assertTrue(any(f"part {part}/2" in line and f"on {other.name}" in line for line in document["wrong"]), document["wrong"])
        self.cluster.release(run.job)
        tasks = run.wait_until_all_ended(40)
        self.assertEqual({task[:2] for task in tasks.values()}, {("COMPLETED", whole.name)})

        status, document = run.gathered("--report", self.cluster.path("result.html"))
        self.assertEqual((status, document["wrong"]), (0, []))
        self.assertEqual({channel["name"] for channel in document["channels"]}, set(run.groups))
        parts = {each["machine"]: each for each in document["parts"] if not each["broken_runs"]}
        again = next(each for each in document["parts"] if each["broken_runs"])
        self.assertEqual((set(parts), again["number"], again["machine"]), ({whole.name}, part, whole.name))
        self.assertEqual([each["machine"] for each in again["broken_runs"]], [other.name])
        self.assertGreater(again["first_start_ns"], (run.start + SECONDS) * 10**9)
        self.assertEqual((self.cluster.arrivals.dropped(), run.mismatches(document)), (0, []))
        # On the wire no channel started before its time, on neither node.
        errors = run.start_errors()
        self.assertEqual({machine: len(each) for machine, each in errors.items()},
                         {machine: sum(channel["part"] == number for channel in document["channels"])
                          for machine, number in shares.items()})
        self.assertGreaterEqual(min(min(each) for each in errors.values()), 0)

    def test_start_script_plays_and_gathers(self):
        run = FleetRun(self.cluster, "files", channels=3, seconds=1, delay=0)
        run.wait_until_all_ended(30)
        folder = self.cluster.path("started")
        done = subprocess.run([os.path.join(EXAMPLES, "start.sh"), run.lineup, "1", folder, "--max-lateness", "1h"],
                              preexec_fn=self.cluster.head.enter, check=False, text=True, stdout=subprocess.PIPE,
                              env={**HURRIED, "SLURM_CONF": self.cluster.path("slurm.conf"), "LEAD_SECONDS": "5"})
        self.assertEqual(done.returncode, 0, done.stdout)
        self.assertIn("Nothing is wrong", done.stdout)
        self.assertEqual(sorted(os.listdir(folder)), ["part-1-of-1.json", "part-1.log", "result.html"])


if __name__ == "__main__":
    unittest.main()
