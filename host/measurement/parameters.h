#pragma once

#include "host/cameras/geometry.h"
#include "host/captures/least_light.h"
#include "host/measurement/record.h"
#include "host/measurement/sigma.h"

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
    std::optional<int> fit_points;        ///< 3 or 5
    int min_white = 15, max_white = 256;
    std::optional<double> min_modulation; ///< grey levels
    int code_spread = 3;                  ///< gray-phase
    std::vector<int> periods;             ///< multi-phase, projector px; empty: as the capture says, else 9, 10, 11
    int block = 5;                        ///< sgbm, px
    std::optional<int> num_disparities;   ///< sgbm, px
    bool interpolate = false;             ///< phases: fill columns between measured ones
    Cleaning cleaning = Cleaning::standard;
    bool refine = true;  ///< phases of frames, not interpolated: measure each match anew
    bool smooth = false; ///< the same: put each point on the surface around it
};

/// Where a parameter's value comes from.
enum class Origin { standard, measured, given };

/// "default", "measured", "given".
const char* name_of(Origin origin);

/// What a measurement with phases works with, and where it comes from.
struct Origins {
    Origin max_phase_diff = Origin::standard, min_contrast = Origin::standard, min_modulation = Origin::standard,
           fit_points = Origin::standard;
};

/// The library's parameters for a request, disparity limits and run lengths not yet chosen. Throws Failure.
/// @param periods  of the capture, projector px; empty: it does not say
MatchingRecord record_of(const MeasureRequest& request, Method method, bool decoded, const std::vector<int>& periods);

/// The range of disparities that is asked for: a range of depths is rounded outwards to whole px. Nothing: none is.
std::optional<MeasureRequest::Range> given_range(const MeasureRequest& request, const Geometry& geometry);

/// Sets the smallest contrast of a phase method's record, and says the smallest modulation, grey levels: as given, else
/// as the noise of the frames allows.
double choose_light(MatchingRecord& record, const MeasureRequest& request, const LeastLight& light, Origins& origins);

/// Sets the largest phase difference and the points of a line of a phase method's record: as given, else as the
/// fringes' length and noise have it. Neighbours in camera 1 are a pixel apart; on a surface the nearest of them is at
/// most half a pixel from any coordinate, more where it turns away, and what is much farther lies beyond a depth edge:
///
///     max_phase_diff = 1.5 px + 4 sigma        sigma^2 = 4/9 (s0^2 + s1^2), of the rectified difference
///
/// in the record's unit, of several periods at least half a projector px. On the virtual rig's bust 1.5 px measure
/// 0.2 % less than 4 px do, with 40 % fewer wrong points. A line goes through five points, or three where the noise
/// moves it by less than a quarter of what the rounding of positions does: then a curved surface moves it most.
void choose_match(
    MatchingRecord& record, const MeasureRequest& request, const CoordinateNoise& noise, Origins& origins);

} // namespace vexo
