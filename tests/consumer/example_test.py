#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Plays a file with the example to a UDP socket at the far end of a veth pair and compares the bytes.

Both ends are network namespaces without a name, which the kernel removes with their processes.
Usage, as root: example_test.py PLAY_FILE"""

import os
import random
import socket
import subprocess
import sys
import tempfile

PACKETS_PER_DATAGRAM, PACKET = 7, 188
PACKETS = 100 * PACKETS_PER_DATAGRAM + 3  # the last datagram is a short one
HEADERS = 14 + 20 + 8
TIMEOUT = 60  # ends a broken test, never a working one


def run(*command):
    subprocess.run(command, check=True)


def receive(size):
    """The far end: takes its end of the pair, then `size` bytes, and writes them to its output."""
    print("ready", flush=True)
    sys.stdin.readline()
    run("ip", "address", "add", "10.0.0.2/24", "dev", "far")
    run("ip", "link", "set", "far", "up")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
        receiver.bind(("10.0.0.2", 5004))
        receiver.settimeout(TIMEOUT)
        print("ready", flush=True)
        received = b""
        while len(received) < size:
            received += receiver.recv(65536)
    sys.stdout.buffer.write(received)


def play(program):
    stream = b"".join(b"\x47" + random.Random(i).randbytes(PACKET - 1) for i in range(PACKETS))
    far = subprocess.Popen(["unshare", "--net", sys.executable, __file__, "--receive",
                            str(len(stream))], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    try:
        play_to(far, program, stream)
    finally:
        far.kill()


def play_to(far, program, stream):
    assert far.stdout.readline() == b"ready\n"
    run("ip", "link", "add", "near", "type", "veth", "peer", "name", "far", "netns", str(far.pid))
    run("ip", "address", "add", "10.0.0.1/24", "dev", "near")
    run("ip", "link", "set", "near", "up")
    far.stdin.write(b"go\n")
    far.stdin.flush()
    assert far.stdout.readline() == b"ready\n"

    with tempfile.NamedTemporaryFile(suffix=".ts") as file:
        file.write(stream)
        file.flush()
        device = "0"  # adapters come in the capture library's order: loopback last
        played = subprocess.run([program, file.name, device, "10.0.0.2", "5004", "20"], text=True,
                                stdout=subprocess.PIPE, timeout=TIMEOUT, check=True)
    received = far.communicate(timeout=TIMEOUT)[0]
    assert received == stream, f"{len(received)} bytes of {len(stream)} or others than sent"
    datagrams = -(-PACKETS // PACKETS_PER_DATAGRAM)
    expected = f"{datagrams} datagrams, {len(stream) + datagrams * HEADERS} bytes"
    assert played.stdout.splitlines()[-1] == expected, played.stdout
    print(expected)


if __name__ == "__main__":
    if sys.argv[1] == "--receive":
        receive(int(sys.argv[2]))
    elif sys.argv[1] == "--inside":
        play(sys.argv[2])
    else:
        os.execvp("unshare", ["unshare", "--net", sys.executable, __file__, "--inside", sys.argv[1]])
