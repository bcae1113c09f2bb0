# SPDX-License-Identifier: MIT
"""Deliberate errors on the wire: exactly those that were ordered, counted as they were inserted."""
import ctypes
import struct
import unittest

from host import begin, ready, reap, until_sent
from library import TYPES
from wire_case import (RTP, TAGGED, TYPICAL, TYPICAL_IPV6, UDP, Model, WireCase, datagrams, play, stream)

ON = {"ErrInsertionEnable": 1}


def loss(count, reach):
    return {**ON, "PacketLossEnabled": 1, "NumPacketLoss": count, "PacketLossRange": reach}


def late(count, reach, distance):
    return {**ON, "SequenceErrorEnabled": 1, "NumSequenceError": count, "SequenceErrorRange": reach,
            "SequenceErrorDistance": distance}


def checksum(kind, count, reach):
    return {**ON, "ChecksumErrorEnabled": 1, "ChecksumErrorType": kind, "NumChecksumError": count,
            "ChecksumErrorRange": reach}


ALL = {**loss(1, 7), **late(2, 5, 2), **checksum(1, 3, 6), "ReplicationCount": 1}

SCHEDULES = {  # name: (settings, errors)
    "loss": (TYPICAL, loss(2, 10)),
    "loss of all": (TYPICAL, loss(4, 4)),
    "loss of very many": (TYPICAL, loss(0x7FFFFFFF, 10)),
    "loss of fewer than none": (TYPICAL, loss(0xFFFFFFFF, 10)),
    "loss with a range of 0": (TYPICAL, loss(1, 0)),
    "loss, randomly, with a range of 0": (TYPICAL, {**loss(1, 0), "RandomizeErrors": 1}),
    "loss, not enabled": (TYPICAL, {**loss(2, 10), "ErrInsertionEnable": 0}),
    "loss in every copy": (TYPICAL_IPV6, {**loss(1, 3), "ReplicationCount": 2}),
    "late by 0": (TYPICAL, late(1, 10, 0)),
    "late by 1": (TYPICAL, late(1, 10, 1)),
    "late by 2": (TYPICAL, late(1, 10, 2)),
    "two late, the end before they are due": (TYPICAL, late(2, 9, 6)),
    "late in a batch of ten": (TYPICAL, {**late(1, 7, 3), "IPBitRate": 200.0}),
    "all late": (TYPICAL, late(5, 5, 1)),
    "late in every copy": (TYPICAL, {**late(1, 5, 2), "ReplicationCount": 2, "SSRCIncrement": 1}),
    "no sequence errors without sequence numbers": (TYPICAL, {**late(1, 10, 1), "ProtocolMode": UDP}),
    "lost and late at once": (TYPICAL, {**loss(1, 5), **late(2, 5, 1)}),
    "IPv4 checksum": (TYPICAL, checksum(0, 1, 4)),
    "IPv4 checksum with the option": (TYPICAL, {**checksum(0, 2, 5), "IPProtocol": 2, **TAGGED}),
    "no IPv4 checksum in IPv6": (TYPICAL_IPV6, checksum(0, 1, 4)),
    "UDP checksum": (TYPICAL, checksum(1, 2, 5)),
    "UDP checksum, IPv6": (TYPICAL_IPV6, {**checksum(1, 2, 5), **TAGGED}),
    "UDP checksum in every copy": (TYPICAL, {**checksum(1, 1, 3), "ReplicationCount": 3,
                                             "DestinationIPIncrement": bytes((0, 0, 0, 1))}),
    "no such checksum": (TYPICAL, checksum(2, 1, 4)),
    "all at once": (TYPICAL, ALL),
    "flags beyond 1": (TYPICAL, {**ALL, "ErrInsertionEnable": 2, "PacketLossEnabled": 3,
                                 "SequenceErrorEnabled": 1 << 31, "ChecksumErrorEnabled": 2}),
}

RANDOM = {  # name: (errors, datagrams damaged in each whole range of ten)
    "few": ({"NumPacketLoss": 2}, 2),
    "few, by a flag of 2": ({"NumPacketLoss": 2, "RandomizeErrors": 2}, 2),
    "most": ({"NumPacketLoss": 9}, 9),
    "all": ({"NumPacketLoss": 10}, 10),
    "more than there are": ({"NumPacketLoss": 12}, 10),
}

REQUESTS = {"loss": "GeneratePacketLoss", "ip": "GenerateIPChecksumError", "udp": "GenerateUDPChecksumError"}


def sequence(frame):
    return struct.unpack_from(">H", frame, 44)[0]


def play_with(at, act):
    """A host that acts once exactly `at` datagrams have been sent and the pump waits for more."""
    def body(library, settings, data):
        ready(library, settings)
        first = Model(settings).payload_size * at
        begin(library, data[:first])
        until_sent(library, at)
        act(library)
        library.write(data[first:])
        library.IPWriteTerminate()
        return reap(library)
    return body


