#include "host/measurement/parameters.h"

#include "base/failure.h"
#include "patterns/fringes.h"

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

/// Fields that the phase methods share. Five points: the record's default of three has more noise.
template <class Param>
Param phase_record(const MeasureRequest& o, bool decoded, double max_phase_diff, int min_contrast)
{
    Param param;
    param.max_phase_diff = o.max_phase_diff.value_or(max_phase_diff);
    param.fit_points = o.fit_points.value_or(5);
    param.datatype = decoded ? 1 : 0;
    param.min_contrast = o.min_contrast.value_or(min_contrast);
    param.max_white = o.max_white;
    param.min_white = o.min_white;
    return param;
}

GrayPhaseMatchingParam gray_record(const MeasureRequest& o, bool decoded)
{
    constexpr double max_phase_diff = 0.15; // of a fringe: surfaces; the record's default bridges depth edges
    auto param
        = phase_record<GrayPhaseMatchingParam>(o, decoded, max_phase_diff, GrayPhaseMatchingParam().min_contrast);
    param.code_spread = o.code_spread;
    return param;
}

MultiPhaseMatchingParam multi_record(const MeasureRequest& o, bool decoded, const std::vector<int>& said)
{
    constexpr int min_contrast = 60; // grey levels, of decoded maps, whose noise is not known
    auto param
        = phase_record<MultiPhaseMatchingParam>(o, decoded, MultiPhaseMatchingParam().max_phase_diff, min_contrast);
    std::vector<int> periods = o.periods.empty() ? said : o.periods;
    if (periods.empty()) periods = default_periods(Method::multi_phase);
    check_periods(periods);
    std::copy(periods.begin(), periods.end(), param.periods);
    return param;
}

/// Calls `set` with the record, if it is one of phases.
template <class Set> void of_phases(MatchingRecord& record, const Set& set)
{
    if (auto* gray = std::get_if<GrayPhaseMatchingParam>(&record)) set(*gray);
    if (auto* multi = std::get_if<MultiPhaseMatchingParam>(&record)) set(*multi);
}

} // namespace

MatchingRecord record_of(const MeasureRequest& request, Method method, bool decoded, const std::vector<int>& periods)
{
    if (method == Method::gray_phase) return gray_record(request, decoded);
    if (method == Method::multi_phase) return multi_record(request, decoded, periods);
    SGBMatchingParam param;
    param.blockSize = request.block;
    return param;
}

std::optional<MeasureRequest::Range> given_range(const MeasureRequest& request, const Geometry& geometry)
{
    if (!request.depth) return request.disparity;
    const double a = geometry.disparity(request.depth->first), b = geometry.disparity(request.depth->second);
    return std::make_pair(std::floor(std::min(a, b)), std::ceil(std::max(a, b)));
}

const char* name_of(Origin origin)
{
    return origin == Origin::given ? "given" : origin == Origin::measured ? "measured" : "default";
}

double choose_light(MatchingRecord& record, const MeasureRequest& request, const LeastLight& light, Origins& origins)
{
    const Origin found = light.measured ? Origin::measured : Origin::standard;
    origins.min_contrast = request.min_contrast ? Origin::given : found;
    origins.min_modulation = request.min_modulation ? Origin::given : found;
    of_phases(record, [&](auto& param) { param.min_contrast = request.min_contrast.value_or(light.contrast); });
    return request.min_modulation.value_or(light.modulation);
}

void choose_match(MatchingRecord& record, const MeasureRequest& request, const CoordinateNoise& noise, Origins& origins)
{
    origins.max_phase_diff = request.max_phase_diff ? Origin::given : Origin::standard;
    origins.fit_points = request.fit_points ? Origin::given : Origin::standard;
    if (!(noise.unit_px > 0.0)) return; // no fringes
    if (!request.max_phase_diff) {
        constexpr double camera_px = 1.5, sigmas = 4.0, least_projector_px = 0.5;
        const double difference
            = camera_px / noise.unit_px + sigmas * 2.0 / 3.0 * std::hypot(noise.sigma0, noise.sigma1);
        const double least = method_of(record) == Method::multi_phase ? least_projector_px : 0.0;
        of_phases(record, [&](auto& param) { param.max_phase_diff = std::max(least, difference); });
        origins.max_phase_diff = Origin::measured;
    }
    if (request.fit_points || !(noise.sigma0 > 0.0)) return; // decoded maps do not show their noise
    const bool quiet = disparity_noise(noise, 5.0) < 0.25 * remap_rounding();
    of_phases(record, [&](auto& param) { param.fit_points = quiet ? 3 : 5; });
    origins.fit_points = Origin::measured;
}

} // namespace vexo
