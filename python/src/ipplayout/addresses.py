# SPDX-License-Identifier: MIT
"""Addresses of a datagram: what a text means, and what an adapter has."""
from __future__ import annotations

import fcntl
import ipaddress
import os
import re
import shutil
import socket
import struct
import subprocess
from typing import Union

from .errors import BadDestination, BadValue, NotInstalled

Address = Union[ipaddress.IPv4Address, ipaddress.IPv6Address]

SIOCGIFADDR, SIOCGIFHWADDR = 0x8915, 0x8927
IFREQ = "16s24x"


def parse_endpoint(what: str, text: str) -> tuple[Address, int]:
    """Address and port of "239.1.1.1:5000" or "[ff3e::1]:5000"; ``what`` names it in an error."""
    match = re.fullmatch(r"\[(?P<v6>[^]]+)\]:(?P<port6>\d+)|(?P<v4>[^:]+):(?P<port4>\d+)", text)
    try:
        if match:
            port = int(match["port6"] or match["port4"])
            if port <= 0xFFFF:
                return ipaddress.ip_address(match["v6"] or match["v4"]), port
    except ValueError:
        pass
    raise BadValue(f"{what} is {text!r}; it can be an address with a port, as in 239.1.1.1:5000 or [ff3e::1]:5000")


def multicast_mac(address: Address) -> bytes:
    """RFC 1112, 6.4, and RFC 2464, 7."""
    if address.version == 4:
        return b"\x01\x00\x5e" + (int(address) & 0x7FFFFF).to_bytes(3, "big")
    return b"\x33\x33" + address.packed[-4:]


def ask_adapter(adapter: str, request: int) -> bytes | None:
    """What ioctl(2) has of it; None where there is nothing of the kind."""
    name = adapter.encode()
    if len(name) >= 16:
        return None
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        try:
            return fcntl.ioctl(sock, request, struct.pack(IFREQ, name))[16:]
        except OSError:
            return None


def adapter_mac(adapter: str) -> bytes:
    data = ask_adapter(adapter, SIOCGIFHWADDR)
    if data is None:
        raise BadDestination(f'there is no adapter {adapter}; "ipplay devices" lists the adapters')
    return data[2:8]


def adapter_address(adapter: str, version: int) -> Address:
    """The first address of that version, the widest scope first; of the calling thread's network namespace."""
    if version == 4:
        data = ask_adapter(adapter, SIOCGIFADDR)
        if data is not None:
            return ipaddress.IPv4Address(data[4:8])
    else:
        with open("/proc/thread-self/net/if_inet6", encoding="ascii") as lines:
            rows = [line.split() for line in lines]
        own = sorted((int(scope, 16), text) for text, _, _, scope, _, name in rows if name == adapter)
        if own:
            return ipaddress.IPv6Address(bytes.fromhex(own[0][1]))
    adapter_mac(adapter)  # raises where there is no such adapter
    raise BadValue(f'{adapter} has no IPv{version} address; give a source, as in source="10.0.0.1:5000"')


def ipplay_program() -> str:
    """Path of ipplay: of the environment variable IPPLAY, or as a shell would find it."""
    program = shutil.which(os.environ.get("IPPLAY", "ipplay"))
    if program is None:
        raise NotInstalled("ipplay was not found: install the Debian package ipplay, or name the program in IPPLAY")
    return program


def destination_mac(adapter: str, address: Address) -> bytes:
    """The MAC address that a frame to the address needs; a neighbour that is not known yet is asked."""
    if address.is_multicast:
        return multicast_mac(address)
    process = subprocess.run([ipplay_program(), "resolve", str(address), "--device", adapter],
                             text=True, capture_output=True, check=False)
    if process.returncode != 0:
        raise BadDestination(process.stderr.strip().removeprefix("ipplay: "))
    return bytes.fromhex(process.stdout.split()[0].replace(":", ""))
