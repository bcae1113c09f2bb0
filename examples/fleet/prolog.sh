#!/bin/bash
# SPDX-License-Identifier: MIT
# Prolog of Slurm (slurm.conf: Prolog=/etc/slurm/prolog.d/*): a machine that could not play as ordered is
# drained, with the reason in its log, and the task goes to another one. By hand it says the same.
#
#   IPPLAY_ADAPTER          that plays; default eth1
#   IPPLAY_MAX_CLOCK_ERROR  seconds by which the clock may be wrong; "none": no check; default 0.0005
set -u
adapter=${IPPLAY_ADAPTER:-eth1}
max_clock_error=${IPPLAY_MAX_CLOCK_ERROR:-0.0005}
user=${SLURM_JOB_USER:-$(id -un)}

refuse() {
  echo "$(hostname): $*" >&2
  exit 1
}

program=$(command -v ipplay) || refuse "ipplay is not installed: apt install ./ipplay_*.deb ./libipplayout1_*.deb"

# From the kernel itself, in this network namespace.
link=$(ip -oneline link show dev "$adapter" 2>/dev/null) || refuse "$adapter is not here: set IPPLAY_ADAPTER"
[[ $link == *LOWER_UP* ]] || refuse "$adapter is down or has no carrier"

# Root, or the capabilities of the program, which members of its group may run.
if [ "$user" != root ]; then
  rights=$(getcap "$program")
  [[ $rights == *cap_net_raw* && $rights == *cap_sys_nice* ]] ||
    refuse "$program lacks rights: setcap cap_net_raw,cap_sys_nice+ep $program"
  group=$(stat --format=%G "$program")
  [[ " $(id -Gn "$user") " == *" $group "* ]] || refuse "$user may not run $program: usermod --append --groups $group $user"
fi

# Once, without waiting: a clock that is still being set is no clock to start by.
if [ "$max_clock_error" != none ]; then
  command -v chronyc >/dev/null || refuse "the clock cannot be judged without chrony: apt install chrony"
  chronyc waitsync 1 "$max_clock_error" 0 1 >/dev/null ||
    refuse "the clock is not synchronised, or wrong by more than $max_clock_error s (chronyc tracking)"
fi
