# SPDX-License-Identifier: MIT
"""What the tests of the package share: its own fixtures, and streams."""
import pathlib
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests" / "wire"), str(ROOT / "tests" / "measure")]

pytest_plugins = ["ipplayout.pytest_plugin"]


def packets(count):
    """Transport packets that all differ: of one PID, numbered by their counter and in their payload."""
    return b"".join(bytes((0x47, 0x01, 0x00, 0x10 | number & 0xF)) + number.to_bytes(4, "big") * 46 for number in range(count))


@pytest.fixture
def stream(tmp_path):
    """A path with 2,000 datagrams of seven packets."""
    path = tmp_path / "stream.ts"
    path.write_bytes(packets(14_000))
    return path
