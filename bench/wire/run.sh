#!/bin/bash
# SPDX-License-Identifier: MIT
# The yardstick: plays the same frames at the same rates with ipplayout, with the tools that people
# use for it today, and with bare loops that show what the kernel can do, over a veth pair between
# two namespaces of its own, and writes tables and plots. About ten minutes, as root, on Debian 12.
#
# usage: bench/wire/run.sh [--only ROW] [--sender NAME] [--rounds N] [--long] [--minutes N] [--out FOLDER]
set -euo pipefail
cd "$(dirname "$0")/../.."
. tools/setup.sh

peers=(tcpreplay multicat ffmpeg netsniff-ng stress-ng gstreamer1.0-tools gstreamer1.0-plugins-base
  gstreamer1.0-plugins-good gstreamer1.0-plugins-bad python3-numpy python3-matplotlib iproute2 curl
  prometheus chromium chromium-driver python3-selenium)

need_root
need_packages "${build_packages[@]}" "${peers[@]}"
need_namespaces
build release ipplay play_steady play_starts play_many bare_pacing bare_sendmmsg wire_receiver frame_path_bench

near=yardstick-$$-near
far=yardstick-$$-far
clean_up() {
  ip netns delete "$near" 2>/dev/null || true
  ip netns delete "$far" 2>/dev/null || true
}
trap clean_up EXIT
trap 'exit 130' INT TERM HUP

ip netns add "$near"
ip netns add "$far"
for namespace in "$near" "$far"; do
  # Neighbour and router discovery would add frames that nobody has asked for.
  nsenter --net="/run/netns/$namespace" sh -c 'echo 1 >/proc/sys/net/ipv6/conf/default/disable_ipv6'
done
ip -n "$near" link add near type veth peer name far netns "$far"
ip -n "$far" link set far up
ip -n "$near" address add 10.77.0.1/24 dev near
ip -n "$near" link set near up
ip -n "$near" route add 239.0.0.0/8 dev near
# A second path.
ip -n "$near" link add near2 type veth peer name far2 netns "$far"
ip -n "$far" link set far2 up
ip -n "$near" address add 10.78.0.1/24 dev near2
ip -n "$near" link set near2 up

/usr/bin/python3 bench/wire/yardstick.py "$@" "$near" "$far" build/release/bench
