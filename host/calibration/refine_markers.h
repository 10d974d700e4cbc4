#pragma once

#include "host/calibration/board_file.h"
#include "host/cameras/board_pose.h"
#include "host/cameras/camera_file.h"

#include <opencv2/core.hpp>

#include <vector>

namespace vexo {

/// Markers of one picture, measured by their grey values.
struct RefinedMarkers {
    std::vector<cv::Point2f> centres; ///< by board position; (FLT_MAX, FLT_MAX) where there is none
    std::vector<double> sigma;        ///< px, standard deviation of each coordinate; NaN where there is no centre
    double blur_over_gap = 0.0;       ///< median: blur, as a standard deviation, over the gap to the next marker
    int found = 0;
    int not_fitted = 0; ///< hidden, outside, or without convergence
    int far_off = 0;    ///< farther from where it was recognised than recognition errs
    int doubtful = 0;   ///< grey values unlike the other markers', or another place than the edges say, beyond sigma
};

/// Fits every marker of the board through pose and distortion, those too that recognition missed, and holds it against
/// its edges. Two roads that share neither the model of the blur nor the pixels that weigh most are unlikely to be
/// misled alike by a scratch, a reflection or a shadow's edge.
/// @param picture     CV_8U
/// @param pose        of the board, from `recognised`
/// @param recognised  by board position; (FLT_MAX, FLT_MAX) where there is none
RefinedMarkers refine_markers(const cv::Mat& picture, const BoardFile& board, const BoardPose& pose,
    const CalibratedCamera& camera, const std::vector<cv::Point2f>& recognised);

} // namespace vexo
