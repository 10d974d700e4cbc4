#!/usr/bin/env bash
# No function above 50 lines, no file above 400.
# All our .cpp files are looked at, and the headers with them; those that the build leaves out (fuzz/, bench/,
# examples/) are read with the commands of their neighbours. Names every offender.
set -u
cd "$(dirname "$0")/.."
status=0

long=$(git ls-files '*.h' '*.cpp' | xargs wc -l | awk '$2 != "total" && $1 > 400 { print $2 ": " $1 " lines, at most 400" }')
if [ -n "$long" ]; then
  echo "$long"
  status=1
fi

# Headers that another compiler has parsed are nothing to clang-tidy: it gets the compile commands of its own preset.
cmake --preset tidy > build/sizes.log 2>&1 || { cat build/sizes.log; exit 1; }

# The limit of functions is in .clang-tidy. GCC speaks C++17 unasked, clang-tidy does not.
said=$(git ls-files '*.cpp' | xargs -n 8 -P "$(nproc)" clang-tidy -p build/tidy --quiet \
  --checks='-*,readability-function-size' --warnings-as-errors='*' --header-filter="$PWD/.*" \
  --extra-arg=-std=c++17 --extra-arg=-Wno-everything \
  --extra-arg=-DVEXO_FUZZ_FILE='""' --extra-arg=-DVEXO_FUZZ_LOADER=load_pair --extra-arg=-I"$PWD"/{src,tests,tests/hard} 2>&1) || status=1
echo "$said" | grep -E '(error|warning):' | sed "s|^$PWD/||" | sort -u
exit $status
