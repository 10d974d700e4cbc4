#!/bin/sh
# What vexo measure costs, from its start to all files written, against the chain alone: set frames, decode, match,
# triangulate. 26 PNG frames of 1280 x 1024, two threads, chain and commands by turns, medians; and where the time goes.
#
#     bench/command.sh [SIZE] [ROUNDS]        1280x1024 and 7, if nothing else is said
set -eu
cd "$(dirname "$0")/.."
size=${1:-1280x1024} rounds=${2:-7}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
{ cmake --preset bench && cmake --build --preset bench --target vexo_first vexo_program; } > "$work/log" 2>&1 || {
  cat "$work/log" >&2
  exit 1
}
vexo=$PWD/build/bench/bin/vexo
"$vexo" simulate bust --size "$size" --quiet --out "$work/scan"
OMP_DYNAMIC=false OMP_NUM_THREADS=2 python3 bench/command.py "$vexo" build/bench/bench/vexo_first "$work" "$rounds" "$size"
