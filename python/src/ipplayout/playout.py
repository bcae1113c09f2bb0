# SPDX-License-Identifier: MIT
"""Playouts: any number in a process, each with settings, a clock and a destination of its own.

A thin layer over ``ipplayout/playouts.h``, which says everything that is not said here. Points in time are
nanoseconds of ``time.monotonic_ns()``, a timeout is in seconds, sizes and offsets are in bytes.
"""
from __future__ import annotations

import asyncio
import ctypes
import enum
import math
import os
import select
import threading
import warnings
from collections.abc import Iterable, Iterator, Mapping, Sequence
from dataclasses import dataclass
from types import TracebackType
from typing import BinaryIO, Literal, NamedTuple, Union

from . import addresses
from ._library import library
from .errors import BadPlayout, BadState, BadValue, Ended, Error, NoResources
from .records import (FieldValue, IpPlayoutDeparture, IpPlayoutDone, IpPlayoutFaultCounts, IpPlayoutOrder, IpPlayoutSettings,
                      IpPlayoutTiming, PlayoutStatistics)

Data = Union[bytes, bytearray, memoryview]
Source = Union[str, "os.PathLike[str]", BinaryIO, Iterable[Data]]

# What one call hands over: large enough that its cost does not count, small against a ring of 1 MiB.
PIECE = 1 << 18
NS = 1_000_000_000
LEDGER_ROOM = 4096  # frames
LONGEST_POLL = 2**31 // 1000 - 1  # seconds
NOT_YET = -7  # IPPLAYOUT_NOT_YET


class Sink(enum.IntEnum):
    """Where frames go."""
    ADAPTER = 0
    FILE = 1
    SOCKET = 2


class Late(enum.IntEnum):
    """What happens to frames whose time has passed by more than ``LateAfterNs``."""
    BOUNDED = 0
    CATCH_UP = 1
    SHIFT = 2
    DROP = 3


class Did(enum.IntFlag):
    """What was done to a datagram on purpose."""
    LOSE = 1
    DELAY = 2
    SEND_HELD = 4
    IP_CHECKSUM = 8
    UDP_CHECKSUM = 16
    LEAVE_OUT = 32
    REFUSE = 64
    FEC_COLUMN = 128
    FEC_ROW = 256
    DUPLICATE = 512
    CORRUPT = 1024


class Done(NamedTuple):
    """What an order did: to how many datagrams, the first one's index, and when first and last were due since the start."""
    number: int
    what: Did
    datagrams: int
    first_datagram: int
    first_due_ns: int
    last_due_ns: int


class FaultCounts(NamedTuple):
    """Datagrams duplicated and corrupted on purpose; orders that wait; reports that found no room; delayed frames."""
    duplicated: int
    corrupted: int
    waiting: int
    not_reported: int
    held_frames: int


class Frame(NamedTuple):
    """A record of the ledger: one frame.

    ``due_ns`` is since the start, ``departure_ns`` is a point in time (of a file, of its virtual clock), or None
    when the frame did not leave. ``bytes`` are from the Ethernet header to the end of the payload. ``place_ns`` is the
    point in time at which it was to leave, ``stamp_ns`` the kernel's time of departure (``stamps=True``) or None.
    """
    datagram: int
    copy: int
    did: Did
    due_ns: int
    departure_ns: int | None
    bytes: int
    rtp_sequence: int
    place_ns: int
    stamp_ns: int | None


@dataclass(frozen=True)
class Timing:
    """When frames left; nanoseconds. A time is None while there is nothing to take it from."""
    on_time: int
    late: int
    left_out: int
    not_sent: int
    discarded: int
    lateness_p50_ns: int | None
    lateness_p99_ns: int | None
    lateness_p999_ns: int | None
    lateness_max_ns: int | None
    first_departure_ns: int | None
    last_departure_ns: int | None
    longest_gap_ns: int | None
    shift_ns: int
    dry_times: int
    dry_ns: int
    retries: int
    stamps: int
    stamp_p50_ns: int | None
    stamp_p99_ns: int | None
    stamp_p999_ns: int | None
    stamp_max_ns: int | None
    ledger_left_out: int
    sender: str


