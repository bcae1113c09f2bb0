# SPDX-License-Identifier: MIT
"""Forward error correction as others see it: ffmpeg makes the same, GStreamer repairs what can be repaired."""
import json
import os
import random
import struct
import subprocess
import tempfile
import unittest

from fec import (COLUMN, FEC_HEADER, MEDIA, PAYLOAD, ROW, Datagram, gstreamer, measure, of_kind, parity_in, parity_of,
                 play, play_with_ffmpeg, repair, udp_at)
from playouts import DELAY, FEC_COLUMN, FEC_ROW, LOSE, SENT_HELD, Playouts, Refused
from testbed import write_pcap
from wire_case import TAGGED, TYPICAL, TYPICAL_IPV6

FIELDS = ("snbase_low", "lr", "ptr", "mask", "tsr", "d", "offset", "na", "snbase_ext")


class Matrix:
    """Numbers of a matrix's datagrams in the stream; the matrix is the second one, behind a whole one."""

    def __init__(self, columns, rows):
        self.columns, self.rows = columns, rows

    def at(self, row, column):
        return self.columns * (self.rows + row) + column

    def run(self, row, column, length):
        """Datagrams in a row, as they leave."""
        return [self.at(row, column) + i for i in range(length)]

    def cross(self, rows, columns):
        return [self.at(row, column) for row in rows for column in columns]


M = Matrix(5, 4)
WIDE, TALL, THIN = Matrix(20, 5), Matrix(5, 20), Matrix(1, 4)
BOTH, COLUMNS_ONLY = {"FecProtectsRows": 1}, {"FecProtectsRows": 0}
STAGGERED = {"FecProtectsRows": 0, "FecStaggered": 1}

# (name, matrix, settings, lost datagrams, lost FEC of columns and of rows, what stays lost). FEC is counted from 0:
# that of matrix M's second matrix are columns 5 to 9 and rows 4 to 7.
PATTERNS = (
    ("one", M, BOTH, M.run(1, 2, 1), [], [], []),
    ("two in a row", M, BOTH, M.run(1, 2, 2), [], [], []),
    ("two in a column", M, BOTH, M.cross((0, 2), (3,)), [], [], []),
    ("a row", M, BOTH, M.run(2, 0, 5), [], [], []),
    ("a column", M, BOTH, M.cross(range(4), (4,)), [], [], []),
    ("a square", M, BOTH, M.cross((0, 2), (1, 3)), [], [], M.cross((0, 2), (1, 3))),
    ("the corners", M, BOTH, M.cross((0, 3), (0, 4)), [], [], M.cross((0, 3), (0, 4))),
    ("three of a square", M, BOTH, M.cross((0, 2), (1, 3))[:3], [], [], []),
    ("a square and one beside it", M, BOTH, M.cross((0, 2), (1, 3)) + M.run(1, 1, 1), [], [],
     M.cross((0, 2), (1, 3))),
    ("a row and one below it", M, BOTH, M.run(0, 0, 5) + M.run(1, 0, 1), [], [], []),
    ("one more than a row", M, BOTH, M.run(0, 3, 6), [], [], []),
    ("over the wrap of the number", M, BOTH, M.run(1, 3, 5), [], [], []),
    ("the first and the last", M, BOTH, M.run(0, 0, 1) + M.run(3, 4, 1), [], [], []),
    ("one, and its column's FEC", M, BOTH, M.run(1, 2, 1), [7], [], []),
    ("one, and its row's FEC", M, BOTH, M.run(1, 2, 1), [], [5], []),
    ("one, and all its FEC", M, BOTH, M.run(1, 2, 1), [7], [5], M.run(1, 2, 1)),
    ("two in a row, and one column's FEC", M, BOTH, M.run(1, 2, 2), [7], [], []),
    ("two in a row, and both columns' FEC", M, BOTH, M.run(1, 2, 2), [7, 8], [], M.run(1, 2, 2)),
    ("FEC alone", M, BOTH, [], [5, 9], [4, 7], []),
    ("in two matrices", M, BOTH, M.run(3, 1, 6), [], [], []),
    ("one, columns only", M, COLUMNS_ONLY, M.run(1, 2, 1), [], [], []),
    ("a burst of L", M, COLUMNS_ONLY, M.run(0, 3, 5), [], [], []),
    ("a burst of L and one", M, COLUMNS_ONLY, M.run(0, 3, 6), [], [], M.run(0, 3, 1) + M.run(1, 3, 1)),
    ("a burst of L in staggered columns", M, STAGGERED, M.run(1, 1, 5), [], [], []),
    ("two of a staggered column", M, STAGGERED, M.cross((1, 2), (0,)), [], [], M.cross((1, 2), (0,))),
    ("a burst of 20", WIDE, COLUMNS_ONLY, WIDE.run(1, 7, 20), [], [], []),
    ("a burst of 21", WIDE, COLUMNS_ONLY, WIDE.run(1, 7, 21), [], [], WIDE.cross((1, 2), (7,))),
    ("5 in 20 rows", TALL, COLUMNS_ONLY, TALL.run(19, 0, 5), [], [], []),
    ("a column of 20", TALL, BOTH, TALL.cross(range(20), (0,)), [], [], []),
    ("one in four", THIN, COLUMNS_ONLY, [4, 11], [], [], []),
    ("two in four", THIN, COLUMNS_ONLY, [3, 5, 6, 11], [], [], [5, 6]),
)


