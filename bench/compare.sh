#!/bin/sh
# Builds the benchmarks and prints the ratios against OpenCV and against copying memory, for one thread and for two, and
# what a process's first measurement costs; then time and memory a pixel of smaller and larger frames;
# with --stages also the time of every stage, plain twin and library side by side.
set -eu
cd "$(dirname "$0")/.."
log=$(mktemp)
trap 'rm -f "$log"' EXIT
{ cmake --preset bench && cmake --build --preset bench --target vexo_ratios vexo_stages vexo_first; } > "$log" 2>&1 || {
  cat "$log" >&2
  exit 1
}
export OMP_DYNAMIC=false OMP_WAIT_POLICY="${OMP_WAIT_POLICY:-passive}" # on a busy machine spinning robs the one waited for
for threads in 1 2; do
  build/bench/bench/vexo_ratios --threads "$threads" --pairs "${PAIRS:-15}" 2> /dev/null
  build/bench/bench/vexo_first --threads "$threads" 2> /dev/null
done
build/bench/bench/vexo_ratios --sizes --pairs "${PAIRS:-15}" 2> /dev/null
if [ "${1:-}" = --stages ]; then
  OMP_NUM_THREADS=1 build/bench/bench/vexo_stages --benchmark_enable_random_interleaving=true \
    --benchmark_repetitions=5 --benchmark_report_aggregates_only=true 2> /dev/null
fi
