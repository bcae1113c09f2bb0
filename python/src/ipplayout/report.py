# SPDX-License-Identifier: MIT
"""What ``ipplay measure`` reports, as typed records.

Every field of its JSON has an attribute of the same name; docs/measuring.md defines the figures. A name gives its
unit: ``_ns`` nanoseconds, ``_bps`` bits per second, ``_bytes`` bytes, ``_ppm`` parts per million; without a suffix it
is a count, a share from 0 to 1, a text or a truth value. None is what a stream does not have, or what was not measured.
"""
from __future__ import annotations

import functools
import types
from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import Any, TypeVar, Union, get_args, get_origin, get_type_hints

from .errors import NotInstalled

Part = TypeVar("Part")


@dataclass(frozen=True, kw_only=True)
class Distribution:
    """Of ``count`` values; all but that are None where there was none. In the unit of its name."""
    count: int
    min: float | None
    mean: float | None
    p50: float | None
    p90: float | None
    p99: float | None
    p99_9: float | None
    max: float | None


@dataclass(frozen=True, kw_only=True)
class Spread:
    """Mean and maximum, in the unit of its name."""
    mean: float
    max: float


@dataclass(frozen=True, kw_only=True)
class Jitter:
    """Interarrival jitter of RFC 3550, nanoseconds."""
    last: float
    mean: float
    max: float


@dataclass(frozen=True, kw_only=True)
class Option:
    name: str
    value: str


@dataclass(frozen=True, kw_only=True)
class Run:
    """When it was measured, by what, and with which options in force. ``started`` is UTC, ISO 8601."""
    version: str
    started: str
    options: tuple[Option, ...]


@dataclass(frozen=True, kw_only=True)
class Capture:
    """What was captured. ``spoiled``: frames were missed, and loss may be the capture's. ``..._ns`` are since 1970."""
    source: str
    live: bool
    frames: int
    frames_by_kind: Mapping[str, int]
    dropped_by_kernel: int
    dropped_by_adapter: int
    spoiled: bool
    start_time: str | None
    start_ns: int | None
    end_ns: int | None
    joined_frames: int
    clock_steps: int
    broken_off: str | None


@dataclass(frozen=True, kw_only=True)
class Rate:
    """Frames count from the Ethernet header to the end of the payload."""
    frames: int
    frame_bytes: int
    payload_bytes: int
    elapsed_ns: float
    frames_per_second: float
    frame_rate_bps: float
    payload_rate_bps: float
    error_ppm: float | None


@dataclass(frozen=True, kw_only=True)
class Spacing:
    """Gaps between frames, and frames against an even grid."""
    gap_ns: Distribution
    gap_error_ns: Distribution
    relative_error: float
    grid_earliest_ns: float | None
    grid_latest_ns: float | None
    grid_peak_to_peak_ns: float | None
    clumped_frames: int
    clumped_share: float
    burst_length_frames: Distribution
    time_reversals: int


@dataclass(frozen=True, kw_only=True)
class Checksums:
    """Frames."""
    ipv4_header_bad: int
    udp_bad: int
    udp_absent: int
    udp_unchecked: int


@dataclass(frozen=True, kw_only=True)
class Memory:
    limit_bytes: int
    plots_given_up: int
    details_given_up: int
    streams_ended_early: int
    frames_without_detail: int
    frames_refused: int


@dataclass(frozen=True, kw_only=True)
class Total:
    """All streams together."""
    streams: int
    rate: Rate
    spacing: Spacing
    checksums: Checksums
    lost: int
    duplicates: int
    reordered: int
    ssrc_changes: int
    payload_type_changes: int
    lost_ts_packets: int
    repeated_datagrams: int
    malformed_rtp: int
    rtcp_packets: int
    cut_frames: int
    untracked_frames: int
    memory: Memory
    frames_not_measured: int
    ts_errors: int
    ts_second_priority_errors: int
    ts_third_priority_errors: int
    different_datagrams: int


@dataclass(frozen=True, kw_only=True)
class Mdi:
    """Media delivery index (RFC 4445); ``intervals`` are seconds."""
    intervals: int
    delay_factor_ns: Spread | None
    loss_rate_packets: Spread | None


@dataclass(frozen=True, kw_only=True)
class Availability:
    """Seconds."""
    seconds: int
    errored_seconds: int
    severely_errored_seconds: int
    unavailable_seconds: int


