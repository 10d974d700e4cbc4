#pragma once

#include "vexo/records.h"

#include <opencv2/core.hpp>

#include <array>
#include <string>
#include <vector>

/// What the frames themselves say of a capture with four phase frames, before anything is matched.
namespace vexo::app {

/// Which raw pixels of a camera can be used.
struct PixelMasks {
    cv::Mat contrast;   ///< CV_8U, 255: lit and dark frame differ enough; the condition of the library's decoder
    cv::Mat modulation; ///< CV_8U, 255: also the fringes are seen
};

/// @param frames  dark, lit, seven gray planes, four phase frames P0..P3
/// @param min_modulation  grey levels, of sqrt((P1 - P3)^2 + (P2 - P0)^2) / 2
PixelMasks make_masks(const std::vector<cv::Mat>& frames, const GrayPhaseMatchingParam& param, double min_modulation);

/// Figures of the fringes of one camera, over the pixels of PixelMasks::modulation.
struct FringeFigures {
    double length_px = 0.0;   ///< median length of a fringe along a row
    double modulation = 0.0;  ///< median amplitude, grey levels
    double grey_noise = 0.0;  ///< standard deviation of a grey value, from the residual of the four steps
    double phase_noise = 0.0; ///< that of the phase by it, root mean square over the pixels, in fringe periods
    /// [n]: share of the pixels that lie in runs of rising phase of more than n px
    std::array<double, 9> share_in_longer_runs {};
};

FringeFigures measure_fringes(const std::vector<cv::Mat>& frames, const cv::Mat& mask);

/// anchor_length and reject_length for fringes like these, and the reason in words.
struct RunLengths {
    int anchor = 4;
    int reject = 1;
    std::string reason;
};
RunLengths choose_run_lengths(const FringeFigures& cam0, const FringeFigures& cam1);

} // namespace vexo::app
