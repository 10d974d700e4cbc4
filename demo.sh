#!/usr/bin/env bash
# Builds vexo and runs its whole chain on the virtual rig: print a board, photograph it, calibrate; scan, measure,
# compare with the truth, with the true and with the calibrated cameras. Installs Debian's packages where they are
# missing. Results: demo_out/.
set -eu
cd "$(dirname "$0")"
scripts/install_packages.sh run
echo "building..."
cmake --preset release -DVEXO_BUILD_TESTS=OFF > build.log 2>&1 && cmake --build --preset release >> build.log 2>&1 \
  || { tail -n 40 build.log; echo "vexo: the build failed; see build.log" >&2; exit 1; }
rm -f build.log

out=demo_out
vexo=build/release/bin/vexo
rm -rf "$out"
mkdir "$out"
title() { printf '\n== %s\n' "$*"; }
run() { printf '\n$ %s\n' "$*"; "$@"; }

title "1. scans of the virtual rig, measured and compared with the truth"
for scene in plane bust spheres; do
  run $vexo simulate $scene --out $out/$scene/scan
  run $vexo measure $out/$scene/scan --out $out/$scene/result
  run $vexo compare $out/$scene/result $out/$scene/scan
done

title "2. the same with a calibration of our own: board, photos, calibration, scan"
run $vexo board --out $out/board.pdf
run $vexo simulate calibration --out $out/photos --board $out/board.yaml
run $vexo calibrate $out/photos --board $out/board.yaml --out $out/calib
for scene in plane spheres; do
  run $vexo measure $out/$scene/scan --calib $out/calib/cameras.yaml --out $out/$scene/calibrated
  run $vexo compare $out/$scene/calibrated $out/$scene/scan
done

title "3. the other two methods on the same bust"
for method in multi-phase sgbm; do
  run $vexo simulate bust --method $method --out $out/$method/scan
  run $vexo measure $out/$method/scan --out $out/$method/result
  run $vexo compare $out/$method/result $out/$method/scan
done

title "4. one object from eight sides, with poses from a turntable's axis, merged; and a mesh for other programs"
run $vexo simulate bust --turntable 8 --size 640x512 --period 16 --out $out/turns
views=""
for view in 0 1 2 3 4 5 6 7; do
  $vexo measure $out/turns/view$view --out $out/turned/view$view --quiet
  views="$views $out/turned/view$view"
done
run $vexo merge $views --poses $out/turns/turntable.yaml --out $out/merged --also mesh.glb
run $vexo convert $out/bust/result --to $out/bust/mesh.glb

title "5. several exposures of a bust that is dark and bright in stripes"
run $vexo simulate albedo --exposure 0.25,1,4 --out $out/exposures
run $vexo measure --exposures $out/exposures/e0.25 $out/exposures/e1 $out/exposures/e4 --out $out/exposed
run $vexo compare $out/exposed $out/exposures/e1

title "6. where the camera is on a robot's gripper"
run $vexo simulate calibration --robot eye-in-hand --views 15 --board $out/board.yaml --out $out/robot
run $vexo handeye --poses $out/robot/poses.csv --board $out/calib/board.yaml --photos $out/robot --calib $out/calib \
  --out $out/hand

title "figures with the true cameras"
$vexo table $out/plane/result $out/bust/result $out/spheres/result
title "figures with the calibrated cameras"
$vexo table $out/plane/calibrated $out/spheres/calibrated
title "the bust by each method"
$vexo table $out/bust/result $out/multi-phase/result $out/sgbm/result
printf '\nPictures: %s/*/result/*_view.png   clouds: %s/*/result/cloud.ply   pages: %s/*/result/report.html, %s/calib/report.html\n' \
  $out $out $out $out
