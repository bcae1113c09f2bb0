# SPDX-License-Identifier: MIT
"""Two network namespaces joined by a veth pair: a host plays in one, the other end is captured.

The namespaces have no name and are held open by this process alone, so that the kernel removes them
and their interfaces with it, however it ends.
"""
import ctypes
import errno
import faulthandler
import os
import pickle
import re
import select
import signal
import socket
import struct
import subprocess
import tempfile
import traceback
from dataclasses import dataclass

from library import Library

CLONE_NEWNS, CLONE_NEWNET = 0x00020000, 0x40000000
MS_BIND, MS_REC, MS_PRIVATE = 0x1000, 0x4000, 0x40000
PR_SET_PDEATHSIG = 1
SOL_PACKET, PACKET_STATISTICS, PACKET_AUXDATA = 263, 6, 8
SO_TIMESTAMPNS, SO_RCVBUFFORCE = 35, 33
ETH_P_ALL, PACKET_OUTGOING = 0x0003, 4
VLAN_VALID, VLAN_TPID_VALID = 1 << 4, 1 << 6
MARKER = bytes.fromhex("0200000000ff 0200000000fe 88b5".replace(" ", ""))  # local experimental type
RECEIVE_BUFFER = 1 << 29
HANG_SECONDS = int(os.environ.get("IPPLAYOUT_WIRE_HANG_SECONDS", "120"))

PRINTED = re.compile(  # every line that the library may print in the situations of these tests
    r"\d\d/\d\d/\d\d \d\d:\d\d:\d\d OsaThread::Start, name = \w+, id = \d+"
    r"|The MAC address of the adapter is ([0-9a-f]{2}:){5}[0-9a-f]{2}"
    r"|\tAddress Family Name: Unknown"
    r"|An error occurred sending the packets:  Only \d+ bytes were sent"
    r"| \(ERROR_(GEN_FAILURE|NOT_FOUND|INVALID_PARAMETER)\)"
    r"|")

libc = ctypes.CDLL(None, use_errno=True)


def call(function, *arguments):
    if function(*arguments) != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{function.__name__}: {os.strerror(number)}")


def mount(source, target, kind, flags=0):
    call(libc.mount, source, target, kind, ctypes.c_ulong(flags), None)


class Namespace:
    """A network namespace without a name."""

    def __init__(self):
        home = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        try:
            call(libc.unshare, CLONE_NEWNET)
            self.descriptor = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
            call(libc.setns, home, CLONE_NEWNET)
        finally:
            os.close(home)
        self.path = f"/proc/{os.getpid()}/fd/{self.descriptor}"

    def enter(self):
        call(libc.setns, self.descriptor, CLONE_NEWNET)

    def run(self, *command):
        subprocess.run(command, preexec_fn=self.enter, check=True)

    def packet_socket(self, interface):
        """A packet socket on an interface of this namespace, usable from any other one."""
        home = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        try:
            self.enter()
            sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
            sock.bind((interface, ETH_P_ALL))
        finally:
            call(libc.setns, home, CLONE_NEWNET)
            os.close(home)
        return sock

    def close(self):
        os.close(self.descriptor)


class Capture:
    """Every frame that arrives at an interface, as it was on the wire, with the kernel's time of arrival."""

    def __init__(self, sock):
        self.socket = sock
        sock.setblocking(False)
        sock.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, RECEIVE_BUFFER)
        sock.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        sock.setsockopt(SOL_PACKET, PACKET_AUXDATA, 1)
        self.buffer = bytearray(1 << 16)
        self.begin()

    def begin(self):
        self.frames, self.markers = [], 0
        self.socket.getsockopt(SOL_PACKET, PACKET_STATISTICS, 8)  # reading resets

    def drain(self):
        while True:
            try:
                size, ancillary, _, address = self.socket.recvmsg_into([self.buffer], 128)
            except BlockingIOError:
                return
            except OSError as error:
                if error.errno != errno.ENETDOWN:  # reported once; frames come again when it is up
                    raise
                continue
            if address[2] == PACKET_OUTGOING:
                continue
            frame, arrival = bytes(self.buffer[:size]), 0.0
            for level, kind, data in ancillary:
                if (level, kind) == (socket.SOL_SOCKET, SO_TIMESTAMPNS):
                    seconds, nanoseconds = struct.unpack("qq", data)
                    arrival = seconds + nanoseconds * 1e-9
                elif (level, kind) == (SOL_PACKET, PACKET_AUXDATA):
                    frame = self.with_tag(frame, data)
            if frame.startswith(MARKER):
                self.markers += 1
            else:
                self.frames.append((arrival, frame))

    @staticmethod
    def with_tag(frame, auxiliary):
        """The kernel takes an 802.1Q tag out of a received frame; it goes back where it was."""
        status, _, _, _, _, tci, tpid = struct.unpack("IIIHHHH", auxiliary)
        if not status & VLAN_VALID:
            return frame
        return frame[:12] + struct.pack(">HH", tpid if status & VLAN_TPID_VALID else 0x8100, tci) + frame[12:]

    def dropped(self):
        return struct.unpack("II", self.socket.getsockopt(SOL_PACKET, PACKET_STATISTICS, 8))[1]


@dataclass
class Outcome:
    value: object   # what the host's function returned
    arrivals: list  # (time, frame) as captured on the far side
    printed: str    # what the host process wrote to standard output
    errors: str     # and to standard error

    @property
    def frames(self):
        return [frame for _, frame in self.arrivals]


