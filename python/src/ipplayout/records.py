# SPDX-License-Identifier: MIT
"""The records of ipplayout/records.h and ipplayout/playouts.h, field by field, under the names that they have there.

The two headers say what each field means and what it can be. Units, where a name does not give them: ``BitRate`` is
in megabits per second of whole Ethernet frames of one copy, ``BurstPeriod`` in milliseconds, ``JitterPeriod`` in
percent of the gap (square pattern: microseconds, peak to peak), sizes in bytes, a name that ends in ``Ns`` in
nanoseconds. A value that the field has no room for is refused rather than cut.
"""
from __future__ import annotations

import ctypes
import difflib
import ipaddress
import operator
import re
from collections.abc import Iterator
from ctypes import Array, c_char, c_double, c_float, c_int32, c_int64, c_uint8, c_uint32, c_uint64
from typing import Annotated, Any, TypeVar, Union, get_type_hints

from .errors import BadValue

FieldValue = Union[int, float, str, bytes]

u8 = Annotated[int, c_uint8]
u32 = Annotated[int, c_uint32]
u64 = Annotated[int, c_uint64]
i32 = Annotated[int, c_int32]
i64 = Annotated[int, c_int64]
f32 = Annotated[float, c_float]
f64 = Annotated[float, c_double]
Mac = Annotated[Array[c_uint8], c_uint8 * 6]
IPv4 = Annotated[Array[c_uint8], c_uint8 * 4]
IPv6 = Annotated[Array[c_uint8], c_uint8 * 16]
Name = Annotated[bytes, c_char * 200]
Path = Annotated[bytes, c_char * 256]
Word = Annotated[bytes, c_char * 32]

WHOLE_NUMBERS: dict[Any, tuple[int, int]] = {
    kind: (-(1 << bits - 1), (1 << bits - 1) - 1) if signed else (0, (1 << bits) - 1)
    for kind, bits, signed in ((c_uint8, 8, False), (c_uint32, 32, False), (c_uint64, 64, False),
                               (c_int32, 32, True), (c_int64, 64, True))}
ADDRESS_BYTES = (4, 6, 16)

RecordType = TypeVar("RecordType", bound="type[Record]")


class Record(ctypes.Structure):
    """A record whose fields are checked as they are set."""

    def __setattr__(self, name: str, value: Any) -> None:
        kind = kinds_of(type(self)).get(name)
        if kind is None:
            raise unknown(name, self)
        if kind in WHOLE_NUMBERS:
            least, most = WHOLE_NUMBERS[kind]
            if not hasattr(value, "__index__") or not least <= value <= most:
                raise BadValue(f"{name} is {value!r}; it can be a whole number from {least} to {most}")
            value = operator.index(value)
        super().__setattr__(name, value)

    def set(self, **fields: FieldValue) -> None:
        """Sets fields by their names, wherever in the record they stand.

        An address may be text ("239.1.1.1", "ff3e::1", "01:00:5e:01:01:01"). The errors of FEC datagrams, whose
        fields have the names of ``Errors``, are reached as ``settings.FecErrors.set(...)``.
        """
        for name, value in fields.items():
            if not self._set(name, value):
                raise unknown(name, self)

    def get(self, name: str) -> Any:
        """The field of that name, wherever in the record it stands."""
        for record in self._records():
            if name in kinds_of(type(record)):
                return getattr(record, name)
        raise unknown(name, self)

    def _records(self) -> Iterator[Record]:
        yield self
        for name, kind in kinds_of(type(self)).items():
            if issubclass(kind, Record):
                yield from getattr(self, name)._records()

    def _set(self, name: str, value: FieldValue) -> bool:
        for record in self._records():
            kind = kinds_of(type(record)).get(name)
            if kind is None or issubclass(kind, Record):
                continue
            if issubclass(kind, Array):
                value = octets(name, value, kind)
                if kind._type_ is c_uint8:
                    getattr(record, name)[:] = value
                    return True
            setattr(record, name, value)
            return True
        return False


