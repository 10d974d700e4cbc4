#!/usr/bin/env bash
# Installs what vexo is built with, from Debian 12's own packages; does nothing when all of it is there.
# install_packages.sh run|test : what is needed to build and run, or that and what the tests need.
set -eu
packages="g++ cmake ninja-build pkg-config libopencv-dev libpng-dev libjpeg-dev libtiff-dev libdeflate-dev libeigen3-dev libcli11-dev nlohmann-json3-dev libhpdf-dev libssl-dev libnanoflann-dev libjs-three"
if [ "${1:-run}" = test ]; then
  packages="$packages libgtest-dev libbenchmark-dev clang clang-format clang-tidy libclang-rt-14-dev libomp-dev valgrind chromium python3 assimp-utils"
fi

missing=""
for package in $packages; do
  dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing="$missing $package"
done
[ -z "$missing" ] && exit 0

as_root=""
if [ "$(id -u)" != 0 ]; then
  command -v sudo >/dev/null || { echo "vexo: run this as root, or install sudo: missing packages:$missing" >&2; exit 1; }
  as_root=sudo
fi
echo "Installing from Debian:$missing"
log=$(mktemp)
export DEBIAN_FRONTEND=noninteractive
if ! { $as_root apt-get update && $as_root apt-get install -y --no-install-recommends $missing; } > "$log" 2>&1; then
  tail -n 20 "$log" >&2
  echo "vexo: the packages above could not be installed; see $log" >&2
  exit 1
fi
rm -f "$log"
