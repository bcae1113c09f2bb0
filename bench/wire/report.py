# SPDX-License-Identifier: MIT
"""Turns tables of rounds into Markdown and JSON: medians over the rounds, and the worst one.

A folder gathers rows over several runs: those of the present one take the place of older ones.
"""
import json
import math
import os
import platform
import statistics
import time
from pathlib import Path

import plots
import targets

HIGHER_IS_BETTER = {"frames/s", "correlation"}


class Report:
    def __init__(self, folder):
        self.folder = Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.json = self.folder / "yardstick.json"
        self.rows = json.loads(self.json.read_text()) if self.json.exists() else {}
        self.machine = machine()

    def add(self, row, table, seconds):
        self.rows[row] = {
            "title": table.title,
            "units": table.measures,
            "rounds": table.rounds,
            "machine": self.machine,
            "curves": table.curves,
        }
        print(f"{markdown(self.rows[row])}\n({row}: {seconds:.0f} s)\n", flush=True)

    def write(self):
        self.json.write_text(json.dumps(self.rows) + "\n")
        machines = dict.fromkeys(row["machine"] for row in self.rows.values())
        text = [
            "\n".join(machines),
            *(markdown(row) for row in self.rows.values()),
            targets.markdown(self.rows),
        ]
        (self.folder / "yardstick.md").write_text("\n\n".join(text) + "\n")
        plots.draw(self.rows, self.folder)
        print(f"Written to {self.folder}")


def machine():
    """The machine, and how busy it was before anything was measured: noise that all senders share."""
    lines = Path("/proc/cpuinfo").read_text().splitlines()
    model = next(
        (line.split(":")[1].strip() for line in lines if line.startswith("model name")), "unknown processor"
    )
    virtual = ", virtual machine" if any("hypervisor" in line for line in lines) else ""
    before = busy_ticks()
    time.sleep(1)
    busy, total = (after - first for after, first in zip(busy_ticks(), before))
    return (
        f"{os.cpu_count()} × {model}{virtual}, Linux {platform.release()}, "
        f"{time.strftime('%Y-%m-%d %H:%M %Z')}, "
        f"{100 * busy / total:.0f} % of the processors busy with something else before the run"
    )


def busy_ticks():
    ticks = [int(field) for field in Path("/proc/stat").read_text().splitlines()[0].split()[1:9]]
    return sum(ticks) - ticks[3] - ticks[4], sum(ticks)


def worst(measure, values):
    return min(values) if measure in HIGHER_IS_BETTER else max(values, key=abs)


def shown(value):
    if math.isnan(value):
        return "never"
    if abs(value) >= 100:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def markdown(row):
    names = [f"{measure} ({unit})" if unit else measure for measure, unit in row["units"].items()]
    lines = [
        f"### {row['title']}",
        "",
        "| median (worst round) | " + " | ".join(names) + " |",
        "|---" + "|--:" * len(names) + "|",
    ]
    for sender, rounds in row["rounds"].items():
        cells = []
        for measure in row["units"]:
            values = [measured[measure] for measured in rounds if measure in measured]
            cells.append(
                f"{shown(statistics.median(values))} ({shown(worst(measure, values))})" if values else "–"
            )
        lines.append(f"| {sender} | " + " | ".join(cells) + " |")
    return "\n".join(lines)
