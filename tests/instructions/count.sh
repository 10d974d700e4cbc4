#!/usr/bin/env bash
# count.sh PROGRAM [--store] : counts the instructions of one measurement of a small capture on one thread, and fails
# when they are more than 5 % above those in stored.txt. Time is noisy, instructions are not: two runs differ by a few of
# a million. --store writes the count into stored.txt instead.
# Numbers are stored by the form of the kernels: valgrind can run those for AVX2, and none for AVX-512.
set -eu
program=$1
stored=$(dirname "$(realpath "$0")")/stored.txt
command -v valgrind > /dev/null || { echo "skipped: install valgrind to count instructions"; exit 77; }

said=$(OMP_NUM_THREADS=1 valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file=/dev/null \
  "$program" 2>&1) || { echo "$said"; echo "the chain fails under valgrind"; exit 1; }
form=$(sed -n 's/^form //p' <<< "$said")
count=$(sed -n 's/.*Collected : //p' <<< "$said")
[ "${count:-0}" != 0 ] || { echo "$program was built without valgrind's header: build it again"; exit 1; }
before=$(awk -v form="$form" '$1 == form { print $2 }' "$stored")

if [ "${2:-}" = --store ]; then
  kept=$(awk -v form="$form" '$1 != form' "$stored")
  printf '%s\n%s %s\n' "$kept" "$form" "$count" > "$stored"
  echo "stored: $form $count, before ${before:-none}"
  exit 0
fi
[ -n "$before" ] || { echo "skipped: no count is stored for the form \"$form\"; $0 $program --store does it"; exit 77; }
awk -v count="$count" -v before="$before" -v form="$form" 'BEGIN {
  printf "a chain takes %d instructions, %.2f %% more than the %d that are stored for the form %s\n", count,
    100 * (count / before - 1), before, form
  exit count > 1.05 * before }' || { echo "Is it worth that? Then store it: $0 $program --store"; exit 1; }
