# SPDX-License-Identifier: MIT
"""What a row of the yardstick gives."""
from dataclasses import dataclass, field


@dataclass
class Table:
    title: str
    measures: dict  # name: unit
    rounds: dict = field(default_factory=dict)  # sender: [{measure: value}, one per round]
    curves: dict = field(default_factory=dict)  # for the plots: name: (x, y)

    def add(self, sender, measured):
        self.rounds.setdefault(sender, []).append(measured)

    def draw(self, name, x, y):
        """Keeps a curve, thinned where it has more points than a plot can show."""
        step = max(1, len(x) // 2000)
        self.curves[name] = [[float(f"{value:.6g}") for value in values[::step]] for values in (x, y)]
