# SPDX-License-Identifier: MIT
"""`ipplay serve` against clients that mean harm: other pages, ways out of the media, floods, broken requests."""
import contextlib
import json
import os
import resource
import socket
import subprocess
import unittest

from playbed import IPPLAY, NEAR4, SAMPLE
from servebed import API, ServeCase, Server, read_events

# A thousand connections.
resource.setrlimit(resource.RLIMIT_NOFILE, (min(4096, resource.getrlimit(resource.RLIMIT_NOFILE)[1]),) * 2)
TOKEN = "0123456789abcdef0123456789abcdef"


def status_of(data):
    return int(data.split(b" ", 2)[1]) if data else None


def receive(sock):
    """All that comes until the server closes."""
    data = b""
    try:
        while part := sock.recv(65536):
            data += part
    except ConnectionResetError:
        pass
    return data


class OtherPages(ServeCase):
    def test_hosts_and_origins(self):
        own = self.server.address
        port = own.rsplit(":", 1)[1]
        for headers, status in (
                ({}, 200), ({"Host": f"localhost:{port}"}, 200), ({"Host": "[::1]:9"}, 200),
                ({"Host": "evil.example"}, 403), ({"Host": "127.0.0.1.evil.example:80"}, 403), ({"Host": ""}, 403),
                ({"Host": "[::1"}, 403), ({"Host": f"{own}@evil.example"}, 403), ({"Host": "[::1]evil.example"}, 403),
                ({"Origin": f"http://{own}"}, 200), ({"Origin": "http://evil.example"}, 403),
                ({"Origin": "null"}, 403), ({"Origin": f"http://localhost:{port}"}, 403), ({"Origin": "http://127.0.0.1:1"}, 403),
                ({"Sec-Fetch-Site": "cross-site", "Sec-Fetch-Mode": "no-cors"}, 403),
                ({"Sec-Fetch-Site": "same-site", "Sec-Fetch-Mode": "cors"}, 403),
                ({"Sec-Fetch-Site": "cross-site", "Sec-Fetch-Mode": "navigate"}, 200),
                ({"Sec-Fetch-Site": "same-origin", "Sec-Fetch-Mode": "cors"}, 200)):
            with self.subTest(headers=headers):
                self.assertEqual(self.server.ask("GET", API, headers=headers).status, status)

    def test_a_form_of_another_page_is_no_request(self):
        body = json.dumps({"options": {"input": "streams/sample.ts", "to": "rtp://239.1.1.1:5004"}}).encode()
        for content_type in ("text/plain", "application/x-www-form-urlencoded", "multipart/form-data", "application/jsonx"):
            answer = self.server.ask("POST", f"{API}/playouts", body, {"Content-Type": content_type})
            self.assertEqual(answer.status, 415, content_type)
        self.assertEqual(self.server.get(f"{API}/playouts")["playouts"], [])

    def test_what_a_browser_is_told(self):
        for target in ("/page/dygraphs/dygraph.min.js", API, "/none"):
            headers = self.server.ask("GET", target).headers
            self.assertTrue(headers["Content-Security-Policy"].startswith("default-src 'self';"), target)
            self.assertIn("frame-ancestors 'none'", headers["Content-Security-Policy"])
            self.assertEqual((headers["X-Content-Type-Options"], headers["X-Frame-Options"], headers["Referrer-Policy"],
                              headers["Cross-Origin-Resource-Policy"]), ("nosniff", "DENY", "no-referrer", "same-origin"))
            self.assertIsNone(headers["Access-Control-Allow-Origin"])


