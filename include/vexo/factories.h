#pragma once

#include "vexo/board.h"
#include "vexo/calibration.h"
#include "vexo/export.h"
#include "vexo/point_cloud.h"
#include "vexo/records.h"
#include "vexo/stereo_camera.h"

#include <string>
#include <vector>

/// The six symbols that libvexo.so exports. Each returns a new object, which belongs to the caller until
/// destroy(), or null; none throws.
namespace vexo {
extern "C" {

/// Stereo camera from files.
///
/// @param selector  1: hmat set of three binary files (projection matrix of camera 0, of camera 1,
///                  rectification tables of both); input and output size are param's input size.
///                  2: camera YAML files; two names, or one that holds both cameras; keys "cam0_..." and
///                  "cam1_..."; rectified with param's alpha, flags and output size, and refused when the
///                  calibrated size is not param's input size
/// @param files     paths; not kept
/// @param param     not kept
/// @return          null for another selector, null arguments, too few names, files that cannot be read or
///                  hold no usable cameras, sizes out of range, or lack of memory
VEXO_API iStereoCamera* CreateStereoCamera(
    int selector, const std::vector<std::string>* files, const StereoCameraParam* param);

/// Stereo camera from numbers.
///
/// @param K0, K1  intrinsic matrices, 9 numbers, row-major, pixels
/// @param D0, D1  distortion k1 k2 p1 p2 k3 (Brown-Conrady in OpenCV's order), 5 numbers
/// @param R, T    pose of camera 1: x1 = R x0 + T; 9 numbers, row-major, and 3 numbers in the length unit
/// @return        null for a null argument, numbers that make no camera pair, or lack of memory
VEXO_API iStereoCamera* CreateStereoCameraFromRaw(const double* K0, const double* D0, const double* K1,
    const double* D1, const double* R, const double* T, const StereoCameraParam* param);

/// Point cloud generator: 0 semi-global block matching (SGBMatchingParam), 1 gray code + phase
/// (GrayPhaseMatchingParam), 2 multi-period phase (MultiPhaseMatchingParam), with default parameters.
/// Any other selector gives null.
VEXO_API iPointCloudGenerator* CreatePointCloudGenerator(int selector);

/// Recogniser of the board with three ring markers; see iCalibBoardRecognizer.
VEXO_API iCalibBoardRecognizer* CreateCalibBoardRecognizer();

/// Calibrator of one camera.
VEXO_API iCameraCalibrator* CreateCameraCalibrator();

/// Calibrator of a camera pair.
VEXO_API iStereoCalibrator* CreateStereoCalibrator();

} // extern "C"
} // namespace vexo
