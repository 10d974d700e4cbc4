#pragma once

#include "host/cameras/rectifying_tables.h"

#include <opencv2/core.hpp>

#include <array>

/// Which match a pixel is measured from: the library's, or that of the second decoding.
namespace vexo {

struct CandidateLimits {
    double unit_px = 0.0;                               ///< px of camera 1 that a coordinate's unit is long
    double period = 1.0;                                ///< units of a fringe, of the shortest of several
    double max_difference = 0.0;                        ///< units, between the coordinates of a match
    double least_disparity = 0.0, most_disparity = 0.0; ///< px
};

/// What became of the pixels where the two decodings do not say the same.
struct CandidateCounts {
    long long exchanged = 0; ///< the second decoding's match took the place of the library's
    long long added = 0;     ///< where the library had none
    long long dropped = 0;   ///< no match has support
};

struct Candidates {
    cv::Mat disparity; ///< CV_32F, px, NaN: none; what is to be refined
    CandidateCounts counts;
};

/// Matches of the second decoding along the rows: of each rectified pixel of camera 0 the column of camera 1 with the
/// nearest coordinate. A coordinate that two places of a row have gets none.
/// @param coordinates  of both raw cameras, of plain_coordinates()
/// @param library      CV_32F, px, the library's matches, NaN: none
/// @return CV_32F, disparities in whole px; NaN: none; the library's own where its coordinates differ by at most 0.15
///         period
cv::Mat plain_matches(const std::array<cv::Mat, 2>& coordinates, const RectifyingTables& tables, const cv::Mat& library,
    const CandidateLimits& limits);

/// Decides where the two differ by more than 0.15 period, or only one of them is there. The matches of the 5 x 5
/// pixels around that lie within 2 px of a candidate support it, those that both decodings have count twice more. Of
/// two candidates the better supported one is taken; one of the second decoding alone needs two thirds of its
/// neighbours, one of the library alone a few.
Candidates choose_candidates(const cv::Mat& library, const cv::Mat& plain, const CandidateLimits& limits);

} // namespace vexo
