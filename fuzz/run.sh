#!/usr/bin/env bash
# Runs every fuzz target for SECONDS, with its kept corpus, one on each core:  fuzz/run.sh SECONDS
# What it learns goes to build/fuzz/corpus; an input that breaks something is left in build/fuzz/found.
set -u
cd "$(dirname "$0")/.."
export seconds=${1:?seconds for each target}
mkdir -p build/fuzz/found
cmake --preset fuzz > build/fuzz.log && cmake --build --preset fuzz --target fuzz_targets >> build/fuzz.log 2>&1 || { cat build/fuzz.log; exit 1; }

run() {
  local target=$1 program=build/fuzz/fuzz/fuzz_$1 learned=build/fuzz/corpus/$1 verdict runs status=0
  mkdir -p "$learned" "fuzz/corpus/$target"
  VEXO_FUZZ_SEED=$learned/good "$program" 2> /dev/null || { echo "$target: does not start"; return 1; }
  "$program" "$learned" "fuzz/corpus/$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 \
    -max_len=131072 -artifact_prefix=build/fuzz/found/"$target"- -print_final_stats=1 > build/fuzz/$target.log 2>&1 \
    && verdict="nothing found" || { verdict="FOUND, see build/fuzz/$target.log"; status=1; }
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' build/fuzz/$target.log)
  printf '%-14s %10s inputs   %s\n' "$target" "${runs:-?}" "$verdict"
  return $status
}
export -f run
printf '%s\n' calibration stereo projection hmat_tables tables transform board decoders pictures ply robot_poses \
  | xargs -P "$(nproc)" -I {} bash -c 'run {}'
