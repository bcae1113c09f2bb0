# SPDX-License-Identifier: MIT
"""Two paths of one stream, each with its own faults: what ipplay measure finds follows from what was put in."""

import json
import os
import random
import subprocess
import tempfile
import unittest
from dataclasses import dataclass, field

from frames import Playout, write_pcap

IPPLAY = os.environ["IPPLAY"]
MS = 1_000_000
GAP = MS  # between two datagrams
LONGEST_SKEW = 500 * MS
LIMIT_NOT_MET = 4


@dataclass
class Path:
    skew: int = 0
    lose: set = field(default_factory=set)
    begin: int = 0  # the first datagram that it is there for, and behind the last one
    end: int = 1 << 30
    delay: dict = field(default_factory=dict)  # of a datagram, in time
    jitter: int = 0
    change: set = field(default_factory=set)  # datagrams with another payload

    def arrivals(self, datagrams, seed):
        chance = random.Random(seed)
        return {i: i * GAP + self.skew + self.delay.get(i, 0) + chance.randint(0, self.jitter)
                for i in range(self.begin, min(self.end, datagrams)) if i not in self.lose}


def some(share, seed, datagrams=4000):
    return {i for i in range(datagrams) if random.Random(seed * 100_003 + i).random() < share}


# The path whose first frame is first, and the other one; settings of the stream; from when on it is captured; how
# many the first has lost before the second is there.
CASES = {
    "loss on both": dict(paths=(Path(lose=some(.02, 1)), Path(37 * MS + 123_000, some(.02, 2)))),
    "the widest skew": dict(paths=(Path(lose=some(.05, 3)), Path(450 * MS, some(.05, 4)))),
    "jitter": dict(paths=(Path(lose=some(.02, 5), jitter=GAP // 2), Path(5 * MS, some(.02, 6), jitter=GAP - 1))),
    "over the wrap": dict(paths=(Path(lose=some(.03, 7)), Path(20 * MS, some(.03, 8))), first_sequence=63_500),
    "bursts on both": dict(paths=(Path(lose={*range(100, 300), *range(900, 950)}),
                                  Path(10 * MS, {*range(250, 400), *range(949, 951)}))),
    "a long loss on both": dict(paths=(Path(lose=set(range(1000, 2600))), Path(3 * MS, set(range(1000, 2600))))),
    "the first is lost on the second": dict(paths=(Path(lose={2}), Path(9 * MS, {0, 1, 2, 3})), before=1),
    "the last ones are lost on one": dict(paths=(Path(), Path(9 * MS, set(range(3400, 4000))))),
    "the second dies": dict(paths=(Path(lose=some(.02, 9)), Path(30 * MS, some(.02, 10), end=1500))),
    "the first dies": dict(paths=(Path(lose=some(.02, 9), end=1500), Path(30 * MS, some(.02, 10)))),
    "the second comes late": dict(paths=(Path(lose=some(.02, 11)), Path(30 * MS, some(.02, 12), begin=2000)),
                                  before=sum(i < 2000 for i in some(.02, 11))),
    "the second is away for a time": dict(paths=(Path(lose=some(.01, 13)), Path(4 * MS, set(range(500, 2500))))),
    "captured from the middle": dict(paths=(Path(lose=some(.02, 14)), Path(300 * MS, some(.02, 15))), since=1000 * GAP),
    "behind one another": dict(paths=(Path(delay={i: 7 * GAP for i in range(50, 4000, 97)}),
                                      Path(40 * MS, some(.01, 16), delay={i: 3 * GAP for i in range(9, 4000, 53)}))),
    "later than is waited for": dict(paths=(Path(lose={700}), Path(40 * MS, delay={700: 600 * MS})), late={700}),
    "another payload": dict(paths=(Path(), Path(11 * MS, change={500, 1700}))),
    "FEC's payload type": dict(paths=(Path(lose=some(.02, 1)), Path(37 * MS, some(.02, 2))), payload_type=97),
}


class Twins(unittest.TestCase):
    maxDiff = 2000

    def capture(self, paths, since=0, datagrams=4000, **more):
        """What is captured, and by path when which datagram came."""
        frames, arrivals = [], []
        for number, path in enumerate(paths):
            playout = Playout(datagrams=datagrams, ssrc=0x1234 - number, gap_ns=GAP, **more)
            payloads = playout.payloads()
            came = {i: at for i, at in path.arrivals(datagrams, number).items() if at >= since}
            arrivals.append(came)
            for index, at in came.items():
                payload = payloads[index][:-1] + b"?" if index in path.change else payloads[index]
                frames.append((at, number, playout.frame(index, number, payload)))
        return sorted(frames), arrivals

    def measure(self, frames, *options, status=0):
        with tempfile.TemporaryDirectory() as folder:
            path, events = os.path.join(folder, "twins.pcap"), os.path.join(folder, "events")
            write_pcap(path, [(10 ** 18 + at, frame) for at, _, frame in frames])
            run = subprocess.run([IPPLAY, "measure", path, "--json", "--events", events, *options], stdout=subprocess.PIPE, check=False)
            self.assertEqual(run.returncode, status)
            with open(events, encoding="utf-8") as file:
                self.events = [json.loads(line) for line in file]
        return json.loads(run.stdout)

    def reported(self, event):
        """Packets; in a second with many events only some are lines."""
        return sum(line.get("packets", 1) for line in self.events if line["event"] == event) + sum(
            line["count"] for line in self.events if line["event"] == "left_out" and line["of"] == event)

    def truth(self, paths, arrivals, late=()):
        """By the numbers that each path had; those behind the last that both had or could have had do not count."""
        end_ns = max(max(came.values()) for came in arrivals)
        first = max(min(came) for came in arrivals)
        ends = [max(came) for came in arrivals if max(came.values()) + LONGEST_SKEW > end_ns]
        last = min(ends) if ends else max(max(came) for came in arrivals)
        waited_for = [i for came in arrivals for i, at in came.items() if at <= end_ns - LONGEST_SKEW]
        last = max([last, *waited_for])
        judged = range(first, last + 1)
        have = [{i for i in came if i not in late} for came in arrivals]
        lost = [[i for i in judged if i not in came] for came in have]
        both = [i for i in judged if all(i in came for came in have)]
        skews = [arrivals[1][i] - arrivals[0][i] for i in arrivals[0] if i in arrivals[1] and i not in late]
        different = len(set(both) & (paths[1].change | paths[0].change))
        return {"packets": len(judged), "first_lost": len(lost[0]), "second_lost": len(lost[1]),
                "lost_together": len(set(lost[0]) & set(lost[1])), "different": different, "late": len(late),
                "restarts": 0}, skews

    def test_what_is_put_in_is_found(self):
        for name, case in CASES.items():
            with self.subTest(name):
                case = dict(case)
                late, before = case.pop("late", ()), case.pop("before", 0)
                frames, arrivals = self.capture(**case)
                result = self.measure(frames)
                twins, = result["twins"]
                expected, skews = self.truth(case["paths"], arrivals, late)
                self.assertEqual({key: twins[key] for key in expected}, expected)
                self.assertEqual(twins["lost_before"], before)
                self.assertEqual((twins["first_stream"], twins["second_stream"]), (0, 1))
                changed = case["paths"][1].change
                if not changed and not case.get("since") and case["paths"][1].begin == 0:
                    self.assertEqual((twins["skew_ns"]["min"], twins["skew_ns"]["max"]), (min(skews), max(skews)))
                    self.assertAlmostEqual(twins["skew_ns"]["mean"], sum(skews) / len(skews), delta=GAP / 100)
                self.assertEqual(self.reported("twin_loss"), expected["lost_together"])
                self.assertEqual(self.reported("twin_different"), expected["different"])
                if case.get("since", 0) == 0 and case["paths"][1].begin == 0:
                    # As one: what neither has, and the transport stream's errors are those of such losses.
                    lost = twins["combined"]["rtp"]["lost"]
                    self.assertLessEqual(abs(lost - expected["lost_together"]), len(late))

    def test_random_damage(self):
        chance = random.Random(18)
        for number in range(25):
            with self.subTest(number):
                paths = tuple(Path(skew, some(chance.choice((.001, .02, .3)), 50 + 2 * number + place, 2000),
                                   begin=chance.choice((0, 0, 300)), end=chance.choice((2000, 2000, 1400)),
                                   jitter=chance.choice((0, GAP - 1)))
                              for place, skew in enumerate(sorted((0, chance.randrange(0, 450 * MS)))))
                frames, arrivals = self.capture(paths, datagrams=2000, first_sequence=chance.randrange(1 << 16))
                order = [frame[1] for frame in frames]
                if order[0] == 1:  # the path that is first captured is the first
                    paths, arrivals = paths[::-1], arrivals[::-1]
                twins, = self.measure(frames)["twins"]
                expected, _ = self.truth(paths, arrivals)
                self.assertEqual({key: twins[key] for key in expected}, expected)

    def test_no_twins(self):
        streams = {"another source": [dict(ssrc=1), dict(ssrc=2)],
                   "another content": [dict(seed=1), dict(seed=2)],
                   "three copies": [{}, {}, {}],
                   "five copies": [{}] * 5,
                   "another numbering": [dict(first_sequence=1), dict(first_sequence=30000)]}
        for name, playouts in streams.items():
            with self.subTest(name):
                frames = self.flows(playouts)
                self.assertEqual(self.measure(frames)["twins"], [])

    def flows(self, playouts, datagrams=600):
        frames = []
        for place, more in enumerate(playouts):
            more = {"ssrc": 7, **more}
            playout = Playout(datagrams=datagrams, **{**more, "ssrc": more["ssrc"] - place})
            for index, payload in enumerate(playout.payloads()):
                frames.append((index * GAP + place * 1000, place, playout.frame(index, place, payload)))
        return sorted(frames)

    def test_twins_of_several_channels_with_one_source(self):
        """Two channels that bear one SSRC, as those of some encoders do."""
        frames = self.flows([dict(seed=1), dict(seed=2), dict(seed=1), dict(seed=2)])
        pairs = {(t["first_stream"], t["second_stream"]): t["packets"] for t in self.measure(frames)["twins"]}
        self.assertEqual(set(pairs), {(0, 2), (1, 3)})

    def restarting(self, skew, lose=((), ()), again=40_000):
        """A sender that numbers its datagrams anew, on both paths."""
        frames = []
        for number in range(2):
            for run, first in ((0, 100), (1, again)):
                playout = Playout(datagrams=1500, ssrc=7 - number, first_sequence=first, seed=run + 1)
                for index, payload in enumerate(playout.payloads()):
                    if (run, index) not in lose[number]:
                        at = (run * 1500 + index) * GAP + number * skew
                        frames.append((at, number, playout.frame(index, number, payload)))
        return sorted(frames)

    def test_restart(self):
        for again in (40_000, 9_000, 64_000):
            for skew in (3 * MS, 450 * MS):
                with self.subTest(again=again, skew=skew):
                    lose = ({(0, 500), (1, 500), (1, 700)}, {(0, 500), (1, 500), (1, 800)})
                    frames = self.restarting(skew, lose, again)
                    result = self.measure(frames, "--max-unrepaired", "5", status=LIMIT_NOT_MET)
                    twins, = result["twins"]
                    self.assertEqual((twins["restarts"], twins["lost_together"], twins["different"]), (1, 2, 0))
                    self.assertEqual(self.reported("twin_loss"), 2)
                    verdict = next(v for v in result["verdicts"] if "unrepaired" in v["name"])
                    self.assertFalse(verdict["met"])

    def test_limit(self):
        """What neither path has counts, and what one has lost while the other was not there."""
        both, late = (Path(lose={500}), Path(MS, {500, 600})), (Path(lose={500}), Path(MS, begin=1000))
        for paths in both, late:
            frames, _ = self.capture(paths)
            self.measure(frames, "--max-unrepaired", "1")
            result = self.measure(frames, "--max-unrepaired", "0", status=LIMIT_NOT_MET)
            self.assertEqual([v["met"] for v in result["verdicts"] if "unrepaired" in v["name"]], [False])
        frames, _ = self.capture((Path(lose=some(.1, 1)), Path(9 * MS, set(range(1, 3999, 2)) - some(.1, 1))))
        self.measure(frames, "--max-unrepaired", "0")


if __name__ == "__main__":
    unittest.main()
