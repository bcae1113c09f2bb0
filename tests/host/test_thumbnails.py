# SPDX-License-Identifier: MIT
"""Pictures of services: what ffmpeg makes of streams, judged by ffmpeg, and what a program in its place may not do."""
import os
import subprocess
import sys
import threading
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "wire"))

from servebed import API, ServeCase, Server  # noqa: E402

# What hostile bytes could make of a decoder: each line is how one attempt ended.
ATTEMPTS = """#!/usr/bin/python3 -S
import ctypes, os, resource, signal, socket, sys
libc = ctypes.CDLL(None, use_errno=True)
def attempt(name, action):
    try:
        action()
        print(name, "done")
    except OSError as error:
        print(name, error.strerror)
def system(*arguments):
    if libc.syscall(*arguments) < 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))
attempt("socket", socket.socket)
attempt("write", lambda: open({folder!r} + "/new", "w"))
attempt("remove", lambda: os.unlink({folder!r} + "/ffmpeg"))
attempt("signal", lambda: os.kill(os.getppid(), 0))
attempt("thread's signal", lambda: system(234, os.getppid(), os.getppid(), 0))
attempt("trace", lambda: system(101, 16, os.getppid(), 0, 0))
attempt("fork", os.fork)
attempt("memory", lambda: open("/proc/%d/mem" % os.getppid(), "rb"))
attempt("namespace", lambda: system(272, 0x10000000))
print("descriptors", sorted(os.readlink("/proc/self/fd/" + name).split(" ")[0] for name in os.listdir("/proc/self/fd")
                            if os.path.exists("/proc/self/fd/" + name)))
print("capabilities", [line.split()[1] for line in open("/proc/self/status") if line.startswith("CapEff")])
print("path", os.environ.get("PATH"))
print("first bytes", sys.stdin.buffer.read(1))
"""
DENIED = "Operation not permitted"


