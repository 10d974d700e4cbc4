#!/usr/bin/env bash
# Installs the build into a fresh prefix, builds examples/measure against it (CMake package and vexo.pc) and
# measures a small scan of the virtual rig with it.
# install_and_host.sh BUILD_DIR SOURCE_DIR VEXO_PROGRAM
set -eu
build=$1; source=$2; program=$3
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" > "$work/install.log"
lib=$(dirname "$(find "$work/prefix" -name libvexo.so)")
test "$(readlink "$lib/libvexo.so")" = libvexo.so.0

cmake -G Ninja -S "$source/examples/measure" -B "$work/host" -DCMAKE_PREFIX_PATH="$work/prefix" > "$work/cmake.log"
cmake --build "$work/host" > "$work/build.log" || { cat "$work/build.log"; exit 1; }
"$program" simulate bust --out "$work/scan" --quiet
"$work/host/measure" "$work/scan" "$work/cloud.ply" | tee "$work/said"
points=$(cut -d ' ' -f 1 "$work/said")
test "$points" -gt 200000
test "$(grep -c '' "$work/cloud.ply")" = $((points + 8))

# The same host through pkg-config.
flags=$(PKG_CONFIG_PATH="$lib/pkgconfig" pkg-config --cflags --libs vexo)
c++ -std=c++17 "$source/examples/measure/main.cpp" -o "$work/by_pkg_config" $flags
if LD_LIBRARY_PATH="$lib" "$work/by_pkg_config" "$work" "$work/none.ply" 2> "$work/said"; then exit 1; fi
grep -q 'cameras.yaml: not a camera pair' "$work/said"

# Block matching on a pair with ground truth, where Debian's opencv-doc has installed it.
data=/usr/share/doc/opencv-doc/examples/data
if test -e "$data/aloeGT.png"; then
  cmake -G Ninja -S "$source/examples/sgbm" -B "$work/sgbm" -DCMAKE_PREFIX_PATH="$work/prefix" > "$work/cmake.log"
  cmake --build "$work/sgbm" > "$work/build.log" || { cat "$work/build.log"; exit 1; }
  "$work/sgbm/sgbm" "$data" | tee "$work/said" # not 0 when a pixel differs from OpenCV run directly
  grep -q '^library  *67\.[45].* %  *0\.1[89].* px' "$work/said"
fi
