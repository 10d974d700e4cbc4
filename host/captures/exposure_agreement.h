#pragma once

#include "host/captures/frames.h"
#include "patterns/method.h"

#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// How two exposures of a scene agree, over the pixels of both cameras that both of them measure.
struct ExposureAgreement {
    double pixels = 0.0;    ///< that were compared
    double away = 0.0;      ///< share of them whose phases differ by more than noise explains
    double median = 0.0;    ///< of the difference, fringe periods
    double expected = 0.0;  ///< what the noise makes of that median
    double fringe = 0.0;    ///< px, length of a fringe in the cameras' pictures
    double codes = 0.0;     ///< share with another bit in the plane where most differ; 0 without planes
    double exchanged = 0.0; ///< share where one has a dark frame brighter than the lit one, the other not
    double noise = 1.0;     ///< standard deviation of equal grey levels in the shorter over that in the longer

    bool tested() const;
    /// What the median has beyond the noise, fringe periods; 0 where noise explains it.
    double shift() const;
    /// Another scene, something that moved, or frames in another order.
    bool refuted() const;
    /// More than noise, and less than motion: lamps that flicker, a camera that is not linear.
    bool doubtful() const;
    /// As where the camera's gain was changed, instead of its light.
    bool noisier() const;
};

/// Phases are compared set by set, bits of a gray code plane by plane, where lit and dark frame differ by six standard
/// deviations of their noise in both. A phase is away when it differs by more than five standard deviations and 0.02
/// periods; a bit counts where it is clear in both.
ExposureAgreement compare_exposures(const FrameSet& longer, const FrameSet& shorter, Method method);

/// Throws Failure that names the folder that does not fit: of three or more the one that most others contradict.
/// @return what is to be said of those that are accepted; "exposures-unchecked", which spoils, of each that shares no
///         pixels with most of the others, directly or by way of a third
std::vector<Finding> check_exposures(
    const std::vector<const FrameSet*>& sets, const std::vector<std::string>& folders, Method method);

} // namespace vexo
