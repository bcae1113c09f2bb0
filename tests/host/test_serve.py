# SPDX-License-Identifier: MIT
"""`ipplay serve`: the interface against its document, playouts and meters over a wire, events, metrics."""
import json
import os
import re
import signal
import subprocess
import sys
import time
import unittest
import urllib.parse

from playbed import FAR4, HERE, SAMPLE
from servebed import API, ServeCase, read_events
from test_documents import documented_fields

SEND_FOREVER = """
import itertools, socket, sys, time
with open(sys.argv[1], "rb") as file:
    datagrams = list(iter(lambda: file.read(1316), b""))
sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
for datagram in itertools.cycle(datagrams):
    sender.sendto(datagram, (sys.argv[2], int(sys.argv[3])))
    time.sleep(0.001)
"""


def read_text(*path):
    with open(os.path.join(HERE, "..", "..", *path), encoding="utf-8") as file:
        return file.read()


class Schemas:
    """Judges values by the schemas of the document, as far as it uses the language."""
    TYPES = {"string": str, "integer": int, "number": (int, float), "boolean": bool, "array": list, "object": dict}

    def __init__(self, document):
        self.document = document

    def resolve(self, schema):
        while "$ref" in schema:
            target = self.document
            for part in schema["$ref"].removeprefix("#/").split("/"):
                target = target[part]
            schema = {**target, **{name: value for name, value in schema.items() if name != "$ref"}}
        return schema

    def fields(self, schema, path=""):
        """Paths as in docs/json.md."""
        schema = self.resolve(schema)
        if "properties" in schema:
            return set().union(*(self.fields(part, f"{path}.{name}") for name, part in schema["properties"].items()))
        if schema.get("type") == "array" and "properties" in self.resolve(schema["items"]):
            return self.fields(schema["items"], path + "[]")
        return {path}

    def faults(self, value, schema, path=""):
        schema = self.resolve(schema)
        if value is None:
            return [] if schema.get("nullable") else [f"{path}: null"]
        if "oneOf" in schema:
            return [] if any(not self.faults(value, one) for one in schema["oneOf"]) else [f"{path}: none of its forms"]
        kind = self.TYPES[schema.get("type", "object")]
        if not isinstance(value, kind) or (isinstance(value, bool) and kind is not bool):
            return [f"{path}: {value!r} is no {schema['type']}"]
        if "enum" in schema and value not in schema["enum"]:
            return [f"{path}: {value!r} is none of {schema['enum']}"]
        if isinstance(value, list):
            return [fault for index, part in enumerate(value) for fault in self.faults(part, schema["items"], f"{path}[{index}]")]
        return self.of_object(value, schema, path) if isinstance(value, dict) else []

    def of_object(self, value, schema, path):
        properties, others = schema.get("properties", {}), schema.get("additionalProperties", "properties" not in schema)
        faults = [f"{path}.{name}: missing" for name in schema.get("required", ()) if name not in value]
        for name, part in value.items():
            if name in properties:
                faults += self.faults(part, properties[name], f"{path}.{name}")
            elif not others:
                faults.append(f"{path}.{name}: not in the document")
            elif isinstance(others, dict):
                faults += self.faults(part, others, f"{path}.{name}")
        return faults


