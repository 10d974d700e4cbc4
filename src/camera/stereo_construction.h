#pragma once

#include "camera/stereo_camera.h"
#include "vexo/records.h"

#include <string>
#include <vector>

/// Making stereo cameras, and the compact file set. Nothing here throws; whatever goes wrong gives null or
/// false. Results belong to the caller until destroy().
namespace vexo {

/// Colour of rectified pixels without a source, from the grey level of a record.
inline cv::Scalar fill_colour(int level)
{
    return cv::Scalar(level, level, level, 0);
}

/// Rectifies two cameras: StereoCamera's constructor after all checks.
///
/// @param cams      two composed cameras of one image size
/// @param new_size  size of the rectified images, px; 0 x 0: the input size
/// @return          null for sizes out of limits (sides 1..32766, area 2^26), numbers that make no camera
///                  pair, or lack of memory
StereoCamera* create_StereoCamera_from_pair(const DistortCamera* cams, cv::Size new_size, double alpha, int flags,
    const cv::Scalar& fill0, const cv::Scalar& fill1) noexcept;

/// Rectified pair from calibration files with the cameras "cam0" and "cam1".
///
/// @param files  two YAML files, or one that holds both cameras; further names are not read
StereoCamera* create_StereoCamera(const std::vector<std::string>& files, cv::Size new_size, double alpha, int flags,
    const cv::Scalar& fill0, const cv::Scalar& fill1) noexcept;

/// Rectified pair from an hmat set: two projection matrices and the tables of both cameras, all of the input
/// size. cam*_R2 are identity, since the files do not carry them.
StereoCamera* create_StereoCamera_from_Hmats(const std::string& file0, const std::string& file1,
    const std::string& file2, cv::Size input_size, const cv::Scalar& fill0, const cv::Scalar& fill1) noexcept;

/// Rectified pair from numbers; arguments as in CreateStereoCameraFromRaw.
StereoCamera* create_StereoCamera_from_raw(const double* K0, const double* D0, const double* K1, const double* D1,
    const double* R, const double* T, const StereoCameraParam* param) noexcept;

/// Writes the hmat set, each file whole or not at all, the tables first. False, and nothing written, for a camera
/// that the set cannot express: without tables, or with a rectified size other than the input size.
bool store_StereoCamera_to_Hmats(
    const StereoCamera* camera, const std::string& file0, const std::string& file1, const std::string& file2) noexcept;

} // namespace vexo
