# SPDX-License-Identifier: MIT
"""The gaps that jitter is defined to give, worked out apart from the library.

Each frame but the first of a batch is moved by an offset that depends on the gap T, the amount P and,
for two of the patterns, on its running number:
  square (P in us)    +P/2 for even frames, -P/2 for odd ones
  sine (P in %)       sin(number * 22/7 * 0.02) * P% of T
  gaussian            a normal variate of deviation 0.25 within -1..1, times P% of T
  squared difference  (u^2 - v^2) * P% of T for two uniform variates
The random ones take their variates from the library's generator, seeded with the system's count of
milliseconds at the start of the run.
"""
import math

import numpy

MASK = (1 << 64) - 1
SQUARE, GAUSSIAN, SQUARED_DIFFERENCE, SINE = range(4)
NAMES = ["square", "gaussian", "squared difference", "sine"]


class Variates:
    """SplitMix64 (Steele, Lea, Flood 2014), its upper 15 bits."""

    def __init__(self, seed):
        self.state = seed

    def next(self):
        self.state = (self.state + 0x9E3779B97F4A7C15) & MASK
        z = self.state
        z = ((z ^ (z >> 30)) * 0xBF58476D1CE4E5B9) & MASK
        z = ((z ^ (z >> 27)) * 0x94D049BB133111EB) & MASK
        return (z ^ (z >> 31)) >> 49


def gaussian(variates):
    while True:
        a = variates.next() % 100 / 100
        b = variates.next() % 100 / 100
        if a > 0:
            z = 0.25 * math.sqrt(-2 * math.log(a)) * math.cos(b * 44 / 7)
            if -1 <= z <= 1:
                return z


def squared_difference(variates):
    u = variates.next() / 32767
    v = variates.next() / 32767
    return u * u - v * v


def offset(pattern, amount, gap_us, number, variates):
    if pattern == SQUARE:
        return amount / 2 if number % 2 == 0 else -amount / 2
    share = amount / 100 * gap_us
    if pattern == SINE:
        return math.sin(number * 22 / 7 * 0.02) * share
    return (gaussian if pattern == GAUSSIAN else squared_difference)(variates) * share


def gaps(pattern, amount, gap_us, batch, frames, seed=0):
    """The gap before each frame in microseconds; NaN before the first of a batch, which pacing decides."""
    variates = Variates(seed)
    result = numpy.full(frames, numpy.nan)
    for number in range(frames):
        if number % batch != 0:
            moved = max(offset(pattern, amount, gap_us, number, variates), -gap_us)
            result[number] = int(gap_us) + int(moved)  # stamps are whole microseconds
    return result


def agreement(measured, computed):
    """Correlation of two lists of gaps, and the median of how far they are apart."""
    known = ~numpy.isnan(computed[1 : len(measured) + 1])
    m, c = measured[known], computed[1 : len(measured) + 1][known]
    return float(numpy.corrcoef(m, c)[0, 1]), float(numpy.median(numpy.abs(m - c)))


def best_agreement(measured, pattern, amount, gap_us, batch, seeds):
    """Agreement, and the computed gaps, with the seed that explains the first frames best."""
    if pattern in (SQUARE, SINE):
        seeds = [0]
    probe = min(len(measured), 200)
    seed = max(
        seeds,
        key=lambda s: agreement(measured[:probe], gaps(pattern, amount, gap_us, batch, probe + 1, s))[0],
    )
    computed = gaps(pattern, amount, gap_us, batch, len(measured) + 1, seed)
    return *agreement(measured, computed), computed[1:]
