# SPDX-License-Identifier: MIT
"""Measurements from Python: every field that is documented, what a capture is known to hold, and what goes wrong."""
import asyncio
import dataclasses
import json
import re
import subprocess
import sys
import typing

import ipplayout
import pytest
from conftest import ROOT
from frames import Playout, write_pcap
from ipplayout import Event, Measurement, Report, report

LOST, SENT = {100, 101, 700}, 2000


@pytest.fixture
def capture(tmp_path):
    """A capture of 2,000 RTP datagrams, of which three are lost and one is late."""
    path = tmp_path / "capture.pcapng"
    write_pcap(path, Playout(datagrams=SENT, lose=LOST, delay={300: 2}, bad_udp={5}).capture())
    return path


def documented(command):
    section = re.search(rf"^## {re.escape(command)}\n(.*?)(?=^## |\Z)", (ROOT / "docs" / "json.md").read_text(), re.M | re.S)[1]
    names = {name for row in re.findall(r"^\| (`[^|]*)\|", section, re.M) for name in re.findall(r"`([^`]+)`", row)}
    # A list that can be empty has a row of its own beside those of its fields.
    return {name for name in names if not any(other.startswith(name + "[].") for other in names)}


def fields_of(kind, path=""):
    """Every field as docs/json.md names it."""
    for each in dataclasses.fields(kind):
        if (kind, each.name) in report.ADDED:
            continue
        name = path + report.JSON_NAMES.get(each.name, each.name)
        hint = typing.get_type_hints(kind)[each.name]
        parts = [part for part in (hint, *typing.get_args(hint)) if dataclasses.is_dataclass(part)]
        nested = [part for part in typing.get_args(hint) if typing.get_origin(part) is tuple]
        parts += [part for each in nested for part in typing.get_args(each) if dataclasses.is_dataclass(part)]
        is_list = typing.get_origin(hint) is tuple or bool(nested)
        if parts:
            yield from fields_of(parts[0], name + ("[]." if is_list else "."))
        else:
            yield name


@pytest.mark.parametrize("command, kind", [("ipplay measure --json", Report), ("ipplay measure --events", Event)])
def test_every_documented_field_is_an_attribute(command, kind):
    names = documented(command)

    def as_documented(field):
        """The documented name that the field is, or is a part of."""
        parts = field.split(".")
        return next((name for name in (".".join(parts[:end]) for end in range(1, len(parts) + 1)) if name in names), field)

    assert {as_documented(field) for field in fields_of(kind)} == names


def test_a_capture_is_measured(capture):
    found = ipplayout.measure(capture, expect_rate=11e6, max_loss=0)
    [stream] = found.streams
    assert (stream.rtp.received, stream.rtp.lost, stream.rtp.reordered, stream.checksums.udp_bad) == (SENT - 3, 3, 1, 1)
    assert stream.rtp.reorder_distance.p99_9 == 2
    assert stream.rate.error_ppm == pytest.approx((stream.rate.frame_rate_bps / 11e6 - 1) * 1e6)
    assert (stream.vlan, stream.compare, stream.repeated_datagrams) == (None, None, None)
    assert sum(found.capture.frames_by_kind.values()) == found.capture.frames == SENT - 3
    [verdict] = [each for each in found.verdicts if each.name == "--max-loss"]
    assert (verdict.met, found.met) == (False, False)
    assert sum(each.packets for each in found.events if each.event == "loss") == 4  # and the late one, for a while
    assert [found.events[0].event, found.events[-1].event] == ["start", "end"]
    assert {"--max-loss", "--expect-rate"} <= {each.name for each in found.run.options}
    assert found.json["streams"][0]["rtp"]["lost"] == 3


def test_what_was_not_measured_is_none(tmp_path):
    path = tmp_path / "one.pcapng"
    write_pcap(path, Playout(datagrams=1).capture())
    [stream] = ipplayout.measure(path, events=False).streams
    assert stream.spacing.gap_ns == report.Distribution(count=0, min=None, mean=None, p50=None, p90=None, p99=None,
                                                        p99_9=None, max=None)
    assert stream.rtp.jitter_ns is None


def test_events_are_turned_off(capture):
    assert ipplayout.measure(capture, events=False).events == ()


