#include "host/measurement/record.h"

#include "base/failure.h"
#include "base/text.h"

#include <cmath>

namespace vexo {

namespace {

Json parameters(const GrayPhaseMatchingParam& p)
{
    return { { "max_phase_diff", p.max_phase_diff }, { "min_disparity", p.min_disparity },
        { "max_disparity", p.max_disparity }, { "fit_points", p.fit_points }, { "datatype", p.datatype },
        { "min_contrast", p.min_contrast }, { "max_white", p.max_white }, { "min_white", p.min_white },
        { "anchor_length", p.anchor_length }, { "reject_length", p.reject_length }, { "code_spread", p.code_spread } };
}

Json parameters(const MultiPhaseMatchingParam& p)
{
    return { { "max_phase_diff", p.max_phase_diff }, { "min_disparity", p.min_disparity },
        { "max_disparity", p.max_disparity }, { "fit_points", p.fit_points }, { "datatype", p.datatype },
        { "min_contrast", p.min_contrast }, { "max_white", p.max_white }, { "min_white", p.min_white },
        { "steps", p.steps }, { "periods", std::vector<int>(p.periods, p.periods + p.nperiods) } };
}

Json parameters(const SGBMatchingParam& p)
{
    return { { "minDisparity", p.minDisparity }, { "numDisparities", p.numDisparities }, { "blockSize", p.blockSize },
        { "P1", p.P1 }, { "P2", p.P2 }, { "disp12MaxDiff", p.disp12MaxDiff }, { "preFilterCap", p.preFilterCap },
        { "uniquenessRatio", p.uniquenessRatio }, { "speckleWindowSize", p.speckleWindowSize },
        { "speckleRange", p.speckleRange }, { "mode", p.mode } };
}

} // namespace

LightLimits light_limits(const MatchingRecord& record)
{
    const auto of = [](const auto& p) { return LightLimits { p.min_contrast, p.max_white, p.min_white }; };
    if (const auto* gray = std::get_if<GrayPhaseMatchingParam>(&record)) return of(*gray);
    if (const auto* multi = std::get_if<MultiPhaseMatchingParam>(&record)) return of(*multi);
    return {};
}

std::pair<double, double> disparity_limits(const MatchingRecord& record)
{
    if (const auto* gray = std::get_if<GrayPhaseMatchingParam>(&record))
        return { gray->min_disparity, gray->max_disparity };
    if (const auto* multi = std::get_if<MultiPhaseMatchingParam>(&record))
        return { multi->min_disparity, multi->max_disparity };
    const auto& sgbm = std::get<SGBMatchingParam>(record);
    return { sgbm.minDisparity, sgbm.minDisparity + sgbm.numDisparities - 1 };
}

void set_disparity_limits(MatchingRecord& record, double low, double high)
{
    const auto set = [&](auto& p) {
        p.min_disparity = low;
        p.max_disparity = high;
    };
    if (auto* gray = std::get_if<GrayPhaseMatchingParam>(&record)) return set(*gray);
    if (auto* multi = std::get_if<MultiPhaseMatchingParam>(&record)) return set(*multi);
    // Block matching wants a count that is a multiple of 16; OpenCV holds sixteenths in 16 bits.
    constexpr int step = 16, lowest = -2032, highest = 2032;
    const int first = step * static_cast<int>(std::floor(low / step));
    const int end = step * (static_cast<int>(std::floor(high / step)) + 1);
    if (first < lowest || end > highest)
        throw UsageFailure("disparities from " + number(low, 0) + " to " + number(high, 0)
            + " px are more than block matching can hold (" + std::to_string(lowest) + " to " + std::to_string(highest)
            + "); use a smaller --depth or --disparity range");
    auto& sgbm = std::get<SGBMatchingParam>(record);
    sgbm.minDisparity = first;
    sgbm.numDisparities = end - first;
}

bool is_decoded(const MatchingRecord& record)
{
    if (const auto* gray = std::get_if<GrayPhaseMatchingParam>(&record)) return gray->datatype == 1;
    if (const auto* multi = std::get_if<MultiPhaseMatchingParam>(&record)) return multi->datatype == 1;
    return false;
}

Json to_json(const MatchingRecord& record)
{
    return std::visit([](const auto& param) { return parameters(param); }, record);
}

} // namespace vexo
