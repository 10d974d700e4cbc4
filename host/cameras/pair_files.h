#pragma once

#include "host/cameras/board_pose.h"
#include "host/cameras/camera_file.h"
#include "vexo/records.h"

#include <opencv2/core.hpp>

#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The files of a calibration as the library's calibrators write them, to the byte, of cameras that were found
/// elsewhere: no call of the library accepts cameras.
namespace vexo {

/// Name, and bytes.
using NamedBytes = std::vector<std::pair<std::string, std::string>>;

/// cameras.yaml: `cam0_size`, `_K`, `_R`, `_T`, `_P` = K [R | T] and `_D`, and the same of cam1.
std::string cameras_yaml(const std::vector<CalibratedCamera>& cameras);

/// A pair after rectification.
struct PairFiles {
    double baseline = 0.0;
    std::array<cv::Matx33d, 2> rotations;   ///< x_rectified = rotation * x_raw, of each camera
    std::array<cv::Matx34d, 2> projections; ///< of rectified camera-0 axes
    /// stereo.yaml with map0.bin and map1.bin, and hmat0.bin, hmat1.bin and hmat_tables.bin where the rectified
    /// pictures have the size of the raw ones: these cannot express another
    NamedBytes files;
};

/// Nothing for a pair that cannot be rectified.
std::optional<PairFiles> pair_files(const std::array<CalibratedCamera, 2>& cameras, const RectifyParam& rectify);

/// The board's pose in rectified camera-0 axes, of least reprojection error in both rectified pictures; nothing where
/// they determine none.
/// @param seen  in the raw pictures of camera 0 and 1
std::optional<cv::Matx44d> pose_in_rectified(
    const std::array<CalibratedCamera, 2>& cameras, const PairFiles& pair, const std::array<SeenMarkers, 2>& seen);

/// boardRT.yaml: the board's pose in rectified camera-0 axes, 4 x 4, as "RT".
std::string board_pose_yaml(const cv::Matx44d& rectified_from_board);

} // namespace vexo
