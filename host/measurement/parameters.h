#pragma once

#include "host/cameras/geometry.h"
#include "host/captures/fringes.h"
#include "host/measurement/record.h"

#include <optional>
#include <utility>
#include <vector>

namespace vexo {

/// Which points are taken out because they do not belong to the surface around them.
enum class Cleaning { off, standard, strict };

/// "off", "default", "strict".
const char* name_of(Cleaning cleaning);

/// What a measurement is asked for; what is not given is chosen.
struct MeasureRequest {
    using Range = std::pair<double, double>;

    std::optional<Range> disparity;       ///< accepted, px; at most one of these two ranges is given
    std::optional<Range> depth;           ///< accepted, both positive, unit of the calibration
    std::optional<double> max_phase_diff; ///< gray-phase: fringe periods; multi-phase: projector px
    std::optional<int> min_contrast;      ///< grey levels
    std::optional<int> anchor, reject;    ///< gray-phase, px
    int fit_points = 5, min_white = 15, max_white = 256;
    double min_modulation = 6.0;        ///< grey levels
    int code_spread = 3;                ///< gray-phase
    std::vector<int> periods;           ///< multi-phase, projector px; empty: as the capture says, else 9, 10, 11
    int block = 5;                      ///< sgbm, px
    std::optional<int> num_disparities; ///< sgbm, px
    bool interpolate = false;           ///< phases: fill columns between measured ones
    Cleaning cleaning = Cleaning::standard;
    bool refine = true; ///< phases of frames, not interpolated: measure each match anew
};

/// The library's parameters for a request, disparity limits and run lengths not yet chosen. Throws Failure.
/// @param periods  of the capture, projector px; empty: it does not say
MatchingRecord record_of(const MeasureRequest& request, Method method, bool decoded, const std::vector<int>& periods);

/// The range of disparities that is asked for: a range of depths is rounded outwards to whole px. Nothing: none is.
std::optional<MeasureRequest::Range> given_range(const MeasureRequest& request, const Geometry& geometry);

/// The largest difference of projector coordinates, px, between a pixel and its partner.
/// @param fringes  of camera 1, one for each period
double largest_phase_difference(const std::vector<FringeFigures>& fringes, const std::vector<int>& periods);

} // namespace vexo
