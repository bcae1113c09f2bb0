# SPDX-License-Identifier: MIT
"""The bench: the fixtures of ipplayout, a receiver at the far end, and a stream."""
from __future__ import annotations

import pathlib
from collections.abc import Iterator

import pytest
from ipplayout.netns import Wire
from receiver import Receiver

pytest_plugins = ["ipplayout.pytest_plugin"]


@pytest.fixture
def stream(tmp_path: pathlib.Path) -> pathlib.Path:
    """A path with 1,000 datagrams of seven packets of 188 bytes that all differ."""
    path = tmp_path / "stream.ts"
    path.write_bytes(b"".join(bytes((0x47, 0x01, 0x00, 0x10 | number & 0xF)) + number.to_bytes(4, "big") * 46
                              for number in range(7000)))
    return path


@pytest.fixture
def receiver(wire: Wire) -> Iterator[Receiver]:
    """At the far end of the wire, where the player's group arrives."""
    with wire.far:
        receiver = Receiver("239.1.1.1", 5004, wire.FAR_ADDRESS)
    yield receiver
    receiver.close()


@pytest.fixture
def fec_receiver(wire: Wire) -> Iterator[Receiver]:
    """One that repairs, with a window of more than two matrices of FEC."""
    with wire.far:
        receiver = Receiver("239.1.1.1", 5004, wire.FAR_ADDRESS, window=50, fec=True)
    yield receiver
    receiver.close()
