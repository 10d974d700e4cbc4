#pragma once

#include "base/on_step.h"
#include "host/files/json_file.h"

#include <opencv2/core.hpp>

#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// What a file for another program is to hold.
struct ConvertRequest {
    std::string file;             ///< its extension says the format, see shape_format_of()
    bool mesh = true;             ///< see holds_mesh()
    std::string frame;            ///< empty: rectified camera 0; "board"; or a file, see frame_of_file()
    std::string calibration;      ///< folder, for "board"; empty: that which the report names
    std::optional<cv::Vec6d> box; ///< x0 y0 z0 x1 y1 z1, mm in the axes of cloud.ply: only points within it
    int every = 1;                ///< of a cloud only each Nth point
    bool smooth = false;          ///< put each point on the surface around it, see smooth()
};

/// Null when the request can be answered, else its first fault.
const char* why_invalid(const ConvertRequest& request);

struct Converted {
    std::vector<unsigned char> bytes; ///< of the file
    Json figures;                     ///< what it holds: counts, bounds, unit and frame as they are in it
};

constexpr int convert_steps = 3;

/// Makes the file from the folder of a result. Throws Failure, also where no point or no triangle is left.
Converted convert(const std::string& result_folder, const ConvertRequest& request, const OnStep& on_step);

} // namespace vexo
