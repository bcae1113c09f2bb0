# SPDX-License-Identifier: MIT
"""`ipplay serve` in a network namespace, and requests to it from there."""
import contextlib
import http.client
import json
import os
import shutil
import signal
import socket
from dataclasses import dataclass

from playbed import SAMPLE, PlayCase
from testbed import CLONE_NEWNET, call, libc

API = "/api/v1"


@dataclass
class Answer:
    status: int
    headers: http.client.HTTPMessage
    body: bytes

    def json(self):
        return json.loads(self.body)


class Server:
    """Sockets are made in its namespace, and used from here."""
    def __init__(self, bed, *options, listen="127.0.0.1:0", **more):
        self.bed = bed
        self.process = bed.start("serve", "--listen", listen, *options, **more)
        line = self.process.stdout.readline().strip()
        if not line.startswith("http://"):
            raise AssertionError(f"no address: {line!r} {self.process.communicate()}")
        self.address = line.removeprefix("http://").rstrip("/")

    def connect(self, address=None):
        """A socket that is connected to the server."""
        host, port = (address or self.address).rsplit(":", 1)
        home = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        try:
            self.bed.near.enter()
            return socket.create_connection((host, int(port)), timeout=60)
        finally:
            call(libc.setns, home, CLONE_NEWNET)
            os.close(home)

    def request(self, method, target, body=None, headers=(), connection=None):
        """The connection after a request was sent on it."""
        if connection is None:
            connection = http.client.HTTPConnection(self.address)
            connection.sock = self.connect()
        send = {"Host": self.address, **dict(headers)}
        if body is not None and not isinstance(body, bytes):
            body = json.dumps(body).encode()
            send.setdefault("Content-Type", "application/json")
        connection.putrequest(method, target, skip_host=True, skip_accept_encoding=True)
        for name, value in send.items():
            connection.putheader(name, value)
        if body is not None:
            connection.putheader("Content-Length", str(len(body)))
        connection.endheaders(body)
        return connection

    def ask(self, method, target, body=None, headers=()):
        connection = self.request(method, target, body, headers)
        response = connection.getresponse()
        answer = Answer(response.status, response.headers, response.read())
        connection.close()
        return answer

    def get(self, target):
        return self._wanted(self.ask("GET", target), 200)

    def post(self, target, body=None, status=200):
        return self._wanted(self.ask("POST", target, body), status)

    @staticmethod
    def _wanted(answer, status):
        if answer.status != status:
            raise AssertionError(f"{answer.status}: {answer.body}")
        return answer.json()

    @contextlib.contextmanager
    def stream(self, target, headers=()):
        """The response of a request that has no end."""
        connection = self.request("GET", target, headers=headers)
        with contextlib.closing(connection), connection.getresponse() as response:
            yield response

    def close(self):
        self.process.send_signal(signal.SIGTERM)
        output, errors = self.process.communicate()
        return self.process.returncode, output, errors


def read_events(stream, is_last, ids=False):
    """Events up to the first for which `is_last` holds, each with its id if that is wanted."""
    events, fields = [], {}
    for line in stream:
        name, _, value = line.decode().rstrip("\n").partition(": ")
        if name:
            fields[name] = value
            continue
        event = json.loads(fields["data"])
        if event["event"] != fields["event"]:
            raise AssertionError(fields)
        events.append((fields["id"], event) if ids else event)
        if is_last(event):
            return events
    raise AssertionError("the stream has ended")


class ServeCase(PlayCase):
    OPTIONS = ()

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.streams = os.path.join(cls.folder.name, "streams")
        os.mkdir(cls.streams)
        shutil.copy(SAMPLE, os.path.join(cls.streams, "sample.ts"))
        # The server reads as an ordinary user does.
        os.chmod(cls.folder.name, 0o755)
        os.chmod(os.path.join(cls.streams, "sample.ts"), 0o644)
        cls.prepare()
        cls.server = Server(cls.bed, "--media", cls.streams, *cls.OPTIONS)
        cls.addClassCleanup(cls.end)

    @classmethod
    def prepare(cls):
        """Before the server starts."""

    @classmethod
    def end(cls):
        status, _, errors = cls.server.close()
        if status != 0 or errors:
            raise AssertionError(f"{status}: {errors}")
