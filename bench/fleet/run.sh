#!/bin/bash
# SPDX-License-Identifier: MIT
# A fleet on this machine: Slurm's daemons and four nodes, each in namespaces of its own and joined by one switch,
# play 64 channels in parts. How far apart the machines start, by the meter behind the switch; and what becomes of
# the part of a node that fails. About three minutes, as root, on Debian 12; leaves nothing behind.
#
# usage: bench/fleet/run.sh [--nodes N] [--channels N] [--rounds N] [--out FOLDER]
set -euo pipefail
cd "$(dirname "$0")/../.."
. tools/setup.sh

need_root
need_packages "${build_packages[@]}" "${fleet_packages[@]}"
need_namespaces
build release ipplay ipplayout

export PYTHONDONTWRITEBYTECODE=1 IPPLAY=$PWD/build/release/host/ipplay IPPLAYOUT_LIBRARY=$PWD/build/release/libipplayout.so
exec /usr/bin/python3 bench/fleet/fleet.py "$@"