class Media(ServeCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        secret = os.path.join(cls.folder.name, "secret.ts")
        os.link(os.path.join(cls.streams, "sample.ts"), secret)
        os.symlink(secret, os.path.join(cls.streams, "link.ts"))
        os.symlink(cls.folder.name, os.path.join(cls.streams, "out"))
        os.symlink("sample.ts", os.path.join(cls.streams, "inside.ts"))
        os.mkfifo(os.path.join(cls.streams, "pipe.ts"), 0o644)
        os.mkdir(os.path.join(cls.streams, "below"))
        os.link(secret, os.path.join(cls.streams, "below", "deep.ts"))
        os.link(secret, os.path.join(cls.streams, 'a"<b>\u2028.ts'))
        os.link(secret, os.path.join(cls.streams.encode(), b"\xff.ts"))

    def test_the_list_has_regular_files_alone(self):
        listing = self.server.get(f"{API}/media")
        self.assertEqual([entry["path"] for entry in listing["media"]], ["streams/below/deep.ts", "streams/sample.ts"])
        self.assertEqual(listing["left_out"], 2)

    def test_no_path_leads_out(self):
        outside = os.path.join(self.folder.name, "secret.ts")
        for path in ("streams/link.ts", "streams/out/secret.ts", "streams/inside.ts", "streams/../secret.ts",
                     "streams/below/../../secret.ts", outside, "streams/" + outside, "../secret.ts", "streams", "streams/",
                     "streams/below", "streams/pipe.ts", "", "/", "streams/\0sample.ts", "streams//proc/self/environ",
                     "/proc/self/fd/5", "proc/self/fd/5", "-", "file:///etc/passwd"):
            with self.subTest(path=path):
                order = {"options": {"input": path, "to": "rtp://239.1.1.1:5004", "device": self.bed.NEAR}}
                answer = self.server.ask("POST", f"{API}/plan", order)
                self.assertEqual(answer.status, 400, answer.body)
                self.assertRegex(answer.json()["field"], "^options.input$")
                self.assertEqual(self.server.ask("POST", f"{API}/playouts", order).status, 400)
        for path in ("/page/../serve", "/page/%2e%2e/index.html", "/page/..%2fx", "/page//etc/passwd", "/../etc/passwd"):
            self.assertIn(self.server.ask("GET", path).status, (400, 404), path)

    def test_nothing_writes_a_file(self):
        target = os.path.join(self.folder.name, "made.pcapng")
        base = {"input": "streams/sample.ts", "to": "rtp://239.1.1.1:5004", "device": self.bed.NEAR}
        for options in ({"into": target}, {"to": target}, {"to": [base["to"], target]}, {"sdp": target},
                        {"write-config": target}, {"config": target}):
            answer = self.server.ask("POST", f"{API}/playouts", {"options": {**base, **options}, "start": True})
            self.assertEqual(answer.status, 400, options)
        for options in ({"report": target}, {"events": target}, {"per-second": target}, {"expect": target}, {"write-config": target}):
            answer = self.server.ask("POST", f"{API}/meters", {"options": {"source": self.bed.NEAR, **options}})
            self.assertEqual((answer.status, answer.json()["field"]), (400, f"options.{next(iter(options))}"))
        lineup = f'[[channel]]\nname = "x"\ninput = "{SAMPLE}"\nto = "rtp://239.1.1.1:5004"\n'
        self.assertEqual(self.server.ask("POST", f"{API}/lineups", {"name": "x", "text": lineup}).status, 400)
        self.assertFalse(os.path.exists(target))

    def test_messages_name_no_descriptor(self):
        order = {"name": "quiet", "options": {"input": "streams/sample.ts", "to": "rtp://239.1.1.1:5004", "device": self.bed.NEAR,
                                              "program": 77}, "start": True}
        answer = self.server.ask("POST", f"{API}/playouts", order)
        self.assertEqual(answer.json()["state"], "failed")
        self.assertNotIn("/proc", answer.body.decode())
        self.assertNotIn("/proc", self.server.ask("POST", f"{API}/plan", {"options": order["options"]}).body.decode())


class Tokens(ServeCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.token = os.path.join(cls.folder.name, "token")
        with open(cls.token, "w", encoding="ascii") as file:
            file.write(TOKEN + "\n")
        os.chmod(cls.token, 0o600)
        cls.guarded = Server(cls.bed, "--media", cls.streams, "--token-file", cls.token, listen=f"{NEAR4}:0")
        cls.addClassCleanup(cls.guarded.close)

    def test_all_but_the_page_needs_the_token(self):
        for target in (API, f"{API}/playouts", f"{API}/events", "/metrics"):
            for given in (None, TOKEN, f"Bearer {TOKEN[:-1]}", f"Bearer {TOKEN}x", "Bearer ", f"Basic {TOKEN}", f"Bearer {TOKEN[1:]}0"):
                answer = self.guarded.ask("GET", target, headers={"Authorization": given} if given else {})
                self.assertEqual((answer.status, answer.headers["WWW-Authenticate"]), (401, 'Bearer realm="ipplay"'), given)
        self.assertEqual(self.guarded.ask("GET", "/page/dygraphs/dygraph.min.js").status, 200)
        self.assertEqual(self.guarded.ask("GET", API, headers={"Authorization": f"Bearer {TOKEN}"}).status, 200)

    def refusal(self, *options):
        done = subprocess.run([IPPLAY, "serve", *options], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
                              preexec_fn=self.bed.near.enter, timeout=60)
        self.assertEqual((done.returncode, done.stdout), (2, ""))
        return done.stderr

    def test_other_addresses_and_open_token_files_are_refused(self):
        for listen in (f"{NEAR4}:0", "0.0.0.0:0", "[::]:0"):
            self.assertRegex(self.refusal("--listen", listen), "can be reached by others; give --token-file")
        for listen in ("8080", "localhost:1", "127.0.0.1:99999", "::1:80"):
            self.assertRegex(self.refusal("--listen", listen), 'is not valid; give ADDRESS:PORT')
        path = os.path.join(self.folder.name, "open")
        for mode, text, why in ((0o640, TOKEN, "mode 0600"), (0o644, TOKEN, "mode 0600"), (0o600, "short", "not one line"),
                                (0o600, TOKEN + "\n" + TOKEN, "not one line"), (0o600, "", "not one line")):
            with open(path, "w", encoding="ascii") as file:
                file.write(text)
            os.chmod(path, mode)
            self.assertRegex(self.refusal("--token-file", path), why)


class Floods(ServeCase):
    def raw(self, data, server=None):
        with (server or self.server).connect() as sock:
            sock.sendall(data)
            sock.shutdown(socket.SHUT_WR)
            return receive(sock)

    def test_broken_requests(self):
        host = f"Host: {self.server.address}\r\n".encode()
        json_body = b"Content-Type: application/json\r\n"
        for data, status in (
                (b"GET /api/v1 HTTP/1.1\r\n\r\n", 403), (b"GET /api/v1 HTTP/1.0\r\n\r\n", 403),
                (b"GET /api/v1 HTTP/1.1\r\n" + host + b"Host: evil.example\r\n\r\n", 403),
                (b"GET api HTTP/1.1\r\n" + host + b"\r\n", 400), (b"GET /api/v1/%zz HTTP/1.1\r\n" + host + b"\r\n", 400),
                (b"GET /api/v1/playouts/%00 HTTP/1.1\r\n" + host + b"\r\n", 400), (b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03", 400),
                (b"GET http://evil.example/ HTTP/1.1\r\n" + host + b"\r\n", 400),
                (b"CONNECT evil.example:80 HTTP/1.1\r\n" + host + b"\r\n", 400),
                (b"GET /api/v1 HTTP/1.1\r\n" + host + b"X: " + b"x" * 70_000 + b"\r\n\r\n", 431),
                (b"GET /api/v1 HTTP/1.1\r\n" + host + b"bad header\r\n\r\n", 400),
                (b"POST /api/v1/plan HTTP/1.1\r\n" + host + json_body + b"Content-Length: 9999999999\r\n\r\n", 413),
                (b"POST /api/v1/plan HTTP/1.1\r\n" + host + json_body + b"Content-Length: -1\r\n\r\n", 400),
                (b"POST /api/v1/plan HTTP/1.1\r\n" + host + json_body + b"Content-Length: 2\r\nContent-Length: 3\r\n\r\n{}", 400),
                (b"POST /api/v1/plan HTTP/1.1\r\n" + host + json_body + b"Content-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n{}", 400),
                (b"POST /api/v1/plan HTTP/1.1\r\n" + host + json_body + b"Transfer-Encoding: chunked\r\n\r\nzz\r\n", 400)):
            with self.subTest(data=data[:80]):
                self.assertEqual(status_of(self.raw(data)), status)

    def test_a_body_of_unknown_length_is_no_second_request(self):
        host = f"Host: {self.server.address}\r\n".encode()
        second = b"GET /api/v1/playouts HTTP/1.1\r\n" + host + b"\r\n"
        for coding in (b"xchunked", b"identity", b"chunked, gzip", b"gzip, chunked", b'"chunked"', b""):
            for first in (b"POST /api/v1/plan", b"GET /api/v1"):
                answer = self.raw(first + b" HTTP/1.1\r\n" + host + b"Content-Type: application/json\r\nTransfer-Encoding: " + coding +
                                  b"\r\n\r\n" + second)
                self.assertEqual((answer.count(b"HTTP/1.1 "), status_of(answer)), (1, 400), (coding, first))
        chunked = self.raw(b"POST /api/v1/plan HTTP/1.1\r\n" + host + b"Content-Type: Application/JSON\r\nTransfer-Encoding: Chunked\r\n"
                           b"\r\n2\r\n{}\r\n0\r\n\r\n" + second)
        self.assertIn(b"options: missing", chunked)
        self.assertEqual(chunked.count(b"HTTP/1.1 "), 2)

    def test_large_and_deep_bodies(self):
        target = f"{API}/plan"
        self.assertEqual(self.server.ask("POST", target, b"x" * (1 << 20), {"Content-Type": "application/json"}).status, 400)
        answer = self.server.ask("POST", target, b"x" * ((1 << 20) + 1), {"Content-Type": "application/json"})
        self.assertEqual(answer.status, 413)
        for body in (b"{", b"[]", b"null", b"\xff", b'{"options": 1}', b'{"options": {"lose": {}}}', b'{"options": {"lose": null}}',
                     b'{"other": 1}', b"[" * 100_000, b'{"options": {"step": ' + b"[" * 5000 + b"]" * 5000 + b"}}",
                     json.dumps({"options": {"step": ["x"] * 5000}}).encode(), b'{"options": {"ttl": 1e999}}', b'{"options": {"": 1}}',
                     b'{"options": {"help": true}}', b'{"options": {"dry-run": true}}'):
            answer = self.server.ask("POST", target, body, {"Content-Type": "application/json"})
            self.assertEqual(answer.status, 400, body[:60])
            self.assertIn("error", answer.json())

    def test_a_thousand_connections_and_slow_ones_keep_nobody_out(self):
        host = b" HTTP/1.1\r\nHost: 127.0.0.1\r\n"
        slow_header = b"GET /api/v1" + host + b"X-Slow: "
        slow_body = b"POST /api/v1/plan" + host + b"Content-Type: application/json\r\nContent-Length: 9\r\n\r\n{"
        for starts in ((slow_header, b""), (slow_body,)):
            held = [self.server.connect() for _ in range(1000)]
            try:
                for number, sock in enumerate(held):
                    try:
                        sock.sendall(starts[number % len(starts)])  # and nothing more
                    except (ConnectionResetError, BrokenPipeError):
                        pass  # it has made room
                self.assertEqual(self.server.ask("GET", API).status, 200)
                # Those that are left are closed, without an answer.
                self.assertEqual({receive(sock) for sock in held[-50:]}, {b""})
            finally:
                for sock in held:
                    sock.close()

    def test_a_reader_of_events_that_stands_still_holds_nobody_up(self):
        order = {"options": {"input": "streams/sample.ts", "to": "rtp://239.1.1.1:5004", "device": self.bed.NEAR, "loop": "forever"}}
        with self.server.stream(f"{API}/events"), self.server.stream(f"{API}/events") as other:
            # Some megabytes of events, more than sockets hold.
            for number in range(300):
                self.server.post(f"{API}/playouts", {**order, "name": f"{number:03}" + "x" * 90}, 201)
            for _ in range(10):
                read_events(other, lambda event: event["event"] == "figures" and len(event["playouts"]) == 300)
            self.assertEqual(self.server.ask("GET", API).status, 200)

    def test_streams_of_events_are_bounded(self):
        with contextlib.ExitStack() as held:
            statuses = [held.enter_context(self.server.stream(f"{API}/events")).status for _ in range(70)]
            self.assertEqual((statuses.count(200), statuses.count(429)), (64, 6))


@unittest.skipIf(os.environ.get("IPPLAYOUT_SANITIZE"), "a sanitizer keeps its rights")
class Rights(ServeCase):
    def test_only_what_opens_adapters_has_rights(self):
        # All threads are at work.
        self.server.post(f"{API}/meters", {"options": {"source": self.bed.NEAR}}, 201)
        self.server.post(f"{API}/playouts", {"start": True, "options": {
            "input": "streams/sample.ts", "to": "rtp://239.1.1.1:5004", "device": self.bed.NEAR, "loop": "forever"}}, 201)
        with self.server.stream(f"{API}/events") as stream:
            read_events(stream, lambda event: event["event"] == "figures" and event["playouts"][0]["rate_bps"] is not None)
        sends, captures = 1 << 13 | 1 << 23, 1 << 13
        found = {}
        for task in os.listdir(f"/proc/{self.server.process.pid}/task"):
            with open(f"/proc/{self.server.process.pid}/task/{task}/status", encoding="ascii") as file:
                fields = dict(line.rstrip("\n").split(":\t", 1) for line in file)
            found[int(task)] = int(fields["CapEff"], 16)
            self.assertEqual((fields["NoNewPrivs"], set(fields["Uid"].split())), ("1", {"65534"}))
            self.assertEqual(int(fields["CapPrm"], 16), found[int(task)])
        self.assertEqual(found.pop(self.server.process.pid), 0)
        self.assertEqual(sorted(found.values())[-2:], [captures, sends])
        self.assertEqual(set(sorted(found.values())[:-2]), {0})


if __name__ == "__main__":
    unittest.main()
