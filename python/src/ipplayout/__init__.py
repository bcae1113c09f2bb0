# SPDX-License-Identifier: MIT
"""Plays MPEG transport streams as exact IP packets, and measures what arrives.

    with ipplayout.Playout("eth0", destination="239.1.1.1:5000", bit_rate=5e6) as p:
        p.play("x.ts")
        p.lose(3)
    report = ipplayout.measure("eth0", seconds=10)

Over the C interface of libipplayout (ipplayout/playouts.h) by ctypes, which comes with Python: nothing is compiled to
install it. Measurements are those of the program ipplay. Bit rates are in bits per second, times in nanoseconds where a
name ends in ``_ns``, otherwise in seconds.
"""
from .client import Client
from .errors import (BadDestination, BadPlayout, BadState, BadValue, Ended, Error, MeasurementFailed, NoAdapter,
                     NoResources, NotAllowed, NotInstalled, NotReachable, NotYet)
from .measurement import Measurement, measure
from .playout import Did, Frame, Late, Playout, Sink, Statistics, Timing, start
from .records import IpPlayoutSettings
from .report import Event, Report, Stream
from .served import ServedLineup, ServedMeter, ServedPlayout, ServerEvent

__version__ = "1.0.0"

__all__ = ["BadDestination", "BadPlayout", "BadState", "BadValue", "Client", "Did", "Ended", "Error", "Event", "Frame",
           "IpPlayoutSettings", "Late", "Measurement", "MeasurementFailed", "NoAdapter", "NoResources", "NotAllowed",
           "NotInstalled", "NotReachable", "NotYet", "Playout", "Report", "ServedLineup", "ServedMeter", "ServedPlayout",
           "ServerEvent", "Sink", "Statistics", "Stream", "Timing", "measure", "start"]
