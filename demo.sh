#!/usr/bin/env bash
# Builds vexo, scans a bust with the virtual rig, measures it, and compares the cloud with the truth.
# Installs Debian's packages where they are missing. Results: demo_out/.
set -eu
cd "$(dirname "$0")"
scripts/install_packages.sh run
cmake --preset release -DVEXO_BUILD_TESTS=OFF > build.log 2>&1 && cmake --build --preset release >> build.log 2>&1 \
  || { tail -n 40 build.log; echo "vexo: the build failed; see build.log" >&2; exit 1; }
rm -f build.log

out=demo_out
vexo=build/release/bin/vexo
rm -rf "$out"
run() { printf '\n$ %s\n' "$*"; "$@"; }
for scene in plane bust spheres; do
  run $vexo simulate $scene --out $out/$scene/scan
  run $vexo measure $out/$scene/scan --out $out/$scene/result
  run $vexo compare $out/$scene/result $out/$scene/scan
done
printf '\n'
$vexo table $out/plane/result $out/bust/result $out/spheres/result
printf '\nPictures: %s/bust/result/*.png, the cloud: %s/bust/result/cloud.ply\n' $out $out
