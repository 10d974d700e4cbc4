#pragma once

#include <opencv2/core.hpp>

namespace vexo {

/// Why a point of a map does not belong to the surface around it.
enum class Fault : unsigned char {
    none,
    outlier, ///< far from what lies around it
    edge,    ///< beside a jump of the surface, where a point may hang between both sides
    speckle  ///< one of a few, apart from the rest
};

/// Which tests are made. Limits are in px of disparity, and 4 sigma of the point's noise are added to each, so that
/// they fit every capture.
struct CleaningRules {
    /// Fault::outlier: more than 0.5 px from the median of the 5 x 5 pixels around it, where missing ones count as
    /// farther than all.
    bool median = false;
    /// Fault::outlier: fewer than four of the eight neighbours are within 2 px. The radius outlier removal of point
    /// clouds, in the map.
    bool neighbours = false;
    /// Fault::edge: any of the eight neighbours is farther than 2 px.
    bool edges = false;
    /// Fault::speckle: in a region of fewer px (of a picture of 1280 x 1024) than this, 0: no test, whose neighbours
    /// differ by `speckle_step` px at most. Source: Hirschmueller, Stereo processing by semi-global matching, PAMI 30
    /// (2008) 328, for the test.
    int speckles = 0;
    float speckle_step = 0.75F;

    bool any() const { return median || neighbours || edges || speckles > 0; }
};

/// Tests each point of a map of disparities; the first test that it fails counts.
/// @param disparity  CV_32F, px, NaN: no point
/// @param sigma      CV_32F, standard deviation of the disparity, px; NaN where it is not known: the median counts
/// there.
///                   May be empty: 0
/// @return CV_8U, Fault of each pixel; none where there is no point
cv::Mat find_faults(const cv::Mat& disparity, const cv::Mat& sigma, const CleaningRules& rules);

} // namespace vexo
