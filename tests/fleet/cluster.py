# SPDX-License-Identifier: MIT
"""A fleet on one machine: Slurm's own daemons, each node in namespaces of its own, joined by one switch.

    head    slurmctld, and the switch: a bridge with a port for each node and one for the meter
    n1 ...  slurmd as process 1 of a process namespace, with an adapter "port" and a host name of its own: when it is
            killed, everything on the node is gone at once, as when its power fails
    meter   sees every multicast frame that passes the switch

Nothing has a name that others could see, and everything ends with this process, however that ends.
"""
import array
import collections
import os
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "wire"))

from testbed import (MARKER, PACKET_STATISTICS, PR_SET_PDEATHSIG, RECEIVE_BUFFER, SO_RCVBUFFORCE, SO_TIMESTAMPNS,  # noqa: E402
                     SOL_PACKET, Namespace, call, libc)

HEAD, METER = "10.78.0.250", "10.78.0.251"
NODES_PER_FLEET = 200  # addresses
SNAP = 64  # bytes: all headers of a frame
SECONDS_TO_START = 30
MULTICAST_FRAME = struct.Struct("!6s6sHBBHHHBBH4s4sHHHHBBH")  # up to the sequence number of RTP

# Nodes are pinged every second or so, and down after SlurmdTimeout; cores are as many as it says here.
CONFIGURATION = """
ClusterName=fleet
SlurmctldHost=head({head})
AuthType=auth/munge
AuthInfo=socket={folder}/munge.socket
CredType=cred/munge
SlurmUser=root
SlurmdUser=root
StateSaveLocation={folder}/state
SlurmdSpoolDir={folder}/spool-%n
SlurmctldPidFile={folder}/slurmctld.pid
SlurmdPidFile={folder}/slurmd-%n.pid
SlurmctldLogFile={folder}/slurmctld.log
SlurmdLogFile={folder}/slurmd-%n.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/linear
SwitchType=switch/none
MpiDefault=none
MailProg=/bin/true
SchedulerParameters=sched_interval=1,sched_min_interval=0
SlurmdParameters=config_overrides
SlurmctldTimeout=5
SlurmdTimeout={timeout}
TCPTimeout=2
MessageTimeout=5
ReturnToService=2
JobRequeue=1
{prolog}
{nodes}
PartitionName=players Nodes=ALL Default=YES State=UP
"""


def die_with_parent():
    call(libc.prctl, PR_SET_PDEATHSIG, signal.SIGKILL)


def enter_and_die_with_parent(namespace):
    def prepare():
        die_with_parent()
        namespace.enter()
    return prepare


class Node:
    def __init__(self, number):
        self.name, self.address = f"n{number}", f"10.78.0.{number}"
        self.mac = bytes((2, 0, 0x78, 0, 0, number))
        self.network = Namespace()
        self.daemon = None


class Arrivals:
    """Time of the first frame, and all sequence numbers, of every multicast group, by the machine that sent them.

    By the kernel's time stamps at the meter, on a thread of its own.
    """

    def __init__(self, sock):
        self.begin()
        self._socket = sock
        sock.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, RECEIVE_BUFFER)
        sock.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        self._end = os.eventfd(0)
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def begin(self):
        """Forgets what was before; nothing is sent meanwhile."""
        self.first = {}  # (MAC address, group) -> ns since 1970
        self.sequences = collections.defaultdict(lambda: array.array("H"))

    def _run(self):
        buffer = bytearray(SNAP)
        while True:
            ready, _, _ = select.select([self._socket, self._end], [], [])
            if self._socket in ready:
                self._take(buffer)
            elif ready:
                return

    def _take(self, buffer):
        _, ancillary, _, _ = self._socket.recvmsg_into([buffer], 64)
        if buffer.startswith(MARKER) or buffer[12:14] != b"\x08\x00" or buffer[30] >> 4 != 14 or buffer[23] != socket.IPPROTO_UDP:
            return
        seconds, nanoseconds = struct.unpack_from("qq", ancillary[0][2])
        fields = MULTICAST_FRAME.unpack_from(buffer)
        key = fields[1], socket.inet_ntoa(fields[12])
        self.first.setdefault(key, seconds * 10**9 + nanoseconds)
        self.sequences[key].append(fields[19])

    def dropped(self):
        return struct.unpack("II", self._socket.getsockopt(SOL_PACKET, PACKET_STATISTICS, 8))[1]

    def close(self):
        os.eventfd_write(self._end, 1)
        self._thread.join()
        os.close(self._end)
        self._socket.close()