@pytest.mark.parametrize("source, options, kind, words", [
    ("nosuch0", {}, ipplayout.NoAdapter, "there is no adapter or file nosuch0"),
    ("CAPTURE", {"max_los": 0}, ipplayout.BadValue, "--max-los: unknown here"),
    ("CAPTURE", {"expect_rate": "5z"}, ipplayout.BadValue, '--expect-rate: "5z" is not valid; give a bit rate'),
    ("CAPTURE", {"report": "/nowhere/report.html"}, ipplayout.Error, "/nowhere/report.html"),
])
def test_refusals(capture, source, options, kind, words):
    with pytest.raises(kind) as refused:
        ipplayout.measure(capture if source == "CAPTURE" else source, **options)
    assert words in str(refused.value)


def test_a_failed_measurement_has_what_was_measured_before(capture):
    # No more room for results: the measurement is whole, and yet it is no success.
    with pytest.raises(ipplayout.MeasurementFailed) as failed:
        ipplayout.measure(capture, per_second="/dev/full")
    assert "/dev/full" in str(failed.value)
    assert failed.value.report.total.lost == 3


def test_a_missing_program_is_named(monkeypatch, capture):
    monkeypatch.setenv("IPPLAY", "/nowhere/ipplay")
    with pytest.raises(ipplayout.NotInstalled, match="ipplay was not found: install the Debian package ipplay"):
        ipplayout.measure(capture)


def test_options_become_words():
    options = {"max_loss": 0, "join": ["239.1.1.1", "239.1.1.2"], "follow": True, "no_ts": False, "expect_rate": 9.75e6}
    from ipplayout.measurement import arguments
    assert arguments(options) == ["--max-loss", "0", "--join", "239.1.1.1", "--join", "239.1.1.2", "--follow",
                                  "--expect-rate", "9750000"]


def test_events_come_while_it_goes_on(wire, player, stream):
    async def run():
        with wire.far:
            measurement = Measurement(wire.FAR)
        with measurement:
            kinds = []
            content = stream.read_bytes()
            with player(bit_rate=20e6) as p:
                p.start()
                p.write(content[:len(content) // 2])
                p.lose(5)
                p.write(content[len(content) // 2:])
            async for event in measurement.events_async():
                kinds.append(event.event)
                if event.event == "silence_began":
                    measurement.stop()
            found = await measurement.report_async()
            assert found.events == ()  # they have been taken
            assert [kinds[0], kinds[-1]] == ["start", "end"]
            assert found.total.rate.frames == 1995
            assert await measurement.report_async() is found
    asyncio.run(run())


def test_a_task_that_is_cancelled_takes_no_event(wire):
    async def run(measurement):
        kinds = []

        async def read():
            async for event in measurement.events_async():
                kinds.append(event.event)

        readers = [asyncio.create_task(read()) for _ in range(3)]
        while not kinds:
            await asyncio.sleep(0.01)
        for reader in readers:
            reader.cancel()
        await asyncio.wait(readers)
        measurement.stop()
        found = await asyncio.wait_for(measurement.report_async(), 30)
        assert kinds + [each.event for each in found.events] == ["start", "end"]

    with wire.far:
        measurement = Measurement(wire.FAR)
    with measurement:
        asyncio.run(run(measurement))


def test_a_program_that_ends_takes_its_measurement_along(wire):
    program = f"""if True:
        import atexit
        atexit.register(lambda: print(measurement._process.returncode))
        import ipplayout
        measurement = ipplayout.Measurement({wire.FAR!r})"""
    with wire.far:
        done = subprocess.run([sys.executable, "-c", program], stdout=subprocess.PIPE, text=True, check=True, timeout=60)
    assert done.stdout == "0\n"


def test_a_measurement_that_is_left_ends(wire):
    with wire.far:
        with Measurement(wire.FAR) as measurement:
            with pytest.raises(subprocess.TimeoutExpired):
                measurement.report(timeout=0.01)
    assert measurement._process.returncode == 0


def test_unknown_fields_of_later_versions_are_left_out(capture):
    values = json.loads(json.dumps(ipplayout.measure(capture).json))
    values["later"] = values["streams"][0]["later"] = 1
    assert report.build(Report, values).streams[0].rtp.lost == 3
    del values["streams"][0]["rate"]
    with pytest.raises(ipplayout.NotInstalled, match="has not written rate of Stream"):
        report.build(Report, values)
