# SPDX-License-Identifier: MIT
"""Fixtures for tests of receivers: a wire between two network namespaces, players at one end, meters at the other.

In a conftest.py: ``pytest_plugins = ["ipplayout.pytest_plugin"]``. As root, since namespaces need it; without it a
test that asks for a wire fails rather than being skipped.

    def test_loses_nothing(wire, player, meter):
        with wire.far:
            receiver = Receiver(5004)
        measured = meter()
        with player(bit_rate=5e6) as p:
            p.play("x.ts")
        assert measured.report().total.lost == 0
"""
from __future__ import annotations

from collections.abc import Callable, Iterator
from contextlib import ExitStack
from typing import Any

import pytest

from .measurement import Measurement
from .netns import Wire
from .playout import Playout

GROUP = "239.1.1.1:5004"


@pytest.fixture
def wire() -> Iterator[Wire]:
    """The two ends. The test itself is at the near end; ``with wire.far:`` takes it to the far one for a while."""
    both = Wire()
    try:
        with both.near:
            yield both
    finally:
        both.close()


@pytest.fixture
def player(wire: Wire) -> Iterator[Callable[..., Playout]]:
    """Makes playouts at the near end, as ``Playout(...)`` does, by default to 239.1.1.1:5004; closed behind the test."""
    with ExitStack() as stack:
        def make(**options: Any) -> Playout:
            options.setdefault("destination", GROUP)
            playout = Playout(wire.NEAR, **options)
            stack.callback(playout.close)
            return playout
        yield make


@pytest.fixture
def meter(wire: Wire) -> Iterator[Callable[..., Measurement]]:
    """Makes measurements of what arrives at the far end, as ``Measurement(...)`` does.

    Without other orders a measurement ends by itself half a second after the last frame, or after ten without any.
    """
    with ExitStack() as stack:
        def make(**options: Any) -> Measurement:
            if not {"seconds", "count", "silence", "wait"} & options.keys():
                options |= {"silence": "500ms", "wait": "10s"}
            with wire.far:
                measurement = Measurement(wire.FAR, **options)
            stack.callback(measurement.close)
            return measurement
        yield make
