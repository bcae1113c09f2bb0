# SPDX-License-Identifier: MIT
"""Streams that come in by UDP and RTP while they are played, judged by what was sent."""
import contextlib
import json
import os
import signal
import socket
import sys
import threading
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "measure"))

from frames import Playout  # noqa: E402
from playbed import SAMPLE, PlayCase, read_file, wait_until_sending  # noqa: E402
from testbed import RECEIVE_BUFFER, SO_RCVBUFFORCE  # noqa: E402

PLAYED, USAGE, NO_ACCESS = 0, 2, 3
TARGET = ("--to", "udp://239.7.7.7:5006")
GROUP4, GROUP6 = "239.1.1.1", "ff3e::8000:1"


def from_another_source(frame):
    """The same IPv4 frame from 10.3.2.1 instead of 10.1.2.3, with which no checksum changes."""
    return frame.replace(bytes((10, 1, 2, 3)), bytes((10, 3, 2, 1)), 1)


class Live(PlayCase):
    def send_when_joined(self, group, frames):
        kernel = {GROUP4: "010101EF", GROUP6: "ff3e0000000000000000000080000001"}[group]
        self.bed.near.run("sh", "-c", f"until grep -qi {kernel} /proc/net/igmp /proc/net/igmp6; do sleep 0.02; done")
        sender = self.bed.far.packet_socket(self.bed.FAR)
        for frame in frames:
            sender.send(frame)
        sender.close()

    def relay(self, address, group, frames, *options, status=PLAYED):
        """Plays from the address, and returns the stream that left."""
        thread = threading.Thread(target=self.send_when_joined, args=(group, frames))
        thread.start()
        played = self.play(address, *TARGET, "--end-after-silence", "500ms", *options, status=status)
        thread.join()
        left = [frame for frame in played.frames if frame[30:34] == bytes((239, 7, 7, 7))]
        return b"".join(frame[42:] for frame in left), played.errors

    def test_stream_is_received_in_order(self):
        spoilt = {"delay": {20: 3, 100: 1}, "double": {50}, "lose": {70}, "first_sequence": 65500}
        for address, group, fields in (
                (f"rtp://@{GROUP4}:5004", GROUP4, spoilt),
                (f"rtp://{GROUP4}:5004?interface={self.bed.NEAR}", GROUP4, spoilt),
                (f"udp://{GROUP4}:5004", GROUP4, {"rtp": False}),
                (f"udp://[{GROUP6}]:5004", GROUP6, {"rtp": False, "ipv6": True}),
                (f"rtp://[fd00::1]@[{GROUP6}]:5004?interface={self.bed.NEAR}", GROUP6, {"ipv6": True})):
            with self.subTest(address):
                playout = Playout(datagrams=300, **fields)
                payloads = playout.payloads()
                wanted = b"".join(payload for i, payload in enumerate(payloads) if i not in playout.lose)
                stream, errors = self.relay(address, group, [frame for _, frame in playout.capture()])
                self.assertEqual((len(stream), stream == wanted), (len(wanted), True), errors)
                for note in ("1 RTP packet is missing", "2 RTP packets came late and were put in order",
                             "1 RTP packet came twice"):
                    self.assertEqual(errors.count(f"note: INPUT: {note}"), len(playout.lose), errors)

    def test_one_source_is_received(self):
        wanted, other = Playout(datagrams=100, rtp=False), Playout(datagrams=100, rtp=False, seed=2)
        frames = []
        for (_, frame), (_, stray) in zip(wanted.capture(), other.capture()):
            frames += [from_another_source(stray), frame]
        stream, _ = self.relay(f"udp://10.1.2.3@{GROUP4}:5004", GROUP4, frames)
        self.assertEqual(stream, b"".join(wanted.payloads()))

    def test_wrong_addresses_are_refused(self):
        for address, status in ((f"udp://{GROUP4}", USAGE), (f"udp://{GROUP4}:5004?device=x", USAGE),
                                (f"rtp://fd00::1@{GROUP4}:5004", USAGE), (f"udp://{GROUP4}:0", USAGE),
                                (f"udp://{GROUP4}:5004?interface=missing", NO_ACCESS), ("udp://10.99.0.1:5004", NO_ACCESS)):
            with self.subTest(address):
                errors = self.play(address, *TARGET, status=status).errors
                self.assertRegex(errors, r"\Aipplay: INPUT: [^\n]*\n\Z")

    def test_what_follows_the_last_pcr_leaves_while_nothing_comes(self):
        """It does not wait for the next PCR, which may never come."""
        fifo, growing = self.path("pipe"), self.path("growing.ts")
        os.mkfifo(fifo)
        receiver = self.bed.far.packet_socket(self.bed.FAR)
        self.addCleanup(receiver.close)
        receiver.settimeout(60)
        # Each is longer than what is read ahead of it.
        for datagrams, source, *options in ((900, f"udp://{GROUP4}:5004"), (3000, fifo), (3000, growing, "--follow")):
            with self.subTest(source), contextlib.ExitStack() as stack:
                playout = Playout(datagrams=datagrams, rtp=False)
                payloads = playout.payloads()
                last = payloads[-1]
                self.assertFalse(any(last[at + 3] & 0x20 for at in range(0, len(last), 188)), "it has a PCR itself")
                if source == growing:
                    stack.enter_context(open(growing, "wb", buffering=0)).write(b"".join(payloads))
                player = self.bed.start("play", source, *TARGET, "--quiet", *options)
                if source == fifo:
                    stack.enter_context(open(fifo, "wb", buffering=0)).write(b"".join(payloads))
                elif source != growing:
                    self.send_when_joined(GROUP4, [frame for _, frame in playout.capture()])
                frame = b""
                while frame[30:34] != bytes((239, 7, 7, 7)) or not frame.endswith(last):
                    frame = receiver.recv(2048)
                player.send_signal(signal.SIGINT)
                errors = player.communicate(timeout=30)[1]
                self.assertEqual(player.returncode, PLAYED, errors)

    def test_stop_ends_a_stream_that_goes_on(self):
        frames = [frame for _, frame in Playout(datagrams=900, rtp=False).capture()]  # more than is read ahead
        player = self.bed.start("play", f"udp://{GROUP4}:5004", *TARGET, "--json")
        self.send_when_joined(GROUP4, frames)
        wait_until_sending(player)
        player.send_signal(signal.SIGINT)
        output, errors = player.communicate(timeout=30)
        self.bed.capture.drain()
        self.assertEqual(player.returncode, PLAYED, errors)
        self.assertEqual(json.loads(output.splitlines()[-1])["outcome"], "Stopped by Ctrl-C")

    def test_channels_of_a_lineup_wait_for_their_input_alone(self):
        """None that nothing comes for holds up another, and each leaves whole while nothing more comes."""
        fifo, silent = self.path("lineup"), self.path("silent")
        os.mkfifo(fifo)
        os.mkfifo(silent)
        inputs = {1: silent, 2: "rtp://@239.1.1.9:5004", 3: f"udp://{GROUP4}:5004", 4: fifo, 5: SAMPLE}
        with open(self.path("live.toml"), "w", encoding="utf-8") as file:
            file.write(f'[defaults]\ndevice = "{self.bed.NEAR}"\n')
            for number, source in inputs.items():
                file.write(f'[[channel]]\nname = "c{number}"\ninput = "{source}"\nto = "udp://239.7.8.{number}:5006"\n')
        receiver = self.bed.far.packet_socket(self.bed.FAR)
        self.addCleanup(receiver.close)
        receiver.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, RECEIVE_BUFFER)
        receiver.settimeout(60)
        payloads = {3: Playout(datagrams=900, rtp=False), 4: Playout(datagrams=3000, rtp=False)}
        frames = [frame for _, frame in payloads[3].capture()]
        payloads = {number: playout.payloads() for number, playout in payloads.items()}
        player = self.bed.start("lineup", self.path("live.toml"), "--json")
        with open(fifo, "wb", buffering=0) as pipe:
            threads = (threading.Thread(target=pipe.write, args=(b"".join(payloads[4]),)),
                       threading.Thread(target=self.send_when_joined, args=(GROUP4, frames)))
            for thread in threads:
                thread.start()
            arrived = {number: [] for number in inputs}
            while [len(arrived[number]) for number in (3, 4, 5)] != [900, 3000, 203]:
                frame = receiver.recv(2048)
                if frame[30:33] == bytes((239, 7, 8)):
                    arrived[frame[33]].append(frame[42:])
            for thread in threads:
                thread.join()
            player.send_signal(signal.SIGINT)
            output, errors = player.communicate(timeout=30)
        self.assertEqual(player.returncode, PLAYED, errors)
        self.assertEqual([arrived[number] == payloads[number] for number in (3, 4)], [True, True])
        self.assertEqual((arrived[1], arrived[2], b"".join(arrived[5])), ([], [], read_file(SAMPLE)))
        channels = {channel["name"]: (channel["state"], channel["starts"]) for channel in json.loads(output)["channels"]}
        del channels["c5"]  # has ended, or is about to
        self.assertEqual(channels, {"c1": ("stopped", 0), "c2": ("stopped", 0), "c3": ("stopped", 1), "c4": ("stopped", 1)})


if __name__ == "__main__":
    unittest.main()
