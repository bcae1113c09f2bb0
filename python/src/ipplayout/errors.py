# SPDX-License-Identifier: MIT
"""What the library and ipplay report, as exceptions: a class for each code, the text as they gave it."""
from __future__ import annotations

from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from .report import Report


class Error(Exception):
    """What all errors of this package have in common; the text is the library's sentence."""


class NotInstalled(Error):
    """The library or ipplay was not found, or is not of this package's version."""


class BadPlayout(Error):
    """The playout is not open: it was closed."""


class BadValue(Error, ValueError):
    """A value that is not allowed; the sentence has the field, the value and what is allowed."""


class BadState(Error):
    """Not now: the playout runs, does not run, or has no settings."""


class BadDestination(Error):
    """The destination cannot be opened, or took a frame no more."""


class NoResources(Error):
    """Memory, descriptors or threads have run out."""


class Ended(Error):
    """The playout was stopped, ended or closed meanwhile."""


class NotYet(Error, TimeoutError):
    """The time given is over, and the playout goes on."""


class NoAdapter(Error):
    """There is no such adapter or file, or no permission to capture."""


class NotReachable(Error, ConnectionError):
    """The server does not answer, or broke off."""


class NotAllowed(Error, PermissionError):
    """The server wants another token, or is not known under this name."""


class MeasurementFailed(Error):
    """The measurement failed. ``report`` is what was measured before, or None."""

    def __init__(self, sentence: str, report: Report | None = None) -> None:
        super().__init__(sentence)
        self.report = report


# By the results of playouts.h.
BY_CODE: dict[int, type[Error]] = {
    -1: BadPlayout, -2: BadValue, -3: BadState, -4: BadDestination, -5: NoResources, -6: Ended, -7: NotYet}
