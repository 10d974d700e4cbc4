#!/usr/bin/env bash
# Builds vexo and runs its tests: an optimised build with all tests, then the unit tests again under
# AddressSanitizer and UndefinedBehaviorSanitizer. Installs Debian's packages where they are missing.
set -eu
cd "$(dirname "$0")"
scripts/install_packages.sh test
export CTEST_OUTPUT_ON_FAILURE=1 OPENCV_LOG_LEVEL=${OPENCV_LOG_LEVEL:-ERROR}

step() { printf '\n== %s\n' "$*"; }

step "format"
clang-format --dry-run --Werror $(git ls-files '*.h' '*.cpp')
step "build, warnings are errors"
cmake --preset dev > build.log 2>&1 || { cat build.log; exit 1; }
cmake --build --preset dev
step "tests"
ctest --preset dev
step "build with AddressSanitizer and UndefinedBehaviorSanitizer"
cmake --preset asan > build.log 2>&1 || { cat build.log; exit 1; }
cmake --build --preset asan --target unit_tests
step "unit tests under the sanitizers"
ctest --preset asan
rm -f build.log
step "all tests passed"
