#!/usr/bin/env bash
# Builds vexo and runs its tests: an optimised build with all tests, the sizes of functions and files, then the unit
# tests again under AddressSanitizer and UndefinedBehaviorSanitizer, and under ThreadSanitizer, then each fuzz target
# for 20 seconds. Installs Debian's packages where they are missing. Most of an hour on two cores.
set -eu
cd "$(dirname "$0")"
scripts/install_packages.sh test
export CTEST_OUTPUT_ON_FAILURE=1 OPENCV_LOG_LEVEL=${OPENCV_LOG_LEVEL:-ERROR}

# Says which step begins, and what the one before took of the clock and of the processors.
begun=0
step() {
  [ $begun = 0 ] || printf '   %d s, %d s of processors\n' $((SECONDS - begun)) $(($(processor_seconds) - used))
  begun=$SECONDS used=$(processor_seconds)
  printf '\n== %s\n' "$*"
}
processor_seconds() { awk '{ print int(($16 + $17) / 100) }' /proc/$$/stat; } # of the children that have ended

step "format"
clang-format --dry-run --Werror $(git ls-files '*.h' '*.cpp')
step "build, warnings are errors"
cmake --preset dev > build.log 2>&1 || { cat build.log; exit 1; }
cmake --build --preset dev
step "sizes: no function above 50 lines, no file above 400"
scripts/check_sizes.sh
step "tests"
ctest --preset dev
for sanitizer in asan tsan; do
  step "build for the sanitizers: $sanitizer"
  cmake --preset $sanitizer > build.log 2>&1 || { cat build.log; exit 1; }
  cmake --build --preset $sanitizer --target unit_tests
  step "unit tests under the sanitizers: $sanitizer"
  ctest --preset $sanitizer
done
step "fuzz targets"
fuzz/run.sh 20
rm -f build.log
step "all tests passed"
