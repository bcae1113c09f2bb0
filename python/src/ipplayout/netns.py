# SPDX-License-Identifier: MIT
"""Network namespaces without a name, and a pair of adapters that joins two of them.

They are held open by this process alone, so the kernel removes them with it, however it ends. Needs root.
"""
from __future__ import annotations

import ctypes
import os
import subprocess
from types import TracebackType

CLONE_NEWNET = 0x40000000
OWN = "/proc/thread-self/ns/net"

libc = ctypes.CDLL(None, use_errno=True)


def call(name: str, *arguments: int) -> None:
    if getattr(libc, name)(*arguments) != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{name}: {os.strerror(number)}")


class Namespace:
    """A network namespace. Inside ``with namespace:`` this thread is in it, with what it opens and starts there."""

    def __init__(self) -> None:
        home = os.open(OWN, os.O_RDONLY | os.O_CLOEXEC)
        try:
            call("unshare", CLONE_NEWNET)
            try:
                self.descriptor = os.open(OWN, os.O_RDONLY | os.O_CLOEXEC)
            finally:
                call("setns", home, CLONE_NEWNET)
        finally:
            os.close(home)
        self._homes: list[int] = []

    @property
    def path(self) -> str:
        """For programs that take a namespace by its path, as ``nsenter --net=PATH``."""
        return f"/proc/{os.getpid()}/fd/{self.descriptor}"

    def run(self, *command: str) -> None:
        """Runs a command in it; ``subprocess.CalledProcessError`` if that fails."""
        with self:
            subprocess.run(command, check=True)

    def close(self) -> None:
        """The kernel removes it, with its adapters, once nobody is in it any more."""
        os.close(self.descriptor)

    def __enter__(self) -> Namespace:
        self._homes.append(os.open(OWN, os.O_RDONLY | os.O_CLOEXEC))
        call("setns", self.descriptor, CLONE_NEWNET)
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        home = self._homes.pop()
        call("setns", home, CLONE_NEWNET)
        os.close(home)


class Wire:
    """Two namespaces, ``near`` and ``far``, joined by a veth pair whose ends have these names and an address each."""

    NEAR, FAR = "near", "far"
    NEAR_ADDRESS, FAR_ADDRESS = "10.77.0.1", "10.77.0.2"

    def __init__(self) -> None:
        if os.geteuid() != 0:
            raise PermissionError("network namespaces are for root: run this with sudo, or in a privileged container")
        self.near = Namespace()
        self.far = Namespace()
        for namespace in (self.near, self.far):
            # Neighbour and router discovery would add frames that nobody has asked for.
            namespace.run("sh", "-c", "echo 1 >/proc/sys/net/ipv6/conf/default/disable_ipv6")
            namespace.run("ip", "link", "set", "lo", "up")
        self.near.run("ip", "link", "add", self.NEAR, "type", "veth", "peer", "name", self.FAR, "netns", self.far.path)
        # The far end first: the near end then has its carrier as it comes up.
        for namespace, name, address in ((self.far, self.FAR, self.FAR_ADDRESS), (self.near, self.NEAR, self.NEAR_ADDRESS)):
            namespace.run("ip", "address", "add", f"{address}/24", "dev", name)
            namespace.run("ip", "link", "set", name, "up")
            namespace.run("ip", "route", "add", "224.0.0.0/4", "dev", name)

    def close(self) -> None:
        self.near.close()
        self.far.close()