# Of these, -1 says that there is nothing yet. A stamp may be ahead of the frame's place, so only the count tells.
UNTIL_DEPARTURE = ("LatenessP50Ns", "LatenessP99Ns", "LatenessP999Ns", "LatenessMaxNs", "FirstDepartureNs",
                   "LastDepartureNs", "LongestGapNs")
UNTIL_STAMP = ("StampP50Ns", "StampP99Ns", "StampP999Ns", "StampMaxNs")


@dataclass(frozen=True)
class Statistics:
    """Counters of the current or last run; the copies of a datagram count once.

    ``datagrams_sent`` includes lost and delayed ones. ``bytes_sent`` and ``datagram_size`` are bytes from the
    Ethernet header to the end of the payload, ``ts_bytes_sent``, ``ts_packet_size`` and ``lost_bytes`` bytes of
    payload. ``jitter`` is in seconds (RFC 3550, over the planned departures).
    """
    datagrams_sent: int
    ts_packets_sent: int
    bytes_sent: int
    ts_bytes_sent: int
    ts_packet_size: int
    datagram_size: int
    lost_packets: int
    sequence_errors: int
    ip_checksum_errors: int
    udp_checksum_errors: int
    jitter: float
    lost_bytes: int


def address_of(data: Data) -> tuple[object, int, int]:
    """(what keeps the bytes alive, where they are, how many); bytes are not copied if they can be changed or are bytes."""
    if isinstance(data, bytes):
        return data, ctypes.cast(ctypes.c_char_p(data), ctypes.c_void_p).value or 0, len(data)
    view = memoryview(data).cast("B")
    if view.readonly or len(view) == 0:
        return address_of(view.tobytes())
    block = (ctypes.c_char * len(view)).from_buffer(view)
    return block, ctypes.addressof(block), len(view)


def pieces(source: BinaryIO | Iterable[Data]) -> Iterator[Data]:
    """What the source has, as it comes; of a file in pieces that are read into the same memory."""
    read_into = getattr(source, "readinto", None)
    if read_into is None:
        yield from source
        return
    room = memoryview(bytearray(PIECE))
    while count := read_into(room):
        yield room[:count]


def milliseconds(timeout: float | None) -> int | None:
    """For ``poll()``; None, for any time, above the 24 days that it counts."""
    if timeout is None:
        return None
    if math.isnan(timeout):
        raise BadValue("timeout is nan; it can be a number of seconds, or None")
    return max(0, math.ceil(timeout * 1000)) if timeout < LONGEST_POLL else None