def played(playouts, matrix, settings):
    """Three matrices, in the second of which the number goes over its wrap."""
    wrap = matrix.at(matrix.rows // 2, 0)
    return play(playouts, matrix.columns, matrix.rows, 3 * matrix.columns * matrix.rows,
                **settings, SequenceNumber=65536 - wrap)


def without(datagrams, media, columns, rows):
    """Less the lost ones, and the numbers of the media among them."""
    lost = {MEDIA: set(media), COLUMN: set(columns), ROW: set(rows)}
    kept, gone = [], {}
    counts = dict.fromkeys(lost, 0)
    for datagram in datagrams:
        index = counts[datagram.kind]
        counts[datagram.kind] += 1
        if index not in lost[datagram.kind]:
            kept.append(datagram)
        elif datagram.kind == MEDIA:
            gone[index] = datagram
    return kept, gone


class Fec(unittest.TestCase):
    maxDiff = 2000

    @classmethod
    def setUpClass(cls):
        cls.playouts = Playouts(os.environ["IPPLAYOUT_LIBRARY"])

    def test_gstreamer_repairs_what_can_be_repaired(self):
        for name, matrix, settings, media, columns, rows, stays in PATTERNS:
            with self.subTest(name):
                kept, gone = without(played(self.playouts, matrix, settings), media, columns, rows)
                self.assertEqual(sorted(gone), sorted(media))
                rebuilt = gstreamer(kept)
                for index, datagram in gone.items():
                    # GStreamer gives the SSRC of the FEC to what it rebuilds.
                    expected = [] if index in stays else [datagram.rtp[:8] + bytes(4) + datagram.rtp[12:]]
                    self.assertEqual(rebuilt.get(datagram.number, []), expected, index)

    def test_meter_repairs_what_can_be_repaired(self):
        """As the patterns say; FEC whose parity it could check was right."""
        for name, matrix, settings, media, columns, rows, stays in PATTERNS:
            with self.subTest(name):
                whole = played(self.playouts, matrix, settings)
                kept, gone = without(whole, media, columns, rows)
                stream, result = measure(kept)
                fec = stream["fec"]
                lost = len(gone)
                self.assertEqual((fec["lost"], fec["repaired"], fec["unrepaired"]),
                                 (lost, lost - len(stays), len(stays)))
                protected = {number for d in kept if d.kind != MEDIA for number in d.protected()}
                self.assertEqual(fec["unrepaired_too_many"], sum(gone[index].number in protected for index in stays))
                self.assertEqual((fec["columns"], fec["rows"]), (matrix.columns, matrix.rows))
                # Numbers alone do not show that the last one is lost; FEC does.
                self.assertEqual(stream["rtp"]["lost"], lost - (3 * matrix.columns * matrix.rows - 1 in gone))
                self.assertEqual((fec["column_datagrams"], fec["row_datagrams"]),
                                 (len(of_kind(kept, COLUMN)), len(of_kind(kept, ROW))))
                self.assertEqual(fec["parity_wrong"], 0)
                if not media:
                    self.assertEqual(fec["parity_right"], len(kept) - len(of_kind(kept, MEDIA)))
                others = [s for s in result["streams"] if s is not stream]
                self.assertEqual([s["protects_stream"] for s in others], [0] * len(others))
                self.assertFalse(any("ts" in s for s in others))

    def test_meter_repairs_what_others_repair(self):
        """Random losses, delays and copies, of media and FEC: as many as a solver that shares no code rebuilds."""
        draw = random.Random(18)
        streams = [play(self.playouts, columns, rows, 1500, **settings, SequenceNumber=64800)
                   for columns, rows, settings in ((5, 4, BOTH), (10, 10, BOTH), (20, 5, COLUMNS_ONLY),
                                                   (7, 6, {**STAGGERED, "FecProtectsRows": 1}))]
        for whole in (*streams, play_with_ffmpeg(5, 4), play_with_ffmpeg(10, 10)):
            for share in (0.02, 0.05, 0.1):
                inner = range(len(whole) // 50, len(whole) * 48 // 50)
                kept = [d for i, d in enumerate(whole) if i not in inner or draw.random() > share]
                damaged = list(kept)
                for _ in range(10):
                    at = draw.choice(inner) * len(kept) // len(whole)
                    damaged.insert(at - draw.randrange(12), damaged.pop(at))
                    damaged.insert(at + draw.randrange(12), damaged[at])
                media = {d.number for d in of_kind(damaged, MEDIA)}
                lost = [d for d in of_kind(whole, MEDIA) if d.number not in media]
                stream, _ = measure(damaged)
                rebuilt = repair(damaged)
                self.assertGreater(len(rebuilt), 0)
                found = gstreamer(damaged)
                self.assertEqual({d.number for d in lost if d.number in found}, set(rebuilt))
                self.assertEqual([stream["fec"][name] for name in ("lost", "repaired", "parity_wrong")],
                                 [len(lost), len(rebuilt), 0])

    def test_wrong_parity_is_an_event(self):
        """Each part of it, of FEC that checks and of FEC that repairs."""
        for at in (42 + 12 + 2, 42 + 12 + 4, 42 + 12 + 11, 42 + 12 + FEC_HEADER, -1):
            for kind in (COLUMN, ROW):
                whole = play(self.playouts, 5, 4, 100, FecProtectsRows=1)
                victim = of_kind(whole, kind)[7]
                frame = bytearray(victim.frame)
                frame[at] ^= 1
                damaged = [Datagram(d.time, bytes(frame), kind) if d is victim else d for d in whole]
                stream, lines = measure_events(damaged, "fec_parity")
                self.assertEqual((stream["fec"]["parity_wrong"], len(lines)), (1, 1))
                self.assertEqual(lines[0]["time_ns"], victim.time)
                fec = stream["fec"]
                self.assertEqual(fec["parity_right"], fec["column_datagrams"] + fec["row_datagrams"] - 1)
                # Used to rebuild a datagram, it is found out by the other FEC of that one.
                lost = next(d for d in of_kind(whole, MEDIA) if d.number in victim.protected())
                stream, _ = measure([d for d in damaged if d is not lost])
                self.assertEqual((stream["fec"]["parity_wrong"], stream["fec"]["repaired"]), (1, 1))

    def test_what_stays_unknown_meets_no_limit(self):
        """FEC that begins late, without media, or at odds with itself; FEC that goes on with its media's next SSRC."""
        whole = play(self.playouts, 5, 4, 600, FecProtectsRows=1)
        media, fec = of_kind(whole, MEDIA), [d for d in whole if d.kind != MEDIA]
        lost = media[333]
        wrong = [damaged(d) if lost.number in d.protected() and d.kind == ROW else d for d in fec]
        again = [later(d, whole[-1].time + 10**6) for d in
                 play(self.playouts, 5, 4, 600, FecProtectsRows=1, SSRC=9, SequenceNumber=30000)]
        cases = (("late", [d for d in without(whole, [50], [], [])[0] if d.kind == MEDIA or d.time > media[300].time], "1"),
                 ("no media", fec, "not measurable"),
                 ("at odds", sorted([d for d in media if d is not lost] + wrong, key=lambda d: d.time), "not measurable"),
                 ("another SSRC", whole + [d for d in again if (d.kind, d.number) != (MEDIA, 30333)], "0"),
                 ("a square of another SSRC", whole + without(again, M.cross((0, 2), (1, 3)), [], [])[0], "4"))
        for name, datagrams, measured in cases:
            with self.subTest(name):
                _, result = measure(datagrams, "--max-unrepaired", "0", status=0 if measured == "0" else 4)
                self.assertEqual([v["measured"] for v in result["verdicts"] if v["name"] == "--max-unrepaired"], [measured])
                self.assertEqual([s.get("fec_without_media", False) for s in result["streams"]],
                                 [name == "no media"] * len(result["streams"]))

    def test_twins(self):
        """What neither path has is repaired by the FEC of both."""
        draw = random.Random(7)
        for skew, (columns, rows, settings) in ((0, (5, 4, BOTH)), (30_000_000, (10, 5, COLUMNS_ONLY)),
                                                (90_000_000, (7, 6, BOTH))):
            with self.subTest(skew):
                paths = [play(self.playouts, columns, rows, 1500, **settings, SequenceNumber=64800,
                              DestinationIP=bytes((239, 1, 2, 3 + place))) for place in range(2)]
                sent = {d.number for d in of_kind(paths[0], MEDIA)}
                came = []
                for place, path in enumerate(paths):
                    inner = range(len(path) // 3, len(path) * 48 // 50)  # the combined stream begins before
                    came += [later(d, skew * place) for i, d in enumerate(path) if i not in inner or draw.random() > .3]
                came.sort(key=lambda d: d.time)
                lost = sent - {d.number for d in of_kind(came, MEDIA)}
                repaired = len(repair(came))
                self.assertTrue(0 < repaired < len(lost))
                _, result = measure(came, "--max-unrepaired", str(len(lost) - repaired))
                twins, = result["twins"]
                fec = twins["combined"]["fec"]
                self.assertEqual((twins["lost_together"], fec["lost"], fec["repaired"], fec["parity_wrong"], twins["unrepaired"]),
                                 (len(lost), len(lost), repaired, 0, len(lost) - repaired))
                measure(came, "--max-unrepaired", str(len(lost) - repaired - 1), status=4)

    def test_losses_on_order(self):
        """Media and FEC lost, delayed and at random places: what GStreamer rebuilds is what parity allows."""
        orders = {"ErrInsertionEnable": 1, "PacketLossEnabled": 1, "NumPacketLoss": 1, "PacketLossRange": 7,
                  "RandomizeErrors": 1, "SequenceErrorEnabled": 1, "NumSequenceError": 1, "SequenceErrorRange": 11,
                  "SequenceErrorDistance": 2}
        for seed, (columns, rows, settings) in enumerate(((5, 4, BOTH), (10, 10, BOTH), (8, 5, STAGGERED))):
            settings = {**settings, **orders, "Seed": seed + 1, "SequenceNumber": 65400,
                        **{"FecErrors." + name: value for name, value in orders.items()},
                        "FecErrors.PacketLossRange": 5}
            with self.subTest(seed):
                whole = {d.number: d.rtp for d in played_clean(self.playouts, columns, rows)}
                kept = play(self.playouts, columns, rows, 400, **settings)
                lost = set(whole) - {d.number for d in of_kind(kept, MEDIA)}
                self.assertIn(len(lost), (400 // 7, 400 // 7 + 1))  # one in the rest of the last range
                for kind in (COLUMN, ROW) if settings["FecProtectsRows"] else (COLUMN,):
                    numbers = [d.number for d in of_kind(kept, kind)]
                    steps = [(b - a) & 0xFFFF for a, b in zip(sorted(numbers), sorted(numbers)[1:])]
                    self.assertGreater(steps.count(2), 5)
                expected = repair(kept)
                self.assertTrue(0 < len(expected) < len(lost))
                self.assertEqual(expected, {number: whole[number] for number in expected})
                found = gstreamer(kept)
                self.assertEqual({number for number in lost if number in found}, set(expected))

    def test_spread_in_time(self):
        """FEC leaves between the datagram that it follows and the next one; columns of a matrix evenly apart."""
        columns, rows = 6, 5
        datagrams = play(self.playouts, columns, rows, 100, FecProtectsRows=1, IPBitRate=1.0)
        media = [d.time for d in of_kind(datagrams, MEDIA)]
        gap = media[1] - media[0]
        times = [d.time for d in of_kind(datagrams, COLUMN)]
        self.assertEqual(len(times), 3 * columns)
        for index, time in enumerate(times[:70 // rows]):
            behind = columns * rows + index * rows
            self.assertAlmostEqual(time - media[behind], gap / 2, delta=2)
        for index, datagram in enumerate(of_kind(datagrams, ROW)):
            self.assertTrue(media[(index + 1) * columns - 1] < datagram.time < media[(index + 1) * columns - 1] + gap)
        at_end = [b - a for a, b in zip([media[-1], *times[14:]], times[14:])]
        self.assertEqual([round(step / gap, 2) for step in at_end], [0.5] * len(at_end))

    def test_ledger_tells_lost_from_delayed(self):
        orders = {"ErrInsertionEnable": 1, "PacketLossEnabled": 1, "NumPacketLoss": 1, "PacketLossRange": 5,
                  "SequenceErrorEnabled": 1, "NumSequenceError": 1, "SequenceErrorRange": 4, "SequenceErrorDistance": 1}
        ledger = []
        datagrams = play(self.playouts, 5, 4, 100, FecProtectsRows=1, LedgerFrames=1000, ledger=ledger,
                         **{"FecErrors." + name: value for name, value in orders.items()})
        for kind, mark, count in ((COLUMN, FEC_COLUMN, 25), (ROW, FEC_ROW, 20)):
            records = [record["Did"] & ~mark for record in ledger if record["Did"] & mark]
            lost = {index for index in range(count) if index % 5 == 0}
            delayed = {index for index in range(count) if index % 4 == 0} - lost
            self.assertEqual(records.count(LOSE), len(lost))
            self.assertEqual(records.count(DELAY), len(delayed))
            self.assertEqual(len(of_kind(datagrams, kind)), count - len(lost) - len(delayed) + records.count(SENT_HELD))
            self.assertEqual(records.count(0), count - len(lost) - len(delayed))
            self.assertIn(len(delayed) - records.count(SENT_HELD), (0, 1))  # held back over the end

    def test_copies_tags_and_both_versions(self):
        """Each copy has FEC of its own, under its own addresses."""
        copies = {"ReplicationCount": 2, "CopiesShareTime": 1, "SSRCIncrement": 7}
        for base, step in ((TYPICAL, {"DestinationIPIncrement": bytes((0, 0, 0, 1))}),
                           (TYPICAL_IPV6, {"DestinationIPv6AddressIncrement": bytes(15) + b"\1"})):
            for tag in ({}, TAGGED):
                settings = {**base, **tag, **copies, **step}
                with self.subTest(settings):
                    datagrams = play(self.playouts, 4, 5, 60, FecProtectsRows=1, FecSSRC=100, **settings)
                    addresses = {address_of(d.frame) for d in datagrams}
                    self.assertEqual(len(addresses), 3)
                    for index, address in enumerate(sorted(addresses)):
                        own = [d for d in datagrams if address_of(d.frame) == address]
                        media = {d.number: d.rtp for d in of_kind(own, MEDIA)}
                        self.assertEqual([len(of_kind(own, kind)) for kind in (MEDIA, COLUMN, ROW)], [60, 12, 15])
                        for fec in own:
                            if fec.kind != MEDIA:
                                self.assertEqual(parity_in(fec), parity_of(media[n] for n in fec.protected()))
                                self.assertEqual(struct.unpack(">I", fec.rtp[8:12])[0], 100 + 7 * index)

    def test_marker(self):
        """RFC 2733, 7.1: that of FEC is the parity of those that it protects; GStreamer rebuilds by it."""
        for columns, rows in ((5, 4), (4, 5)):
            whole = play(self.playouts, columns, rows, 60, FecProtectsRows=1, PayloadType=0x80 | 33)
            markers = {d.kind: {d.rtp[1] >> 7 for d in of_kind(whole, d.kind)} for d in whole}
            self.assertEqual(markers, {MEDIA: {1}, COLUMN: {rows % 2}, ROW: {columns % 2}})
            kept, gone = without(whole, [7], [], [])
            rebuilt, = gstreamer(kept)[gone[7].number]
            self.assertEqual(rebuilt[1], 0x80 | 33)

    def test_refused(self):
        for more, words in (({"DestinationPort": 65532}, "DestinationPort with FEC is 65532; it can be 0 to 65531"),
                            ({"SourcePort": 65535}, "SourcePort with FEC is 65535"),
                            ({"DestinationPortIncrement": 2, "ReplicationCount": 1}, "DestinationPortIncrement is 2, "),
                            ({"DestinationPortIncrement": 1, "ReplicationCount": 2}, "DestinationPortIncrement is 1, "),
                            ({"PayloadTypeIncrement": 1, "ReplicationCount": 1}, "PayloadTypeIncrement is 1, ")):
            with self.assertRaisesRegex(Refused, words):
                play(self.playouts, 5, 4, 1, **more, CopiesShareTime=1)
        play(self.playouts, 5, 4, 1, DestinationPortIncrement=1, ReplicationCount=1, CopiesShareTime=1)
        play(self.playouts, 5, 4, 1, DestinationPortIncrement=2, ReplicationCount=1, CopiesShareTime=1,
             DestinationIPIncrement=bytes((0, 0, 0, 1)))

    def test_ffmpeg_makes_the_same(self):
        """Header and parity of the same stream, byte for byte; the rest of its RTP header and when it leaves differ."""
        for columns, rows in ((5, 4), (4, 20), (20, 5)):
            with self.subTest((columns, rows)):
                theirs = play_with_ffmpeg(columns, rows)
                media = [d.rtp for d in of_kind(theirs, MEDIA)]
                self.assertEqual({len(rtp) for rtp in media[:-1]}, {12 + PAYLOAD})
                first, start = struct.unpack(">HI", media[0][2:8])
                marks = [(index * PAYLOAD, -(-((struct.unpack(">I", rtp[4:8])[0] - start) % 2**32) * 100_000 // 9))
                         for index, rtp in enumerate(media)]
                ours = play(self.playouts, columns, rows, data=b"".join(rtp[12:] for rtp in media), marks=marks,
                            FecProtectsRows=1, SequenceNumber=first, FirstRtpTimestamp=start,
                            SSRC=struct.unpack(">I", media[0][8:12])[0], IPBitRate=0.0)
                self.assertEqual([d.rtp for d in of_kind(ours, MEDIA)], media)
                for kind in (COLUMN, ROW):
                    expected = [d.rtp for d in of_kind(theirs, kind)]
                    found = [d.rtp for d in of_kind(ours, kind)][:len(expected)]
                    self.assertGreater(len(expected), 10)
                    self.assertEqual([rtp[12:] for rtp in found], [rtp[12:] for rtp in expected])
                    # Version, padding, extension, CSRC count, marker and payload type; SSRC.
                    self.assertEqual([rtp[:2] + rtp[8:12] for rtp in found], [rtp[:2] + rtp[8:12] for rtp in expected])

    def test_tshark_dissects_both(self):
        for datagrams in (play(self.playouts, 5, 4, 100, FecProtectsRows=1, SequenceNumber=65500),
                          play_with_ffmpeg(5, 4)):
            fec = [d for d in datagrams if d.kind != MEDIA]
            media = {d.number: d.rtp for d in of_kind(datagrams, MEDIA)}
            rows = dissect(fec)
            self.assertEqual(len(rows), len(fec))
            for row, datagram in zip(rows, fec):
                self.assertEqual(row, datagram.fields())
                self.assertEqual(parity_in(datagram), parity_of(media[n] for n in datagram.protected()))
                self.assertEqual(len(datagram.rtp), 12 + FEC_HEADER + PAYLOAD)


def address_of(frame):
    """The IP destination, behind a tag if there is one."""
    end = udp_at(frame)
    return frame[end - 4:end] if frame[end - 20] == 0x45 else frame[end - 16:end]


def later(datagram, by):
    return Datagram(datagram.time + by, datagram.frame, datagram.kind)


def damaged(datagram):
    """In its parity's last byte."""
    return Datagram(datagram.time, datagram.frame[:-1] + bytes([datagram.frame[-1] ^ 1]), datagram.kind)


def measure_events(datagrams, kind):
    """The protected stream and the events of that kind."""
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "events")
        stream, _ = measure(datagrams, "--events", path)
        with open(path) as file:
            return stream, [event for event in map(json.loads, file) if event["event"] == kind]


def played_clean(playouts, columns, rows):
    return of_kind(play(playouts, columns, rows, 400, SequenceNumber=65400), MEDIA)


def dissect(datagrams):
    """The fields of tshark's 2dparityfec, as numbers."""
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "fec.pcap")
        write_pcap(path, [(0, d.frame) for d in datagrams])
        command = ["tshark", "-r", path, "-T", "fields", "-o", "2dparityfec.enable:TRUE", "-d", "udp.port==5006,rtp",
                   "-d", "udp.port==5008,rtp"]
        text = subprocess.run(command + [part for name in FIELDS for part in ("-e", "2dparityfec." + name)],
                              check=True, text=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    return [dict(zip(FIELDS, (int(value, 0) for value in line.split("\t")))) for line in text.splitlines()]


if __name__ == "__main__":
    unittest.main()