class Pictures(ServeCase):
    @classmethod
    def prepare(cls):
        sources = [f"color={colour}:size={size}:rate=25,setsar={aspect}"
                   for colour, size, aspect in (("red", "720x576", "64/45"), ("blue", "320x240", "1"))]
        inputs = [word for source in (*sources, "sine") for word in ("-f", "lavfi", "-i", source)]
        programs = ["-program", "title=Red:st=0", "-program", "title=Blue:st=1", "-program", "title=Radio:st=2"]
        cls.make("services.ts", *inputs, "-map", "0", "-map", "1", "-map", "2", "-c:v", "mpeg2video", "-c:a", "mp2", "-t", "1", *programs)
        with open(os.path.join(cls.streams, "noise.ts"), "wb") as file:
            file.write(b"".join(b"\x47\x01\x00\x10" + os.urandom(184) for _ in range(1000)))

    @classmethod
    def make(cls, name, *options):
        path = os.path.join(cls.streams, name)
        subprocess.run(["ffmpeg", "-nostdin", "-v", "error", *options, "-f", "mpegts", path], check=True)
        os.chmod(path, 0o644)

    def picture(self, path, service, status=200, headers=()):
        answer = self.server.ask("GET", f"{API}/media/thumbnail?path=streams/{path}&service={service}", headers=headers)
        self.assertEqual(answer.status, status, answer.body[:200])
        return answer

    def decode(self, jpeg):
        """Its size, and the colour of its middle."""
        probe = ["ffprobe", "-v", "error", "-show_entries", "stream=width,height", "-of", "csv=p=0", "-f", "mjpeg", "-"]
        size = subprocess.run(probe, input=jpeg, stdout=subprocess.PIPE, check=True).stdout.decode().strip()
        raw = ["ffmpeg", "-v", "error", "-f", "mjpeg", "-i", "-", "-vf", "scale=1:1", "-f", "rawvideo", "-pix_fmt", "rgb24", "-"]
        return size, list(subprocess.run(raw, input=jpeg, stdout=subprocess.PIPE, check=True).stdout)

    def test_each_service_has_its_picture(self):
        services = self.server.get(f"{API}/media/facts?path=streams/services.ts")["services"]
        self.assertEqual([service["thumbnail"] is not None for service in services], [True, True, False])
        for service, size, colour in zip(services, ("320,180", "240,180"), (0, 2)):
            answer = self.server.ask("GET", service["thumbnail"])
            self.assertEqual((answer.status, answer.headers["Content-Type"]), (200, "image/jpeg"))
            seen_size, middle = self.decode(answer.body)
            self.assertEqual((seen_size, middle.index(max(middle)), max(middle) > 200), (size, colour, True))
            tag = {"If-None-Match": answer.headers["ETag"]}
            self.assertEqual(self.picture("services.ts", service["number"], 304, tag).body, b"")
        for path, service in (("services.ts", 3), ("services.ts", 9), ("noise.ts", 1), ("missing.ts", 1), ("../sample.ts", 1)):
            with self.subTest(path=path, service=service):
                self.assertIn("error", self.picture(path, service, 404).json())
        for service in ("0", "65536", "-1", "1:v", "x", ""):
            self.assertEqual(self.picture("services.ts", service, 400).json()["field"], "service")

    def test_a_file_that_changes_has_another_picture(self):
        self.make("changing.ts", "-f", "lavfi", "-i", "color=green:rate=25", "-t", "1")
        before = self.picture("changing.ts", 1)
        self.make("changing.ts", "-y", "-f", "lavfi", "-i", "color=red:rate=25", "-t", "2")
        after = self.picture("changing.ts", 1, headers={"If-None-Match": before.headers["ETag"]})
        self.assertNotEqual(self.decode(before.body)[1], self.decode(after.body)[1])

    def server_with(self, script, prefix=()):
        """One that finds this in the place of ffmpeg; nothing for none."""
        folder = self.path("bin")
        os.makedirs(folder, exist_ok=True)
        program = os.path.join(folder, "ffmpeg")
        if script is None:
            os.unlink(program)
        else:
            with open(program, "w", encoding="utf-8") as file:
                file.write(script)
            os.chmod(program, 0o755)
        server = Server(self.bed, "--media", self.streams, prefix=prefix,
                        env={**os.environ, "PATH": f"{folder}:{os.environ['PATH']}" if prefix else folder})
        self.addCleanup(server.close)
        return server

    def ask(self, server, service=1):
        return server.ask("GET", f"{API}/media/thumbnail?path=streams/sample.ts&service={service}")

    def test_a_program_that_hostile_bytes_took_over_reaches_nothing(self):
        """Whoever the server is: root, who becomes an ordinary user, or one from the start."""
        for prefix in ((), ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")):
            with self.subTest(prefix=prefix):
                server = self.server_with(ATTEMPTS.replace("{folder!r}", repr(self.path("bin"))), prefix)
                self.assertEqual(self.ask(server).body.decode().splitlines(), [
                    *(f"{name} {DENIED}" for name in ("socket", "write", "remove", "signal", "thread's signal", "trace", "fork")),
                    # A sanitizer keeps its rights, and its memory open for itself.
                    "memory done" if os.environ.get("IPPLAYOUT_SANITIZE") else "memory Permission denied", f"namespace {DENIED}",
                    "descriptors ['/dev/null', '/memfd:output', '/memfd:stream']", "capabilities ['0000000000000000']",
                    "path None", "first bytes b'G'"])

    def test_a_program_out_of_bounds_is_ended(self):
        """It may stay within them another time."""
        for script in ("#!/bin/sh\nwhile :; do :; done\n", "#!/usr/bin/python3 -S\nimport sys\nsys.stdout.buffer.write(bytes(2 << 20))\n"):
            answer = self.ask(self.server_with(script))
            self.assertEqual((answer.status, answer.json()["error"]), (503, "the picture was not made within its bounds; ask again"))
        self.assertIn("ffmpeg is not installed", self.ask(self.server_with(None)).json()["error"])

    def test_few_are_made_at_once(self):
        """The others are told so, and all else is served meanwhile."""
        fifos = [self.path(f"go{service}") for service in (1, 2)]
        for fifo in fifos:
            os.mkfifo(fifo)
            os.chmod(fifo, 0o644)
        script = f"#!/bin/sh\ncase \"$*\" in *0:p:1:*) read line <{fifos[0]};; *) read line <{fifos[1]};; esac\necho picture\n"
        server = self.server_with(script)
        answers = []
        threads = [threading.Thread(target=lambda number=number: answers.append(self.ask(server, number))) for number in (1, 2)]
        for thread in threads:
            thread.start()
        writers = [open(fifo, "w", encoding="utf-8") for fifo in fifos]  # once both programs read
        third = self.ask(server, 3)
        self.assertEqual((third.status, third.headers["Retry-After"]), (503, "1"))
        self.assertEqual(server.get(f"{API}/playouts")["playouts"], [])
        for writer in writers:
            writer.write("go\n")
            writer.close()
        for thread in threads:
            thread.join()
        self.assertEqual([(answer.status, answer.body) for answer in answers], [(200, b"picture\n")] * 2)
        self.assertEqual(self.ask(server, 2).status, 200)


if __name__ == "__main__":
    unittest.main()
