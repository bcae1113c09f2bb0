# SPDX-License-Identifier: MIT
"""A client of ``ipplay serve``, whose interface docs/openapi.json describes.

    client = ipplayout.Client("http://player-1:8080", token="...")
    client.create_playout("news", input="streams/news.ts", to="rtp://239.1.1.1:5004", loop="forever", start=True)
    client.damage("news", "lose", 3)
    for event in client.events():
        print(event.event, event.playout, event.text)

Each call is a request on a connection of its own, so that threads may share a client. In asyncio a call goes through
``asyncio.to_thread(client.playout, "news")``; events and waiting have forms of their own.
"""
from __future__ import annotations

import asyncio
import http.client
import json
import time
import urllib.parse
from collections.abc import AsyncIterator, Iterator
from types import TracebackType
from typing import Any, Literal, TypeVar

from .errors import BadPlayout, BadState, BadValue, Error, NoResources, NotAllowed, NotReachable, NotYet
from .report import build
from .served import (MediaFacts, MediaFile, OptionValue, Plan, ServedLineup, ServedMeter, ServedPlayout, Server, ServerEvent)

API = "/api/v1"
TIMEOUT = 30.0  # seconds without a byte; figures come every second
RESTING = ("ready", "ended", "stopped", "failed")

BY_STATUS: dict[int, type[Error]] = {400: BadValue, 401: NotAllowed, 403: NotAllowed, 404: BadPlayout, 409: BadState,
                                     413: BadValue, 429: NoResources, 503: NoResources}

Fault = Literal["lose", "delay", "duplicate", "corrupt", "bad-ip-checksum", "bad-udp-checksum"]
Restart = Literal["never", "on-failure", "always"]
Part = TypeVar("Part")


def options_of(given: dict[str, OptionValue]) -> dict[str, OptionValue]:
    """Options by their long names: ``bad_ip`` is ``bad-ip``, ``from_`` is ``from``."""
    return {name.rstrip("_").replace("_", "-"): value for name, value in given.items()}


def path_of(*parts: str) -> str:
    return API + "".join("/" + urllib.parse.quote(part, safe="") for part in parts)


