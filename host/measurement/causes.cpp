#include "host/measurement/causes.h"

#include "base/parallel.h"
#include "base/statistics.h"
#include "host/cameras/rectification.h"
#include "host/measurement/partners.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>

namespace vexo {

namespace {

constexpr double unlimited = 1e12; // px and fringe periods: beyond everything, and exact at -1

MatchingRecord lift_both(const MatchingRecord& record)
{
    MatchingRecord lifted = lift_disparity(record);
    const auto lift = [](auto& param) { param.max_phase_diff = unlimited; };
    if (auto* gray = std::get_if<GrayPhaseMatchingParam>(&lifted)) lift(*gray);
    if (auto* multi = std::get_if<MultiPhaseMatchingParam>(&lifted)) lift(*multi);
    return lifted;
}

/// The middle of what each rectified row of camera 1 sees, as a raw column, and which rows see a few
/// columns on both sides of the middle of them all.
struct SecondView {
    int middle = 0;
    std::vector<bool> usable;
};

/// A ramp over the columns goes through the camera's own rectification: it comes out as the column that
/// each rectified pixel sees, to within 1/255 of the width.
SecondView look_through_camera1(iStereoCamera& camera, cv::Size raw_size)
{
    cv::Mat ramp(1, raw_size.width, CV_8U);
    for (int x = 0; x < ramp.cols; ++x)
        ramp.at<uchar>(0, x) = static_cast<uchar>(x * 255 / std::max(1, ramp.cols - 1));
    ramp = cv::repeat(ramp, raw_size.height, 1);
    const cv::Mat columns = rectified(camera, ramp, 1);
    const cv::Mat seen = rectified(camera, cv::Mat(raw_size, CV_8U, cv::Scalar(255)), 1);

    std::vector<std::pair<int, int>> spans;
    std::vector<float> middles;
    for (int y = 0; y < seen.rows; ++y) {
        const uchar *const is_seen = seen.ptr(y), *const column = columns.ptr(y);
        int low = 256, high = -1;
        for (int x = 0; x < seen.cols; ++x) {
            low = std::min(low, is_seen[x] == 255 ? column[x] : 256);
            high = std::max(high, is_seen[x] == 255 ? column[x] : -1);
        }
        spans.emplace_back(low, high);
        if (high >= low) middles.push_back(0.5F * static_cast<float>(low + high));
    }
    SecondView view;
    const double middle = middles.empty() ? 127.0 : quantile(middles, 0.5);
    view.middle = static_cast<int>(middle / 255.0 * raw_size.width);
    const double margin = 3.0 + 12.0 * 255.0 / raw_size.width;
    for (const auto& [low, high] : spans)
        view.usable.push_back(low + margin < middle && middle + margin < high);
    return view;
}

/// Everything that tells one cause from another.
struct Evidence {
    cv::Mat inside, contrast, modulation;        ///< rectified masks
    cv::Mat any_disparity, any_phase, survivors; ///< what is measured without limits, and beside a partner for all
    SecondView second;

