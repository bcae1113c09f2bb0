# SPDX-License-Identifier: MIT
"""Many playouts: every byte and every time against a model, files and wire alike, and what goes wrong."""
import random
import socket
import struct
import subprocess
import tempfile
import threading
import time
import unittest
from ctypes import byref, c_size_t

from library import TYPES
from playouts import (BAD_DESTINATION, BAD_PLAYOUT, BAD_VALUE, BOUNDED, CATCH_UP, CORRUPT, COUNTS, DELAY, DONE, DROP,
                      DUPLICATE, ENDED, LOSE, NOT_YET, SHIFT, TO_FILE, TO_SOCKET, Playouts, Refused, ScheduledModel, read_pcapng)
from wire_case import TAGGED, TYPICAL, TYPICAL_IPV6, UDP, Model, WireCase, datagrams, stream

ERRORS = {"ErrInsertionEnable": 1, "PacketLossEnabled": 1, "NumPacketLoss": 1, "PacketLossRange": 7,
          "SequenceErrorEnabled": 1, "NumSequenceError": 1, "SequenceErrorRange": 11,
          "SequenceErrorDistance": 2, "ChecksumErrorEnabled": 1, "ChecksumErrorType": 1,
          "NumChecksumError": 1, "ChecksumErrorRange": 5}
SECOND = 1_000_000_000


def to_adapter(settings):
    return {**settings, "Destination": b"near"}


def play_files(library, bed_path, jobs, folder):
    """Plays each job into a file; the statistics of each."""
    playouts = Playouts(bed_path)
    results = []
    for number, (settings, data, marks) in enumerate(jobs):
        playout = playouts.open(settings, To=TO_FILE, Destination=f"{folder}/{number}".encode(),
                                RingBytes=1 << 20, StartBytes=0)
        results.append(playout.play(data, marks))
        playout.call("Close")
    return results


def refusal(playout, *call):
    try:
        playout.call(*call)
    except Refused as refused:
        return refused.code, str(refused)
    return DONE, ""


def ordered(library, bed_path, path, data):
    """Kinds of damage that are asked for before the start; what was done, with the counts, and what was refused."""
    playouts = Playouts(bed_path)
    playout = playouts.open(TYPICAL, To=TO_FILE, Destination=path.encode(), StartBytes=0, RingBytes=1 << 20,
                            DelayDistance=100)
    refused = [refusal(playout, *call)[0] for call in (("Pause", 2), ("Damage", LOSE, 0), ("Damage", LOSE | DELAY, 1))]
    for what, count in ((LOSE, 3), (CORRUPT, 2), (DUPLICATE, 4), (DELAY, 1)):
        playout.call("Damage", what, count)
    playout.play(data)
    playout.call("Stop")
    done, taken, counts = (TYPES["IpPlayoutDone"] * 8)(), c_size_t(), TYPES["IpPlayoutFaultCounts"]()
    playout.call("ReadDone", done, len(done), byref(taken))
    playout.call("GetFaults", byref(counts))
    return ([(d.What, d.Count, d.Datagram, d.FirstDueNs, d.LastDueNs) for d in done[:taken.value]],
            [getattr(counts, name) for name, _ in counts._fields_], refused)


