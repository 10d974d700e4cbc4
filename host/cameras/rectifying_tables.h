#pragma once

#include "host/cameras/rectification.h"

#include <opencv2/core.hpp>

#include <array>
#include <string>

namespace vexo {

/// Where each rectified pixel of a camera lies in its raw picture: CV_32F, px, any values outside of it.
struct RectifyingTable {
    cv::Mat x, y;
};

using RectifyingTables = std::array<RectifyingTable, 2>;

/// The tables of cv::initUndistortRectifyMap, with which the library rectifies a pair made from YAML files.
RectifyingTables make_tables(
    const std::array<CalibratedCamera, 2>& cameras, const Rectification& rectification, cv::Size output);

/// The tables of an hmat set, from its third file. Four of them, columns and rows of camera 0, then of camera 1, each
/// as the number of its entries (32 bits), padding to 8 bytes, the entries as floats, padding to 8 bytes. Throws
/// Failure that names the file.
RectifyingTables read_tables(const std::string& file, cv::Size size);

} // namespace vexo
