#pragma once

#include <opencv2/core.hpp>

#include <array>
#include <string>
#include <vector>

/// What the frames themselves say of a capture with fringes in four steps, before anything is matched.
namespace vexo {

/// Lit-frame limits that the phase methods share; grey levels.
struct LightLimits {
    int min_contrast = 0;
    int max_white = 256;
    int min_white = 0;
};

/// Which raw pixels of a camera can be used.
struct PixelMasks {
    cv::Mat contrast;   ///< CV_8U, 255: lit and dark frame differ enough; the condition of the library's decoder
    cv::Mat modulation; ///< CV_8U, 255: also the fringes are seen
};

/// @param frames  dark, lit, patterns
/// @param sets    index of the first of each four phase-shifted frames; none: all lit pixels are taken
/// @param min_modulation  grey levels, of the smallest of all sets; of one it is sqrt((I1 - I3)^2 + (I0 - I2)^2) / 2
PixelMasks make_masks(const std::vector<cv::Mat>& frames, const LightLimits& limits,
    const std::vector<std::size_t>& sets, double min_modulation);

/// Figures of the fringes of one period in one camera, over the pixels of PixelMasks::modulation.
struct FringeFigures {
    double length_px = 0.0;   ///< median length of a fringe along a row
    double modulation = 0.0;  ///< median amplitude, grey levels
    double grey_noise = 0.0;  ///< standard deviation of a grey value, from the residual of the four steps
    double phase_noise = 0.0; ///< that of the phase by it, root mean square over the pixels, in fringe periods
    /// [n]: share of the pixels that lie in runs of rising phase of more than n px
    std::array<double, 9> share_in_longer_runs {};
};

/// @param first  index of the first of the four phase-shifted frames
FringeFigures measure_fringes(const std::vector<cv::Mat>& frames, std::size_t first, const cv::Mat& mask);

/// FringeFigures::length_px alone.
double fringe_length(const std::vector<cv::Mat>& frames, std::size_t first, const cv::Mat& mask);

/// The same of a decoded phase, CV_32F in periods: lengths alone, as the grey values are not known.
FringeFigures measure_phase(const cv::Mat& phase, const cv::Mat& mask);

/// anchor_length and reject_length for fringes like these, and the reason in words.
struct RunLengths {
    int anchor = 4;
    int reject = 1;
    bool anchor_given = false, reject_given = false; ///< by the user: then these are not in force
    std::string reason;
};

RunLengths choose_run_lengths(const FringeFigures& cam0, const FringeFigures& cam1);

/// Share of the pixels that the noise lets expect to lose their fringe number, of multi-period phases: the number
/// is found from differences of positions within the fringes, rounded to whole pixels, so a difference that is off
/// by more than half a pixel finds a wrong entry of the table or none,
///
///     sum over pairs of erfc(0.5 / (sqrt(2) sigma))        sigma^2 = (T_i s_i)^2 + (T_k s_k)^2
///
/// at phase noise s in fringe periods; a bound, as a pixel can fail in several pairs.
/// @param figures  of one camera, one for each period
double expected_loss(const std::vector<FringeFigures>& figures, const std::vector<int>& periods);

/// Pixels that a smallest contrast leaves out although their noise would let them be measured.
struct WeakPixels {
    int contrast = 0;    ///< grey levels of lit - dark from which on they could be
    long long count = 0; ///< pixels from there up to `min_contrast`
};

/// @param least  contrast that the noise allows
WeakPixels find_weak_pixels(const std::vector<cv::Mat>& frames, int least, int min_contrast);

} // namespace vexo
