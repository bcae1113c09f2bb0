# SPDX-License-Identifier: MIT
"""Playouts from Python: what is asked for is what leaves, errors come as exceptions, and nothing hangs."""
import asyncio
import gc
import os
import signal
import socket
import struct
import threading
import time

import ipplayout
import pytest
from conftest import packets
from ipplayout import BadDestination, BadState, BadValue, Did, Playout
from playouts import read_pcapng

GROUP = "239.1.1.1:5004"
DATAGRAM = 7 * 188


@pytest.fixture
def to_file(tmp_path):
    return lambda **more: Playout(tmp_path / "out.pcapng", **{"destination": GROUP, "bit_rate": 8e6, **more})


@pytest.fixture
def frames(tmp_path):
    return lambda: [frame for _, frame in read_pcapng(tmp_path / "out.pcapng")]


def test_a_file_is_played_to_the_byte(to_file, frames, stream):
    with to_file() as p:
        p.play(stream)
    content = stream.read_bytes()
    assert b"".join(frame[54:] for frame in frames()) == content
    assert p.is_closed


@pytest.mark.parametrize("wrap", [bytes, bytearray, memoryview, lambda data: memoryview(bytearray(data))])
def test_everything_that_holds_bytes_is_written(to_file, frames, wrap):
    data = packets(14_000)  # several pieces, and more than the ring
    with to_file() as p:
        p.start()
        p.write(wrap(data))
        p.write(wrap(b""))
    assert b"".join(frame[54:] for frame in frames()) == data


def test_sources_of_play(to_file, frames, stream):
    content = stream.read_bytes()
    with open(stream, "rb") as file:
        for source, rounds, played in ((os.fspath(stream), 3, content * 3), (file, 1, content),
                                       ((content[at:at + 5000] for at in range(0, len(content), 5000)), 1, content)):
            with to_file() as p:
                p.play(source, rounds=rounds)
            assert b"".join(frame[54:] for frame in frames()) == played


def test_header_fields_reach_the_frames(to_file, frames):
    with to_file(destination="239.1.1.9:6000", source="10.1.2.3:7000", ttl=3, vlan=77, source_mac="02:00:00:00:00:09",
                 TOS=0xB8, Identification=500, PayloadType=96, SSRC=0x12345678, RandomSSRC=0, ReplicationCount=1,
                 DestinationPortIncrement=2, DestinationIPIncrement="0.0.0.1") as p:
        p.play([packets(7)])
    for copy, frame in enumerate(frames()):
        assert frame[:18] == bytes.fromhex("01005e010109 020000000009 8100 004d 0800".replace(" ", ""))
        tos, identification, ttl = struct.unpack_from(">xB2xH2xB", frame, 18)
        assert (tos, identification, ttl) == (0xB8, 500, 3)
        assert frame[30:38] == bytes((10, 1, 2, 3, 239, 1, 1, 9 + copy))
        assert struct.unpack_from(">HH", frame, 38) == (7000, 6000 + 2 * copy)
        assert (frame[47], frame[54:58]) == (96, bytes.fromhex("12345678"))
    assert copy == 1


def test_ipv6_and_udp(to_file, frames):
    with to_file(destination="[ff3e::9]:6000", source="[fd00::1]:7000", protocol="udp", ttl=5) as p:
        p.play([packets(7)])
    [frame] = frames()
    assert (frame[:6], frame[12:14]) == (bytes.fromhex("333300000009"), bytes.fromhex("86dd"))
    assert (frame[20], frame[21]) == (17, 5)
    assert frame[22:54].hex() == "fd" + "0" * 29 + "1ff3e" + "0" * 27 + "9"
    assert frame[62:] == packets(7)


def test_marks_give_the_times(to_file, tmp_path):
    with to_file(bit_rate=0) as p:
        for number, time_ns in enumerate((0, 3_000_000, 4_000_000)):
            p.mark(number * DATAGRAM, time_ns)
        p.write(packets(21))
        p.start()
    assert [each for each, _ in read_pcapng(tmp_path / "out.pcapng")] == [0, 3_000_000, 4_000_000]