class Client:
    """The server at ``url``. ``token`` is what its --token-file holds; a server on this machine may need none.

    Errors are those of the package, with the server's sentence: ``BadValue`` for what is refused, ``BadPlayout`` for a
    name that it does not know, ``BadState`` for what is not possible now, ``NoResources`` when it has as many as it
    takes, ``NotAllowed`` for a wrong token, ``NotReachable`` without an answer.
    """

    def __init__(self, url: str = "http://127.0.0.1:8080", *, token: str | None = None, timeout: float = TIMEOUT) -> None:
        parts = urllib.parse.urlsplit(url)
        if parts.scheme not in ("http", "https") or not parts.hostname or parts.path not in ("", "/"):
            raise BadValue(f"url is {url!r}; it can be http://HOST:PORT or https://HOST:PORT")
        self._url = url.rstrip("/")
        self._secure = parts.scheme == "https"
        self._host, self._port = parts.hostname, parts.port
        self._token = token
        self._timeout = timeout

    # ---- The server ----

    def server(self) -> Server:
        """The server itself."""
        return build(Server, self._get(path_of()))

    def devices(self) -> list[dict[str, Any]]:
        """Adapters, as ``ipplay devices --json`` has them."""
        devices: list[dict[str, Any]] = self._get(path_of("devices"))["devices"]
        return devices

    def media(self) -> list[MediaFile]:
        """Files that can be played."""
        return [build(MediaFile, each) for each in self._get(path_of("media"))["media"]]

    def media_facts(self, path: str) -> MediaFacts:
        """What is in one of them."""
        return build(MediaFacts, self._get(path_of("media", "facts") + "?" + urllib.parse.urlencode({"path": path})))

    def thumbnail(self, path: str, service: int) -> bytes:
        """A picture of a service of one of them, as JPEG."""
        query = urllib.parse.urlencode({"path": path, "service": service})
        return self._request("GET", path_of("media", "thumbnail") + "?" + query)

    def plan(self, **options: OptionValue) -> Plan:
        """What would be played; sends nothing."""
        return build(Plan, self._post(path_of("plan"), {"options": options_of(options)}))

    def metrics(self) -> str:
        """For Prometheus."""
        return self._request("GET", "/metrics").decode()

    # ---- Playouts ----

    def playouts(self) -> list[ServedPlayout]:
        """All of them."""
        return [build(ServedPlayout, each) for each in self._get(path_of("playouts"))["playouts"]]

    def playout(self, name: str) -> ServedPlayout:
        """One of them; after its end with the figures of its run."""
        return build(ServedPlayout, self._get(path_of("playouts", name)))

    def create_playout(self, name: str | None = None, *, start: bool = False, restart: Restart = "never",
                       restart_after: float = 1.0, **options: OptionValue) -> ServedPlayout:
        """A new one. Options are those of ``ipplay play`` by their names: ``input="media/x.ts"``, ``to=...``,
        ``lose="1/100"``; ``restart_after`` is in seconds."""
        order: dict[str, Any] = {"options": options_of(options), "start": start, "restart": restart,
                                 "restart_after_ns": round(restart_after * 1e9)}
        if name is not None:
            order["name"] = name
        return build(ServedPlayout, self._post(path_of("playouts"), order))

    def start(self, name: str, *, at_ns: int | None = None) -> ServedPlayout:
        """Starts it, at a time since 1970 by the server's clock or at once."""
        return self._playout(name, "start", {} if at_ns is None else {"at_ns": at_ns})

    def pause(self, name: str) -> ServedPlayout:
        """Holds it."""
        return self._playout(name, "pause")

    def resume(self, name: str) -> ServedPlayout:
        """Goes on."""
        return self._playout(name, "resume")

    def stop(self, name: str) -> ServedPlayout:
        """Ends it, within about a second."""
        return self._playout(name, "stop")

    def change(self, name: str, *, bit_rate: float | None = None, ppm: float | None = None) -> ServedPlayout:
        """Another rate of the transport stream, bits per second, or another deviation of it."""
        wanted = {"bitrate": bit_rate, "ppm": ppm}
        return self._playout(name, "change", {key: value for key, value in wanted.items() if value is not None})

    def damage(self, name: str, kind: Fault, count: int = 1, amount: int | None = None) -> ServedPlayout:
        """Deliberate errors in its next ``count`` datagrams; ``amount``: datagrams that overtake one that is delayed,
        bits of one that is corrupted."""
        more = {} if amount is None else {"amount": amount}
        return self._playout(name, "faults", {"kind": kind, "count": count, **more})

    def break_link(self, name: str, seconds: float) -> ServedPlayout:
        """Nothing leaves for so long, and is lost."""
        return self._playout(name, "faults", {"kind": "break", "length_ns": round(seconds * 1e9)})

    def delete_playout(self, name: str) -> None:
        """Stops and forgets it."""
        self._request("DELETE", path_of("playouts", name))

    def wait(self, name: str, timeout: float | None = None) -> ServedPlayout:
        """Waits until it plays no more, and is not to start again; ``NotYet`` after ``timeout`` seconds."""
        end = None if timeout is None else time.monotonic() + timeout
        with self.events() as events:  # before the question, so that nothing is missed
            playout = self.playout(name)
            while playout.state not in RESTING:
                for event in events:
                    if end is not None and time.monotonic() >= end:
                        raise NotYet(f"{name} is {playout.state} after {timeout} s")
                    if event.playout == name or event.event == "lost":
                        break
                else:
                    raise NotReachable(f"{self._url}: the server has ended")
                playout = self.playout(name)
        return playout

    async def wait_async(self, name: str, timeout: float | None = None) -> ServedPlayout:
        """As ``wait()``, without holding up the loop."""
        return await asyncio.to_thread(self.wait, name, timeout)

    # ---- Meters ----

    def meters(self) -> list[ServedMeter]:
        """All of them, without their results."""
        return [build(ServedMeter, each) for each in self._get(path_of("meters"))["meters"]]

    def meter(self, name: str) -> ServedMeter:
        """One of them, with all its figures."""
        return build(ServedMeter, self._get(path_of("meters", name)))

    def create_meter(self, name: str | None = None, **options: OptionValue) -> ServedMeter:
        """A new one, which measures at once. Options are those of ``ipplay measure``: ``source="eth0"``, ``join=...``."""
        order: dict[str, Any] = {"options": options_of(options)}
        if name is not None:
            order["name"] = name
        return build(ServedMeter, self._post(path_of("meters"), order))

    def stop_meter(self, name: str) -> ServedMeter:
        """Ends the measurement; its figures stay."""
        return build(ServedMeter, self._post(path_of("meters", name, "stop")))

    def meter_report(self, name: str) -> str:
        """The page that ``ipplay measure --report`` writes, once the measurement has ended."""
        return self._request("GET", path_of("meters", name, "report")).decode()

    def delete_meter(self, name: str) -> None:
        """Ends and forgets it."""
        self._request("DELETE", path_of("meters", name))

    # ---- Lineups ----

    def lineups(self) -> list[ServedLineup]:
        """All of them."""
        return [build(ServedLineup, each) for each in self._get(path_of("lineups"))["lineups"]]

    def lineup(self, name: str) -> ServedLineup:
        """One of them, with its channels."""
        return build(ServedLineup, self._get(path_of("lineups", name)))

    def load_lineup(self, name: str, text: str, *, start: bool = True) -> ServedLineup:
        """Makes all channels of a lineup (TOML), or none."""
        return build(ServedLineup, self._post(path_of("lineups"), {"name": name, "text": text, "start": start}))

    def start_lineup(self, name: str) -> ServedLineup:
        """Starts those channels that do not play, together."""
        return build(ServedLineup, self._post(path_of("lineups", name, "start")))

    def stop_lineup(self, name: str) -> ServedLineup:
        """Ends all its channels."""
        return build(ServedLineup, self._post(path_of("lineups", name, "stop")))

    def delete_lineup(self, name: str) -> None:
        """Stops and forgets it with its channels."""
        self._request("DELETE", path_of("lineups", name))

    # ---- Events ----

    def events(self, after: str | None = None) -> EventStream:
        """What happens from now on, or after the event of that id; "0" is all that the server still has."""
        query = "" if after is None else "?" + urllib.parse.urlencode({"after": after})
        return EventStream(*self._send("GET", path_of("events") + query), self._url)

    async def events_async(self, after: str | None = None) -> AsyncIterator[ServerEvent]:
        """As ``events()``, without holding up the loop."""
        stream = await asyncio.to_thread(self.events, after)
        try:
            while (event := await asyncio.to_thread(stream.take)) is not None:
                yield event
        finally:
            await asyncio.to_thread(stream.close)

    # ---- Inside ----

    def _playout(self, name: str, verb: str, order: dict[str, Any] | None = None) -> ServedPlayout:
        return build(ServedPlayout, self._post(path_of("playouts", name, verb), order))

    def _get(self, path: str) -> Any:
        return json.loads(self._request("GET", path))

    def _post(self, path: str, order: dict[str, Any] | None = None) -> Any:
        return json.loads(self._request("POST", path, order))

    def _request(self, method: str, path: str, order: dict[str, Any] | None = None) -> bytes:
        connection, answer = self._send(method, path, order)
        try:
            return answer.read()
        except (OSError, http.client.HTTPException) as error:
            raise NotReachable(f"{self._url}: {error or 'the answer broke off'}") from error
        finally:
            connection.close()

    def _send(self, method: str, path: str,
              order: dict[str, Any] | None = None) -> tuple[http.client.HTTPConnection, http.client.HTTPResponse]:
        """A good answer, whose content is still to be read; the connection is the caller's to close."""
        kind = http.client.HTTPSConnection if self._secure else http.client.HTTPConnection
        connection = kind(self._host, self._port, timeout=self._timeout)
        headers = {"Authorization": f"Bearer {self._token}"} if self._token is not None else {}
        if order is not None:
            headers["Content-Type"] = "application/json"
        try:
            connection.request(method, path, json.dumps(order) if order is not None else None, headers)
            answer = connection.getresponse()
            if answer.status < 300:
                return connection, answer
            content = answer.read()
        except (OSError, http.client.HTTPException) as error:
            connection.close()
            raise NotReachable(f"{self._url}: {error or 'no answer'}") from error
        connection.close()
        raise error_of(answer.status, content)


