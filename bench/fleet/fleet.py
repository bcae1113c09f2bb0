# SPDX-License-Identifier: MIT
"""What run.sh runs: rounds of starts, then a run in which a node fails. Writes a table and the gathered page."""
import argparse
import os
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "fleet"))

from cluster import Cluster  # noqa: E402
from fleet_run import FleetRun, percentile, skews, write_prolog  # noqa: E402

LEAD = 8  # seconds from the order to the start: Slurm takes up to four to begin the tasks
ROUND_SECONDS, STORY_SECONDS = 2, 24
LIMIT_NS = 1_000_000  # of the skew between two machines, at 99 %


def us(ns):
    return f"{ns / 1000:9.1f}"


def skew_row(what, run):
    errors = run.start_errors()
    seen = sum(len(each) for each in errors.values())
    if seen != len(run.groups):
        sys.exit(f"only {seen} of {len(run.groups)} channels started")
    apart = skews(errors)
    late = sorted(error for each in errors.values() for error in each)
    print(f"| {what:14} | {us(percentile(late, .5))} | {us(percentile(late, .99))} | {us(late[-1])} | {us(percentile(apart, .5))} "
          f"| {us(percentile(apart, .99))} | {us(apart[-1])} |", flush=True)
    return apart


def measure_starts(cluster, rounds, channels):
    apart = []
    print("start of each channel by the meter's time stamps, us: behind its time, and apart from those of other machines\n")
    print("| run            | late p50  | late p99  | late max  | apart p50 | apart p99 | apart max |")
    print("|----------------|-----------|-----------|-----------|-----------|-----------|-----------|")
    for number in range(1, rounds + 1):
        run = FleetRun(cluster, f"round-{number}", channels=channels, seconds=ROUND_SECONDS, delay=LEAD)
        run.wait_until_all_play()
        run.wait_until_all_ended(60)
        apart += skew_row(f"round {number}", run)
    return apart


class Story:
    """What happened, with the time since the start of the lineup."""

    def __init__(self):
        self.lines = []

    def tell(self, run, text):
        self.lines.append(f"{time.time() - run.start:+7.1f} s  {text}")


def fail_a_node(cluster, channels, out):
    """A node fails ten seconds after the start; its part is played again by another one."""
    story = Story()
    run = FleetRun(cluster, "story", channels=channels, seconds=STORY_SECONDS, delay=LEAD)
    run.wait_until_all_play()
    story.tell(run, "every node has begun its task, and waits for the start")
    parts = {machine: part for part, (_, machine, _) in cluster.tasks(run.job).items()}
    run.sleep_until(10)
    lost = cluster.nodes[1]
    cluster.power_off(lost)
    part = parts[lost.name]
    story.tell(run, f"{lost.name} fails, with part {part}")
    cluster.wait_for(run.job, lambda tasks: tasks[part][2] == 1, 60, "queueing the part again")
    story.tell(run, f"Slurm takes {lost.name} for down and queues the task again, by itself")
    cluster.wait_for(run.job, lambda tasks: sum(task[0] == "COMPLETED" for task in tasks.values()) == len(parts) - 1, 60, "playing")
    run.sleep_until(10 + 26)  # results are renewed every five seconds, and are old after twenty
    status, document = run.gathered()
    story.tell(run, f"gather ends with status {status}: {'; '.join(document['wrong'])}")
    cluster.release(run.job)
    cluster.wait_for(run.job, lambda tasks: tasks[part][0] == "RUNNING", 60, "starting the task again")
    story.tell(run, f"released, the task begins on {cluster.tasks(run.job)[part][1]}")
    run.wait_until_all_ended(90)
    status, document = run.gathered("--report", os.path.join(out, "fleet.html"))
    story.tell(run, f"gather ends with status {status}: {'; '.join(document['wrong']) or 'nothing is wrong'}")
    return run, story, status, document


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--nodes", type=int, default=4)
    parser.add_argument("--channels", type=int, default=64)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--out", default="build/fleet")
    options = parser.parse_args()
    os.makedirs(options.out, exist_ok=True)
    with Cluster(options.nodes, prolog=write_prolog) as cluster:
        apart = measure_starts(cluster, options.rounds, options.channels)
        run, story, status, document = fail_a_node(cluster, options.channels, options.out)
        apart = sorted(apart + skew_row("a node fails", run))
        print(f"\nall: {len(apart)} pairs of channels on different machines, apart p99 {percentile(apart, .99) / 1000:.1f} us\n")
        print("\n".join(story.lines))
        mismatches, dropped = run.mismatches(document), cluster.arrivals.dropped()
        print(f"\n{run.gather()[1]}")
        print(f"the meter has every frame of every result, once and in order: {'yes' if not mismatches else mismatches}"
              f"{f', and itself dropped {dropped}' if dropped else ''}; page: {os.path.join(options.out, 'fleet.html')}")
    if status != 0 or mismatches or dropped or percentile(apart, .99) > LIMIT_NS:
        sys.exit("not as it should be")


main()
