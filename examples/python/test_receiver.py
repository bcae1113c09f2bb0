# SPDX-License-Identifier: MIT
"""What the receiver makes of a clean stream, of loss, of packets that come late, of jitter, and of parity.

Run it as root: ``python3 -m pytest examples/python``. Every fault is made to order, and known to the datagram.
"""
from __future__ import annotations

import pathlib
from collections.abc import Callable
from itertools import pairwise
from statistics import mean

import pytest
from ipplayout import Did, Measurement, Playout
from ipplayout.records import FieldValue
from receiver import Receiver

Player = Callable[..., Playout]
Meter = Callable[..., Measurement]

DATAGRAM = 7 * 188  # bytes of payload
RATE = 10e6  # bits per second

# Deliberate errors by schedule, under the names that records.h has for them.
LOSS: dict[str, FieldValue] = {"ErrInsertionEnable": 1, "PacketLossEnabled": 1, "NumPacketLoss": 2, "PacketLossRange": 50}
DELAY: dict[str, FieldValue] = {"ErrInsertionEnable": 1, "SequenceErrorEnabled": 1, "NumSequenceError": 1,
                                "SequenceErrorRange": 40}
JITTER: dict[str, FieldValue] = {"JitterEnabled": 1, "JitterDistributionType": 1, "JitterPeriod": 60.0}  # gaussian, % of the gap


COLUMNS, ROWS = 5, 4
FEC: dict[str, FieldValue] = {"FecColumns": COLUMNS, "FecRows": ROWS}


def parts(content: bytes) -> list[bytes]:
    return [content[at:at + DATAGRAM] for at in range(0, len(content), DATAGRAM)]


def test_clean(player: Player, receiver: Receiver, meter: Meter, stream: pathlib.Path) -> None:
    measured = meter(max_loss=0, expect=str(stream))
    with player(bit_rate=RATE) as p:
        p.play(stream)
        receiver.receive()
    assert receiver.payload == stream.read_bytes()
    assert (receiver.counts.received, receiver.counts.lost, receiver.counts.reordered) == (1000, 0, 0)
    report = measured.report()
    assert report.met
    assert report.streams[0].compare is not None and report.streams[0].compare.datagrams_equal == 1000


@pytest.mark.parametrize("randomly", [0, 1])
def test_loss(player: Player, receiver: Receiver, stream: pathlib.Path, randomly: int) -> None:
    with player(bit_rate=RATE, ledger=2000, seed=5, RandomizeErrors=randomly, **LOSS) as p:
        p.play(stream)
        receiver.receive()
        p.wait()
        lost = [frame.datagram for frame in p.ledger() if Did.LOSE in frame.did]
    assert len(lost) == 40
    # At both ends of a stream a receiver cannot know what is missing.
    first, last = (next(n for n in order if n not in lost) for order in (range(1000), range(999, -1, -1)))
    assert receiver.counts.lost == sum(first < number < last for number in lost)
    assert receiver.payload == b"".join(part for n, part in enumerate(parts(stream.read_bytes())) if n not in lost)


def test_loss_on_request(player: Player, receiver: Receiver, stream: pathlib.Path) -> None:
    content = stream.read_bytes()
    with player(bit_rate=RATE, StartBytes=0) as p:
        p.start()
        p.write(content[:100 * DATAGRAM])
        receiver.receive(packets=100)  # before the first one nothing would be missed
        p.lose(3)
        p.write(content[100 * DATAGRAM:])
        p.end()
        receiver.receive()
    assert receiver.counts.lost == 3


@pytest.mark.parametrize("distance, late", [(1, 0), (7, 0), (20, 25)])
def test_delay(player: Player, receiver: Receiver, stream: pathlib.Path, distance: int, late: int) -> None:
    """What comes within the receiver's window of 8 packets is put in order; what comes later is of no use."""
    with player(bit_rate=RATE, SequenceErrorDistance=distance, **DELAY) as p:
        p.play(stream)
        receiver.receive()
    # The first datagram of all is one of the late ones: a receiver that has just begun does not miss it.
    on_time = [part for number, part in enumerate(parts(stream.read_bytes())) if not late or number % 40]
    assert receiver.payload == b"".join(on_time)
    assert (receiver.counts.reordered, receiver.counts.late, receiver.counts.lost) == (25, late, max(0, late - 1))


def test_jitter(player: Player, receiver: Receiver, stream: pathlib.Path) -> None:
    with player(bit_rate=RATE, ledger=2000, seed=5, **JITTER) as p:
        p.play(stream)
        receiver.receive()
        p.wait()
        due = [frame.due_ns / 1e9 for frame in p.ledger()]
    assert receiver.payload == stream.read_bytes()
    ordered = mean(abs(after - before - DATAGRAM * 8 / RATE) for before, after in pairwise(due))
    assert ordered > 100e-6
    # A busy machine adds to what was ordered. Of so many packets it can't take half away.
    assert receiver.counts.deviation > ordered / 2


def can_be_repaired(number: int, lost: set[int]) -> bool:
    """Whether it is the only one that its column of the matrix has lost."""
    first = number - number % (COLUMNS * ROWS) + number % COLUMNS
    return lost.isdisjoint({first + COLUMNS * row for row in range(ROWS)} - {number})


@pytest.mark.parametrize("losses, of, randomly", [(1, 20, 0), (5, 100, 0), (6, 100, 0), (4, 50, 1)])
def test_fec(player: Player, fec_receiver: Receiver, meter: Meter, stream: pathlib.Path, losses: int, of: int, randomly: int) -> None:
    """A column repairs one datagram, so a matrix of five repairs a burst of five, and of six four."""
    measured = meter()
    errors: dict[str, FieldValue] = LOSS | {"NumPacketLoss": losses, "PacketLossRange": of, "RandomizeErrors": randomly}
    with player(bit_rate=RATE, ledger=2000, seed=5, **errors, **FEC) as p:
        p.play(stream)
        fec_receiver.receive()
        p.wait()
        lost = {frame.datagram for frame in p.ledger() if Did.LOSE in frame.did and Did.FEC_COLUMN not in frame.did}
    assert len(lost) == 1000 * losses / of
    # What was before the first one that came, a receiver does not miss.
    first = min(set(range(1000)) - lost)
    repaired = {number for number in lost if number > first and can_be_repaired(number, lost)}
    there = [part for number, part in enumerate(parts(stream.read_bytes())) if number not in lost or number in repaired]
    assert fec_receiver.payload == b"".join(there)
    assert fec_receiver.counts.repaired == len(repaired)
    # The meter has the same opinion.
    fec = measured.report().streams[0].fec
    assert fec is not None and fec.repaired == len(repaired)
