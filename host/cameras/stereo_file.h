#pragma once

#include "host/files/temporary_folder.h"

#include <opencv2/core.hpp>

#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// What a stereo.yaml says: two rectified cameras. Their tables stand in files beside it.
struct StereoFile {
    cv::Matx34d P0, P1;  ///< projections of the rectified cameras
    cv::Size input_size; ///< of raw pictures
    cv::Size output_size;
    double baseline = 0.0;
    std::optional<cv::Matx33d> rotation0; ///< x_rectified = rotation0 * x_raw of camera 0
};

bool is_stereo_file(const std::string& file);

/// Throws Failure that names the file.
StereoFile read_stereo_file(const std::string& file);

/// Writes the hmat set of a stereo file and its tables into a folder, and answers its three files.
/// @param files  stereo.yaml, map0.bin and map1.bin
/// Throws Failure for tables that are damaged, of another kind, or of another size.
std::vector<std::string> as_hmat_set(const std::vector<std::string>& files, const TemporaryFolder& folder);

} // namespace vexo
