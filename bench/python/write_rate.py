# SPDX-License-Identifier: MIT
"""What Python costs: a stream that Python writes, a file that Python plays, and that file played by the C host
examples/play_files.c, in turns; and what a single call costs.

usage: write_rate.py PLAY_FILES [--rates MBIT...] [--rounds N] [--seconds N]   (IPPLAYOUT_LIBRARY and PYTHONPATH set; as root)
"""
import argparse
import json
import os
import re
import resource
import statistics
import subprocess
import sys
import tempfile
import time

import ipplayout
from ipplayout.netns import Wire

FRAME, PAYLOAD = 1370, 1316  # bytes; of FRAME the bit rate is
RATES = (100, 500, 1000)  # Mb/s
PER_PIECE = 199  # datagrams in what feed() writes at once, 256 KiB
BLOCK = bytes([0x47, 0x1F, 0xFF, 0x10] + [0xFF] * 184) * 7 * PER_PIECE
RING = 1 << 24  # bytes, as much for each host
CALLS = (1, 7, 50, PER_PIECE)  # datagrams
ENOUGH_SHARE = 0.99  # of the rate


def datagrams_of(rate, seconds):
    return round(rate * 1e6 * seconds / 8 / FRAME / PER_PIECE) * PER_PIECE


def used_by(who):
    usage = resource.getrusage(who)
    return usage.ru_utime + usage.ru_stime


# ---- One run, in a process of its own ----

def play_in_python(way, rate, seconds, path):
    """Prints what happened; "write" does it in a loop on this thread, "file" lets play() do it."""
    before = used_by(resource.RUSAGE_SELF)
    with ipplayout.Playout(Wire.NEAR, destination="239.1.1.1:5004", bit_rate=rate * 1e6, RingBytes=RING) as p:
        if way == "file":
            p.play(path)
        else:
            p.start()
            for _ in range(datagrams_of(rate, seconds) // PER_PIECE):
                p.write(BLOCK)
            p.end()
        p.wait()
        timing = p.timing()
        elapsed = (timing.last_departure_ns - timing.first_departure_ns) / 1e9
        print(json.dumps({"frames": timing.on_time + timing.late, "seconds": elapsed, "late": timing.late, "dry": timing.dry_times,
                          "used": used_by(resource.RUSAGE_SELF) - before}))


def python_run(way, rate, seconds, path):
    done = subprocess.run([sys.executable, __file__, "--child", way, str(rate), str(seconds), path], check=True, text=True,
                          stdout=subprocess.PIPE)
    return json.loads(done.stdout)


def c_run(program, rate, path):
    before, began = used_by(resource.RUSAGE_CHILDREN), time.monotonic()
    text = subprocess.run([program, str(rate), Wire.NEAR, path], check=True, text=True, stdout=subprocess.PIPE).stdout
    frames, late = map(int, re.search(r": (\d+) frames, (\d+) late", text).groups())
    # The host does not say when its frames left; its start and end are in the time.
    return {"frames": frames, "seconds": time.monotonic() - began, "late": late, "dry": None,
            "used": used_by(resource.RUSAGE_CHILDREN) - before}


# ---- Tables ----

def rates_table(program, rates, rounds, seconds):
    print("| host            | Mb/s | reached | CPU per datagram, us     | late    | dry times |")
    print("|-----------------|-----:|--------:|-------------------------:|--------:|----------:|")
    reached = {}
    with tempfile.NamedTemporaryFile(dir="/dev/shm") as file:
        for rate in rates:
            file.truncate(0)
            file.seek(0)
            for _ in range(datagrams_of(rate, seconds) // PER_PIECE):
                file.write(BLOCK)
            file.flush()
            hosts = {"C, file": lambda rate=rate: c_run(program, rate, file.name),
                     "Python, file": lambda rate=rate: python_run("file", rate, seconds, file.name),
                     "Python, written": lambda rate=rate: python_run("write", rate, seconds, file.name)}
            runs = {host: [] for host in hosts}
            for _ in range(rounds):
                for host, run in hosts.items():
                    runs[host].append(run())
            for host, results in runs.items():
                reached[host, rate] = row(host, rate, results)
    return reached


def row(host, rate, results):
    rates = [(each["frames"] - 1) * FRAME * 8 / each["seconds"] / 1e6 for each in results]
    costs = [each["used"] / each["frames"] * 1e6 for each in results]
    late = sum(each["late"] for each in results) / sum(each["frames"] for each in results)
    dry = "" if results[0]["dry"] is None else sum(each["dry"] for each in results)
    print(f"| {host:15} | {rate:4} | {statistics.median(rates):7.1f} | {statistics.median(costs):6.2f} ({min(costs):6.2f} to "
          f"{max(costs):6.2f}) | {100 * late:5.2f} % | {dry:9} |", flush=True)
    return statistics.median(rates)


def calls_table(rounds):
    """Into a ring with room, without a wire: what is left is the call and the copy."""
    print("| datagrams in a call | us for a call | us for a datagram |")
    print("|--------------------:|--------------:|------------------:|")
    costs = {}
    for datagrams in CALLS:
        piece, calls = BLOCK[:datagrams * PAYLOAD], min(10_000, RING // (datagrams * PAYLOAD))
        best = []
        for _ in range(5 * rounds):
            with ipplayout.Playout("", sink="socket", destination="127.0.0.1:5004", bit_rate=1e6, RingBytes=RING) as p:
                p.write(BLOCK)  # the ring's first pages
                p.configure()
                began = time.thread_time_ns()
                for _ in range(calls):
                    p.write(piece)
                best.append((time.thread_time_ns() - began) / calls / 1000)
        costs[datagrams] = min(best)
        print(f"| {datagrams:19} | {costs[datagrams]:13.2f} | {costs[datagrams] / datagrams:17.3f} |", flush=True)
    copy = (costs[PER_PIECE] - costs[1]) / (PER_PIECE - 1)
    call = costs[1] - copy
    print(f"\na call: {call:.2f} us, and {copy:.3f} us to copy a datagram; in pieces of {PER_PIECE} datagrams, as play() writes them, "
          f"the call is {1000 * call / PER_PIECE:.0f} ns of each")


def main():
    if sys.argv[1] == "--child":
        return play_in_python(sys.argv[2], int(sys.argv[3]), float(sys.argv[4]), sys.argv[5])
    parser = argparse.ArgumentParser()
    parser.add_argument("program")
    parser.add_argument("--rates", type=int, nargs="*", default=RATES, help="Mb/s")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=3)
    options = parser.parse_args()
    wire = Wire()
    with wire.near:
        reached = rates_table(options.program, options.rates, options.rounds, options.seconds)
        print(f"\nCPU of the whole process, median of {options.rounds} rounds and extremes; {os.cpu_count()} processors, frames of {FRAME} "
              "bytes\n")
        calls_table(options.rounds)
    wire.close()
    # The C host's time has its start and its end in it.
    slow = [key for key, rate in reached.items() if key[0] != "C, file" and rate < ENOUGH_SHARE * key[1]]
    return f"below {100 * ENOUGH_SHARE:.0f} % of the rate: {slow}" if slow else None


sys.exit(main())
