#!/usr/bin/env bash
# The long form of tests/hard: one table of what was tried and what was found.
#   tests/hard/run.sh [--seconds N] [--seed S] [BUILD_DIR]     N seconds for each program, default 60
# Everything, as stated in docs/robustness.md, takes some hours: run.sh --seconds 3600
set -u
cd "$(dirname "$0")/../.."
seconds=60
seed=$RANDOM
while [ $# -gt 1 ]; do
  case "$1" in
    --seconds) seconds=$2 ;;
    --seed) seed=$2 ;;
    *) break ;;
  esac
  shift 2
done
build=${1:-build/dev}
status=0
echo "seed $seed, $seconds s for each program, $build"
for program in files calls memory writers soak threads unload traps commands; do
  "$build/tests/hard/hard_$program" --seconds "$seconds" --seed "$seed" 2> /dev/null || status=1
done
[ $status = 0 ] && echo "nothing found" || echo "something was found: see the lines above"
exit $status
