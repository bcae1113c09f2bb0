# SPDX-License-Identifier: MIT
"""What a recording says about timing. Times are nanoseconds, results microseconds and parts per million."""
import numpy


def gap_errors(times, gap):
    """How far each gap is from the nominal one: percentiles of the magnitude."""
    return spread(numpy.abs(numpy.diff(times) - gap) / 1000)


def gap_errors_by_stream(times, streams, gap):
    """The same over the gaps within each stream."""
    return spread(numpy.concatenate([numpy.abs(numpy.diff(part) - gap) / 1000 for part in by_stream(times, streams)]))


def spread(errors):
    shares = {"p50": 50, "p99": 99, "p99.9": 99.9}
    return {**{name: percentile(errors, share) for name, share in shares.items()}, "max": float(errors.max())}


def by_stream(values, streams):
    order = numpy.argsort(streams, kind="stable")
    return numpy.split(values[order], numpy.flatnonzero(numpy.diff(streams[order])) + 1)


def missing(sequence, streams):
    """RTP sequence numbers that are left out within the streams."""
    steps = [numpy.diff(part.astype(int)) % 65536 - 1 for part in by_stream(sequence, streams)]
    return int(sum(step.sum() for step in steps))


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