@dataclass(frozen=True, kw_only=True)
class Rtp:
    """RTP packets."""
    payload_type: int
    payload_type_changes: int
    received: int
    lost: int
    duplicates: int
    reordered: int
    reordered_repaired: int
    loss_periods: int
    longest_loss: int
    reorder_distance: Distribution
    strays: int
    restarts: int
    jitter_ns: Jitter | None


@dataclass(frozen=True, kw_only=True)
class Fec:
    """Forward error correction of the stream (SMPTE ST 2022-1), in datagrams."""
    columns: int | None
    rows: int | None
    row_length: int | None
    column_datagrams: int
    row_datagrams: int
    parity_right: int
    parity_wrong: int
    lost: int
    repaired: int
    unrepaired: int
    unrepaired_too_many: int
    unrepaired_unprotected: int


@dataclass(frozen=True, kw_only=True)
class Indicator:
    """An indicator of TR 101 290; ``last_ns`` is since 1970."""
    indicator: str
    name: str
    priority: int
    limit: str
    measured: bool
    count: int | None
    last_ns: int | None


@dataclass(frozen=True, kw_only=True)
class Table:
    """A table of the transport stream and the intervals between its sections."""
    pid: int
    table_id: int
    program: int | None
    service: int | None
    section: int | None
    sections: int
    version: int | None
    limit_ns: float | None
    interval_min_ns: float | None
    interval_mean_ns: float | None
    interval_max_ns: float | None


@dataclass(frozen=True, kw_only=True)
class Component:
    pid: int
    stream_type: int
    kind: str
    coding: str | None
    language: str | None


@dataclass(frozen=True, kw_only=True)
class Service:
    number: int
    name: str | None
    provider: str | None
    pmt_pid: int
    pcr_pid: int | None
    rate_bps: float | None
    components: tuple[Component, ...]


@dataclass(frozen=True, kw_only=True)
class Pcr:
    """A programme clock. ``frequency_offset_ppm``: how much faster (+) it runs than this machine's clock."""
    count: int
    repetition_errors: int
    discontinuity_errors: int
    accuracy_errors: int
    late_pcrs: int
    interval_min_ns: float | None
    interval_mean_ns: float | None
    interval_max_ns: float | None
    accuracy_peak_to_peak_ns: float | None
    arrival_peak_to_peak_ns: float | None
    frequency_offset_ppm: float | None
    rate_bps: float | None


@dataclass(frozen=True, kw_only=True)
class Pid:
    pid: int
    packets: int
    rate_bps: float | None
    continuity_errors: int
    pcr: Pcr | None


@dataclass(frozen=True, kw_only=True)
class Ts:
    """The transport stream: packets, and errors of TR 101 290."""
    packets: int
    null_packets: int
    missing_packets: int
    late_packets: int
    scrambled_packets: int
    missing_packets_by_pcr: int | None
    packet_length_bytes: int
    sync_losses: int
    sync_byte_errors: int
    continuity_errors: int
    continuity_errors_as_arrived: int
    transport_errors: int
    pat_errors: int
    pmt_errors: int
    crc_errors: int
    pts_errors: int
    second_priority_errors: int
    third_priority_errors: int
    left_out: int
    tr101290: tuple[Indicator, ...]
    tables: tuple[Table, ...]
    transport_stream_id: int | None
    services: tuple[Service, ...]
    reference_pcr_pid: int | None
    pids: tuple[Pid, ...]


@dataclass(frozen=True, kw_only=True)
class Difference:
    """Where the payload first differs from the file; up to 16 bytes of both."""
    datagram: int
    datagram_offset: int
    file_offset: int
    expected: tuple[int, ...]
    received: tuple[int, ...]


@dataclass(frozen=True, kw_only=True)
class Compare:
    """The payload against the expected file."""
    datagrams_equal: int
    datagrams_different: int
    datagrams_unplaced: int
    skipped_bytes: int
    first_difference: Difference | None


@dataclass(frozen=True, kw_only=True)
class Stream:
    """One stream. ``first_seen_ns`` and ``last_seen_ns`` are since 1970.

    ``protects_stream`` is the place in ``Report.streams`` of the stream that this one, FEC, protects;
    ``fec_without_media`` is True of FEC whose media did not come.
    """
    source: str
    destination: str
    vlan: str | None
    ssrc: int | None
    first_seen_ns: int
    last_seen_ns: int
    silent_at_start_ns: float
    silent_at_end_ns: float
    longest_silence_ns: float
    cut_frames: int
    ended_early: bool
    frames_without_detail: int
    repeated_datagrams: int | None
    rate: Rate
    spacing: Spacing
    checksums: Checksums
    mdi: Mdi
    availability: Availability
    rtp: Rtp | None
    protects_stream: int | None
    fec_without_media: bool | None
    fec: Fec | None
    ts: Ts | None
    compare: Compare | None