class Playout:
    """One playout. Opened with its settings; closed by ``close()`` or at the end of a ``with`` block.

    ``to`` is an adapter ("eth0"), the path of a pcapng file, or the interface for multicast of a UDP socket ("" lets
    the system choose); ``sink`` says which, and without it a name that ends in ".pcapng" is a file. A file has
    virtual time: nothing waits, and it needs no right. An adapter needs the right to send raw frames.

    ``destination`` and ``source`` are "239.1.1.1:5000" or "[ff3e::1]:5000". Without a source the adapter's own
    address and the port of the destination are used. ``destination_mac`` and ``source_mac`` are found if they are
    needed and not given; that of a unicast destination by ``ipplay resolve``.

    ``bit_rate`` is in bits per second, of whole Ethernet frames of one copy; without it ``mark()`` says when data
    leaves. ``vlan`` is a VLAN identifier, ``ttl`` counts hops, ``ledger`` is the number of frames whose records are
    kept for ``ledger()``, ``stamps`` asks for the kernel's times of departure.

    Every other field is given by its name in ``records.h`` and ``playouts.h``: ``Playout(..., TOS=0xB8,
    Identification=7, FecColumns=5, FecRows=4)``; or changed in ``settings``, which ``configure()`` then takes.

    Leaving the ``with`` block ends the data and waits until everything has left; after an exception, or after
    ``stop()``, it ends at once.
    """

    def __init__(self, to: str | os.PathLike[str] = "", *, destination: str, bit_rate: float = 0.0,
                 sink: Literal["adapter", "file", "socket"] | None = None, source: str | None = None,
                 destination_mac: str | None = None, source_mac: str | None = None,
                 protocol: Literal["rtp", "udp"] = "rtp", vlan: int | None = None, ttl: int | None = None,
                 seed: int = 0, stamps: bool = False, ledger: int = 0, late: Late = Late.BOUNDED,
                 **fields: FieldValue) -> None:
        self._library = library()
        self._handle = 0
        self._feeder: Feeder | None = None
        self._was_started = False
        self._piece = PIECE
        self._run = 0  # grows with each stop
        self._writing = threading.Lock()  # held while a write goes on
        self.settings: IpPlayoutSettings = self._library.defaults()
        name = os.fspath(to)
        if sink not in (None, "adapter", "file", "socket"):
            raise BadValue(f"sink is {sink!r}; it can be 'adapter', 'file' or 'socket'")
        given = Sink[sink.upper()] if sink else Sink.FILE if name.endswith(".pcapng") else Sink.ADAPTER
        if protocol not in ("rtp", "udp"):
            raise BadValue(f"protocol is {protocol!r}; it can be 'rtp' or 'udp'")
        self.settings.set(To=given, Destination=name, BitRate=bit_rate / 1e6, Late=late, Seed=seed, Stamps=int(stamps),
                          LedgerFrames=ledger, ProtocolMode=int(protocol == "rtp"))
        self._address(given, name, destination, source, destination_mac, source_mac)
        if vlan is not None:
            self.settings.set(VLANEnabled=1, VID=vlan)
        if ttl is not None:
            self.settings.set(TTL=ttl)
            self.settings.set(HopLimit=ttl)
        self.settings.set(**fields)
        self._handle = self._library.open()
        try:
            self.configure()
        except BaseException:
            self.close()
            raise

    def _address(self, sink: Sink, to: str, destination: str, source: str | None,
                 destination_mac: str | None, source_mac: str | None) -> None:
        """Sets the addresses of all layers."""
        target, port = addresses.parse_endpoint("destination", destination)
        origin, origin_port = (addresses.parse_endpoint("source", source) if source else (None, port))
        if origin is not None and origin.version != target.version:
            raise BadValue(f"source is {source!r}; it can be an IPv{target.version} address, as the destination is")
        if sink == Sink.SOCKET and source is None:
            origin_port = 0  # any: the port of the destination may be a receiver's on this machine
        fields: dict[str, FieldValue] = {"SourcePort": origin_port, "DestinationPort": port,
                                         "IPLayerVersion": int(target.version == 6)}
        if sink == Sink.ADAPTER:
            origin = origin or addresses.adapter_address(to, target.version)
            destination_mac = destination_mac or addresses.destination_mac(to, target).hex(":")
            source_mac = source_mac or addresses.adapter_mac(to).hex(":")
        elif target.is_multicast:
            destination_mac = destination_mac or addresses.multicast_mac(target).hex(":")
        suffix = "" if target.version == 4 else "v6"
        fields["DestinationIP" + suffix] = target.packed
        if origin is not None:
            fields["SourceIP" + suffix] = origin.packed
        if target.version == 6:
            fields["EProtocol"] = 0x86DD
        if destination_mac:
            fields["DestinationMacAddress"] = destination_mac
        if source_mac:
            fields["SourceMacAddress"] = source_mac
        self.settings.set(**fields)

    # ---- Settings and data ----

    def configure(self, fields: Mapping[str, FieldValue] | None = None, **more: FieldValue) -> None:
        """Takes ``settings``, with these fields changed, for the next start. Forgets what was written and marked."""
        self.settings.set(**dict(fields or {}), **more)
        self._renew()
        self._call("Configure", ctypes.byref(self.settings))
        self._piece = min(PIECE, self.settings.RingBytes)

    def mark(self, offset: int, time_ns: int) -> None:
        """The byte at ``offset`` leaves ``time_ns`` after the start; set before the data that leads to it."""
        self._call("Mark", offset, time_ns)

    def write(self, data: Data) -> None:
        """Appends all of the data; waits while the ring is full. Large pieces cost least: 256 KiB and more.

        ``Ended`` when the playout was stopped or closed meanwhile.
        """
        keeper, address, left = address_of(data)
        with self._writing:
            run = self._run
            while left > 0:  # between pieces Ctrl-C is heard
                if self._run != run:
                    raise Ended("the playout has ended or was stopped")
                count = min(left, self._piece)
                self._call("Write", address, count)
                address, left = address + count, left - count
        del keeper

    def try_write(self, data: Data) -> int:
        """Appends what there is room for, never waits, and returns how many bytes that was."""
        _keeper, address, count = address_of(data)
        taken = ctypes.c_size_t()
        self._call("TryWrite", address, count, ctypes.byref(taken))
        return taken.value

    async def write_async(self, data: Data) -> None:
        """As ``write()``, on a thread of its own."""
        await asyncio.to_thread(self.write, data)

    def end(self) -> None:
        """Declares the end of the data; does not wait."""
        self._call("End")

    def feed(self, source: Source, *, rounds: int = 1) -> None:
        """Has a thread write the source and declare the end of the data: a path, a binary file, or pieces of data.

        A path can be written several times over, ``rounds``, as it is: counters and clocks of the stream jump.
        The playout is to be started, before or after that. What goes wrong with the source comes from ``wait()``.
        """
        self._renew()
        if self._feeder is not None:
            raise BadState("the playout already has a source; stop() makes it free for another one")
        if rounds < 1:
            raise BadValue(f"rounds is {rounds}; it can be 1 or more")
        if rounds > 1 and not isinstance(source, (str, os.PathLike)):
            raise BadValue("rounds is above 1, which needs a path")
        self._feeder = Feeder(self, source, rounds)

    # ---- The run ----

    def start(self, at: int = 0) -> None:
        """Starts; see ``ipplayout.start()``."""
        start([self], at=at)

    def play(self, source: Source, *, at: int = 0, rounds: int = 1) -> None:
        """``feed()`` and ``start()``: returns at once, while the source is played. ``wait()`` waits for its end."""
        self.feed(source, rounds=rounds)
        try:
            self.start(at)
        except BaseException:
            self.stop()
            raise

    def wait(self, timeout: float | None = None) -> None:
        """Waits until everything has left; at most ``timeout`` seconds, then ``NotYet``.

        ``Ended`` when the playout was stopped, ``BadDestination`` when the destination failed, and what the source
        of ``play()`` raised.
        """
        if not self._is_over():
            with self._end_descriptor() as descriptor:
                poll = select.poll()
                poll.register(descriptor, select.POLLIN)
                poll.poll(milliseconds(timeout))
        self._outcome()

    async def wait_async(self, timeout: float | None = None) -> None:
        """As ``wait()``, without a thread: the loop watches the descriptor of the library's end event."""
        if not self._is_over():
            loop = asyncio.get_running_loop()
            # A copy, so that several tasks can wait, and that a close cannot give the number to another file.
            with self._end_descriptor() as descriptor:
                ended: asyncio.Future[None] = loop.create_future()
                loop.add_reader(descriptor, lambda: None if ended.done() else ended.set_result(None))
                try:
                    await asyncio.wait_for(ended, timeout)
                except TimeoutError:
                    pass  # the library says so below
                finally:
                    loop.remove_reader(descriptor)
        self._outcome()

    def pause(self) -> None:
        """Nothing leaves from now on; the time of the stream stands still."""
        self._call("Pause", 1)

    def resume(self) -> None:
        """Ends a pause."""
        self._call("Pause", 0)

    def stop(self) -> None:
        """Ends the playout at once: what was built and has not left is discarded, what was written is gone.

        Waits for the destination to let go of a frame, at most about a second, and for a source to return what it
        was asked for.
        """
        feeder = self._feeder
        had_writer = feeder is not None or self._writing.locked()
        self._run += 1
        if feeder is not None:
            feeder.cancel()
        try:
            self._call("Stop")
        finally:
            self._was_started = False
            self._join_feeder()
        if had_writer:
            with self._writing:
                self._call("Stop")  # clears the piece that it had in hand

    def close(self) -> None:
        """As ``stop()``; the playout can then not be used any more."""
        if self._handle:
            handle, self._handle = self._handle, 0
            if self._library.is_of_parent:
                return  # who plays on
            try:
                self._library.call("Close", handle)
            finally:
                self._join_feeder()

    # ---- Deliberate errors ----

    def damage(self, what: Did, count: int = 1) -> None:
        """Damages one of the next datagrams, and ``count`` in a row; which leave up to some 50 ms later."""
        self._call("Damage", what, count)

    def order(self, what: Did, *, count: int = 1, amount: int = 0, at_ns: int = 0, length_ns: int = 0, number: int = 0) -> None:
        """Damages ``count`` datagrams in a row from the first one that is due at ``at_ns`` since the start, or later.

        With a ``count`` of 0 all that is due for ``length_ns`` is lost, as on a link that is down. ``amount`` is the distance
        of a delay, or the bits to corrupt. Before the start, too; ``done()`` has what became of it.
        """
        self._call("OrderFault", ctypes.byref(IpPlayoutOrder(number, what, count, amount, 0, at_ns, length_ns)))

    def change(self, *, speed: float = 1.0, at_ns: int = 0) -> None:
        """Lets what ``settings`` now has in Errors, Faults and the jitter of Parametric hold, from the first datagram on
        that is due at ``at_ns`` since the start, or later, and not built yet.

        What follows is played at ``speed``, where 1 is as the bit rate or the marks say.
        """
        self._call("Change", ctypes.byref(self.settings), speed, at_ns)

    def done(self) -> Iterator[Done]:
        """Takes the reports of orders that were carried out, oldest first, as many as there are by now."""
        records = (IpPlayoutDone * LEDGER_ROOM)()
        taken = ctypes.c_size_t(LEDGER_ROOM)
        while taken.value > 0:
            self._call("ReadDone", records, LEDGER_ROOM, ctypes.byref(taken))
            for each in records[:taken.value]:
                yield Done(each.Number, Did(each.What), each.Count, each.Datagram, each.FirstDueNs, each.LastDueNs)

    def faults(self) -> FaultCounts:
        """Counts of the current or last run that ``statistics()`` does not have."""
        record = IpPlayoutFaultCounts()
        self._call("GetFaults", ctypes.byref(record))
        return FaultCounts(record.Duplicated, record.Corrupted, record.Waiting, record.NotReported, record.HeldFrames)

    def lose(self, count: int = 1) -> None:
        """Leaves out ``count`` datagrams in a row.

        Right after ``play()`` they may be the first ones, which no receiver knows of.
        """
        self.damage(Did.LOSE, count)

    def delay(self, count: int = 1) -> None:
        """Holds back ``count`` datagrams, until as many later ones have left as ``DelayDistance`` says (RTP only)."""
        self.damage(Did.DELAY, count)

    def break_ip_checksum(self, count: int = 1) -> None:
        """Makes the IPv4 header checksum of ``count`` datagrams wrong."""
        self.damage(Did.IP_CHECKSUM, count)

    def break_udp_checksum(self, count: int = 1) -> None:
        """Makes the UDP checksum of ``count`` datagrams wrong."""
        self.damage(Did.UDP_CHECKSUM, count)

    # ---- What happened ----

    def statistics(self) -> Statistics:
        """Counters of the current or last run."""
        record = PlayoutStatistics()
        self._call("GetStatistics", ctypes.byref(record))
        return Statistics(*(getattr(record, name) for name, *_ in PlayoutStatistics._fields_))

    def timing(self) -> Timing:
        """When frames left, in the current or last run."""
        record = IpPlayoutTiming()
        self._call("GetTiming", ctypes.byref(record))
        values = {name: getattr(record, name) for name, *_ in IpPlayoutTiming._fields_}
        values["Sender"] = record.Sender.decode()
        for name in UNTIL_DEPARTURE:
            values[name] = None if values[name] == -1 else values[name]
        for name in UNTIL_STAMP:
            values[name] = values[name] if record.Stamps else None
        return Timing(*values.values())

    def lateness(self, up_to_ns: int | None = None) -> tuple[int, int]:
        """How many frames left at most so late (without a bound: all that left), and how late these were together, in ns.

        Off by 1/32 of the lateness at most; for a few bounds it makes a histogram.
        """
        frames, together = ctypes.c_uint64(), ctypes.c_int64()
        bound = 2**63 - 1 if up_to_ns is None else up_to_ns
        self._call("GetLateness", bound, ctypes.byref(frames), ctypes.byref(together))
        return frames.value, together.value

    def ledger(self) -> Iterator[Frame]:
        """Takes the records of frames, oldest first, as many as there are by now (``ledger=`` says how many are kept)."""
        records = (IpPlayoutDeparture * LEDGER_ROOM)()
        taken = ctypes.c_size_t(LEDGER_ROOM)
        while taken.value > 0:
            self._call("ReadDepartures", records, LEDGER_ROOM, ctypes.byref(taken))
            for record in records[:taken.value]:
                each = record.Frame
                departure = None if each.DepartureNs == -1 else each.DepartureNs
                stamp = None if record.StampNs == -1 else record.StampNs
                yield Frame(each.Datagram, each.Copy, Did(each.Did), each.DueNs, departure, each.Bytes, each.RtpSequence,
                            record.PlaceNs, stamp)

    def write_ledger(self, path: str | os.PathLike[str]) -> None:
        """Has the ledger of the next runs written to a pcapng file instead of read: each frame with its time of
        departure and a comment on what became of it. Before ``start()``; "" for no file. The file gets its name at the
        end of the ``with`` block, or with ``stop()``."""
        self._call("WriteLedger", os.fsencode(path))

    @property
    def seed(self) -> int:
        """Of the current or last run's random numbers: given again, it repeats them. 0 before the first one."""
        return self._library.plain("Seed", self._handle)

    @property
    def is_closed(self) -> bool:
        return self._handle == 0

    # ---- Inside ----

    def _call(self, name: str, *arguments: object) -> None:
        self._library.call(name, self._handle, *arguments)

    def _is_over(self) -> bool:
        """Whether the run has ended; raises where there is none to wait for."""
        return self._library.plain("Wait", self._handle, 0) != NOT_YET

    def _end_descriptor(self) -> Descriptor:
        event = self._library.plain("EndEvent", self._handle)
        if event == 0:
            self._call("Wait", 0)  # reports a playout that is not open
            raise NoResources("no descriptor is left for the end of the playout")
        return Descriptor(os.dup(event))

    def _outcome(self) -> None:
        try:
            self._call("Wait", 0)
        except Ended:
            self._raise_of_source()
            raise
        self._raise_of_source()

    def _raise_of_source(self) -> None:
        if self._feeder is not None and self._feeder.error is not None:
            raise self._feeder.error

    def _join_feeder(self) -> None:
        feeder, self._feeder = self._feeder, None
        if feeder is not None:
            feeder.join()

    def _renew(self) -> None:
        """Before new data: lets go of a run that is over."""
        if self._was_started and self._is_over():
            self.stop()

    def _finish(self) -> bool:
        """Declares the end; whether there is something to wait for."""
        if self._handle == 0:
            return False
        if not self._was_started:
            if self._feeder is not None:
                raise BadState("the playout has a source and was never started")
            return False
        if self._feeder is None and not self._is_over():
            self.end()
        return True

    def __enter__(self) -> Playout:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        try:
            if kind is None and self._finish():
                self.wait()
        finally:
            self.close()

    async def __aenter__(self) -> Playout:
        return self

    async def __aexit__(self, kind: type[BaseException] | None, error: BaseException | None,
                        trace: TracebackType | None) -> None:
        try:
            if kind is None and self._finish():
                await self.wait_async()
        finally:
            await asyncio.to_thread(self.close)

    def __del__(self) -> None:
        if getattr(self, "_handle", 0) and not self._library.is_of_parent:
            warnings.warn(f"{self!r} was not closed", ResourceWarning, source=self)
            self.close()

    def __repr__(self) -> str:
        return f"<Playout to {self.settings.Destination.decode(errors='replace') or 'a socket'}>"