class Contract(ServeCase):
    """Every operation of the document is done, and its answers are as it says."""
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.document = json.loads(read_text("docs", "openapi.json"))
        cls.schemas = Schemas(cls.document)
        cls.done = set()

    def operate(self, method, template, status, body=None, **places):
        operation = self.document["paths"][template][method]
        target = template
        for name, value in places.items():
            target = target.replace("{%s}" % name, urllib.parse.quote(value, safe="/" if name == "file" else ""))
        query = {part["name"]: places[part["name"]] for part in operation.get("parameters", ())
                 if part["in"] == "query" and part["name"] in places}
        target += "?" + urllib.parse.urlencode(query) if query else ""
        answer = self.server.ask(method.upper(), target, body)
        self.assertEqual(answer.status, status, (method, target, answer.body))
        described = operation["responses"][str(status)]
        for content_type, content in described.get("content", {}).items():
            if content_type == "application/json":
                self.assertEqual(self.schemas.faults(answer.json(), content["schema"]), [], (method, template))
        self.done.add((method, template, status))
        return answer

    def test_every_operation_answers_as_the_document_says(self):
        order = {"options": {"input": "streams/sample.ts", "to": f"rtp://{FAR4}:5004", "loop": "forever", "device": self.bed.NEAR}}
        lineup = f'[[channel]]\nname = "one"\ninput = "streams/sample.ts"\nto = "rtp://{FAR4}:5006"\ndevice = "{self.bed.NEAR}"\n'
        one, of_meter, of_lineup = f"{API}/playouts/{{name}}", f"{API}/meters/{{name}}", f"{API}/lineups/{{name}}"
        for method, path, status, body, places in (
                ("get", API, 200, None, {}), ("get", f"{API}/devices", 200, None, {}), ("get", f"{API}/openapi.json", 200, None, {}),
                ("get", f"{API}/media", 200, None, {}), ("get", f"{API}/media/facts", 200, None, {"path": "streams/sample.ts"}),
                ("get", f"{API}/media/facts", 404, None, {"path": "streams/missing.ts"}), ("get", f"{API}/media/facts", 400, None, {}),
                ("get", f"{API}/media/thumbnail", 200, None, {"path": "streams/sample.ts", "service": "1"}),
                ("get", f"{API}/media/thumbnail", 404, None, {"path": "streams/sample.ts", "service": "2"}),
                ("get", f"{API}/media/thumbnail", 400, None, {"path": "streams/sample.ts"}),
                ("get", "/metrics", 200, None, {}), ("get", "/", 200, None, {}),
                ("get", "/page/{file}", 200, None, {"file": "dygraphs/dygraph.min.js"}), ("get", "/page/{file}", 404, None, {"file": "no"}),
                ("post", f"{API}/plan", 200, {"options": {**order["options"], "vlan": 5}}, {}),
                ("post", f"{API}/plan", 400, {"options": {"input": "streams/sample.ts"}}, {}),
                ("post", f"{API}/playouts", 201, {**order, "name": "a/b c", "restart": "on-failure", "restart_after_ns": 5}, {}),
                ("post", f"{API}/playouts", 409, {**order, "name": "a/b c"}, {}), ("post", f"{API}/playouts", 400, {"name": 1}, {}),
                ("get", f"{API}/playouts", 200, None, {}),
                *((method, one + verb, 404, body, {"name": "none"}) for method, verb, body in (
                    ("get", "", None), ("delete", "", None), ("post", "/start", None), ("post", "/pause", None), ("post", "/resume", None),
                    ("post", "/stop", None), ("post", "/change", {}), ("post", "/faults", {"kind": "lose"}))),
                *(("post", one + verb, 409, body, {"name": "a/b c"}) for verb, body in (
                    ("/pause", None), ("/resume", None), ("/change", {"ppm": 1}), ("/faults", {"kind": "lose"}))),
                ("post", one + "/start", 200, None, {"name": "a/b c"}), ("post", one + "/start", 409, {}, {"name": "a/b c"}),
                ("post", one + "/start", 400, {"at_ns": "soon"}, {"name": "a/b c"}), ("get", one, 200, None, {"name": "a/b c"}),
                ("post", one + "/pause", 200, None, {"name": "a/b c"}), ("post", one + "/resume", 200, None, {"name": "a/b c"}),
                ("post", one + "/change", 200, {"ppm": 5, "bitrate": "1M"}, {"name": "a/b c"}),
                ("post", one + "/change", 400, {"ppm": 1e9}, {"name": "a/b c"}),
                ("post", one + "/change", 400, {"bitrate": "x"}, {"name": "a/b c"}),
                ("post", one + "/faults", 200, {"kind": "delay", "count": 1}, {"name": "a/b c"}),
                ("post", one + "/faults", 400, {"kind": "drop"}, {"name": "a/b c"}),
                ("post", one + "/faults", 400, {"kind": "break"}, {"name": "a/b c"}),
                ("post", one + "/faults", 400, {"kind": "break", "length_ns": 5, "count": 2}, {"name": "a/b c"}),
                ("post", one + "/stop", 200, None, {"name": "a/b c"}), ("delete", one, 204, None, {"name": "a/b c"}),
                ("post", f"{API}/meters", 201, {"name": "m", "options": {"source": self.bed.NEAR, "no-ts": True}}, {}),
                ("post", f"{API}/meters", 409, {"name": "m", "options": {"source": self.bed.NEAR}}, {}),
                ("post", f"{API}/meters", 400, {"options": {"source": SAMPLE}}, {}),
                ("get", f"{API}/meters", 200, None, {}), ("get", of_meter, 200, None, {"name": "m"}),
                ("get", of_meter + "/report", 409, None, {"name": "m"}), ("post", of_meter + "/stop", 200, None, {"name": "m"}),
                ("get", of_meter + "/report", 200, None, {"name": "m"}), ("delete", of_meter, 204, None, {"name": "m"}),
                *((method, of_meter + verb, 404, None, {"name": "m"}) for method, verb in (
                    ("get", ""), ("delete", ""), ("post", "/stop"), ("get", "/report"))),
                ("post", f"{API}/lineups", 201, {"name": "l", "text": lineup, "start": False}, {}),
                ("post", f"{API}/lineups", 409, {"name": "l", "text": lineup}, {}),
                ("post", f"{API}/lineups", 400, {"name": "k", "text": lineup.replace("input", "inputs")}, {}),
                ("get", f"{API}/lineups", 200, None, {}), ("get", of_lineup, 200, None, {"name": "l"}),
                ("post", of_lineup + "/start", 200, None, {"name": "l"}), ("post", of_lineup + "/stop", 200, None, {"name": "l"}),
                ("delete", of_lineup, 204, None, {"name": "l"}),
                *((method, of_lineup + verb, 404, None, {"name": "l"}) for method, verb in (
                    ("get", ""), ("delete", ""), ("post", "/start"), ("post", "/stop")))):
            with self.subTest(operation=(method, path, status)):
                self.operate(method, path, status, body, **places)
        with self.server.stream(f"{API}/events?after=0") as stream:
            events = read_events(stream, lambda event: event["event"] == "figures")
        content = self.document["paths"][f"{API}/events"]["get"]["responses"]["200"]["content"]["text/event-stream"]
        self.assertEqual([fault for event in events for fault in self.schemas.faults(event, content["schema"])], [])
        self.done.add(("get", f"{API}/events", 200))
        described = {(method, path, int(status)) for path, operations in self.document["paths"].items()
                     for method, operation in operations.items() for status in operation["responses"]}
        self.assertEqual({one for one in described - self.done if one[2] not in (429, 503)}, set())

    def test_every_field_is_described(self):
        # Lists and figures have fields of these.
        same = {"PlayoutList.playouts[]": "Playout", "Lineup.playouts[]": "Playout", "FiguresEvent.playouts[]": "Playout",
                "MeterList.meters[]": "Meter", "FiguresEvent.meters[]": "Meter", "LineupList.lineups[]": "Lineup"}
        names = set()
        for name in self.document["components"]["schemas"]:
            if name == "Error" or not name.endswith(("Order", "Devices", "Options", "Start", "Change", "Fault", "MediaFile")):
                names |= self.schemas.fields({"$ref": f"#/components/schemas/{name}"}, name)
        for start, whole in same.items():
            names = {name.replace(start, whole, 1) if name.startswith(start + ".") else name for name in names}
        names = {name for name in names if not re.match(r"(PlayoutList|MeterList|LineupList|FiguresEvent)\.", name)}
        self.assertEqual(names, documented_fields("ipplay serve"))

    def test_methods_that_the_document_does_not_have_are_refused(self):
        for path, operations in self.document["paths"].items():
            answer = self.server.ask("PATCH", path.replace("{file}", "index.html").replace("{name}", "x"))
            self.assertEqual((answer.status, set(answer.headers["Allow"].lower().split(", "))), (405, set(operations)), path)


