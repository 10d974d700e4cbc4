#pragma once

#include "host/calibration/camera_fit.h"

#include <opencv2/core.hpp>

#include <vector>

namespace vexo {

/// Errors of distances between markers, mm: measured minus printed.
struct DistanceErrors {
    double bias = 0, rms = 0;
    double length = 0; ///< mean of the printed distances
    int count = 0;
};

/// A pair against its views.
struct PairFit {
    std::vector<double> view_row; ///< rms of the row differences of a view after rectification, px, NaN: not used
    double row_rms = 0;           ///< px, of single markers: mostly the noise of their centres
    /// px, rms of the means over cells of the image: what the calibration itself does wrong
    double row_systematic = 0;
    double row_worst = 0;            ///< px, 99 % of the markers are better
    std::vector<float> row_errors;   ///< y0 - y1 of every marker, px
    DistanceErrors along_x, along_y; ///< over half the board along its x, and along its y
    /// Shape of the board as the pair sees it, averaged over the views; NaN where never seen. Board frame, mm:
    /// seen minus printed, after the best rigid motion.
    std::vector<cv::Vec3d> shape;
    double scale_x = 1, scale_y = 1; ///< size of that shape along x and y over the printed one
    double bend = 0; ///< mm, height of the quadratic surface through that shape, from lowest to highest marker
};

/// Markers seen by both cameras are rectified and triangulated.
PairFit fit_pair(const std::vector<Fold>& folds, const BoardViews& views, const BoardFile& board);

} // namespace vexo
