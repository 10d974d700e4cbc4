#pragma once

#include "host/cameras/camera_file.h"

#include <opencv2/core.hpp>

#include <array>
#include <string>
#include <vector>

namespace vexo {

/// Files of a calibration, found from what a user names.
struct CalibrationFiles {
    enum class Kind {
        cameras, ///< one YAML file with cam0_... and cam1_..., or two of one each
        opencv,  ///< M1 D1 M2 D2 R T as OpenCV's sample for stereo calibration writes them, in one file or two
        hmat,    ///< projections of both rectified cameras, and their tables
        stereo   ///< a stereo file and the tables of its two cameras
    };
    Kind kind = Kind::cameras;
    std::vector<std::string> files;
};

/// @param named  a folder that holds a calibration, one to three files, or a stereo.yaml: for that the cameras.yaml or
///               the hmat set beside it is taken, when it is of the same pair
/// Throws Failure that says what is missing. What the files hold is asked by those who read them.
CalibrationFiles find_calibration(const std::vector<std::string>& named);

/// Both cameras as they see raw pictures.
/// @param frames  size of the pictures, for files that do not say it
/// Throws Failure, also for rectified kinds, which do not hold them.
std::array<CalibratedCamera, 2> read_cameras(const CalibrationFiles& calibration, cv::Size frames);

/// The cameras.yaml of captures by the same cameras. Throws Failure that names the folder whose file differs from an
/// earlier one's.
/// @param folders  of which some may have none
/// @return path of the first one; without any, of that which the first folder lacks
std::string one_camera_file(const std::vector<std::string>& folders);

/// Distance of the optical centres in a camera file with both; 0 when it is no such file.
double baseline_in(const std::string& cameras_yaml);

} // namespace vexo
