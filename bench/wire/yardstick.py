# SPDX-License-Identifier: MIT
"""Runs the rows of the yardstick and writes what they gave. Called by run.sh, which makes the wire."""
import argparse
import tempfile
import time

from bed import Bed
from report import Report
from rows import ROWS, Yardstick
from senders import Material, Senders


def parse():
    parser = argparse.ArgumentParser(
        prog="bench/wire/run.sh", description="Measures ipplayout beside its peers."
    )
    parser.add_argument("--only", metavar="ROW", action="append", choices=ROWS, help="of " + ", ".join(ROWS))
    parser.add_argument("--long", action="store_true", help="30 s per measurement at a rate")
    parser.add_argument("--minutes", type=float, default=1, help="that the rows live and watched take")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--sender", default="", help="only senders whose name holds this text")
    parser.add_argument("--out", default="build/yardstick", help="folder for the tables and plots")
    parser.add_argument("near")
    parser.add_argument("far")
    parser.add_argument("programs")
    return parser.parse_args()


def main():
    arguments = parse()
    report = Report(arguments.out)
    with tempfile.TemporaryDirectory(prefix="yardstick-") as directory:
        bed = Bed(arguments.near, arguments.far, arguments.programs)
        yardstick = Yardstick(
            bed,
            Senders(bed, Material(directory)),
            arguments.rounds,
            30 if arguments.long else 1.5,
            arguments.sender,
            arguments.minutes,
        )
        for row in arguments.only or ROWS:
            began = time.monotonic()
            report.add(row, getattr(yardstick, row)(), time.monotonic() - began)
    report.write()


if __name__ == "__main__":
    main()