class Descriptor:
    """A descriptor of our own, closed at the end of the block."""

    def __init__(self, number: int) -> None:
        self.number = number

    def __enter__(self) -> int:
        return self.number

    def __exit__(self, *_: object) -> None:
        os.close(self.number)


class Feeder:
    """The thread that writes a source to a playout."""

    def __init__(self, playout: Playout, source: Source, rounds: int) -> None:
        self.error: BaseException | None = None
        self._playout = playout
        self._rounds = rounds
        self._is_cancelled = False
        # Opened here, where the caller hears of a wrong path.
        self._file = open(source, "rb", buffering=0) if isinstance(source, (str, os.PathLike)) else None
        self._source = source
        self._thread = threading.Thread(target=self._run, name="ipplayout feeder", daemon=True)
        self._thread.start()

    def cancel(self) -> None:
        """No further write begins. One that has begun finds the emptied ring, and room in it."""
        self._is_cancelled = True

    def join(self) -> None:
        if self._thread is not threading.current_thread():
            self._thread.join()

    def _run(self) -> None:
        try:
            try:
                if self._write_all():
                    self._playout.end()
            finally:
                if self._file is not None:
                    self._file.close()
        except (Ended, BadPlayout):
            pass  # the playout's doing: its own outcome says why
        except BaseException as error:
            # Without the rest of its data the playout has nothing to wait for.
            self.error = error
            self.stop_playout()

    def stop_playout(self) -> None:
        try:
            self._playout._call("Stop")
        except Error:
            pass  # the source's error is the one to report

    def _write_all(self) -> bool:
        """False when it was cancelled."""
        for number in range(self._rounds):
            if self._file is not None and number > 0:
                self._file.seek(0)
            for piece in pieces(self._file or self._source):  # type: ignore[arg-type]  # a path has a file
                view = memoryview(piece).cast("B")
                for begin in range(0, len(view), self._playout._piece):
                    if self._is_cancelled:
                        return False
                    self._playout.write(view[begin:begin + self._playout._piece])
        return not self._is_cancelled


def start(playouts: Sequence[Playout], *, at: int = 0) -> None:
    """Starts playouts at the same moment, all of them or none.

    ``at`` is the time 0 of their marks, in nanoseconds of ``time.monotonic_ns()``; 0 is as soon as there is data, for
    each by itself. An error names a playout by its place in the list, from 0.
    """
    handles = (ctypes.c_void_p * len(playouts))(*(each._handle for each in playouts))
    library().call("Start", handles, len(playouts), at)
    for each in playouts:
        each._was_started = True
        feeder = each._feeder
        if feeder is not None and feeder.error is not None:
            feeder.stop_playout()  # its source failed before there was a run to stop
