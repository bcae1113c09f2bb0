# SPDX-License-Identifier: MIT
"""The client of ``ipplay serve``: against the server itself, and its records against docs/openapi.json."""
import asyncio
import dataclasses
import json
import os
import socket
import subprocess
import typing

import pytest

import ipplayout
from conftest import ROOT, packets
from ipplayout import served
from ipplayout.report import is_optional

SECRET = "a-token-of-some-length"
BY_SCHEMA = {"Server": served.Server, "MediaFile": served.MediaFile, "MediaFacts": served.MediaFacts, "Plan": served.Plan,
             "Playout": served.ServedPlayout, "Meter": served.ServedMeter, "Lineup": served.ServedLineup}
IN_LISTS_ONLY_LESS = {("Meter", "result"), ("Lineup", "playouts")}
EVENTS = ("FiguresEvent", "PlayoutEvent", "MeterEvent", "MeasuredEvent", "SecondsEvent", "LostEvent")


@pytest.fixture
def server(wire, tmp_path):
    """(URL, process) of a server at the near end of a wire, with a token and a folder of streams."""
    (tmp_path / "streams").mkdir()
    (tmp_path / "streams" / "x.ts").write_bytes(packets(1400))
    token = tmp_path / "token"
    token.touch(0o600)
    token.write_text(SECRET + "\n")
    process = subprocess.Popen([os.environ["IPPLAY"], "serve", "--listen", "127.0.0.1:0", "--media", tmp_path / "streams",
                                "--token-file", token], stdout=subprocess.PIPE, text=True)
    yield process.stdout.readline().strip(), process
    process.terminate()
    process.communicate()


@pytest.fixture
def client(server):
    return ipplayout.Client(server[0], token=SECRET)


ORDER = {"input": "streams/x.ts", "to": "rtp://239.1.1.1:5004", "bitrate": "2M"}  # 200 datagrams, a second


def test_a_playout_from_its_order_to_its_figures(client, wire, meter):
    plan = client.plan(**ORDER, ttl=7)
    assert (plan.device, plan.copies, plan.rounds, plan.stream.packets) == (wire.NEAR, 1, 1, 1400)
    ttl, = (field.value for layer in plan.layers for field in layer.fields if field.field.endswith("TTL"))
    assert ttl == "7"
    measured = meter(wait="60s")
    made = client.create_playout("news & more", **{**ORDER, "bitrate": "200k"}, loop=3)  # half a minute
    assert (made.state, made.starts, made.started_ns, made.departures.lateness_ns.p99) == ("ready", 0, None, None)
    client.start("news & more")
    with pytest.raises(ipplayout.NotYet):
        client.wait("news & more", timeout=0)
    while client.playout("news & more").departures.on_time + client.playout("news & more").departures.late == 0:
        pass  # of what is lost at the very start a meter knows nothing
    client.pause("news & more")
    assert client.playout("news & more").state == "paused"
    client.damage("news & more", "lose", 4)
    assert client.change("news & more", bit_rate=4e6).state == "paused"
    client.resume("news & more")
    over = client.wait("news & more", timeout=30)
    assert (over.state, over.datagrams, over.ordered.lost, over.last_error) == ("ended", 600, 4, None)
    assert over.departures.on_time + over.departures.late == 596
    assert over.departures.lateness_ns.p99_9 >= over.departures.lateness_ns.p50 >= 0
    measured.stop()
    assert measured.report().total.lost == 4
    assert [each.name for each in client.playouts()] == ["news & more"]
    client.delete_playout("news & more")
    assert client.playouts() == []


def test_errors_are_those_of_the_package_in_the_servers_words(client, server):
    for kind, words, call in (
            (ipplayout.BadValue, "ttl", lambda: client.create_playout(**ORDER, ttl=300)),
            (ipplayout.BadPlayout, "nobody", lambda: client.playout("nobody")),
            (ipplayout.BadState, "one", lambda: client.pause("one")),
            (ipplayout.BadState, "one", lambda: client.create_playout("one", **ORDER)),
            (ipplayout.NotAllowed, "", lambda: ipplayout.Client(server[0], token="another").server()),
            (ipplayout.NotAllowed, "", lambda: ipplayout.Client(server[0]).events()),
            (ipplayout.BadValue, "url", lambda: ipplayout.Client("ftp://localhost"))):
        if words == "one" and not client.playouts():
            client.create_playout("one", **ORDER)
        with pytest.raises(kind, match=f"(?i){words}"):
            call()
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        with pytest.raises(ipplayout.NotReachable):
            ipplayout.Client(f"http://127.0.0.1:{free.getsockname()[1]}").server()


