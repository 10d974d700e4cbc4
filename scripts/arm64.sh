#!/usr/bin/env bash
# arm64.sh [FOLDER] : builds library, program and tests for 64-bit ARM, and runs the unit tests under qemu.
# Everything happens in a Debian 12 of its own in FOLDER (default: vexo-arm64 in the user's cache): debootstrap makes it
# once, and Debian's cross compiler and arm64 packages are installed there, none on this system. Needs root, debootstrap
# and 4 GB. Compiling is as quick as for this machine, the emulated tests are slow; a second run builds what changed.
# In the end FOLDER/build/bin/vexo and FOLDER/build/src/libvexo.so are programs for Debian 12 on ARM.
set -eu
source_folder=$(cd "$(dirname "$0")/.." && pwd)
folder=$(realpath -m "${1:-${XDG_CACHE_HOME:-$HOME/.cache}/vexo-arm64}")
root=$folder/root

if [ -z "${VEXO_ARM64_INSIDE:-}" ]; then
  [ "$(id -u)" = 0 ] || { echo "vexo: run this as root: it makes a system in a folder and enters it" >&2; exit 1; }
  command -v debootstrap > /dev/null || { echo "vexo: install the package debootstrap first" >&2; exit 1; }
  mkdir -p "$folder/build"
  # Mounts are private to this run and end with it, however it ends.
  VEXO_ARM64_INSIDE=1 exec nice -n 10 unshare --mount --propagation private "$0" "$folder"
fi

tools="g++-aarch64-linux-gnu binutils cmake ninja-build pkg-config qemu-user libeigen3-dev libcli11-dev nlohmann-json3-dev
  libnanoflann-dev libjs-three"
libraries="libstdc++6 libgomp1 libopencv-dev libpng-dev libjpeg-dev libtiff-dev libdeflate-dev libhpdf-dev libssl-dev libgtest-dev"
# What cannot work there, by the name of the suite, and why: board.Windows starts its own program again, which a kernel
# that knows nothing of qemu does not run. (Forks, traps and hosts that unload the library are in tests/hard, which are no
# unit tests.)
left_out='^board\.Windows$'

# quietly LOG COMMAND... : shows the log's end only when the command fails.
quietly() {
  local log=$folder/$1
  shift
  "$@" > "$log" 2>&1 < /dev/null || { tail -n 20 "$log" >&2; echo "vexo: failed, see $log: $*" >&2; exit 1; }
}
inside() { chroot "$root" /usr/bin/env -i HOME=/root LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
  PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin OPENCV_LOG_LEVEL=ERROR OMP_WAIT_POLICY=passive \
  $(env | grep -iE '^(https?|no)_proxy=' || true) "$@"; }

make_root() {
  rm -rf --one-file-system "$root"
  local mirror
  mirror=$(apt-cache policy debootstrap | grep -oE 'https?://[^ ]+' | head -n 1)
  debootstrap --variant=minbase --include=ca-certificates bookworm "$root" "${mirror:-http://deb.debian.org/debian}"
  cp -a /etc/apt/apt.conf.d/. "$root/etc/apt/apt.conf.d/"
  [ ! -d /usr/local/share/ca-certificates ] || cp -a /usr/local/share/ca-certificates "$root/usr/local/share/"
  cp -a /etc/ssl/certs/. "$root/etc/ssl/certs/"
  touch "$root/made"
}
mount_all() {
  local name
  for name in proc dev; do mount --rbind "/$name" "$root/$name"; done
  cp /etc/resolv.conf /etc/hosts "$root/etc/"
  mkdir -p "$root/project" "$root/build"
  mount --bind -o ro "$source_folder" "$root/project"
  mount --bind "$folder/build" "$root/build"
}
install_all() {
  inside dpkg --add-architecture arm64
  inside apt-get update
  inside apt-get -y --no-install-recommends upgrade
  # shellcheck disable=SC2086
  inside apt-get -y --no-install-recommends install $tools $(printf '%s:arm64 ' $libraries)
  echo "$tools $libraries" > "$root/installed"
}

[ -e "$root/made" ] || quietly debootstrap.log make_root
mount_all
[ "$(cat "$root/installed" 2>/dev/null)" = "$tools $libraries" ] || quietly packages.log install_all
begun=$SECONDS
quietly configure.log inside cmake -S /project -B /build -G Ninja -DCMAKE_TOOLCHAIN_FILE=/project/cmake/arm64.cmake \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS="-Werror -Wno-psabi"
quietly build.log inside cmake --build /build --target vexo vexo_program unit_tests
built=$SECONDS
code=0
inside ctest --test-dir /build -L unit -E "$left_out" -j "$(nproc)" --output-on-failure \
  > "$folder/tests.log" 2>&1 < /dev/null || code=$?
[ "$code" = 0 ] || grep -aE 'FAILED|Failure|\*\*\*' "$folder/tests.log" | head -n 40 >&2
cases=$(grep -acF '[       OK ]' "$folder/build/Testing/Temporary/LastTest.log" || true)
echo "arm64: $(grep -a 'tests passed' "$folder/tests.log"), $cases cases; built in $((built - begun)) s," \
  "run in $((SECONDS - built)) s; see $folder/tests.log"
exit "$code"
