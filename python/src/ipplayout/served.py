# SPDX-License-Identifier: MIT
"""What ``ipplay serve`` reports, with an attribute for each field of docs/openapi.json.

Bit rates are in bits per second, times in nanoseconds, points in time since 1970. None is what is not known yet.
"""
from __future__ import annotations

from dataclasses import dataclass
from typing import Any, Union

from .report import Report

OptionValue = Union[str, int, float, bool, "list[str | int | float]"]


@dataclass(frozen=True, kw_only=True)
class Server:
    """The server itself; ``time_ns`` is now, by its clock. ``media_folders`` begin the paths of inputs."""
    version: str
    machine: str
    started_ns: int
    time_ns: int
    media_folders: tuple[str, ...]


@dataclass(frozen=True, kw_only=True)
class MediaFile:
    """A file that can be played; ``path`` is what ``input`` takes."""
    path: str
    size_bytes: int
    modified_ns: int


@dataclass(frozen=True, kw_only=True)
class Component:
    """Of a service: video, audio, subtitles or data."""
    pid: int
    kind: str
    stream_type: int | None
    coding: str | None
    language: str | None


@dataclass(frozen=True, kw_only=True)
class Service:
    """A service of a transport stream, by PAT, PMT and SDT."""
    number: int
    name: str
    provider: str
    pmt_pid: int
    pcr_pid: int | None
    thumbnail: str | None
    components: tuple[Component, ...]


@dataclass(frozen=True, kw_only=True)
class MediaFacts:
    """What is in a file; ``kind`` is "stream", "capture" or "raw"."""
    path: str
    size_bytes: int
    modified_ns: int
    kind: str
    packet_bytes: int | None
    packets: int | None
    rate_bps: float | None
    duration_ns: float | None
    transport_stream_id: int | None
    services: tuple[Service, ...]
    notes: tuple[str, ...]


@dataclass(frozen=True, kw_only=True)
class Ordered:
    """Datagrams that were damaged on purpose."""
    lost: int
    delayed: int
    duplicates: int
    corrupted: int
    ipv4_header_bad: int
    udp_bad: int
    on_request: int


@dataclass(frozen=True, kw_only=True)
class Lateness:
    """By how much frames left behind their places in the schedule."""
    p50: int | None
    p99: int | None
    p99_9: int | None
    max: int | None


@dataclass(frozen=True, kw_only=True)
class Departures:
    """Frames, by how they left; late is more than a millisecond behind."""
    on_time: int
    late: int
    left_out: int
    not_sent: int
    discarded: int
    lateness_ns: Lateness
    longest_gap_ns: int | None
    shift_ns: int
    dry_times: int
    dry_ns: int


@dataclass(frozen=True, kw_only=True)
class ServedPlayout:
    """A playout of the server; figures are of this or its last run.

    ``state`` is "ready", "playing", "paused", "waiting", "ended", "stopped" or "failed".
    """
    name: str
    state: str
    input: str
    target: str
    device: str
    starts: int
    started_ns: int | None
    ended_ns: int | None
    elapsed_ns: int
    set_rate_bps: float | None
    rate_bps: float | None
    mean_rate_bps: float | None
    ppm: float
    follows_pcrs: bool
    datagrams: int
    frame_bytes: int
    ts_packets: int
    ts_bytes: int
    ordered: Ordered
    departures: Departures
    last_error: str | None
    notes: tuple[str, ...]
    lineup: str | None
    options: dict[str, Any]
    restart: str
    restart_after_ns: int
    command: str


@dataclass(frozen=True, kw_only=True)
class ServedMeter:
    """A meter of the server; ``state`` is "running", "ended" or "failed". ``result`` has all figures; a list has none."""
    name: str
    state: str
    streams: int
    frames: int
    frame_rate_bps: float | None
    lost: int
    lost_ts_packets: int
    duplicates: int
    reordered: int
    checksums_bad: int
    ts_errors: int
    ts_second_priority_errors: int
    ts_third_priority_errors: int
    dropped_by_kernel: int
    dropped_by_adapter: int
    source: str
    options: dict[str, Any]
    started_ns: int
    ended_ns: int | None
    last_error: str | None
    result: Report | None


@dataclass(frozen=True, kw_only=True)
class ServedLineup:
    """A lineup of the server, and how many of its channels are in each state; a list has no ``playouts``."""
    name: str
    channels: int
    states: dict[str, int]
    playouts: tuple[ServedPlayout, ...] | None


@dataclass(frozen=True, kw_only=True)
class PlannedStream:
    """The input of a plan."""
    packet_bytes: int | None
    packets: int | None
    size_bytes: int | None
    rate_bps: float | None


@dataclass(frozen=True, kw_only=True)
class PlannedSetting:
    """A setting of the library, in words."""
    name: str
    value: str


@dataclass(frozen=True, kw_only=True)
class HeaderField:
    """Bytes of the first frame, as hex; ``open``: the start decides them."""
    offset: int
    hex: str
    field: str
    value: str
    open: bool


@dataclass(frozen=True, kw_only=True)
class HeaderLayer:
    """Ethernet, VLAN, IPv4, IPv6, UDP or RTP."""
    name: str
    fields: tuple[HeaderField, ...]


@dataclass(frozen=True, kw_only=True)
class Plan:
    """What would be played, and the first frame's headers. ``rounds`` is None for a loop without end."""
    command: str
    input: str
    target: str
    device: str
    set_rate_bps: float
    frame_rate_bps: float
    frame_size_bytes: int
    header_bytes: int
    payload_bytes: int
    copies: int
    gap_ns: float
    rounds: int | None
    stream: PlannedStream
    notes: tuple[str, ...]
    settings: tuple[PlannedSetting, ...]
    layers: tuple[HeaderLayer, ...]
    text: str


@dataclass(frozen=True, kw_only=True)
class ServerEvent:
    """Something that happened: ``event`` is "figures" (once a second), "playout", "meter", "measured", "seconds" or "lost".

    ``id`` goes on behind it: ``client.events(after=event.id)``. None is what its kind does not have.
    """
    id: str
    event: str
    time_ns: int
    playout: str | None
    meter: str | None
    state: str | None
    text: str | None
    lost: int | None
    left_out: int | None
    playouts: tuple[dict[str, Any], ...] | None
    meters: tuple[dict[str, Any], ...] | None
    streams: tuple[dict[str, Any], ...] | None
    measured: dict[str, Any] | None
