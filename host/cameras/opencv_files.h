#pragma once

#include "host/cameras/camera_file.h"

#include <opencv2/core.hpp>

#include <array>
#include <string>
#include <vector>

/// intrinsics.yml and extrinsics.yml of OpenCV's sample for stereo calibration: M1 D1 M2 D2, and R T, with which
/// x1 = R x0 + T. Further keys (R1 R2 P1 P2 Q) belong to one rectification, and are not needed.
namespace vexo {

/// Which of the keys a file has.
struct OpenCvKeys {
    bool intrinsics = false, extrinsics = false;
};
OpenCvKeys opencv_keys(const std::string& file);

/// Both cameras from one file or two, in either order. Throws Failure that names the file and the key.
std::array<CalibratedCamera, 2> read_opencv_cameras(const std::vector<std::string>& files, cv::Size frames);

/// The text of a camera file with these cameras as cam0 and cam1.
std::string camera_yaml(const std::array<CalibratedCamera, 2>& cameras);

} // namespace vexo