    Cause at(int y, int x) const
    {
        if (inside.at<uchar>(y, x) != 255) return Cause::outside_image;
        if (contrast.at<uchar>(y, x) != 255) return Cause::contrast;
        if (modulation.at<uchar>(y, x) != 255) return Cause::modulation;
        if (any_disparity.at<uchar>(y, x) != 0) return Cause::disparity;
        if (any_phase.at<uchar>(y, x) != 0) return Cause::phase_difference;
        if (!second.usable[static_cast<std::size_t>(y)]) return Cause::no_partner;
        return survivors.at<uchar>(y, x) != 0 ? Cause::no_partner : Cause::unwrapping;
    }
};

template <class At> CauseMap map_of(const Cloud& cloud, const At& cause_at)
{
    CauseMap map;
    map.causes = cv::Mat(cloud.size, CV_8U);
    std::vector<std::array<long long, cause_count>> counts(static_cast<std::size_t>(cloud.size.height));
    in_parallel(counts.size(), [&](std::size_t row) {
        const int y = static_cast<int>(row);
        uchar* const causes = map.causes.ptr(y);
        std::array<long long, cause_count> own {};
        for (int x = 0; x < cloud.size.width; ++x)
            ++own[causes[x] = static_cast<uchar>(cloud.measured(y, x) ? Cause::none : cause_at(y, x))];
        counts[row] = own;
    });
    for (const auto& of_row : counts)
        std::transform(map.counts.begin(), map.counts.end(), of_row.begin(), map.counts.begin(), std::plus<>());
    return map;
}

cv::Mat seen_by_camera0(iStereoCamera& camera, cv::Size raw_size)
{
    return rectified(camera, cv::Mat(raw_size, CV_8U, cv::Scalar(255)), 0);
}

} // namespace

std::vector<Cause> causes_of(Method method)
{
    if (method == Method::sgbm)
        return { Cause::none, Cause::outside_image, Cause::outside_overlap, Cause::no_match, Cause::ambiguous,
            Cause::speckle, Cause::texture, Cause::outlier, Cause::edge };
    return { Cause::none, Cause::outside_image, Cause::contrast, Cause::modulation, Cause::unwrapping,
        Cause::no_partner, Cause::phase_difference, Cause::disparity, Cause::ambiguous, Cause::refinement,
        Cause::outlier, Cause::edge, Cause::speckle };
}

MatchingRecord lift_disparity(MatchingRecord record)
{
    set_disparity_limits(record, -unlimited, unlimited);
    return record;
}

const char* key_of(Cause cause)
{
    static const char* const keys[cause_count] = { "measured", "outside_image", "dark_or_low_contrast",
        "low_modulation", "removed_by_unwrapping", "out_of_phase_range", "phase_difference", "disparity_limits",
        "outside_overlap", "no_match", "ambiguous", "speckle", "refinement", "outlier", "edge", "texture" };
    return keys[static_cast<std::size_t>(cause)];
}

const char* words_of(Cause cause)
{
    static const char* const words[cause_count] = { "measured", "outside the camera's picture",
        "too dark or low contrast", "fringes too weak, saturated or mixed", "removed by unwrapping",
        "out of the other camera's phase range", "phase difference too large", "disparity outside the limits",
        "range leads out of the other picture", "no match in the other picture", "other disparities fit as well",
        "patch too small", "no line fits around the match", "far from the points around it",
        "beside a jump of the surface", "too little texture" };
    return words[static_cast<std::size_t>(cause)];
}

std::string remedy_of(Cause cause, Method method)
{
    const char* const fit
        = "check that cam0 and cam1 are not swapped and that the calibration belongs to these cameras";
    switch (cause) {
    case Cause::contrast:
        return "check the exposure and the order of the frames (dark, lit, patterns), or lower --min-contrast";
    case Cause::modulation:
        return "focus and expose the fringes, check their frames, or lower --min-modulation";
    case Cause::unwrapping:
        return method == Method::multi_phase ? "check that the fringes have these --periods" : fit;
    case Cause::disparity:
        return "pass --disparity or --depth";
    case Cause::no_partner:
    case Cause::phase_difference:
    case Cause::outside_overlap:
    case Cause::no_match:
    case Cause::ambiguous:
    case Cause::speckle:
    case Cause::outlier:
    case Cause::edge:
        return fit;
    case Cause::texture:
        return "paint or project a finer texture, brighter and in focus";
    case Cause::refinement:
        return "check that nothing moved between the frames, and that the fringes are in focus";
    default:
        return "";
    }
}

long long lit_pixels(const CauseMap& map)
{
    const auto total = static_cast<long long>(map.causes.total());
    return total - map[Cause::outside_image] - map[Cause::contrast] - map[Cause::outside_overlap];
}

Cause likeliest_cause(const CauseMap& map)
{
    constexpr double least_lit = 0.01;
    const auto lit = map.counts.begin() + static_cast<std::ptrdiff_t>(Cause::contrast) + 1;
    const auto count = static_cast<double>(std::accumulate(lit, map.counts.end(), 0LL));
    const auto dark = static_cast<double>(map[Cause::contrast]);
    if (count < least_lit * (count + dark)) return Cause::contrast;
    return static_cast<Cause>(std::max_element(lit, map.counts.end()) - map.counts.begin());
}

Json to_json(const CauseMap& map, Method method)
{
    Json causes = Json::object();
    for (const Cause cause : causes_of(method))
        if (cause != Cause::none) causes[key_of(cause)] = map[cause];
    return causes;
}

CauseMap find_phase_causes(iStereoCamera& camera, const PairFrames& frames, const PixelMasks& masks,
    const MatchingRecord& record, bool interpolate, const Cloud& cloud, const cv::Mat& any_disparity)
{
    const cv::Size raw_size = masks.contrast.size();
    Evidence evidence;
    in_parallel(4, [&](std::size_t which) {
        if (which == 0) evidence.second = look_through_camera1(camera, raw_size);
        if (which == 1) evidence.inside = seen_by_camera0(camera, raw_size);
        if (which == 2) evidence.contrast = rectified(camera, masks.contrast, 0);
        if (which == 3) evidence.modulation = rectified(camera, masks.modulation, 0);
    });
    evidence.any_disparity = any_disparity;
    evidence.any_phase = match_mask(camera, frames, lift_both(record), interpolate);
    const std::vector<cv::Mat> partner = partner_for_all(raw_size, evidence.second.middle, record);
    evidence.survivors = match_mask(camera, { frames[0], partner }, lift_both(record), false);
    return map_of(cloud, [&evidence](int y, int x) { return evidence.at(y, x); });
}

CauseMap find_block_causes(
    iStereoCamera& camera, const PairFrames& frames, const SGBMatchingParam& param, const Cloud& cloud)
{
    const cv::Mat inside = seen_by_camera0(camera, frames[0][0].size());
    // OpenCV leaves out the columns from which part of the range leads out of the other picture.
    const int first = std::max(param.minDisparity + param.numDisparities - 1, 0);
    const int last = cloud.size.width - 1 + std::min(param.minDisparity, 0);
    SGBMatchingParam lifted = param;
    lifted.speckleWindowSize = 0;
    const Cloud with_specks = match(camera, frames, lifted, false);
    lifted.uniquenessRatio = 0;
    const Cloud with_doubt = match(camera, frames, lifted, false);
    return map_of(cloud, [&](int y, int x) {
        if (inside.at<uchar>(y, x) != 255) return Cause::outside_image;
        if (x < first || x > last) return Cause::outside_overlap;
        if (with_specks.measured(y, x)) return Cause::speckle;
        return with_doubt.measured(y, x) ? Cause::ambiguous : Cause::no_match;
    });
}

CauseMap nothing_matches(iStereoCamera& camera, cv::Size raw_size, const Cloud& empty)
{
    const cv::Mat inside = seen_by_camera0(camera, raw_size);
    return map_of(empty,
        [&inside](int y, int x) { return inside.at<uchar>(y, x) == 255 ? Cause::no_match : Cause::outside_image; });
}

} // namespace vexo
