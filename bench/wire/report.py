"""Turns tables of rounds into Markdown, JSON and plots: medians over the rounds, and the worst one."""
import json
import math
import os
import platform
import statistics
from pathlib import Path

HIGHER_IS_BETTER = {"frames/s", "correlation"}


class Report:
    def __init__(self, folder):
        self.folder = Path(folder)
        self.tables = {}

    def add(self, row, table, seconds):
        self.tables[row] = table
        print(f"{markdown(table)}\n({row}: {seconds:.0f} s)\n", flush=True)

    def write(self):
        self.folder.mkdir(parents=True, exist_ok=True)
        text = machine() + "\n\n" + "\n\n".join(markdown(table) for table in self.tables.values())
        (self.folder / "yardstick.md").write_text(text + "\n")
        (self.folder / "yardstick.json").write_text(json.dumps(
            {"machine": machine(), "rows": {row: {"title": table.title, "units": table.measures, "rounds": table.rounds}
                                            for row, table in self.tables.items()}}, indent=1) + "\n")
        print(f"Written to {self.folder}")


def machine():
    cpu = next((line.split(":")[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")), "?")
    hypervisor = any("hypervisor" in line for line in open("/proc/cpuinfo") if line.startswith("flags"))
    return (f"{os.cpu_count()} × {cpu}{', virtual machine' if hypervisor else ''}, Linux {platform.release()}, "
            f"load before {os.getloadavg()[0]:.1f}")


def worst(measure, values):
    if measure in HIGHER_IS_BETTER:
        return min(values)
    return max(values, key=abs)


def shown(value):
    if math.isnan(value):
        return "never"
    magnitude = abs(value)
    if magnitude >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}" if magnitude < 100 else f"{value:.0f}"


def markdown(table):
    names = [f"{measure} ({unit})" if unit else measure for measure, unit in table.measures.items()]
    lines = [f"### {table.title}", "", "| | " + " | ".join(names) + " |", "|---" + "|--:" * len(names) + "|"]
    for sender, rounds in table.rounds.items():
        cells = []
        for measure in table.measures:
            values = [round_[measure] for round_ in rounds if measure in round_]
            cells.append(f"{shown(statistics.median(values))} ({shown(worst(measure, values))})" if values else "–")
        lines.append(f"| {sender} | " + " | ".join(cells) + " |")
    return "\n".join(lines)