def record(cls: RecordType) -> RecordType:
    """Makes the fields of the C record of the annotations of the class."""
    hints = get_type_hints(cls, include_extras=True)
    # An annotation of a record is its class; the others carry their C type.
    setattr(cls, "_fields_", [(name, getattr(hints[name], "__metadata__", (hints[name],))[0])
                              for name in cls.__annotations__])
    return cls


def kinds_of(cls: type[ctypes.Structure]) -> dict[str, Any]:
    return {field[0]: field[1] for field in cls._fields_}


def unknown(name: str, of: Record) -> BadValue:
    names = {name for each in of._records() for name in kinds_of(type(each))}
    close = difflib.get_close_matches(name, sorted(names), n=1)
    return BadValue(f"{name} is no field of {type(of).__name__}" + (f"; {close[0]} is" if close else ""))


def octets(name: str, value: FieldValue, kind: Any) -> bytes:
    """Bytes for a field that is an array: an address or a text."""
    if kind._type_ is c_char:
        data = value.encode() if isinstance(value, str) else value
        if not isinstance(data, bytes) or len(data) >= kind._length_ or b"\0" in data:
            raise BadValue(f"{name} is {value!r}; it can be a text of up to {kind._length_ - 1} bytes")
        return data
    try:
        if isinstance(value, bytes) and len(value) == kind._length_:
            return value
        if isinstance(value, str) and kind._length_ == 6 and re.fullmatch(r"[0-9A-Fa-f]{2}([:-][0-9A-Fa-f]{2}){5}", value):
            return bytes.fromhex(value.replace(":", "").replace("-", ""))
        if isinstance(value, str) and kind._length_ != 6:
            packed = ipaddress.ip_address(value).packed
            if len(packed) == kind._length_:
                return packed
    except ValueError:
        pass
    what = {4: "an IPv4 address", 6: "a MAC address, as in 02:00:00:00:00:01", 16: "an IPv6 address"}[kind._length_]
    raise BadValue(f"{name} is {value!r}; it can be {what}, or its {kind._length_} bytes")


# ---- ipplayout/records.h ----

@record
class EthernetHeaderSettings(Record):
    DestinationMacAddress: Mac
    SourceMacAddress: Mac
    EProtocol: u32


@record
class IPHeaderSettings(Record):
    IPVersion: u8
    TOS: u8
    HeaderLength: u32
    TotalLength: u32
    Flags: u8
    TTL: u32
    Identification: u32
    FragmentOffset: u32
    IPProtocol: u32
    SourceIP: IPv4
    Checksum: u32
    DestinationIP: IPv4


@record
class IPv6HeaderSettings(Record):
    IPv6Version: u8
    TrafficClass: u8
    FlowLabel: u32
    Ipv6PayloadLength: u32
    NextHeader: u8
    HopLimit: u8
    SourceIPv6: IPv6
    DestinationIPv6: IPv6


@record
class UDPHeaderSettings(Record):
    SourcePort: u32
    DestinationPort: u32
    Length: u32


@record
class RTPHeaderSettings(Record):
    RTPVersion: u8
    Extension: i32
    Marker: u32
    RandomSequenceNumber: u32
    SequenceNumber: u32
    Padding: u32
    CSRCCount: u32
    PayloadType: u32
    TimeStamp: u32
    RandomSSRC: u32
    SSRC: u32


# Other names of classes whose fields bear their name.
_EthernetHeaderSettings = EthernetHeaderSettings
_IPHeaderSettings = IPHeaderSettings
_IPv6HeaderSettings = IPv6HeaderSettings
_UDPHeaderSettings = UDPHeaderSettings
_RTPHeaderSettings = RTPHeaderSettings


@record
class ProtocolHeadersSettings(Record):
    EthernetHeaderSettings: _EthernetHeaderSettings
    VLANEnabled: u32
    TPID: u32
    VLANPriorityLevel: u8
    CFI: u32
    VID: u32
    IPHeaderSettings: _IPHeaderSettings
    IPv6HeaderSettings: _IPv6HeaderSettings
    UDPHeaderSettings: _UDPHeaderSettings
    RTPHeaderSettings: _RTPHeaderSettings