def test_ledger_statistics_and_timing_agree(to_file, frames, stream):
    errors = {"ErrInsertionEnable": 1, "PacketLossEnabled": 1, "NumPacketLoss": 1, "PacketLossRange": 10}
    with to_file(ledger=5000, seed=7, **errors) as p:
        p.play(stream)
        p.wait()
        records = list(p.ledger())
        assert list(p.ledger()) == []
        statistics, timing = p.statistics(), p.timing()
        assert p.lateness() == p.lateness(0) == (timing.on_time, 0)  # virtual time is never late
        assert p.seed == 7
    lost = [each for each in records if each.did == Did.LOSE]
    assert [each.datagram for each in records] == list(range(2000))
    assert [each.datagram for each in lost] == list(range(0, 2000, 10))
    assert {each.departure_ns for each in lost} == {None}
    assert (statistics.datagrams_sent, statistics.lost_packets, statistics.lost_bytes) == (2000, 200, 200 * DATAGRAM)
    assert timing.on_time == len(frames()) == 1800
    assert (timing.sender, timing.stamps, timing.stamp_max_ns) == ("capture file", 0, None)
    assert timing.last_departure_ns == records[-1].departure_ns
    assert [each.place_ns for each in records] == [each.due_ns for each in records]  # its start is the time 0
    assert {each.stamp_ns for each in records} == {None}


def test_ledger_goes_to_a_file_instead(to_file, frames, stream, tmp_path):
    errors = {"ErrInsertionEnable": 1, "PacketLossEnabled": 1, "NumPacketLoss": 1, "PacketLossRange": 10}
    path = tmp_path / "ledger.pcapng"
    with to_file(ledger=50, **errors) as p:
        p.write_ledger(path)
        p.play(stream)
        p.wait()
        with pytest.raises(BadState, match="the ledger goes to its file"):
            list(p.ledger())
        assert not path.exists()
        assert p.timing().ledger_left_out == 0
    written = read_pcapng(path)
    assert [each.frame for number, each in enumerate(written) if number % 10 > 0] == frames()
    assert len(written) == 2000


@pytest.mark.parametrize("frames_kept, path, kind, sentence", [
    (0, "ledger.pcapng", BadState, "no ledger is kept; set LedgerFrames"),
    (1 << 24, "ledger.pcapng", BadValue, r"LedgerFrames is 16777216, which takes \d+ bytes with whole frames; it can be up to 7"),
    (9, "nowhere/ledger.pcapng", BadDestination, "nowhere/ledger.pcapng: cannot create the file: No such file"),
])
def test_ledger_files_that_are_refused(to_file, tmp_path, frames_kept, path, kind, sentence):
    with to_file(ledger=frames_kept) as p:
        with pytest.raises(kind, match=sentence):
            p.write_ledger(tmp_path / path)
            p.start()
        p.stop()
    assert not (tmp_path / "ledger.pcapng").exists()


def test_times_are_none_before_a_departure(to_file):
    with to_file(bit_rate=0) as p:
        p.mark(0, 0)
        p.start()
        timing = p.timing()
        assert (timing.lateness_max_ns, timing.first_departure_ns, timing.longest_gap_ns) == (None, None, None)
        p.stop()


@pytest.mark.parametrize("more, kind, words", [
    ({"TTL": 256}, ipplayout.BadValue, "TTL is 256; it can be 0 to 255"),
    ({"destination": "239.1.1.1"}, ipplayout.BadValue, "destination is '239.1.1.1'; it can be an address with a port"),
    ({"destination": "239.1.1.1:70000"}, ipplayout.BadValue, "destination is '239.1.1.1:70000'"),
    ({"source": "[fd00::1]:1"}, ipplayout.BadValue, "it can be an IPv4 address, as the destination is"),
    ({"bit_rate": -1}, ipplayout.BadValue, "BitRate is -1e-06; it can be above 0"),
    ({"sink": "disk"}, ipplayout.BadValue, "sink is 'disk'; it can be 'adapter', 'file' or 'socket'"),
    ({"TSPacketSize": 187}, ValueError, "TSPacketSize is 187; it can be 188, 192, 204, or 0"),
])
def test_bad_settings_are_refused(to_file, more, kind, words):
    with pytest.raises(kind) as refused:
        to_file(**more)
    assert words in str(refused.value)


