#pragma once

#include "fringes.h"
#include "matching.h"
#include "pictures.h"

#include <array>

/// Why pixels were not measured. The library does not tell, so it is asked: the same frames are matched again
/// with wider limits, and with a second camera that has a partner for everything.
namespace vexo::app {

/// Each pixel has one: the first test that it failed, in the order in which the tests are made.
enum class Cause : unsigned char {
    none,             ///< measured
    outside_image,    ///< the rectified pixel lies outside camera 0's picture
    contrast,         ///< too dark, or lit and dark frame differ too little
    modulation,       ///< the fringes are too weak, or saturated
    unwrapping,       ///< no consistent fringe number
    no_partner,       ///< the other camera's row does not see this projector coordinate
    phase_difference, ///< it does, but the nearest pixel there is too far in phase
    disparity,        ///< a partner was found, outside the accepted disparities
    count
};
constexpr std::size_t cause_count = static_cast<std::size_t>(Cause::count);

/// Words for people, and the key in report.json.
const char* words_of(Cause cause);
const char* key_of(Cause cause);
/// One colour each, for the validity picture; the text is words_of().
std::vector<Label> cause_legend();

struct CauseMap {
    cv::Mat causes; ///< CV_8U, Cause of each rectified pixel
    std::array<long long, cause_count> counts {};
    /// Disparities found when the limits are lifted, from the 1 % to the 99 % quantile; NaN: none.
    double low_disparity = 0.0, high_disparity = 0.0;
};

/// @param frames  what was matched, lit frames masked
/// @param masks   of camera 0
/// @param cloud   result of match() with these frames, `param` and `interpolate`
CauseMap find_causes(iStereoCamera& camera, const std::array<std::vector<cv::Mat>, 2>& frames, const PixelMasks& masks,
    const GrayPhaseMatchingParam& param, bool interpolate, const Cloud& cloud, const Geometry& geometry);

} // namespace vexo::app