@dataclass(frozen=True, kw_only=True)
class Skew:
    """By how much later the second path is, nanoseconds; None where no packet came on both."""
    count: int
    min: float | None
    mean: float | None
    max: float | None


@dataclass(frozen=True, kw_only=True)
class Twins:
    """Two streams that are the same RTP on two paths (SMPTE ST 2022-7), by their places in ``Report.streams``.

    ``combined`` is the one stream that a receiver makes of both. ``unrepaired`` packets were lost on both, and not
    repaired by the FEC of either; None where that is not known.
    """
    first_stream: int
    second_stream: int
    packets: int
    first_lost: int
    second_lost: int
    lost_together: int
    different: int
    late: int
    lost_before: int
    restarts: int
    unrepaired: int | None
    skew_ns: Skew
    combined: Stream | None


@dataclass(frozen=True, kw_only=True)
class ReorderWindow:
    """How long a missing RTP packet was waited for: packets whose numbers are higher, and nanoseconds."""
    packets: int
    longest_wait_ns: int


@dataclass(frozen=True, kw_only=True)
class Verdict:
    """A limit and its figure, as texts with their units."""
    name: str
    limit: str
    measured: str
    met: bool


@dataclass(frozen=True, kw_only=True)
class Event:
    """Something that went wrong; ``event`` is its kind, ``time_ns`` is since 1970. None is what its kind does not have."""
    time: str
    time_ns: int
    event: str
    schema: int | None
    version: str | None
    options: tuple[Option, ...] | None
    text: str | None
    stream: int | None
    source: str | None
    destination: str | None
    vlan: str | None
    ssrc: int | None
    pid: int | None
    packets: int | None
    count: int | None
    elapsed_ns: int | None
    jump_ns: int | None
    rate_bps: float | None
    table_id: int | None
    protocol: int | None
    up: int | None
    of: str | None
    events: int | None
    left_out: int | None


@dataclass(frozen=True, kw_only=True)
class Report:
    """A measurement. ``met`` is whether every limit that was given is met; ``json`` is all of it as ipplay wrote it.

    ``events`` are those of the measurement, unless they were turned off or taken by ``Measurement.events()``.
    """
    schema: int
    run: Run
    capture: Capture
    total: Total
    streams: tuple[Stream, ...]
    twins: tuple[Twins, ...]
    reorder_window: ReorderWindow
    verdicts: tuple[Verdict, ...]
    met: bool
    events: tuple[Event, ...] = field(default=(), repr=False)
    json: Mapping[str, Any] = field(default_factory=dict, repr=False)


# Attributes whose names in JSON are no names of Python.
JSON_NAMES = {"p99_9": "p99.9"}


# What a report has besides the fields of its JSON.
ADDED = {(Report, "events"), (Report, "json")}


@functools.cache
def hints_of(kind: Any) -> dict[str, Any]:
    return get_type_hints(kind)


def is_optional(hint: Any) -> bool:
    return get_origin(hint) in (Union, types.UnionType)


def build(kind: type[Part], values: Mapping[str, Any]) -> Part:
    """The record of that kind from its JSON object; fields that this package does not know yet are left out."""
    if kind is Distribution and values["count"] == 0:
        values = {"count": 0}
    record: Any = kind
    parts = {}
    for name, hint in hints_of(record).items():
        if (kind, name) not in ADDED:
            value = values.get(name, values.get(JSON_NAMES.get(name, "")))
            if value is None and not is_optional(hint):
                raise NotInstalled(f"ipplay has not written {name} of {kind.__name__}: install it and this package "
                                   "of the same version")
            parts[name] = convert(hint, value)
    return kind(**parts)


def convert(hint: Any, value: Any) -> Any:
    """The value as the annotation has it."""
    if value is None:
        return None
    if is_optional(hint):
        hint = get_args(hint)[0]  # None stands last
    if get_origin(hint) is tuple:
        return tuple(convert(get_args(hint)[0], each) for each in value)
    if isinstance(hint, type) and hasattr(hint, "__dataclass_fields__"):
        return build(hint, value)
    return value
