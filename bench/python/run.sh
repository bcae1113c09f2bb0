#!/bin/bash
# SPDX-License-Identifier: MIT
# What Python costs: see write_rate.py, which this runs over a veth pair between two namespaces of its own. About
# three minutes, as root, on Debian 12.
#
# usage: bench/python/run.sh [--rates MBIT...] [--rounds N] [--seconds N]
set -euo pipefail
cd "$(dirname "$0")/../.."
. tools/setup.sh

need_root
need_packages "${build_packages[@]}" iproute2
need_namespaces
build release ipplay ipplayout play_files

export PYTHONDONTWRITEBYTECODE=1 PYTHONPATH=$PWD/python/src IPPLAYOUT_LIBRARY=$PWD/build/release/libipplayout.so
export IPPLAY=$PWD/build/release/host/ipplay
exec /usr/bin/python3 bench/python/write_rate.py build/release/examples/play_files "$@"