def test_states_are_kept(to_file, stream):
    p = to_file()
    with pytest.raises(ipplayout.BadState):
        p.wait()
    with pytest.raises(ipplayout.BadState):
        p.pause()
    with pytest.raises(FileNotFoundError):
        p.play("nowhere.ts")
    p.play(stream)
    p.wait()
    p.configure(TTL=9)  # a run that is over is let go of
    p.close()
    p.close()
    for call in (p.wait, p.lose, p.end, p.statistics, lambda: p.write(b"x")):
        with pytest.raises(ipplayout.BadPlayout) as refused:
            call()
        assert str(refused.value) == "the playout is not open"


def test_an_adapter_that_is_not_there():
    with pytest.raises(ipplayout.BadDestination) as refused:
        Playout("nosuch0", destination=GROUP, bit_rate=1e6)
    assert str(refused.value) == 'there is no adapter nosuch0; "ipplay devices" lists the adapters'


def test_a_source_that_fails_is_reported(to_file):
    def broken(pieces):
        for _ in range(pieces):
            yield packets(7)
        raise RuntimeError("the disk is gone")

    for pieces in (0, 1, 3000):
        with to_file() as p:
            p.play(broken(pieces))
            with pytest.raises(RuntimeError, match="the disk is gone"):
                p.wait()
            p.play([packets(7)])  # and the playout is as good as new
            p.wait()
            assert p.statistics().datagrams_sent == 1
    p = to_file()
    p.feed(broken(0))
    p._feeder.join()  # the source has failed before the start
    p.start()
    with pytest.raises(RuntimeError):
        p.wait()
    p.close()


def test_a_source_without_a_start_is_no_success(to_file, stream):
    with pytest.raises(ipplayout.BadState, match="never started"):
        with to_file() as p:
            p.feed(stream)


def test_an_unclosed_playout_is_named(to_file):
    p = to_file()
    with pytest.warns(ResourceWarning, match="was not closed"):
        del p
        gc.collect()


def test_a_child_made_by_fork_is_refused_and_leaves_the_parent_alone(to_file):
    with to_file() as p:
        p.start()
        child = os.fork()
        if child == 0:
            signal.alarm(60)  # instead of waiting for threads that are not there
            refusals = 0
            for use in (p.statistics, p.stop, to_file):
                try:
                    use()
                except BadState as error:
                    refusals += "by fork" in str(error)
            p.close()
            os._exit(refusals)
        assert os.waitpid(child, 0)[1] == 3 << 8
        p.write(packets(7))
        p.end()
        p.wait()
        assert p.statistics().datagrams_sent == 1


@pytest.mark.parametrize("timeout", [float("inf"), 1e12])
def test_timeouts_of_any_length(to_file, timeout):
    with to_file() as p:
        p.start()
        with pytest.raises(BadValue, match="timeout is nan"):
            p.wait(float("nan"))
        threading.Timer(0.1, p.end).start()
        p.wait(timeout)


# ---- In real time ----

def until_sent(p, datagrams):
    deadline = time.monotonic() + 30
    while p.statistics().datagrams_sent < datagrams:
        assert time.monotonic() < deadline
        time.sleep(0.005)


def test_stop_releases_a_feeder_and_a_writer(player):
    def endless():
        while True:
            yield packets(700)

    p = player(bit_rate=2e6)
    for _ in range(3):  # none of the stopped data is left for the next run
        p.play(endless())
        with pytest.raises(ipplayout.NotYet):
            p.wait(0.05)
        p.stop()
        p.play([packets(14)])
        p.wait(60)
        assert p.statistics().datagrams_sent == 2
    p.stop()
    p.start()
    outcome = []

    def write():
        try:
            p.write(packets(70_000))
        except ipplayout.Ended as error:
            outcome.append(str(error))

    writer = threading.Thread(target=write)
    writer.start()
    until_sent(p, 1)  # so it is in the write, of which the ring holds a part only
    p.stop()
    writer.join(60)
    assert outcome == ["the playout has ended or was stopped"]
    p.start()
    p.write(packets(7))
    p.end()
    p.wait(60)
    assert p.statistics().datagrams_sent == 1