def error_of(status: int, content: bytes) -> Error:
    """The exception for an answer: the server's sentence, with a line for each further mistake."""
    try:
        values = json.loads(content)
        text = "\n".join([values["error"], *values.get("details", [])])
    except (ValueError, KeyError, TypeError):
        text = f"the server answers with status {status}"
    return BY_STATUS.get(status, Error)(text)


class EventStream:
    """Events as they come: an iterator that ends with the server, to be closed, or used in a ``with`` block."""

    def __init__(self, connection: http.client.HTTPConnection, answer: http.client.HTTPResponse, url: str) -> None:
        self._connection = connection
        self._answer = answer
        self._url = url

    def __iter__(self) -> Iterator[ServerEvent]:
        return self

    def __next__(self) -> ServerEvent:
        event = self.take()
        if event is None:
            raise StopIteration
        return event

    def take(self) -> ServerEvent | None:
        """The next event, once it comes; None at the end."""
        fields: dict[str, str] = {}
        while line := self._read_line():
            if line != "\n":
                name, _, value = line.rstrip("\n").partition(":")  # without a name: a comment
                fields[name] = value.removeprefix(" ")
            elif "data" in fields:
                return build(ServerEvent, {**json.loads(fields["data"]), "id": fields.get("id", "")})
            else:
                fields = {}
        return None

    def _read_line(self) -> str:
        try:
            return self._answer.readline().decode().replace("\r", "")
        except (OSError, http.client.HTTPException) as error:
            raise NotReachable(f"{self._url}: {error or 'no events for a while'}") from error

    def close(self) -> None:
        """No further events."""
        self._answer.close()
        self._connection.close()

    def __enter__(self) -> EventStream:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()
