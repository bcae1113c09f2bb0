# SPDX-License-Identifier: MIT
"""Draws what the tables cannot show: tails of gap errors, recovery after silence, jitter patterns."""
import matplotlib

matplotlib.use("Agg")
from matplotlib import pyplot  # noqa: E402  the backend has to be chosen first

COLOURS = {
    "ipplay": "crimson",
    "ipplay --economy": "lightcoral",
    "library": "darkred",
    "bare pacing": "black",
    "tcpreplay (gtod)": "royalblue",
    "tcpreplay (nano)": "steelblue",
    "tcpreplay (select)": "skyblue",
    "multicat": "seagreen",
    "multicat -i": "limegreen",
    "GStreamer": "darkorange",
    "ffmpeg": "mediumpurple",
}
FIGURES = {"gaps": ["rate10", "rate100", "rate950"], "catch_up": ["catch_up"], "patterns": ["patterns"]}


def draw(rows, folder):
    pyplot.rcParams.update(
        {"font.size": 8, "svg.hashsalt": "yardstick", "axes.spines.top": False, "axes.spines.right": False}
    )
    for name, needed in FIGURES.items():
        if all(row in rows for row in needed):
            figure = globals()[f"draw_{name}"](rows)
            figure.savefig(folder / f"{name}.svg", metadata={"Date": None})
            figure.savefig(folder / f"{name}.png", dpi=110)
            pyplot.close(figure)


def draw_gaps(rows):
    figure, panels = pyplot.subplots(1, 3, figsize=(12, 4), layout="constrained")
    for panel, row, rate in zip(panels, FIGURES["gaps"], ("10 Mb/s", "100 Mb/s", "950 Mb/s")):
        for sender, (errors, share) in rows[row]["curves"].items():
            own = sender.startswith(("ipplay", "library"))
            panel.loglog(
                [max(error, 0.05) for error in errors],
                share,
                label=sender,
                color=COLOURS[sender],
                linewidth=2.4 if own else 1,
                linestyle="--" if sender == "bare pacing" else "-",
            )
        panel.set(title=rate, xlabel="gap error (µs)", ylabel="share of gaps with at least this error")
        panel.legend(frameon=False)
    return figure


def draw_catch_up(rows):
    curves = list(rows["catch_up"]["curves"].items())
    figure, panels = pyplot.subplots(2, 3, figsize=(12, 5), layout="constrained", sharex=True)
    for panel, (name, (times, late)) in zip(panels.T.flat, curves):
        panel.plot(times, late, ".", markersize=2)
        panel.set(title=name, xlabel="arrival (s)", ylabel="behind the grid (ms)")
    return figure


def draw_patterns(rows):
    curves = list(rows["patterns"]["curves"].items())
    figure, panels = pyplot.subplots(len(curves), 1, figsize=(10, 1.9 * len(curves)), layout="constrained")
    for panel, (name, (measured, computed)) in zip(panels, curves):
        panel.step(range(len(measured)), measured, where="mid", label="measured")
        panel.plot(range(len(computed)), computed, ".", color="black", markersize=4, label="computed")
        panel.set(title=name, ylabel="gap (µs)")
    panels[0].legend(frameon=False, loc="upper right")
    panels[-1].set_xlabel("frame")
    return figure