@record
class EthernetHeaderIncrements(Record):
    DestinationMacAddressIncrement: Mac
    SourceMacAddressIncrement: Mac
    EProtocolIncrement: u32


@record
class IPHeaderIncrements(Record):
    TOSIncrement: u8
    TTLIncrement: u32
    IPProtocolIncrement: u32
    SourceIPIncrement: IPv4
    DestinationIPIncrement: IPv4


@record
class IPv6HeaderIncrements(Record):
    TrafficClassIncrement: u8
    FlowLabelIncrement: u32
    NextHeaderIncrement: u8
    HopLimitIncrement: u8
    SourceIPv6AddressIncrement: IPv6
    DestinationIPv6AddressIncrement: IPv6


@record
class UDPHeaderIncrements(Record):
    SourcePortIncrement: u32
    DestinationPortIncrement: u32


@record
class RTPHeaderIncrements(Record):
    PayloadTypeIncrement: u32
    SSRCIncrement: u32


@record
class VLANHeaderIncrements(Record):
    VLANIdentifierIncrement: u32


# Other names of classes whose fields bear their name.
_EthernetHeaderIncrements = EthernetHeaderIncrements
_IPHeaderIncrements = IPHeaderIncrements
_IPv6HeaderIncrements = IPv6HeaderIncrements
_UDPHeaderIncrements = UDPHeaderIncrements
_RTPHeaderIncrements = RTPHeaderIncrements
_VLANHeaderIncrements = VLANHeaderIncrements


@record
class ProtocolHeadersIncrements(Record):
    EthernetHeaderIncrements: _EthernetHeaderIncrements
    IPHeaderIncrements: _IPHeaderIncrements
    IPv6HeaderIncrements: _IPv6HeaderIncrements
    UDPHeaderIncrements: _UDPHeaderIncrements
    RTPHeaderIncrements: _RTPHeaderIncrements
    VLANHeaderIncrements: _VLANHeaderIncrements


# Other names of classes whose fields bear their name.
_ProtocolHeadersSettings = ProtocolHeadersSettings
_ProtocolHeadersIncrements = ProtocolHeadersIncrements


@record
class IPPlayParams(Record):
    ConfigurationName: Name
    IPLayerVersion: u32
    DeviceName: Name
    DeviceIndex: u32
    ProtocolMode: u32
    BroadcastType: u32
    PacketSizeMode: u32
    IPPacketSize: u32
    TSPacketCount: u32
    TSFragmentation: u32
    IPFragmentation: u32
    SrcAddrAdvansedFlag: u32
    DstAddrAdvansedFlag: u32
    SrcIpv6AddrAdvansedFlag: u32
    DstIpv6AddrAdvansedFlag: u32
    SrcMacAddrAdvansedFlag: u32
    DstMacAddrAdvansedFlag: u32
    SrcPortAdvansedFlag: u32
    DstPortAdvansedFlag: u32
    VLANIdAdvansedFlag: u32
    EtherProtocolAdvansedFlag: u32
    ProtocolHeadersSettings: _ProtocolHeadersSettings
    ProtocolHeadersIncrements: _ProtocolHeadersIncrements
    ReplicationCount: i32


@record
class ErrorInsertion(Record):
    ErrInsertionEnable: u32
    PacketLossEnabled: u32
    NumPacketLoss: u32
    PacketLossRange: u32
    SequenceErrorEnabled: u32
    NumSequenceError: u32
    SequenceErrorRange: u32
    SequenceErrorDistance: u32
    ChecksumErrorEnabled: u32
    ChecksumErrorType: u32
    NumChecksumError: u32
    ChecksumErrorRange: u32
    RandomizeErrors: u32