class OverTheWire(ServeCase):
    @classmethod
    def prepare(cls):
        # A capture does not see what is sent through its own adapter.
        cls.bed.near.run("sh", "-c", "ip link add wire0 type veth peer name wire1; ip link set wire0 up; ip link set wire1 up;"
                         "ip address add 10.78.0.1/24 dev wire0")

    def test_an_input_that_comes_at_its_own_pace_is_waited_for_by_its_playout_alone(self):
        options = {"to": "rtp://239.1.1.1:5004", "device": "wire0"}
        live = self.server.post(f"{API}/playouts", {"start": True, "options": {**options, "input": "udp://10.78.0.1:5000"}}, 201)
        path = f"{API}/playouts/{live['name']}"
        self.assertEqual((live["state"], live["starts"]), ("waiting", 0))
        self.assertEqual(self.server.ask("POST", path + "/start").status, 409)
        other = self.server.post(f"{API}/playouts", {"start": True, "options": {**options, "input": "streams/sample.ts"}}, 201)
        self.assertEqual((other["state"], other["starts"]), ("playing", 1))
        stopped = self.server.post(path + "/stop")
        self.assertEqual((stopped["state"], stopped["starts"]), ("stopped", 0))
        with self.server.stream(f"{API}/events") as stream:
            self.assertEqual(self.server.post(path + "/start")["state"], "waiting")
            sender = subprocess.Popen([sys.executable, "-c", SEND_FOREVER, SAMPLE, "10.78.0.1", "5000"], preexec_fn=self.bed.near.enter)
            self.addCleanup(sender.wait)
            self.addCleanup(sender.kill)
            read_events(stream, lambda event: event["event"] == "playout" and event["state"] == "playing")
        self.assertIn("clock of its input is followed", self.server.post(path + "/change", {"ppm": 5}, 400)["error"])
        stopped = self.server.post(path + "/stop")
        self.assertEqual((stopped["state"], stopped["starts"], stopped["follows_pcrs"]), ("stopped", 1, True))

    def test_a_meter_counts_what_was_ordered(self):
        meter = self.server.post(f"{API}/meters", {"options": {"source": "wire1", "filter": "udp port 5004"}}, 201)["name"]
        with self.server.stream(f"{API}/events") as stream:
            one = self.server.post(f"{API}/playouts", {"start": True, "options": {
                "input": "streams/sample.ts", "to": "rtp://239.1.1.1:5004", "device": "wire0", "loop": "forever"}}, 201)
            self.assertEqual((one["state"], one["input"], one["last_error"]), ("playing", "streams/sample.ts", None))
            path = f"{API}/playouts/{one['name']}"
            # What is lost before the meter has seen anything is missed by nobody.
            seen = read_events(stream, lambda event: event["event"] == "figures" and event["meters"] and event["meters"][0]["frames"] > 0)
            for _ in range(3):
                self.server.post(path + "/faults", {"kind": "lose"})
            for order in ({"kind": "duplicate", "count": 2}, {"kind": "corrupt", "count": 4, "amount": 3},
                          {"kind": "break", "length_ns": 100_000_000}, {"kind": "bad-udp-checksum", "count": 2}):
                self.server.post(path + "/faults", order)
            seen += read_events(stream, lambda event: event["event"] == "figures" and event["playouts"]
                                and event["playouts"][0]["ordered"]["udp_bad"] == 2)
        # What waits in the playout leaves before a stop reaches the meter.
        with self.server.stream(f"{API}/events") as stream:
            read_events(stream, lambda event: event["event"] == "seconds")
        done = self.server.post(path + "/stop")
        lost = done["ordered"].pop("lost")
        self.assertEqual((done["state"], done["ordered"]),
                         ("stopped", {"delayed": 0, "duplicates": 2, "corrupted": 4, "ipv4_header_bad": 0, "udp_bad": 2, "on_request": 11}))
        self.assertIn(lost, (3 + 6, 3 + 7))  # a datagram each 15.04 ms, of which 100 ms break six or seven
        metrics = self.server.ask("GET", "/metrics").body.decode()
        measured = self.server.post(f"{API}/meters/{meter}/stop")
        (stream,) = measured["result"]["streams"]
        self.assertEqual((stream["rtp"]["lost"], stream["rtp"]["duplicates"], stream["checksums"]["udp_bad"]), (lost, 2, 2))
        self.assertEqual(stream["rtp"]["received"], sum(done["departures"][outcome] for outcome in ("on_time", "late")))
        self.assertEqual([event["text"] for event in seen if event["event"] == "playout"],
                         ["created", "playing", "lose 1", "lose 1", "lose 1", "duplicate 2", "corrupt 4", "break 100 ms",
                          "bad-udp-checksum 2"])
        self.assertRegex(metrics, r'ipplay_playout_faults_total\{[^}]*kind="corrupted"\} 4\n')
        self.judge_metrics(metrics)
        described = set(re.findall(r"`(ipplay_\w+)`", read_text("docs", "serve.md")))
        self.assertLessEqual(set(re.findall(r"^# TYPE (\w+)", metrics, re.MULTILINE)), described)
        self.assertGreater(len(described), 20)
        for name in ("alerts.yml", "dashboard.json"):
            used = set(re.findall(r"\b(ipplay_\w+?)(?:_bucket)?\b", read_text("examples", "monitoring", name)))
            self.assertLessEqual(used, described, name)

    def judge_metrics(self, text):
        judged = subprocess.run(["promtool", "check", "metrics"], input=text, text=True, capture_output=True, check=False)
        self.assertEqual((judged.returncode, judged.stdout, judged.stderr), (0, "", ""))

    def test_a_plan_shows_the_first_frame_and_the_command(self):
        plan = self.server.post(f"{API}/plan", {"options": {
            "input": "streams/sample.ts", "to": "rtp://239.1.1.1:5004", "device": self.bed.NEAR, "ttl": 7, "ssrc": 9, "sequence": 1}})
        text = subprocess.run(plan["command"].replace("ipplay", os.environ["IPPLAY"], 1) + " --dry-run", shell=True, text=True, check=True,
                              stdout=subprocess.PIPE, preexec_fn=self.bed.near.enter).stdout
        self.assertEqual(plan["text"].split("\n")[2:], text.split("\n")[2:])
        self.assertEqual([layer["name"] for layer in plan["layers"]], ["Ethernet", "IPv4", "UDP", "RTP"])
        fields = {field["field"]: field["hex"] for layer in plan["layers"] for field in layer["fields"]}
        self.assertEqual((fields["Ethernet destination"], fields["IPv4 TTL"], fields["RTP SSRC"]),
                         ("01 00 5e 01 01 01", "07", "00 00 00 09"))

    def test_a_lineup_is_loaded_whole_or_not_at_all(self):
        text = "".join(f'[[channel]]\nname = "c{number}"\ninput = "streams/sample.ts"\nto = "udp://{FAR4}:{6000 + number}"\n'
                       f'device = "{self.bed.NEAR}"\n' for number in range(5))
        whole = self.server.post(f"{API}/lineups", {"name": "five", "text": text}, 201)
        self.assertEqual((whole["states"], {one["lineup"] for one in whole["playouts"]}), ({"playing": 5}, {"five"}))
        refused = self.server.ask("POST", f"{API}/lineups", {"name": "six", "text": text.replace('"c0"', '"x"')})
        self.assertEqual((refused.status, refused.json()["error"]), (409, "line 6: c1: name: c1 is taken; give another one"))
        self.assertEqual(len(self.server.get(f"{API}/playouts")["playouts"]), 5)
        self.server.ask("DELETE", f"{API}/lineups/five")
        self.assertEqual(self.server.get(f"{API}/playouts")["playouts"], [])


