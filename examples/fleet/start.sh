#!/bin/bash
# SPDX-License-Identifier: MIT
# Plays a lineup on machines of a Slurm cluster, all from the same moment on, waits for the end, and gathers.
#
# usage: start.sh LINEUP MACHINES FOLDER [OPTIONS OF ipplay gather]
#
# FOLDER is new, and on a file system that all machines share, as the lineup and its inputs are. The exit status is
# that of the gathered result.
set -eu
[ $# -ge 3 ] || { sed -n 's/^# usage/usage/p' "$0" >&2; exit 2; }
lineup=$(realpath "$1") machines=$2 folder=$3
shift 3
here=$(dirname "$(realpath "$0")")
mkdir "$folder"
folder=$(realpath "$folder")

export LINEUP=$lineup RESULTS=$folder START_AT
START_AT=$(date -u -d "+${LEAD_SECONDS:-60} sec" +%FT%TZ)
# A task that fails makes sbatch fail, and has its line in the gathered result.
sbatch --wait --array="1-$machines" --output="$folder/part-%a.log" "$here/lineup.sbatch" || true
exec ipplay gather "$folder" --lineup "$lineup" --report "$folder/result.html" "$@"
