#pragma once

#include "host/captures/fringes.h"
#include "host/files/json_file.h"
#include "host/measurement/match.h"

#include <opencv2/core.hpp>

#include <array>
#include <cstddef>
#include <string>
#include <vector>

/// Why pixels were not measured. The library does not say, so it is asked: the same frames are matched again
/// with wider limits, and, for phases, with a second camera that has a partner for everything.
namespace vexo {

/// Each pixel has one: the first test that it failed, in the order in which the tests are made.
enum class Cause : unsigned char {
    none,             ///< measured
    outside_image,    ///< the rectified pixel lies outside camera 0's picture
    contrast,         ///< too dark, or lit and dark frame differ too little
    modulation,       ///< the fringes are too weak, saturated, or mixed of an edge and what lies behind it
    unwrapping,       ///< no consistent fringe number
    no_partner,       ///< the other camera's row does not see this projector coordinate
    phase_difference, ///< it does, but the nearest pixel there is too far in phase
    disparity,        ///< a partner was found, outside the accepted disparities
    outside_overlap,  ///< block matching: the disparity range leads out of the other camera's picture
    no_match,         ///< block matching: hidden from the other camera, or the two directions disagree
    ambiguous,        ///< other disparities fit nearly as well, or those of two decodings differ
    speckle,          ///< in a patch that is small and apart from its surroundings
    refinement,       ///< matched, but no line through the fringes around the match can be trusted
    outlier,          ///< cleaned: far from the points around it
    edge,             ///< cleaned: beside a jump of the surface
    texture,          ///< cleaned: block matching has too little to go by around it
    count
};

constexpr std::size_t cause_count = static_cast<std::size_t>(Cause::count);

/// The causes that a method can have, in this order; the first is Cause::none.
std::vector<Cause> causes_of(Method method);

/// The key in report.json.
const char* key_of(Cause cause);

/// In words for people.
const char* words_of(Cause cause);

/// What to do about it; empty: nothing is wrong.
std::string remedy_of(Cause cause, Method method);

struct CauseMap {
    cv::Mat causes; ///< CV_8U, Cause of each rectified pixel
    std::array<long long, cause_count> counts {};

    long long operator[](Cause cause) const { return counts[static_cast<std::size_t>(cause)]; }
};

/// Pixels that the projector lights; block matching: that both pictures hold.
long long lit_pixels(const CauseMap& map);

/// What most of the lit pixels have. Only when next to nothing is lit is it that: a background is dark in every
/// capture.
Cause likeliest_cause(const CauseMap& map);

/// Pixels by cause.
Json to_json(const CauseMap& map, Method method);

/// The record with every disparity allowed; of a phase method.
MatchingRecord lift_disparity(MatchingRecord record);

/// @param frames         what was matched, lit frames masked
/// @param masks          of camera 0
/// @param cloud          result of match() with these frames, `record` and `interpolate`
/// @param any_disparity  what is measured with lift_disparity(record); CV_8U, 255: measured
CauseMap find_phase_causes(iStereoCamera& camera, const PairFrames& frames, const PixelMasks& masks,
    const MatchingRecord& record, bool interpolate, const Cloud& cloud, const cv::Mat& any_disparity);

/// The same for block matching.
CauseMap find_block_causes(
    iStereoCamera& camera, const PairFrames& frames, const SGBMatchingParam& param, const Cloud& cloud);

/// Block matching that was not even tried, as the pictures fit each other nowhere.
CauseMap nothing_matches(iStereoCamera& camera, cv::Size raw_size, const Cloud& empty);

} // namespace vexo