class Events(ServeCase):
    def test_a_client_that_comes_back_misses_nothing(self):
        with self.server.stream(f"{API}/events?after=0") as stream:
            first = read_events(stream, lambda event: event["event"] == "figures", ids=True)
        order = {"options": {"input": "streams/sample.ts", "to": f"rtp://{FAR4}:5004"}}
        names = [self.server.post(f"{API}/playouts", order, 201)["name"] for _ in range(3)]
        with self.server.stream(f"{API}/events", {"Last-Event-ID": first[-1][0]}) as stream:
            rest = read_events(stream, lambda event: event.get("playout") == names[-1], ids=True)
        numbers = [int(number.split("-")[1]) for number, _ in first + rest]
        self.assertEqual(numbers, list(range(numbers[0], numbers[0] + len(numbers))))
        self.assertEqual([event["playout"] for _, event in rest if event["event"] == "playout"], names)
        with self.server.stream(f"{API}/events", {"Last-Event-ID": "1-7"}) as stream:
            self.assertEqual(read_events(stream, lambda event: True)[0]["event"], "lost")


class Watched(ServeCase):
    def test_prometheus_scrapes_it_and_answers(self):
        order = {"name": "watched", "start": True, "options": {
            "input": "streams/sample.ts", "to": f"rtp://{FAR4}:5004", "device": self.bed.NEAR, "loop": "forever"}}
        self.server.post(f"{API}/playouts", order, 201)
        with open(self.path("prometheus.yml"), "w", encoding="utf-8") as file:
            file.write(f"""
                global: {{scrape_interval: 1s, evaluation_interval: 1s}}
                rule_files: ['{os.path.abspath(os.path.join(HERE, "..", "..", "examples", "monitoring", "alerts.yml"))}']
                scrape_configs: [{{job_name: ipplay, static_configs: [{{targets: ['{self.server.address}']}}]}}]
                """)
        subprocess.run(["promtool", "check", "config", file.name], check=True, stdout=subprocess.DEVNULL)
        with open(self.path("prometheus.log"), "w+", encoding="utf-8") as log:
            process = subprocess.Popen(["prometheus", f"--config.file={file.name}", f"--storage.tsdb.path={self.path('tsdb')}",
                                        "--web.listen-address=127.0.0.1:9399"], preexec_fn=self.bed.near.enter, stderr=log)
            try:
                self.await_answer("ipplay_playout_state{playout='watched',state='playing'} == 1")
                self.await_answer("rate(ipplay_playout_datagrams_total{playout='watched'}[5s]) > 10")
            finally:
                process.send_signal(signal.SIGTERM)
                process.wait()

    def await_answer(self, query):
        """Prometheus' own answer; it scrapes at times of its own, and tells nobody."""
        command = ["promtool", "query", "instant", "http://127.0.0.1:9399", query]
        end = time.monotonic() + 60
        while time.monotonic() < end:
            answer = subprocess.run(command, preexec_fn=self.bed.near.enter, text=True, capture_output=True, check=False)
            if answer.stdout.strip():
                return
        self.fail(f"{query}: {answer.stderr}")


if __name__ == "__main__":
    unittest.main()