def write_pcap(path, arrivals):
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 1 << 16, 1))  # nanoseconds, Ethernet
        for arrival, frame in arrivals:
            seconds = int(arrival)
            file.write(struct.pack("<IIII", seconds, int((arrival - seconds) * 1e9),
                                   len(frame), len(frame)))
            file.write(frame)


class Testbed:
    NEAR, FAR = "near", "far"  # interface names; each is alone in its namespace, but for lo
    MTU = 16384
    printed = PRINTED

    def __init__(self):
        if os.geteuid() != 0:
            raise PermissionError("the wire tests make network namespaces: run them as root")
        self.library_path = os.environ["IPPLAYOUT_LIBRARY"]
        self.near, self.far = Namespace(), Namespace()
        for namespace in (self.near, self.far):
            # Neighbour and router discovery would add frames that no test has asked for.
            namespace.run("sh", "-c", "echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6")
        self.near.run("ip", "link", "add", self.NEAR, "mtu", str(self.MTU), "type", "veth",
                      "peer", "name", self.FAR, "mtu", str(self.MTU), "netns", self.far.path)
        # The far end first: the near end then has its carrier, and a ready queue, as it comes up.
        self.far.run("ip", "link", "set", self.FAR, "up")
        self.near.run("ip", "link", "set", self.NEAR, "up")
        self.capture = Capture(self.far.packet_socket(self.FAR))
        self.marker_socket = self.near.packet_socket(self.NEAR)

    def close(self):
        self.capture.socket.close()
        self.marker_socket.close()
        self.near.close()
        self.far.close()

    def set_link(self, state):
        """Takes the sending adapter down or up; called in the host's process or in the test's."""
        self.near.run("ip", "link", "set", self.NEAR, state)

    def run(self, body, *arguments):
        """Runs body(library, *arguments) in a process of its own beside the near end.

        A crash, a hang or an exception of that process fails the test that called.
        """
        self.capture.begin()
        read_end, write_end = os.pipe()
        with tempfile.TemporaryFile() as output, tempfile.TemporaryFile() as complaints:
            process = os.fork()
            if process == 0:
                os.close(read_end)
                self._be_the_host(write_end, output, complaints, body, arguments)
            os.close(write_end)
            report, status = self._wait(process, read_end)
            texts = [read_all(file) for file in (output, complaints)]
        kind, value = pickle.loads(report) if report else ("ended", how_it_ended(status))
        if kind != "value":
            raise AssertionError(f"in the host process: {value}\nstandard output:\n{texts[0][-2000:]}"
                                 f"\nstandard error:\n{texts[1][-8000:]}")
        if status != 0:
            raise AssertionError(f"the host process {how_it_ended(status)} at its end:\n{texts[1]}")
        strange = [line for line in texts[0].splitlines() if not self.printed.fullmatch(line)]
        if strange:
            raise AssertionError(f"the library printed {strange}")
        self.catch_up()
        return Outcome(value, self.capture.frames, *texts)

    def _be_the_host(self, write_end, output, complaints, body, arguments):
        status = 1
        try:
            call(libc.prctl, PR_SET_PDEATHSIG, signal.SIGKILL)
            os.dup2(output.fileno(), 1)
            os.dup2(complaints.fileno(), 2)
            faulthandler.enable(complaints)
            faulthandler.dump_traceback_later(HANG_SECONDS, exit=True, file=complaints)
            self.near.enter()
            call(libc.unshare, CLONE_NEWNS)
            mount(b"none", b"/sys", None, MS_REC | MS_PRIVATE)
            mount(b"sysfs", b"/sys", b"sysfs")  # shows the interfaces of the namespace it is mounted in
            report = ("value", body(Library(self.library_path), *arguments))
            status = 0
        except BaseException:  # whatever it is, the test process must hear of it
            report = ("exception", traceback.format_exc())
        with os.fdopen(write_end, "wb") as pipe:
            pickle.dump(report, pipe)
        libc.fflush(None)
        # Ends as a host does, destructors of the library included.
        libc.exit(status)

    def _wait(self, process, read_end):
        """Takes in frames and the host's report until it has ended."""
        report = b""
        while True:
            for ready in select.select([read_end, self.capture.socket], [], [])[0]:
                if ready is self.capture.socket:
                    self.capture.drain()
                    continue
                piece = os.read(read_end, 1 << 20)
                report += piece
                if not piece:
                    os.close(read_end)
                    return report, os.waitpid(process, 0)[1]

    def catch_up(self):
        """Returns when every frame sent before has been captured.

        A frame passes through the backlog of the processor that sent it, in order. So one marker
        sent from each processor comes behind everything.
        """
        self.marker_socket.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)  # of an adapter that was down
        processors = os.sched_getaffinity(0)
        for processor in processors:
            os.sched_setaffinity(0, {processor})
            try:
                self.marker_socket.send(MARKER + bytes(46))
            except OSError as error:
                if error.errno not in (errno.ENETDOWN, errno.ENXIO):
                    raise
                self.capture.drain()  # an adapter that is down or gone has nothing under way
                self.capture.markers += 1
        os.sched_setaffinity(0, processors)
        while self.capture.markers < len(processors):
            select.select([self.capture.socket], [], [])
            self.capture.drain()
        dropped = self.capture.dropped()
        if dropped:
            raise AssertionError(f"the capture itself lost {dropped} frames")


def read_all(file):
    file.seek(0)
    return file.read().decode(errors="replace")


def how_it_ended(status):
    if os.WIFSIGNALED(status):
        return f"ended by {signal.Signals(os.WTERMSIG(status)).name}"
    return f"ended with status {os.waitstatus_to_exitcode(status)}"
