# SPDX-License-Identifier: MIT
"""The row for `ipplay serve`: many channels, with nobody watching and with everything that watches."""
import json
import subprocess
import sys
import time
from contextlib import ExitStack, contextmanager, nullcontext
from pathlib import Path

import analysis
from bed import end_group
from senders import PORT, gap_ns
from table import Table

CHANNELS, MEGABITS = 200, 2  # of frames
LOOP = 10  # seconds of each file
SERVER, PROMETHEUS = "127.0.0.1:8080", "127.0.0.1:9090"
WARM_UP = 5  # seconds
LAST_IN_LINE = ["nice", "-n", "19"]  # on a bench these run on another machine


class ServeRows:
    def watched(self):
        """200 channels of 200 files; then with the page in Chromium, and Prometheus that asks once a second."""
        seconds = self.minutes * 60
        table = Table(
            f"{CHANNELS} channels of {MEGABITS} Mb/s from {CHANNELS} files by `ipplay serve`, {self.minutes:g} min: gap error",
            {"p50": "µs", "p99": "µs", "p99.9": "µs", "max": "µs", "cpu": "%", "missing": "", "scrapes": "", "figures on the page": ""},
        )
        lineup = self.write_lineup()

        def measure(_, watchers):
            with self.serve(lineup) as server, watchers() as seen:
                time.sleep(WARM_UP)
                spent = server.cpu_ns()
                with self.bed.recording() as result:
                    time.sleep(seconds)
                spent = server.cpu_ns() - spent
                watched = seen()
            recording = result[0]
            return {
                **analysis.gap_errors_by_stream(recording.times, recording.destinations, gap_ns(MEGABITS)),
                "cpu": spent / seconds / 1e7,
                "missing": analysis.missing(recording.sequence, recording.destinations), **watched,
            }

        return self.alternate({"nobody watches": lambda: nullcontext(dict), "page, metrics, Prometheus": self.everybody}, table, measure)

    def write_lineup(self):
        folder = self.senders.material.directory
        stream = self.senders.material.stream(MEGABITS, LOOP)
        channels = [f'[defaults]\ndevice = "{self.bed.NEAR}"\nloop = "forever"\nframe-bitrate = "{MEGABITS}M"\n']
        media = folder / "media"
        media.mkdir(exist_ok=True)
        for number in range(CHANNELS):
            (media / f"{number}.ts").write_bytes(stream.read_bytes())
            channels.append(f'[[channel]]\nname = "c{number}"\ninput = "media/{number}.ts"\nto = "rtp://239.1.0.{number}:{PORT}"\n')
        folder.chmod(0o755)  # the server reads as nobody
        return "".join(channels)

    @contextmanager
    def serve(self, lineup):
        subprocess.run([*self.bed.near, "ip", "link", "set", "lo", "up"], check=True)
        media = self.senders.material.directory / "media"
        with self.bed.sender([self.senders.ipplay_program, "serve", "--media", media, "--listen", SERVER]) as server:
            order = json.dumps({"name": "all", "text": lineup})
            post = ["curl", "-s", "-f", "--retry", "20", "--retry-connrefused", "-H", "Content-Type: application/json", "-d", "@-"]
            address = f"http://{SERVER}/api/v1/lineups"
            subprocess.run([*self.bed.near, *post, address], input=order, text=True, stdout=subprocess.DEVNULL, check=True)
            yield server

    @contextmanager
    def everybody(self):
        folder = self.senders.material.directory
        settings = folder / "prometheus.yml"
        settings.write_text(
            "global: {scrape_interval: 1s}\n"
            f"scrape_configs: [{{job_name: ipplay, static_configs: [{{targets: ['{SERVER}']}}]}}]\n"
        )
        prometheus = ["prometheus", f"--config.file={settings}", f"--storage.tsdb.path={folder}/tsdb"]
        prometheus += [f"--web.listen-address={PROMETHEUS}", "--log.level=error"]
        page = [sys.executable, Path(__file__).with_name("watch_page.py"), f"http://{SERVER}/"]
        with ExitStack() as stack:
            processes = []
            for command in (prometheus, page):
                process = subprocess.Popen(
                    [*self.bed.near, *LAST_IN_LINE, *command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                    stderr=subprocess.DEVNULL, text=True, start_new_session=True,
                )
                stack.callback(end_group, process)
                processes.append(process)
            if processes[1].stdout.readline() != "ready\n":
                raise RuntimeError("the page does not show the channels")
            yield lambda: self.seen(processes[1])

    def seen(self, page):
        """What both have seen: proof that they watched."""
        query = "http://" + PROMETHEUS + "/api/v1/query?query=sum(count_over_time(up%7Bjob%3D%22ipplay%22%7D%5B1d%5D))"
        asked = subprocess.run([*self.bed.near, "curl", "-s", "-f", query], capture_output=True, text=True, check=True).stdout
        return {
            "scrapes": int(json.loads(asked)["data"]["result"][0]["value"][1]),
            "figures on the page": int(page.communicate("\n")[0]),
        }
