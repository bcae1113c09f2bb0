# SPDX-License-Identifier: MIT
"""Measurements by ``ipplay measure``, whose figures docs/measuring.md defines."""
from __future__ import annotations

import asyncio
import collections
import dataclasses
import json
import os
import signal
import subprocess
import threading
import weakref
from collections.abc import AsyncIterator, Iterator, Sequence
from types import TracebackType
from typing import Union

from .addresses import ipplay_program
from .errors import BadValue, MeasurementFailed, NoAdapter
from .report import Event, Report, build

OptionValue = Union[str, int, float, Sequence[str]]

# Exit statuses of ipplay.
DONE, FAILED, REFUSED, NO_ADAPTER, LIMIT_NOT_MET = range(5)
READY = "Measuring on "
SECONDS_TO_END = 10.0  # of a measurement that nobody will ask any more


def arguments(options: dict[str, OptionValue]) -> list[str]:
    """Options of ipplay: ``max_loss=0`` is ``--max-loss 0``, True is an option alone, a list repeats its option."""
    words: list[str] = []
    for name, value in options.items():
        option = "--" + name.replace("_", "-")
        if value is True or value is False:
            words += [option] if value else []
        elif isinstance(value, float):
            words += [option, f"{value:.15g}"]
        elif isinstance(value, (str, int)):
            words += [option, str(value)]
        else:
            for each in value:
                words += [option, each]
    return words


def end_with_program(process: subprocess.Popen[str]) -> None:
    """A report that an option asks for is still written."""
    if process.poll() is None:
        process.send_signal(signal.SIGINT)
        try:
            process.wait(SECONDS_TO_END)
        except subprocess.TimeoutExpired:
            process.kill()


class Measurement:
    """A measurement that goes on beside the program, from ``Measurement(...)`` until it ends or ``stop()``.

    ``source`` is an adapter, or the path of a pcap or pcapng file. It measures for ``seconds``, until the file ends, or
    as the options say, and not beyond the end of the program. Every option of ``ipplay measure`` can be given by its
    name: ``max_loss=0``, ``join="239.1.1.1"``, ``silence="300ms"``, ``expect="x.ts"``. Once the constructor has
    returned, what arrives at the adapter is measured.
    """

    def __init__(self, source: str | os.PathLike[str], *, seconds: float | None = None, events: bool = True,
                 **options: OptionValue) -> None:
        command = [ipplay_program(), "measure", "--json", *arguments(options)]
        if seconds is not None:
            command += ["--duration", f"{round(seconds * 1e6)}us"]
        self._events: collections.deque[str] = collections.deque()
        self._has_all_events = False
        self._events_changed = threading.Condition()  # guards these two
        self._errors = ""
        self._report: Report | None = None
        self._is_ready = threading.Event()
        lines, write_lines = os.pipe()
        try:
            command += ["--events", f"/dev/fd/{write_lines}"] if events else []
            self._process = subprocess.Popen([*command, "--", os.fspath(source)], stdin=subprocess.DEVNULL, text=True,
                                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, pass_fds=(write_lines,))
        except BaseException:
            os.close(lines)
            raise
        finally:
            os.close(write_lines)
        self._end = weakref.finalize(self, end_with_program, self._process)
        self._output: list[str] = []
        self._threads = [threading.Thread(target=self._read_events, args=(lines,), daemon=True),
                         threading.Thread(target=self._read_errors, daemon=True),
                         threading.Thread(target=self._read_output, daemon=True)]
        for thread in self._threads:
            thread.start()
        if not os.path.exists(source):  # a file is there already; an adapter is named once it is captured on
            self._is_ready.wait()

    def _read_events(self, descriptor: int) -> None:
        with open(descriptor, encoding="utf-8", errors="replace") as lines:
            for line in lines:
                with self._events_changed:
                    self._events.append(line)
                    self._events_changed.notify_all()
        with self._events_changed:
            self._has_all_events = True
            self._events_changed.notify_all()

    def _await_event(self) -> None:
        """Takes none, so that a waiting task that is cancelled loses none."""
        with self._events_changed:
            self._events_changed.wait_for(lambda: self._events or self._has_all_events)

    def _take_event(self) -> Event | None:
        """The next one, if there is one by now."""
        with self._events_changed:
            return build(Event, json.loads(self._events.popleft())) if self._events else None

    def _read_errors(self) -> None:
        assert self._process.stderr is not None
        for line in self._process.stderr:
            if line.startswith(READY):
                self._is_ready.set()
            else:
                self._errors += line
        self._is_ready.set()

    def _read_output(self) -> None:
        assert self._process.stdout is not None
        self._output.append(self._process.stdout.read())
        self._is_ready.set()

    def events(self) -> Iterator[Event]:
        """Events as they happen, until the measurement ends."""
        while not self._has_all_events or self._events:
            self._await_event()
            if (event := self._take_event()) is not None:
                yield event

    async def events_async(self) -> AsyncIterator[Event]:
        """As ``events()``, without holding up the loop."""
        while not self._has_all_events or self._events:
            await asyncio.to_thread(self._await_event)
            if (event := self._take_event()) is not None:
                yield event

    def stop(self) -> None:
        """Ends the measurement now; ``report()`` then has what was measured."""
        if self._process.poll() is None:
            self._process.send_signal(signal.SIGINT)

    def report(self, timeout: float | None = None) -> Report:
        """Waits for the end and returns the result; ``subprocess.TimeoutExpired`` after ``timeout`` seconds.

        A limit that is not met is no error: ``report.met`` says so. ``BadValue`` for a refused option, ``NoAdapter``
        for an adapter that is not there or may not be used, ``MeasurementFailed`` with what was measured before.
        """
        if self._report is not None:
            return self._report
        status = self._process.wait(timeout)
        for thread in self._threads:
            thread.join()
        report = self._parse()
        if report is not None and status in (DONE, LIMIT_NOT_MET):
            self._report = report
            return report
        sentence = self._errors.strip().removeprefix("ipplay: ") or f"ipplay ended with status {status}"
        if status == REFUSED:
            raise BadValue(sentence)
        if status == NO_ADAPTER:
            raise NoAdapter(sentence)
        raise MeasurementFailed(sentence, report)

    async def report_async(self) -> Report:
        """As ``report()``, without holding up the loop."""
        return await asyncio.to_thread(self.report)

    def _parse(self) -> Report | None:
        try:
            values = json.loads("".join(self._output))
        except json.JSONDecodeError:
            return None  # the error says why there is none
        return dataclasses.replace(build(Report, values), events=tuple(self.events()), json=values)

    def close(self) -> None:
        """Ends the measurement, if it goes on, and forgets it."""
        self.stop()
        self._process.wait()
        self._end.detach()
        for thread in self._threads:
            thread.join()
        for stream in (self._process.stdout, self._process.stderr):
            if stream is not None:
                stream.close()

    def __enter__(self) -> Measurement:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()


def measure(source: str | os.PathLike[str], *, seconds: float | None = None, events: bool = True,
            **options: OptionValue) -> Report:
    """Measures the streams that arrive at an adapter for ``seconds``, or those of a capture file.

    ``report.streams[0].rtp.lost`` and so on are the figures; options as for ``Measurement``.
    """
    with Measurement(source, seconds=seconds, events=events, **options) as measurement:
        return measurement.report()