class Cluster:
    """Nodes n1, n2, ...; up once the constructor has returned. ``close()`` ends and removes everything.

    ``prolog`` writes one into a folder and returns its path; ``timeout``: seconds until a node without answer is down.
    """

    def __init__(self, nodes, prolog=None, timeout=5):
        assert 0 < nodes <= NODES_PER_FLEET
        self.folder = tempfile.mkdtemp(prefix="fleet-")
        os.chmod(self.folder, 0o755)  # munge insists on a path that others cannot write to
        self._daemons = []
        self._namespaces = []
        self.arrivals = None
        try:
            self._make_switch()
            self.nodes = [self._make_node(number) for number in range(1, nodes + 1)]
            self._configure(prolog and prolog(self.folder), timeout)
            self._start_daemons()
        except BaseException:
            self.close()
            raise

    # ---- The network ----

    def _network(self):
        namespace = Namespace()
        self._namespaces.append(namespace)
        # Neighbour and router discovery would add frames that nobody has asked for.
        namespace.run("sh", "-c", "echo 1 >/proc/sys/net/ipv6/conf/default/disable_ipv6; ip link set lo up")
        return namespace

    def _make_switch(self):
        self.head = self._network()
        # A switch that knows its members: groups go to the meter alone, not to every player.
        self.head.run("sh", "-c", f"""set -e
            ip link add switch type bridge forward_delay 0 mcast_snooping 0
            ip address add {HEAD}/24 dev switch
            ip link set switch up""")
        self.meter = self._network()
        self._plug("meter", self.meter, METER, None)
        self.head.run("sh", "-c", "bridge link set dev meter mcast_flood on")
        self.arrivals = Arrivals(self.meter.packet_socket("port"))

    def _plug(self, name, namespace, address, mac):
        self.head.run("sh", "-c", f"""set -e
            ip link add {name} type veth peer name port {f'address {mac.hex(":")}' if mac else ''} netns {namespace.path}
            ip link set {name} master switch up
            bridge link set dev {name} mcast_flood off""")
        namespace.run("sh", "-c", f"""set -e
            ip address add {address}/24 dev port
            ip link set port up
            ip route add 224.0.0.0/4 dev port""")

    def _make_node(self, number):
        node = Node(number)
        self._namespaces.append(node.network)
        node.network.run("sh", "-c", "echo 1 >/proc/sys/net/ipv6/conf/default/disable_ipv6; ip link set lo up")
        self._plug(node.name, node.network, node.address, node.mac)
        return node

    # ---- The daemons ----

    def path(self, name):
        return os.path.join(self.folder, name)

    def _configure(self, prolog, timeout):
        os.mkdir(self.path("state"), 0o700)
        with open(self.path("munge.key"), "wb", opener=lambda name, flags: os.open(name, flags, 0o600)) as file:
            file.write(os.urandom(1024))
        with open(self.path("slurm.conf"), "w", encoding="utf-8") as file:
            file.write(CONFIGURATION.format(
                head=HEAD, folder=self.folder, timeout=timeout, prolog=f"Prolog={prolog}" if prolog else "",
                nodes="\n".join(f"NodeName={node.name} NodeAddr={node.address} CPUs=1 State=UNKNOWN" for node in self.nodes)))

    def _start(self, *command, namespace=None, **more):
        prepare = enter_and_die_with_parent(namespace) if namespace else die_with_parent
        with open(self.path("daemons.log"), "ab") as log:
            process = subprocess.Popen(command, preexec_fn=prepare, stdin=subprocess.DEVNULL, stdout=log, stderr=log, **more)
        self._daemons.append(process)
        return process

    def _start_daemons(self):
        # A socket appears before anybody listens on it, so the credential is what shows that munge is there.
        self._start("munged", "--foreground", *(f"--{option}={self.path(name)}" for option, name in (
            ("socket", "munge.socket"), ("key-file", "munge.key"), ("pid-file", "munge.pid"), ("log-file", "munge.log"),
            ("seed-file", "munge.seed"))))
        self._until("munge", lambda: self._asked("munge", "--no-input", f"--socket={self.path('munge.socket')}"))
        self._start_machine("head", self.head, f"slurmctld -D -f {self.path('slurm.conf')}")
        self._until("slurmctld", lambda: "UP" in self._slurm("scontrol", "ping"))
        for node in self.nodes:
            self.power_on(node)
        self._until("slurmd", lambda: self.states() == {node.name: "idle" for node in self.nodes})

    def power_on(self, node):
        node.daemon = self._start_machine(node.name, node.network, f"slurmd -D -N {node.name} -f {self.path('slurm.conf')}")

    def _start_machine(self, name, network, command):
        """With its own name and its own processes, which all end with the first one."""
        return self._start("unshare", "--uts", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc",
                           "sh", "-c", f"hostname {name} && exec {command}", namespace=network)

    def power_off(self, node):
        """All at once: its processes are killed, and the switch sees no carrier."""
        node.network.run("ip", "link", "set", "port", "down")
        self._kill(node.daemon)

    @staticmethod
    def _kill(process):
        """Of a machine, the first process: the kernel then ends all others, and unshare is left to take note of it."""
        try:
            with open(f"/proc/{process.pid}/task/{process.pid}/children", encoding="ascii") as file:
                first = file.read().split()[:1]
        except FileNotFoundError:
            first = []
        if process.poll() is None:
            os.kill(int(first[0]) if first and process.args[0] == "unshare" else process.pid, signal.SIGKILL)
        process.wait()

    def _until(self, what, is_there):
        end = time.monotonic() + SECONDS_TO_START
        while not is_there():
            if time.monotonic() > end or any(daemon.poll() is not None for daemon in self._daemons):
                raise RuntimeError(f"{what} did not come up:\n{self.logs()}")
            time.sleep(0.1)

    @staticmethod
    def _asked(*command):
        return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              check=False).returncode == 0

    def _slurm(self, *command, check=False):
        return subprocess.run(command, preexec_fn=self.head.enter, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=check,
                              env={**os.environ, "SLURM_CONF": self.path("slurm.conf")}).stdout

    def logs(self):
        texts = []
        for name in sorted(os.listdir(self.folder)):
            if name.endswith(".log"):
                with open(self.path(name), encoding="utf-8", errors="replace") as file:
                    texts.append(f"--- {name}\n{''.join(file.readlines()[-15:])}")
        return "".join(texts)

    # ---- Jobs ----

    def states(self):
        """State of each node, in sinfo's words."""
        lines = self._slurm("sinfo", "--noheader", "--Node", "--format=%N %T").splitlines()
        return dict(line.split()[:2] for line in lines if len(line.split()) == 2)

    def submit(self, script, *options, **environment):
        """The number of the job."""
        done = subprocess.run(["sbatch", "--parsable", *options, script], preexec_fn=self.head.enter, check=True, text=True,
                              stdout=subprocess.PIPE, stdin=subprocess.DEVNULL,
                              env={**os.environ, "SLURM_CONF": self.path("slurm.conf"), **environment})
        return int(done.stdout.split(";")[0])

    def release(self, job):
        """Starts what was queued again: Slurm lets it wait for two minutes, for the case that the fault is the job's."""
        self._slurm("scontrol", "update", f"JobId={job}", "StartTime=now")

    def tasks(self, job):
        """(state, machine or reason, restarts) of each task of an array that Slurm still knows, by its number."""
        text = self._slurm("squeue", "--noheader", "--array", f"--job={job}", "--states=all",
                           "--Format=ArrayTaskID:|,State:|,NodeList:|,Reason:|,RestartCnt:|")
        found = {}
        for line in text.splitlines():
            fields = [field.strip() for field in line.split("|")]
            if len(fields) >= 5 and fields[0].isdigit():
                found[int(fields[0])] = (fields[1], fields[2] or fields[3], int(fields[4] or 0))
        return found

    def wait_for(self, job, is_reached, seconds, what):
        """Asks Slurm about the job's tasks until that is reached."""
        end = time.monotonic() + seconds
        while not is_reached(tasks := self.tasks(job)):
            if time.monotonic() > end:
                raise RuntimeError(f"{what} took more than {seconds} s; tasks: {tasks}; nodes: {self.states()}\n{self.logs()}")
            time.sleep(0.2)
        return tasks

    def close(self):
        for daemon in reversed(self._daemons):
            self._kill(daemon)
        if self.arrivals:
            self.arrivals.close()
        for namespace in self._namespaces:
            namespace.close()
        shutil.rmtree(self.folder)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
