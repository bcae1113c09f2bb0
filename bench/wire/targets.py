# SPDX-License-Identifier: MIT
"""What the library sets out to reach, as ratios within one run, beside what it reached."""
import statistics

AT_MOST, AT_LEAST = "≤", "≥"


class Medians:
    """Looks up medians by row, sender and measure; a missing row raises KeyError."""

    def __init__(self, rows):
        self.rows = rows

    def of(self, row, sender, measure):
        return statistics.median(measured[measure] for measured in self.rows[row]["rounds"][sender])

    def least(self, row, measure, *names):
        """The best of the senders whose names begin with one of these."""
        return min(
            self.of(row, sender, measure) for sender in self.rows[row]["rounds"] if sender.startswith(names)
        )

    def all(self, row, measure):
        return [self.of(row, sender, measure) for sender in self.rows[row]["rounds"]]


PEERS = ("tcpreplay", "multicat", "GStreamer", "ffmpeg")


def gap_ratio(row, measure, *peers):
    return lambda m: m.of(row, "ipplay", measure) / m.least(row, measure, *peers)


def rate(row, sender="ipplay"):
    return lambda m: abs(m.of(row, sender, "rate"))


TARGETS = [
    (
        "top speed / bare sendmmsg",
        AT_LEAST,
        0.95,
        lambda m: m.of("top", "library", "frames/s") / m.of("top", "bare sendmmsg", "frames/s"),
    ),
    (
        "top speed / tcpreplay",
        AT_LEAST,
        1.7,
        lambda m: m.of("top", "library", "frames/s") / m.of("top", "tcpreplay --topspeed", "frames/s"),
    ),
    ("10 Mb/s, gap error p99 / tcpreplay", AT_MOST, 1, gap_ratio("rate10", "p99", "tcpreplay")),
    ("10 Mb/s, processor (%)", AT_MOST, 12, lambda m: m.of("rate10", "ipplay", "cpu")),
    (
        "10 Mb/s, --economy: gap error p99 / multicat",
        AT_MOST,
        1,
        lambda m: m.of("rate10", "ipplay --economy", "p99") / m.least("rate10", "p99", "multicat"),
    ),
    ("10 Mb/s, --economy: processor (%)", AT_MOST, 3, lambda m: m.of("rate10", "ipplay --economy", "cpu")),
    ("10 Mb/s, gap error p99.9 / best peer", AT_MOST, 0.5, gap_ratio("rate10", "p99.9", *PEERS)),
    ("100 Mb/s, gap error p99 / tcpreplay", AT_MOST, 1, gap_ratio("rate100", "p99", "tcpreplay")),
    ("950 Mb/s, gap error p99 / tcpreplay", AT_MOST, 1, gap_ratio("rate950", "p99", "tcpreplay")),
    ("2 Mb/s, rate error (ppm)", AT_MOST, 5, rate("rate2")),
    ("10 Mb/s, rate error (ppm)", AT_MOST, 5, rate("rate10")),
    ("100 Mb/s, rate error (ppm)", AT_MOST, 5, rate("rate100")),
    ("950 Mb/s, rate error (ppm)", AT_MOST, 5, rate("rate950")),
    ("4 Gb/s, rate error (ppm)", AT_MOST, 5, rate("rate4000", "library")),
    ("busy processors, gap error p99 / tcpreplay", AT_MOST, 0.5, gap_ratio("busy", "p99", "tcpreplay")),
    (
        "busy processors, delay afterwards (µs)",
        AT_MOST,
        10,
        lambda m: abs(m.of("busy", "ipplay", "delay after")),
    ),
    (
        "1,000 streams, cost of a frame / one stream",
        AT_MOST,
        1.1,
        lambda m: m.of("copies", "1,000 streams", "cpu/frame") / m.of("copies", "1 stream", "cpu/frame"),
    ),
    ("1,000 streams, rate error (ppm)", AT_MOST, 5, rate("copies", "1,000 streams")),
    ("IPStart to first frame (ms)", AT_MOST, 3, lambda m: m.of("start", "library", "p50")),
    ("patterns, least correlation", AT_LEAST, 0.99, lambda m: min(m.all("patterns", "correlation"))),
    ("patterns, largest median offset (µs)", AT_MOST, 5, lambda m: max(m.all("patterns", "median offset"))),
    ("pump work on a frame (ns)", AT_MOST, 250, lambda m: m.of("pump", "FramePath/ipv4/1", "time")),
    ("checksum in it (ns)", AT_MOST, 60, lambda m: m.of("pump", "UdpChecksum", "time")),
]


def markdown(rows):
    medians = Medians(rows)
    lines = ["### Targets", "", "| | target | reached | |", "|---|--:|--:|---|"]
    for text, relation, limit, value in TARGETS:
        try:
            reached = value(medians)
        except KeyError:
            continue  # not measured
        met = reached <= limit if relation == AT_MOST else reached >= limit
        lines.append(f"| {text} | {relation} {limit} | {reached:.3g} | {'met' if met else 'missed'} |")
    return "\n".join(lines)
