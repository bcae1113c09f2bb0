#!/bin/sh
# SPDX-License-Identifier: MIT
# Checks the models of the hand-overs with spin (Debian: spin, gcc): in every interleaving all
# processes end, and whoever waits is released. Then takes one step of the protocol away at a
# time: each of these faults must be found.
#
# usage: check.sh [thorough]
set -eu
models=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$models"/*.pml "$work"
cd "$work"

# search MODEL SETTINGS COMPILED-WITH RUN-WITH: false when pan finds something wrong.
search() {
  # Preprocessor settings are separate words.
  # shellcheck disable=SC2086
  { spin $2 -a "$1.pml" && gcc -O2 $3 -o pan pan.c; } >tools.out 2>&1 || { cat tools.out; exit 2; }
  # shellcheck disable=SC2086
  ./pan -m1000000 -w24 $4 >pan.out 2>&1
  ! grep -q "max search depth too small" pan.out || { echo "search depth too small"; exit 2; }
  grep -q "errors: 0" pan.out
}

must_hold() {
  search "$1" "$2" "$3" "$4" || { cat pan.out; echo "$1 $2: WRONG"; exit 1; }
  echo "$1 $2 $4: sound, $(sed -n 's/^ *\([0-9.e+]*\) states, stored.*/\1 states/p;
    s/.*depth reached \([0-9]*\),.*/depth \1,/p' pan.out | paste -sd' ')"
}

# No process stands still for good.
safe() { must_hold "$1" "$2" -DNOCLAIM ""; }

# And under fair scheduling each of them goes on.
sound() {
  safe "$1" "$2"
  must_hold "$1" "$2" -DNFAIR=4 "-a -f"
}

faulty() {
  if search "$1" "-DFAULT=$2" -DNOCLAIM ""; then
    echo "$1: fault $2 is not found"
    exit 1
  fi
  echo "$1: fault $2 is found"
}

sound ring -DFAULT=0
sound queues -DFAULT=0
sound queues "-DFAULT=0 -DMOST=2"
sound schedule "-DFAULT=0 -DDATA=1"
safe schedule -DFAULT=0
sound ledger -DFAULT=0
if [ "${1:-}" = thorough ]; then
  sound ring "-DFAULT=0 -DRUNS=2"
  sound ring "-DFAULT=0 -DWRITES=2"
  sound queues "-DFAULT=0 -DMOST=3"
  sound schedule -DFAULT=0
  sound ledger "-DFAULT=0 -DFRAMES=7 -DROOM=3"
fi
for fault in 1 2 3 4 5 6 7; do
  faulty ring $fault
  faulty queues $fault
done
for fault in 1 2 3 4 5 6 7 8 9 10 11; do
  faulty schedule $fault
done
for fault in 1 2 3 4 5 6 7 8; do
  faulty ledger $fault
done
