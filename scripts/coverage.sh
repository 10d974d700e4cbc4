#!/usr/bin/env bash
# Which lines and branches of src/ and include/ the tests reach: coverage.sh [-l] [BUILD_DIR]   -l: a table of lines
# Needs gcovr (Debian's package). Left out are the branches that the compiler makes for exceptions, one behind nearly
# every call, and those in lines without code. The virtual rig's tests use nothing of src/, those of the commands
# nothing that others do not: they are not run.
set -eu
cd "$(dirname "$0")/.."
table=--branches
if [ "${1:-}" = -l ]; then
  table=
  shift
fi
build=${1:-build/coverage}
cmake --preset coverage -B "$build" > /dev/null
cmake --build "$build" --target unit_tests hard_tests
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" -L 'unit|hard' -E '^sim\.|commands' -j2 --output-on-failure
gcovr -r . --filter src/ --filter include/vexo/ --exclude-throw-branches --exclude-unreachable-branches \
  $table --print-summary "$build/src" "$build/tests"
