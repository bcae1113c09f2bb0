# SPDX-License-Identifier: MIT
"""What a recording says about timing. Times are nanoseconds, results microseconds and parts per million."""
import numpy


def gap_errors(times, gap):
    """How far each gap is from the nominal one: percentiles of the magnitude."""
    errors = numpy.abs(numpy.diff(times) - gap) / 1000
    return {
        "p50": percentile(errors, 50),
        "p99": percentile(errors, 99),
        "p99.9": percentile(errors, 99.9),
        "max": float(errors.max()),
    }


def percentile(values, share):
    return float(numpy.percentile(values, share))


def rate_error(times, gap):
    """Deviation of the mean rate, from the line through all arrivals, so that late ones count little."""
    index = numpy.arange(len(times)) - (len(times) - 1) / 2
    slope = (index * (times - times[0])).sum() / (index * index).sum()
    return float((gap / slope - 1) * 1e6)


def lateness(times, gap):
    """How late each frame is against a grid of nominal gaps that nearly all frames of the beginning reach."""
    late = (times - times[0]) - numpy.arange(len(times)) * gap
    return (late - numpy.percentile(late[: max(10, len(late) // 10)], 10)) / 1000
