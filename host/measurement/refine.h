#pragma once

#include "host/measurement/row_phases.h"

#include <opencv2/core.hpp>

#include <array>

namespace vexo {

/// What looking once more at the fringes around each match found, of each rectified pixel of camera 0.
struct Refined {
    cv::Mat disparity; ///< CV_32F, px, NaN: there is no point
    cv::Mat sigma;     ///< CV_32F, standard deviation of it by the noise, px
    cv::Mat samples;   ///< CV_8U, pixels of camera 1 that it was read from: 5, 3 or 2; 0: there is no point
};

/// Measures each match anew. The match says which fringe; the phases at the exact positions say where on it: a line
/// through five samples of camera 1 where it agrees with the lines through three and two within their noise, else
/// through as few as do agree, around the nearest column that rising steps lead to. Where none can be trusted there is
/// no point. Samples astride an edge or a kink are so left out instead of bending the line.
/// Source: the intersection of confidence intervals, for choosing a window: Lepskii, Theory Probab. Appl. 35 (1990)
/// 454; Katkovnik, IEEE Trans. Signal Process. 47 (1999) 2567.
///
///     sigma^2 = [G(u0) G(v0) V0 + G(v1) F V1] / m^2 + bias^2          G(u) = 1 - 2 u (1 - u)
///
/// V are the variances of the coordinate, u and v the offsets of the raw positions, m the slope, F what a line leaves
/// of one sample's variance, and the bias what two windows differ by beyond their noise. What a curved surface moves
/// the lines through five samples by is taken off, see correct_bend().
/// @param disparity  CV_32F, px, of the matches; NaN: none
Refined refine(const std::array<RawPhases, 2>& raw, const RectifyingTables& tables, const cv::Mat& disparity);

} // namespace vexo