@record
class ParametricSettings(Record):
    BurstMode: u32
    BurstValueType: u32
    BurstPeriod: u32
    BurstSize: u32
    LowJitterModeEnabled: u32
    JitterEnabled: u32
    JitterPeriod: f32
    ParametricReserved: u32
    JitterDistributionType: u32


@record
class TTSSettings(Record):
    TTSEnabled: u32
    TTSPreserveFileTimestamps: u32
    TTSJitterEnable: u32
    TTSJitterPeriod: u32
    TTSJitterAmplitude: u32
    TTSJitterPulseWidth: u32
    TTSJitterPatternType: u32


@record
class PlayoutStatistics(Record):
    DatagramsSent: u64
    TSPacketsSent: u64
    BytesSent: u64
    TSBytesSent: u64
    TSPacketSize: u64
    DatagramSize: u64
    LostPackets: u64
    SequenceErrors: u64
    IPChecksumErrors: u64
    UDPChecksumErrors: u64
    Jitter: f64
    LostBytes: i64


# ---- ipplayout/playouts.h ----

@record
class IpPlayoutFaults(Record):
    Lose: f64
    TurnsBad: f64
    TurnsGood: f64
    LoseWhileBad: f64
    Delay: f64
    Duplicate: f64
    Corrupt: f64
    IpChecksum: f64
    UdpChecksum: f64
    DelayDistance: u32
    CorruptBits: u32
    DuplicateCount: u32
    DuplicateRange: u32
    CorruptCount: u32
    CorruptRange: u32
    ClosesHoles: u32
    Reserved: u32


@record
class IpPlayoutSettings(Record):
    Size: u32
    To: u32
    Destination: Path
    Params: IPPlayParams
    Errors: ErrorInsertion
    Parametric: ParametricSettings
    Tts: TTSSettings
    TSPacketSize: u32
    BitRate: f64
    RingBytes: u32
    StartBytes: u32
    Late: u32
    Refused: u32
    CatchUp: f64
    LateAfterNs: i64
    Precision: u32
    Stamps: u32
    LedgerFrames: u32
    FecColumns: u32
    FecRows: u32
    FecProtectsRows: u32
    FecStaggered: u32
    FecPayloadType: u32
    FecSSRC: u32
    FecErrors: ErrorInsertion
    FirstRtpTimestamp: u32
    CopiesShareTime: u32
    Seed: u64
    Faults: IpPlayoutFaults


@record
class IpPlayoutTiming(Record):
    OnTime: u64
    Late: u64
    LeftOut: u64
    NotSent: u64
    Discarded: u64
    LatenessP50Ns: i64
    LatenessP99Ns: i64
    LatenessP999Ns: i64
    LatenessMaxNs: i64
    FirstDepartureNs: i64
    LastDepartureNs: i64
    LongestGapNs: i64
    ShiftNs: i64
    DryTimes: u64
    DryNs: i64
    Retries: u64
    Stamps: u64
    StampP50Ns: i64
    StampP99Ns: i64
    StampP999Ns: i64
    StampMaxNs: i64
    LedgerLeftOut: u64
    Sender: Word


@record
class IpPlayoutRecord(Record):
    Datagram: u64
    Copy: u32
    Did: u32
    DueNs: i64
    DepartureNs: i64
    Bytes: u32
    RtpSequence: u32


@record
class IpPlayoutDeparture(Record):
    Frame: IpPlayoutRecord
    PlaceNs: i64
    StampNs: i64


@record
class IpPlayoutOrder(Record):
    Number: u64
    What: u32
    Count: u32
    Amount: u32
    Reserved: u32
    AtNs: i64
    LengthNs: i64


@record
class IpPlayoutDone(Record):
    Number: u64
    What: u32
    Count: u32
    Datagram: u64
    FirstDueNs: i64
    LastDueNs: i64


@record
class IpPlayoutFaultCounts(Record):
    Duplicated: u64
    Corrupted: u64
    Waiting: u64
    NotReported: u64
    HeldFrames: u64
