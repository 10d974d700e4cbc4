#!/usr/bin/env bash
# Runs every fuzz target for SECONDS, with its kept corpus:  fuzz/run.sh SECONDS
# What it learns goes to build/fuzz/corpus; an input that breaks something is left in build/fuzz/found.
set -u
cd "$(dirname "$0")/.."
seconds=${1:?seconds for each target}
cmake --preset fuzz > /dev/null && cmake --build --preset fuzz --target fuzz_targets > build/fuzz.log 2>&1 || { cat build/fuzz.log; exit 1; }
mkdir -p build/fuzz/found
status=0
for target in calibration stereo projection hmat_tables tables transform board decoders ply; do
  program=build/fuzz/fuzz/fuzz_$target learned=build/fuzz/corpus/$target
  mkdir -p "$learned" "fuzz/corpus/$target"
  VEXO_FUZZ_SEED=$learned/good "$program" 2> /dev/null || { echo "$target: does not start"; status=1; continue; }
  "$program" "$learned" "fuzz/corpus/$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 \
    -max_len=131072 -artifact_prefix=build/fuzz/found/"$target"- -print_final_stats=1 > build/fuzz/$target.log 2>&1 \
    && verdict="nothing found" || { verdict="FOUND, see build/fuzz/$target.log"; status=1; }
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' build/fuzz/$target.log)
  printf '%-14s %10s inputs   %s\n' "$target" "${runs:-?}" "$verdict"
done
exit $status
