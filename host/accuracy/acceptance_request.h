#pragma once

#include <opencv2/core.hpp>

#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// Which points of a result are judged; all without either.
struct Region {
    std::optional<cv::Vec6d> box;   ///< x0 y0 z0 x1 y1 z1, mm in the axes of cloud.ply
    std::optional<cv::Rect> pixels; ///< of the rectified picture
};

/// A body of known shape that was measured.
struct AcceptanceRequest {
    enum class Body { plane, ball, balls, reference };
    Body body = Body::plane;
    std::vector<double> lengths; ///< mm; ball: its diameter; balls: both diameters and the distance of the centres
    std::string reference;       ///< PLY, in mm
    Region region;
    /// mm; bounds the rms of a plane's flatness, each deviation of a diameter and of the distance, the rms distance to
    /// a reference
    std::optional<double> limit_mm;
};

/// Null when the request can be answered, else its first fault.
const char* why_invalid(const AcceptanceRequest& request);

} // namespace vexo
