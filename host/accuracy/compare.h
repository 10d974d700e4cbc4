#pragma once

#include "base/on_step.h"
#include "host/accuracy/errors.h"
#include "host/files/json_file.h"
#include "host/results/read_result.h"

#include <opencv2/core.hpp>

#include <string>

namespace vexo {

/// A result held against the truth of its capture.
struct Compared {
    Json figures;   ///< compare.json
    cv::Mat errors; ///< CV_32F, mm, measured - true depth of each rectified pixel, NaN where there is none
};

/// Steps that compare() announces.
constexpr int compare_steps = 3;

/// @param result_folder  of vexo measure
/// @param scan_folder    of vexo simulate
/// Throws Failure for what cannot be read, or when nothing of the result lies where the truth has a surface, and
/// Stopped.
Compared compare(const std::string& result_folder, const std::string& scan_folder, const OnStep& on_step = {});

} // namespace vexo
