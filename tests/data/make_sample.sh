#!/bin/sh
# SPDX-License-Identifier: MIT
# Makes sample.ts: 3 s of MPEG-2 video and MP2 audio in a transport stream of a constant 700 kbit/s.
set -eu
cd "$(dirname "$0")"
ffmpeg -nostdin -loglevel error -y -bitexact \
  -f lavfi -i testsrc2=size=352x288:rate=25 -f lavfi -i sine=frequency=1000:sample_rate=48000 -t 3 \
  -c:v mpeg2video -b:v 480k -minrate 480k -maxrate 480k -bufsize 400k -g 12 -bf 2 \
  -c:a mp2 -b:a 64k -flags +bitexact \
  -f mpegts -muxrate 700k -pcr_period 20 sample.ts
