#pragma once

#include <opencv2/core.hpp>

#include <string>

namespace vexo {

/// A rigid transform of points, 4 x 4, from a file: "RT" of a YAML as boardRT.yaml is one, or 16 numbers as text, row
/// by row, with blanks or commas between them; lines that begin with # are passed over. Throws Failure that names the
/// file where it is something else, or bends, scales or mirrors space: the rotation's rows are to be of unit length and
/// at right angles within 1e-6.
cv::Matx44d read_rigid(const std::string& path);

/// Of a rigid transform.
cv::Matx44d inverse_of_rigid(const cv::Matx44d& transform);

} // namespace vexo