class Files(WireCase):
    def files(self, jobs):
        with tempfile.TemporaryDirectory() as folder:
            statistics = self.bed.run(play_files, self.bed.library_path, jobs, folder).value
            return statistics, [read_pcapng(f"{folder}/{number}") for number in range(len(jobs))]

    def test_random_playouts(self):
        """Times and bytes of 60 playouts with everything that is not drawn at random."""
        draw, jobs = random.Random(15), []
        for _ in range(60):
            settings = dict(draw.choice((TYPICAL, TYPICAL_IPV6)))
            settings.update(draw.choice(({}, TAGGED)), **draw.choice(({}, ERRORS)))
            settings.update(draw.choice(({}, {"ProtocolMode": UDP}, {"TTSEnabled": 1, "TSPacketCount": 5},
                                         {"TSPacketSize": 0, "IPPacketSize": 777, "PacketSizeMode": 0})))
            settings.update(draw.choice(({}, {"ReplicationCount": 3, "SSRCIncrement": 1,
                                              "DestinationPortIncrement": 2})))
            settings["IPBitRate"] = draw.choice((0.3, 5.0, 47.11, 950.0))
            model = ScheduledModel(settings)
            data, marks = datagrams(model, draw.randrange(1, 40)), []
            if draw.random() < 0.5:
                settings.pop("IPBitRate")
                offset = now = 0
                while offset < len(data):
                    marks.append((offset, now))
                    offset += draw.randrange(1, 20_000)
                    now += draw.randrange(0, 50_000_000)
                marks.append((offset, now))
            jobs.append((settings, data, marks))
        statistics, files = self.files(jobs)
        for number, ((settings, data, marks), played, seen) in enumerate(zip(jobs, files, statistics)):
            with self.subTest(number):
                model = ScheduledModel(settings, marks)
                expected = model.departures(data)
                self.assertEqual([d.frame for d in played], [d.frame for d in expected])
                apart = [abs(a.time - b.time) for a, b in zip(played, expected)]
                self.assertLessEqual(max(apart, default=0), 1)  # of rounding
                self.assertEqual(seen, clean_statistics(model, data))

    def test_what_is_ordered_is_done_to_the_next_datagrams_and_reported(self):
        data = stream(1316 * 50)
        with tempfile.TemporaryDirectory() as folder:
            done, counts, refused = self.bed.run(ordered, self.bed.library_path, f"{folder}/played", data).value
            played = [departure.frame for departure in read_pcapng(f"{folder}/played")]
        frame_time = 219_200  # 1,370 bytes at 50 Mb/s
        self.assertEqual(done, [(what, count, first, first * frame_time, (first + count - 1) * frame_time)
                                for what, count, first in ((LOSE, 3, 0), (CORRUPT, 2, 3), (DUPLICATE, 4, 5), (DELAY, 1, 9))])
        self.assertEqual(counts, [4, 2, 0, 0, 1])
        self.assertEqual(refused, [BAD_VALUE] * 3)
        numbers = [struct.unpack(">H", frame[44:46])[0] - TYPICAL["SequenceNumber"] for frame in played]
        self.assertEqual(numbers, [3, 4, 5, 5, 6, 6, 7, 7, 8, 8, *range(10, 50)])

    def test_a_seed_repeats_everything(self):
        shape = {**TYPICAL, **ERRORS, "RandomizeErrors": 1, "JitterEnabled": 1, "JitterPeriod": 50.0,
                 "JitterDistributionType": 1, "RandomSSRC": 1, "RandomSequenceNumber": 1,
                 "FecColumns": 5, "FecRows": 4}
        data = stream(1316 * 200)
        _, files = self.files([({**shape, "Seed": seed}, data, []) for seed in (5, 5, 6)])
        self.assertEqual(files[0], files[1])
        self.assertNotEqual(files[0][0].frame[42:54], files[2][0].frame[42:54])
        times = [departure.time for departure in files[0]]
        self.assertEqual(times, sorted(times))

    def test_parity_of_all_matrices(self):
        """FEC is the parity of what was meant to leave, with losses on order or without."""
        data = stream(1316 * 230)
        cases = [(columns, rows, both, staggered, lose)
                 for columns, rows in ((1, 4), (5, 4), (10, 10), (20, 5), (4, 20), (7, 6))
                 for both in (0, 1) for staggered in (0, 1) for lose in (0, 1)]
        jobs = [({**TYPICAL, **({**ERRORS, "SequenceErrorEnabled": 0, "ChecksumErrorEnabled": 0} if lose else {}),
                  "FecColumns": columns, "FecRows": rows, "FecProtectsRows": both, "FecStaggered": staggered,
                  "SequenceNumber": 65500}, data, []) for columns, rows, both, staggered, lose in cases]
        clean = ScheduledModel(TYPICAL | {"SequenceNumber": 65500}).departures(data)
        media = {struct.unpack(">H", d.frame[44:46])[0]: d.frame[42:] for d in clean}
        _, files = self.files(jobs)
        for (columns, rows, both, staggered, lose), played in zip(cases, files):
            with self.subTest((columns, rows, both, staggered, lose)):
                found = {5006: set(), 5008: set()}
                for _, frame in played:
                    source, port = struct.unpack(">HH", frame[34:38])
                    self.assertEqual(source - TYPICAL["SourcePort"], port - 5004)
                    if port != 5004:
                        found[port].add(self.check_parity(frame[42:], media, columns, rows, port == 5008))
                self.assertEqual(len(played) - sum(map(len, found.values())), 230 - (33 if lose else 0))
                if not staggered:
                    self.assertEqual(len(found[5006]), 230 // (columns * rows) * columns)
                self.assertEqual(len(found[5008]), 230 // columns if both else 0)

    def check_parity(self, rtp, media, columns, rows, is_row):
        """The first number that is protected."""
        base, length, kind, mask, stamp, flags, offset, count, extension = struct.unpack(
            ">HHB3sIBBBB", rtp[12:28])
        self.assertEqual((kind & 0x80, mask, flags, offset, count, extension),
                         (0x80, bytes(3), 0x40, 1, columns, 0) if is_row
                         else (0x80, bytes(3), 0, columns, rows, 0))
        of = [media[(base + i * offset) & 0xFFFF] for i in range(count)]
        parity = 0
        for part in of:
            length ^= len(part) - 12
            kind ^= part[1] & 0x7F
            stamp ^= struct.unpack(">I", part[4:8])[0]
            parity ^= int.from_bytes(part[12:], "big")
        self.assertEqual((length, kind & 0x7F, stamp), (0, 0, 0))
        self.assertEqual(int.from_bytes(rtp[28:], "big"), parity)
        return base


def clean_statistics(model, data):
    """Without the clock of the bit rate, which the scheduled model does not have."""
    settings = {**model.settings, "IPBitRate": 1.0}
    return Model(settings).play(data)[1]


def play_many(library, bed_path, jobs):
    playouts = Playouts(bed_path)
    opened = [playouts.open(to_adapter(settings), StartBytes=0) for settings, _ in jobs]
    playouts.start(opened, playouts.now() + SECOND // 10)
    for playout, (_, data) in zip(opened, jobs):
        playout.write(data)
        playout.call("End")
    for playout in opened:
        playout.call("Wait", -1)
    return [playout.timing() for playout in opened]


def stall(library, bed_path, late):
    """A source that stops for half a second when 100 frames have left or were left out; also when it went on."""
    playouts = Playouts(bed_path)
    playout = playouts.open(to_adapter({**TYPICAL, "IPBitRate": 10.96}), Late=late, StartBytes=0, CatchUp=2.0,
                            LedgerFrames=2000)
    data = stream(1316 * 1000)
    playouts.start([playout])
    playout.write(data[:1316 * 100])
    while sum(playout.timing()[outcome] for outcome in ("OnTime", "Late", "LeftOut")) < 100:
        time.sleep(0.01)
    time.sleep(0.5)
    resumed = playouts.now()
    playout.write(data[1316 * 100:])
    playout.call("End")
    playout.call("Wait", -1)
    return playout.timing(), playout.ledger(), resumed


def among_others(library, bed_path):
    """Of three playouts one fails for a frame that the adapter does not take, one is stopped."""
    playouts = Playouts(bed_path)
    good, large, stopped = (playouts.open(to_adapter({**TYPICAL, "DestinationPort": port, **more}), StartBytes=0)
                            for port, more in ((6001, {}), (6002, {"IPFragmentation": 1, "TSPacketCount": 80}),
                                               (6003, {})))
    playouts.start([good, large, stopped])
    feed = threading.Thread(target=lambda: (good.write(stream(1316 * 3000)), good.call("End")))
    feed.start()
    large.write(stream(80 * 188 * 10))
    large.call("End")
    stopped.write(stream(1316 * 10))
    outcomes = [refusal(large, "Wait", -1), refusal(stopped, "Wait", 0)]
    stopped.call("Stop")
    outcomes.append(refusal(stopped, "Wait", -1))
    feed.join()
    good.call("Wait", -1)
    return outcomes, good.timing()


def refusals(library, bed_path):
    playouts, seen = Playouts(bed_path), {}
    for name, value in (("FecRows", 3), ("CatchUp", 1.0), ("TSPacketSize", 7), ("To", 9), ("TTL", 256),
                        ("BitRate", -1.0), ("RingBytes", 1), ("VID", 4096)):
        more = {"FecColumns": 5} if name == "FecRows" else {}
        settings = {"IPBitRate": value} if name == "BitRate" else {name: value}
        try:
            playouts.open({**to_adapter(TYPICAL), **more, **settings})
        except Refused as refused:
            seen[name] = refused.code, str(refused)
    try:
        playouts.start([playouts.open({**TYPICAL, "Destination": b"nowhere"})])
    except Refused as refused:
        seen["nowhere"] = refused.code, str(refused)
    closed = playouts.open(to_adapter(TYPICAL))
    try:
        playouts.start([closed], -1)
    except Refused as refused:
        seen["start_ns"] = refused.code, str(refused)
    closed.call("Close")
    try:
        closed.call("Stop")
    except Refused as refused:
        seen["closed"] = refused.code, str(refused)
    return seen


def to_socket(library, bed_path):
    """Received on the same machine, which has only loopback for it; what arrives."""
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
        receiver.bind(("127.0.0.1", 0))
        receiver.settimeout(5)
        settings = {**TYPICAL, "Identification": 0, "SourceIP": bytes(4), "SourcePort": 0,
                    "DestinationIP": bytes((127, 0, 0, 1)), "DestinationPort": receiver.getsockname()[1]}
        playout = Playouts(bed_path).open(settings, To=TO_SOCKET, Destination=b"")
        playout.play(stream(1316 * 50))
        return [receiver.recv(2000) for _ in range(50)]


def beside_a_slow_queue(library, bed_path):
    """One socket leads to loopback, the other into a queue of a megabit per second: how many frames of each
    had left when all of the first had."""
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    subprocess.run("tc qdisc add dev near root tbf rate 1mbit burst 3000 limit 6000".split(), check=True)
    try:
        playouts, shape = Playouts(bed_path), {**TYPICAL, "Identification": 0, "SourceIP": bytes(4), "SourcePort": 0}
        good = playouts.open({**shape, "DestinationIP": bytes((127, 0, 0, 1)), "IPBitRate": 50.0}, To=TO_SOCKET,
                             Destination=b"", StartBytes=0)
        slow = playouts.open({**shape, "DestinationIP": bytes((239, 1, 2, 3)), "IPBitRate": 50.0}, To=TO_SOCKET,
                             Destination=b"near", StartBytes=0, Refused=COUNTS)
        playouts.start([good, slow])
        feed = threading.Thread(target=feed_until_stopped, args=(slow,))
        feed.start()
        good.write(stream(1316 * 3000))
        good.call("End")
        good.call("Wait", -1)
        left = [p.timing()["OnTime"] + p.timing()["Late"] for p in (good, slow)]
        slow.call("Stop")
        feed.join()
        return left, good.timing()["NotSent"]
    finally:
        subprocess.run("tc qdisc del dev near root".split(), check=True)


def feed_until_stopped(playout):
    data = stream(1316 * 100)
    try:
        while True:
            playout.write(data)
    except Refused:
        pass


def stamped(library, bed_path):
    playout = Playouts(bed_path).open(to_adapter(TYPICAL), Stamps=1, LedgerFrames=400, StartBytes=0)
    playout.play(stream(1316 * 300))
    return playout.timing(), playout.ledger()


def stamped_beside_others(library, bed_path):
    """The second of two on one adapter wants stamps; how many each of them gets."""
    playouts = Playouts(bed_path)
    plain = playouts.open(to_adapter(TYPICAL), StartBytes=0)
    playouts.start([plain])
    plain.write(stream(1316))
    wanting = playouts.open(to_adapter(TYPICAL), Stamps=1, StartBytes=0)
    wanting.play(stream(1316 * 300))
    return plain.timing()["Stamps"], wanting.timing()["Stamps"]


class Wire(WireCase):
    def test_an_adapter_sends_what_a_file_has(self):
        jobs = [({**TYPICAL, **ERRORS, "DestinationPort": 5000 + i, "IPBitRate": 5.0 + i}, stream(1316 * 60, i))
                for i in range(20)]
        outcome = self.bed.run(play_many, self.bed.library_path, jobs)
        for i, (settings, data) in enumerate(jobs):
            of_one = [f for f in outcome.frames if struct.unpack(">H", f[36:38])[0] == 5000 + i]
            self.assertEqual(of_one, [d.frame for d in ScheduledModel(settings).departures(data)], i)
            timing = outcome.value[i]
            self.assertEqual((timing["OnTime"] + timing["Late"], timing["NotSent"], timing["LeftOut"]),
                             (len(of_one), 0, 0))
            self.assertEqual(timing["Sender"], b"packet socket")

    def test_a_stall_of_the_source_under_each_rule(self):
        """10.96 Mb/s: a frame each millisecond. Half a second is missing."""
        for late in (BOUNDED, CATCH_UP, SHIFT, DROP):
            with self.subTest(late):
                timing, ledger, resumed = self.bed.run(stall, self.bed.library_path, late).value
                left = [record for record in ledger if record["DepartureNs"] >= 0]
                self.assertEqual(len(ledger), 1000)
                self.assertGreaterEqual(timing["DryTimes"], 1)
                self.assertGreater(timing["DryNs"], SECOND // 3)
                if late == DROP:
                    self.assertGreater(timing["LeftOut"], 300)
                    self.assertEqual(len(left), 1000 - timing["LeftOut"])
                    continue
                self.assertEqual((len(left), timing["LeftOut"]), (1000, 0))
                took = left[-1]["DepartureNs"] - left[0]["DepartureNs"]
                if late == SHIFT:
                    self.assertGreater(timing["ShiftNs"], SECOND // 3)
                    self.assertGreater(took, 1.3 * SECOND)
                else:
                    self.assertEqual(timing["ShiftNs"], 0)
                    self.assertGreater(timing["Late"], 100)
                # At twice the rate frames after the stall are no closer than half a millisecond. The first of them
                # cannot be planned for a time at which its data was not there.
                if late == BOUNDED:
                    after = [r["DepartureNs"] for r in left if r["Datagram"] >= 100]
                    self.assertGreaterEqual(after[200] - resumed, 0.0999 * SECOND)

    def test_one_that_fails_or_is_stopped_leaves_the_others_alone(self):
        self.bed.near.run("ip", "link", "set", self.bed.NEAR, "mtu", "1500")
        try:
            outcome = self.bed.run(among_others, self.bed.library_path)
        finally:
            self.bed.near.run("ip", "link", "set", self.bed.NEAR, "mtu", str(self.bed.MTU))
        self.assertEqual(outcome.value[0], [(BAD_DESTINATION, "the destination refused a frame: Message too long"),
                                            (NOT_YET, "the playout goes on"), (ENDED, "the playout was stopped")])
        good = [f for f in outcome.frames if struct.unpack(">H", f[36:38])[0] == 6001]
        self.assertEqual(len(good), 3000)
        self.assertEqual(outcome.value[1]["NotSent"], 0)

    def test_a_socket_behind_a_slow_queue_holds_up_no_other(self):
        (good, slow), not_sent = self.bed.run(beside_a_slow_queue, self.bed.library_path).value
        self.assertEqual((good, not_sent), (3000, 0))
        self.assertLess(slow, 1500)  # as many as the other had they taken turns

    def test_a_socket_reaches_this_machine(self):
        received = self.bed.run(to_socket, self.bed.library_path).value
        expected = ScheduledModel({**TYPICAL, "Identification": 0}).departures(stream(1316 * 50))
        self.assertEqual(received, [d.frame[42:] for d in expected])

    def test_the_kernel_stamps_what_the_ledger_has(self):
        outcome = self.bed.run(stamped, self.bed.library_path)
        timing, ledger = outcome.value
        self.assertEqual((timing["Stamps"], timing["LedgerLeftOut"], len(ledger)), (300, 0, 300))
        self.assertGreaterEqual(timing["StampMaxNs"], timing["StampP50Ns"])
        self.assertEqual([(r["Datagram"], r["RtpSequence"], r["Did"], r["Bytes"]) for r in ledger],
                         [(i, 7 + i, 0, 1370) for i in range(300)])
        # The far end has its stamps from CLOCK_REALTIME: only their distances are the same.
        seen = [arrival for arrival, _ in outcome.arrivals]
        self.assertAlmostEqual(seen[-1] - seen[0],
                               (ledger[-1]["DepartureNs"] - ledger[0]["DepartureNs"]) / SECOND, delta=0.5)

    def test_stamps_do_not_depend_on_who_opened_the_adapter(self):
        self.assertEqual(self.bed.run(stamped_beside_others, self.bed.library_path).value, (0, 300))

    def test_refusals_name_the_field(self):
        seen = self.bed.run(refusals, self.bed.library_path).value
        for name in ("FecRows", "CatchUp", "TSPacketSize", "To", "TTL", "BitRate", "RingBytes", "VID", "start_ns"):
            self.assertEqual(seen[name][0], BAD_VALUE, name)
            self.assertIn(name + " is ", seen[name][1])
            self.assertIn("; it can be ", seen[name][1])
        self.assertEqual(seen["nowhere"][0], BAD_DESTINATION)
        self.assertIn("nowhere", seen["nowhere"][1])
        self.assertEqual(seen["closed"][0], BAD_PLAYOUT)


if __name__ == "__main__":
    unittest.main()
