#!/bin/bash
# SPDX-License-Identifier: MIT
# Plays a transport stream over RTP from one network namespace to another and shows what arrived.
# Does all its set-up itself on Debian 12, as root; needs no network card and leaves nothing behind.
set -euo pipefail
cd "$(dirname "$0")"
. tools/setup.sh

need_root
need_packages "${build_packages[@]}" "${wire_packages[@]}"
need_namespaces
build release ipplay

stream=tests/data/sample.ts
rate=700000  # bit/s; the stream is of constant rate
per_datagram=$((7 * 188))
near=ipplay-demo-$$-near
far=ipplay-demo-$$-far
work=$(mktemp -d)

clean_up() {
  local jobs
  jobs=$(jobs -p)
  # shellcheck disable=SC2086  # one word for each job
  [ -z "$jobs" ] || kill $jobs 2>/dev/null || true
  ip netns delete "$near" 2>/dev/null || true
  ip netns delete "$far" 2>/dev/null || true
  rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT TERM HUP

# Enters the network alone: "ip netns exec" also changes mounts, which a chroot refuses.
near_run() { nsenter --net="/run/netns/$near" "$@"; }
far_run() { nsenter --net="/run/netns/$far" "$@"; }

ip netns add "$near"
ip netns add "$far"
near_run ip link add near type veth peer name far netns "$far"
far_run ip address add 10.77.0.2/24 dev far
far_run ip link set far up
near_run ip address add 10.77.0.1/24 dev near
near_run ip link set near up

# The far side: a capture that ends with the last datagram.
expected=$((($(stat -c %s "$stream") + per_datagram - 1) / per_datagram))
mkfifo "$work/said"
far_run timeout 60 dumpcap -q -i far -f "udp port 5004" -c "$expected" \
  -w "$work/capture.pcapng" 2>"$work/said" &
capture=$!
exec 3<"$work/said"
while read -r line <&3 && [[ $line != File:* ]]; do :; done  # now it listens
cat <&3 >/dev/null &

echo "Playing $stream at $rate bit/s, rtp://10.77.0.2:5004"
near_run build/release/host/ipplay play "$stream" \
  --device near --to rtp://10.77.0.2:5004 --bitrate "$rate"
wait "$capture" || true

# The stream as it arrived: the payload behind each RTP header of 12 bytes.
tshark -r "$work/capture.pcapng" -T fields -e frame.time_epoch -e udp.payload \
  -e ip.checksum.status -e udp.checksum.status \
  -o ip.check_checksum:TRUE -o udp.check_checksum:TRUE >"$work/fields" 2>/dev/null
python3 - "$work" "$rate" "$stream" <<'PYTHON'
import struct
import sys

work, rate, stream = sys.argv[1], int(sys.argv[2]), open(sys.argv[3], "rb").read()
rows = [line.split("\t") for line in open(f"{work}/fields").read().splitlines()]
datagrams = [bytes.fromhex(row[1].replace(":", "")) for row in rows]
payload = b"".join(datagram[12:] for datagram in datagrams)
open(f"{work}/received.ts", "wb").write(payload)
seconds = float(rows[-1][0]) - float(rows[0][0])
bits = 8 * sum(len(datagram) - 12 for datagram in datagrams[:-1])
numbers = [struct.unpack_from(">H", datagram, 2)[0] for datagram in datagrams]
jumps = sum((after - before) % 65536 != 1 for before, after in zip(numbers, numbers[1:]))
bad = sum(row[2] != "1" or row[3] != "1" for row in rows)
print(f"""
On the far side
  datagrams   {len(datagrams)} in {seconds:.3f} s, {jumps} gaps in the RTP sequence, {bad} wrong checksums
  bit rate    {rate} bit/s set, {bits / seconds:.0f} bit/s measured (transport stream)
  payload     {len(payload)} bytes, {"identical to" if payload == stream else "DIFFERENT from"} the file""")
PYTHON
codecs=$(ffprobe -v error -show_entries stream=codec_name,codec_type -of csv=p=0 "$work/received.ts" |
  grep . | sort -ru | tr ',' ' ' | paste -sd ',' | sed 's/ *,/, /g; s/ *$//')
ffmpeg -nostdin -loglevel error -progress "$work/progress" -i "$work/received.ts" -f null - 2>"$work/complaints"
echo "  decoder     ffmpeg: $codecs; $(sed -n 's/^frame=//p' "$work/progress" | tail -n 1) pictures," \
  "$(wc -l <"$work/complaints") complaints"
cmp -s "$work/received.ts" "$stream" || stop "the payload did not arrive as it was sent"

echo
build/release/host/ipplay demo --length 3s --report build/demo-report.html