def test_media_meters_and_lineups(client, wire):
    assert [each.path for each in client.media()] == ["streams/x.ts"]
    assert client.media_facts("streams/x.ts").packets == 1400
    with pytest.raises(ipplayout.Error, match="no picture"):  # of packets that are all padding
        client.thumbnail("streams/x.ts", 1)
    assert wire.NEAR in json.dumps(client.devices())
    assert client.server().media_folders == ("streams",)
    channels = "".join(f'[[channel]]\nname = "c{n}"\ninput = "streams/x.ts"\nto = "rtp://239.1.1.{n}:5004"\nbitrate = "2M"\n'
                       for n in (1, 2))
    loaded = client.load_lineup("both", channels, start=False)
    assert (loaded.channels, [each.name for each in loaded.playouts]) == (2, ["c1", "c2"])
    client.start_lineup("both")
    for name in ("c1", "c2"):
        assert client.wait(name, timeout=30).state == "ended"
    assert client.lineup("both").states == {"ended": 2}
    assert client.lineups()[0].playouts is None
    client.delete_lineup("both")
    assert client.playouts() == []
    client.create_meter("m", source=wire.NEAR, rtp="on")
    over = client.stop_meter("m")
    assert (over.state, over.frames, over.source) == ("ended", 0, wire.NEAR)
    assert client.meter("m").result.total.streams == 0
    assert client.meter_report("m").startswith("<!doctype html>")
    assert "ipplay" in client.metrics()


def test_events_come_and_go_on_behind_a_given_one(client):
    async def watch():
        seen = []
        async for event in client.events_async(after="0"):
            seen.append(event)
            if event.state == "ended":
                return seen

    client.create_playout("one", **ORDER, start=True)
    seen = [event for event in asyncio.run(watch()) if event.playout == "one"]
    assert [event.state for event in seen][0::len(seen) - 1] == ["ready", "ended"]
    with client.events(after=seen[0].id) as again:
        behind = next(event for event in again if event.playout == "one")
    assert (behind.id, behind.text) == (seen[1].id, seen[1].text)


def test_a_server_that_ends_is_reported(server, client):
    client.create_playout("one", **ORDER, loop="forever", start=True)
    with client.events() as events:
        server[1].terminate()
        assert [event for event in events if event.event == "lost"] == []
    with pytest.raises(ipplayout.NotReachable):
        client.wait("one")


def schemas():
    return json.loads((ROOT / "docs" / "openapi.json").read_text())["components"]["schemas"]


def test_every_field_of_the_contract_is_here():
    for name, kind in BY_SCHEMA.items():
        compare(kind, schemas()[name], name)


def compare(kind, schema, name):
    """Names of the fields, which of them may be missing, and those of the records in them."""
    hints = typing.get_type_hints(kind)
    assert hints.keys() == schema["properties"].keys() - {"schema"}, name
    for field, values in schema["properties"].items():
        if field == "schema":
            continue
        may_be_missing = values.get("nullable", False) or field not in schema["required"] or (name, field) in IN_LISTS_ONLY_LESS
        assert is_optional(hints[field]) == may_be_missing, (name, field)
        inner = typing.get_args(hints[field])[0] if typing.get_origin(hints[field]) is tuple else hints[field]
        if dataclasses.is_dataclass(inner):
            compare(inner, values.get("items", values), f"{name}.{field}")


def test_every_field_of_every_event_is_here():
    fields = set().union(*(schemas()[name]["properties"] for name in EVENTS))
    assert {field.name for field in dataclasses.fields(served.ServerEvent)} == fields | {"id"}