def test_an_exception_in_the_block_ends_at_once(player, stream):
    with pytest.raises(KeyError):
        with player(bit_rate=100_000) as p:  # would take minutes
            p.play(stream)
            raise KeyError
    assert p.is_closed


def test_a_paused_playout_stands_still(player, stream):
    content = stream.read_bytes()
    with player(bit_rate=20e6, StartBytes=0) as p:
        p.start()
        p.write(content[:DATAGRAM])
        until_sent(p, 1)
        p.pause()
        p.write(content[DATAGRAM:500 * DATAGRAM])  # so that it has not ended, however late the pause comes
        p.end()
        with pytest.raises(ipplayout.NotYet):
            p.wait(0.2)
        p.resume()
        p.wait(30)
        assert p.timing().shift_ns >= 100_000_000
        assert p.statistics().datagrams_sent == 500


def test_playouts_start_together(player, stream):
    both = [player(destination=f"239.1.1.{number}:5004", bit_rate=20e6) for number in (1, 2)]
    for each in both:
        each.feed(stream)
    at = time.monotonic_ns() + 200_000_000
    ipplayout.start(both, at=at)
    for each in both:
        each.wait(30)
        assert each.timing().first_departure_ns >= at - 1_000_000
    with pytest.raises(ipplayout.BadState, match="1"):
        both[0].stop()
        ipplayout.start(both)


def test_waiting_without_a_thread(player, stream):
    async def run():
        async with player(bit_rate=20e6) as p:
            p.start()
            with pytest.raises(ipplayout.NotYet):
                await p.wait_async(0.05)

            async def end_later():
                for _ in range(3):
                    await asyncio.sleep(0.01)
                await asyncio.to_thread(p.write, stream.read_bytes())
                p.end()

            # It ends only because both leave the loop to others.
            await asyncio.gather(p.wait_async(), p.wait_async(), end_later())
            assert p.statistics().datagrams_sent == 2000
            p.play(stream)
            p.stop()
            with pytest.raises(ipplayout.Ended):
                await p.wait_async()

    asyncio.run(run())


def test_deliberate_errors_on_request(player, meter, stream):
    measured = meter(max_loss=0, wait="60s")
    content = stream.read_bytes()
    with player(bit_rate=20e6, StartBytes=0, source="10.77.0.1:5004", SequenceErrorDistance=3) as p:
        p.start()
        p.write(content[:50 * DATAGRAM])
        until_sent(p, 50)  # so that the receiver misses what is lost
        p.lose(3)
        p.break_udp_checksum(2)
        p.break_ip_checksum()
        p.delay()
        p.write(content[50 * DATAGRAM:])
        p.end()
        p.wait()
        measured.stop()
        statistics = p.statistics()
    assert (statistics.lost_packets, statistics.udp_checksum_errors, statistics.ip_checksum_errors,
            statistics.sequence_errors) == (3, 2, 1, 1)
    report = measured.report()
    [found] = report.streams
    assert (found.source, found.destination) == ("10.77.0.1:5004", GROUP)
    assert (found.rtp.lost, found.rtp.reordered) == (3, 1)
    assert (found.checksums.udp_bad, found.checksums.ipv4_header_bad) == (2, 1)
    assert not report.met
    assert {"loss", "reordered", "checksum"} <= {each.event for each in report.events}


def test_a_socket_reaches_this_machine(wire, stream):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
        receiver.bind(("127.0.0.1", 5004))
        receiver.settimeout(10)
        with Playout(sink="socket", destination="127.0.0.1:5004", bit_rate=5e6, protocol="udp") as p:
            p.play([packets(7)])
        assert receiver.recv(2000) == packets(7)
        assert p.settings.get("SourcePort") == 0
        with pytest.raises(ipplayout.BadValue, match="VLANEnabled is 1, which a UDP socket cannot do"):
            Playout(sink="socket", destination="127.0.0.1:5004", bit_rate=5e6, vlan=3)