def play_with_requests(at, *functions):
    def ask(library):
        assert {getattr(library, function)() for function in functions} == {1}

    def body(library, settings, data):
        ask(library)  # while nothing plays: forgotten
        return play_with(at, ask)(library, settings, data)
    return body


class OnlyEarly(Model):
    """A playout that goes on without sequence errors."""

    def __init__(self, settings, end):
        super().__init__(settings)
        self.end = end

    def scheduled(self, kind, index):
        return super().scheduled(kind, index) and (kind != "SequenceError" or index < self.end)


class Errors(WireCase):
    def test_schedules(self):
        for name, (base, changes) in SCHEDULES.items():
            settings = {**base, **changes}
            with self.subTest(name):
                self.check_playout(settings, datagrams(Model(settings), 23))

    def test_frames_held_at_the_end_of_a_run_are_forgotten(self):
        settings = {**TYPICAL, **late(2, 9, 6)}
        parts = [datagrams(Model(settings), count) for count in (19, 30)]
        outcome = self.bed.run(lambda library: [play(library, settings, part) for part in parts])
        expected = [Model(settings).play(part) for part in parts]
        self.assert_frames(outcome, expected[0][0] + expected[1][0])
        self.assertEqual(outcome.value, [statistics for _, statistics in expected])

    def test_damaged_checksum_wraps_to_zero(self):
        settings = {**TYPICAL, "ProtocolMode": UDP, **checksum(1, 1, 1)}
        clean = Model({**settings, "ErrInsertionEnable": 0})
        data = bytearray(datagrams(clean, 1, tail=0))
        data[0:2] = bytes(2)
        data[0:2] = clean.play(bytes(data))[0][0][40:42]
        self.assertEqual(Model(settings).play(bytes(data))[0][0][40:42], bytes(2))
        self.check_playout(settings, bytes(data))

    def test_ipv4_checksum_of_zero_stays_zero(self):
        settings = {**TYPICAL, "Identification": 0}
        data = datagrams(Model(settings), 1, tail=0)
        settings["Identification"] = struct.unpack_from(">H", Model(settings).play(data)[0][0], 24)[0]
        self.assertEqual(Model(settings).play(data)[0][0][24:26], bytes(2))
        self.check_playout(settings, data)

    def test_random_placement(self):
        settings = {**TYPICAL, **loss(0, 10), "RandomizeErrors": 1, "SequenceNumber": 0}
        for name, (changes, damaged) in RANDOM.items():
            with self.subTest(name):
                data = datagrams(Model(settings), 200, tail=0)
                every_frame = Model({**settings, "ErrInsertionEnable": 0}).play(data)[0]
                outcome = self.bed.run(play, {**settings, **changes}, data)
                arrived = [sequence(frame) for frame in outcome.frames]
                self.assert_frames(outcome, [every_frame[number] for number in sorted(set(arrived))])
                for start in range(0, 200, 10):
                    self.assertEqual(sum(start <= number < start + 10 for number in arrived), 10 - damaged)
                self.assertEqual(outcome.value["LostPackets"], 200 - len(arrived))
                if 0 < len(arrived) < 200:
                    self.assertGreater(len({number % 10 for number in arrived}), 10 - damaged,
                                       "the same places in every range")

    def test_random_checksum_errors(self):
        settings = {**TYPICAL, **checksum(1, 3, 10), "RandomizeErrors": 1, "SequenceNumber": 0}
        data = datagrams(Model(settings), 100, tail=0)
        clean = Model({**settings, "ErrInsertionEnable": 0}).play(data)[0]
        damaged = Model({**settings, "NumChecksumError": 10, "RandomizeErrors": 0}).play(data)[0]
        outcome = self.bed.run(play, settings, data)
        self.assertEqual(len(outcome.frames), 100)
        chosen = [i for i, frame in enumerate(outcome.frames) if frame != clean[i]]
        self.assert_frames(outcome, [damaged[i] if i in chosen else clean[i] for i in range(100)])
        self.assertEqual([sum(i // 10 == block for i in chosen) for block in range(10)], [3] * 10)
        self.assertEqual(outcome.value["UDPChecksumErrors"], 30)

    def test_ranges_too_large_for_the_generator(self):
        """Random placement ends also where the generator cannot reach enough places."""
        for count, reach in ((40000, 100000), (70000, 140000), (10, 0x80000000), (70000, 0xFFFFFFFF)):
            with self.subTest(count=count, range=reach):
                settings = {**TYPICAL, **loss(count, reach), "RandomizeErrors": 1}
                outcome = self.bed.run(play, settings, datagrams(Model(settings), 5))
                self.assertEqual(outcome.value["DatagramsSent"], 6)
                self.assertEqual(len(outcome.frames), 6 - outcome.value["LostPackets"])

    def test_requests_one_by_one(self):
        for at in (0, 3):
            for kind, function in REQUESTS.items():
                for copies in (0, 2):
                    with self.subTest(kind, at=at, copies=copies):
                        settings = {**TYPICAL, "ReplicationCount": copies}
                        self.check_playout(settings, datagrams(Model(settings), 6),
                                           play_with_requests(at, function), {at: {kind}})
        with self.subTest("several at once"):
            self.check_playout(TYPICAL, datagrams(Model(TYPICAL), 6),
                               play_with_requests(2, *REQUESTS.values()), {2: set(REQUESTS)})
        with self.subTest("an IPv4 checksum in IPv6"):
            self.check_playout(TYPICAL_IPV6, datagrams(Model(TYPICAL_IPV6), 6),
                               play_with_requests(2, "GenerateIPChecksumError"))
        with self.subTest("a sequence error without sequence numbers"):
            settings = {**TYPICAL, "ProtocolMode": UDP}
            self.check_playout(settings, datagrams(Model(settings), 6),
                               play_with_requests(2, "GenerateSequenceError"))

    def test_request_of_a_sequence_error(self):
        """The datagram asked for comes late by 1 to 99 others; all else keeps its order."""
        data = datagrams(Model(TYPICAL), 120, tail=0)
        expected = Model(TYPICAL).play(data)[0]
        outcome = self.bed.run(play_with_requests(5, "GenerateSequenceError"), TYPICAL, data)
        place = outcome.frames.index(expected[5])
        self.assertIn(place - 5, range(1, 100))
        moved = expected[:5] + expected[6:]
        moved.insert(place, expected[5])
        self.assert_frames(outcome, moved)
        self.assertEqual(outcome.value["SequenceErrors"], 1)

    def test_settings_changed_in_mid_run(self):
        """They count from the next start on, except for the transport: without RTP nothing comes late any more."""
        def change(protocol):
            def act(library):
                for record in (library.GetIPPlayParams(), library.GetErrorInsertion()):
                    ctypes.memset(record, 0xEE, ctypes.sizeof(record.contents))
                for name in ("ParametricSettings", "TTSSettings"):
                    getattr(library, "Set" + name)(TYPES[name].from_buffer_copy(b"\xee" * ctypes.sizeof(TYPES[name])))
                library.SetIPOtherSettings(0, 0)
                library.configure({"TSPacketSize": 204, "IPBitRate": 1e-3, "PlayFileSizeForIP": 1 << 40,
                                   "ProtocolMode": protocol})
                library.GenerateSequenceError() if protocol == UDP else None
            return act
        for protocol, end, copies in ((RTP, 99, 1), (UDP, 12, 0)):
            with self.subTest(protocol):
                settings = {**TYPICAL, **ALL, "JitterEnabled": 1, "TTSEnabled": 1, "SSRCIncrement": 1,
                            "ReplicationCount": copies}
                data = datagrams(Model(settings), 33)
                expected, statistics = OnlyEarly(settings, end).play(data)
                outcome = self.bed.run(play_with(12, change(protocol)), settings, data)
                self.assert_frames(outcome, expected)
                self.assertEqual(outcome.value, statistics)

    def test_statistics_cleared_in_mid_run(self):
        """They count anew, but for the packets, which follow from all bytes so far; the schedule goes on."""
        for name, changes in (("packets", {}), ("time-stamped", {"TTSEnabled": 1}), ("raw", {"TSPacketSize": 0})):
            with self.subTest(name):
                settings = {**TYPICAL, **ALL, **changes}
                model = Model(settings)
                data = datagrams(model, 33)
                expected, whole = model.play(data)
                before = model.play(data[:model.payload_size * 12])[1]
                kept = ("DatagramSize", "TSPacketSize", *(() if name == "raw" else ("TSPacketsSent", "TSBytesSent")))
                outcome = self.bed.run(play_with(12, lambda library: library.ClearStatistics()), settings, data)
                self.assert_frames(outcome, expected)
                self.assertEqual(outcome.value, {
                    key: value if key in kept else value - before[key] for key, value in whole.items()})

    def test_cleared_statistics(self):
        def body(library, settings, data):
            statistics = play(library, settings, data)
            library.ClearStatistics()
            return statistics, library.statistics()
        statistics, cleared = self.bed.run(body, {**TYPICAL, **loss(1, 2)}, stream(20000)).value
        self.assertGreater(statistics["LostPackets"], 0)
        self.assertEqual(set(cleared.values()), {0})


if __name__ == "__main__":
    unittest.main()
