#include "causes.h"

#include "common.h"

#include <algorithm>
#include <cmath>

namespace vexo::app {

namespace {

struct CauseName {
    const char* key;
    const char* words;
    cv::Vec3b colour; // BGR
};

constexpr std::size_t index_of(Cause cause)
{
    return static_cast<std::size_t>(cause);
}

const CauseName& name_of(Cause cause)
{
    static const CauseName names[cause_count] = {
        { "measured", "measured", { 96, 174, 39 } },
        { "outside_image", "outside the camera's picture", { 224, 224, 224 } },
        { "dark_or_low_contrast", "too dark or low contrast", { 60, 60, 60 } },
        { "low_modulation", "fringes too weak or saturated", { 155, 89, 142 } },
        { "removed_by_unwrapping", "removed by unwrapping", { 18, 156, 243 } },
        { "out_of_phase_range", "out of the other camera's phase range", { 219, 152, 52 } },
        { "phase_difference", "phase difference too large", { 60, 76, 231 } },
        { "disparity_limits", "disparity outside the limits", { 15, 196, 241 } },
        { "outside_overlap", "range leads out of the other picture", { 186, 174, 149 } },
        { "no_match", "no match in the other picture", { 60, 76, 231 } },
        { "ambiguous", "other disparities fit as well", { 18, 156, 243 } },
        { "speckle", "patch too small", { 155, 89, 142 } },
    };
    return names[index_of(cause)];
}

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
    cv::Mat ramp(raw_size, CV_8U);
    for (int x = 0; x < ramp.cols; ++x)
        ramp.col(x).setTo(x * 255 / std::max(1, ramp.cols - 1));
    const cv::Mat columns = rectified(camera, ramp, 1);
    const cv::Mat seen = rectified(camera, cv::Mat(raw_size, CV_8U, cv::Scalar(255)), 1);

    std::vector<std::pair<int, int>> spans;
    std::vector<float> middles;
    for (int y = 0; y < seen.rows; ++y) {
        int low = 256, high = -1;
        for (int x = 0; x < seen.cols; ++x) {
            if (seen.at<uchar>(y, x) != 255) continue;
            low = std::min<int>(low, columns.at<uchar>(y, x));
            high = std::max<int>(high, columns.at<uchar>(y, x));
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

/// What a camera would have to see to decode to projector coordinate 0 left of a column, and to the last coordinate
/// of all right of it: with lifted limits every coordinate finds a partner there.
struct Halves {
    cv::Size size;
    int middle; ///< first column of the right half
    int white;  ///< grey level of the lit frame

    cv::Range left() const { return { 0, middle }; }
    cv::Range right() const { return { middle, size.width }; }
    cv::Mat frame(int grey = 0) const { return cv::Mat(size, CV_8U, cv::Scalar(grey)); }
};

/// Gray code tells runs of periods apart where the phase falls. For it to fall where the halves meet, the last
/// columns of the left half rise to 3/4 of a period, and the first of the right half begin at 1/4.
struct FringeStep {
    explicit FringeStep(const Halves& halves)
        : left(std::max(0, halves.middle - width), halves.middle)
        , right(halves.middle, std::min(halves.size.width, halves.middle + width))
    {
    }
    static constexpr int width = 2;
    cv::Range left, right;
};

std::vector<cv::Mat> gray_frames(const Halves& halves)
{
    std::vector<cv::Mat> frames;
    for (std::size_t k = 0; k < frame_count(Method::gray_phase); ++k)
        frames.push_back(halves.frame());
    frames[1].setTo(halves.white);
    frames[2].colRange(halves.right()).setTo(255); // gray code 64 is period 127
    const auto set_phase = [&frames](cv::Range columns, int p0, int p1, int p2, int p3) {
        const int levels[4] = { p0, p1, p2, p3 };
        for (std::size_t k = 0; k < 4; ++k)
            frames[9 + k].colRange(columns).setTo(levels[k]);
    };
    const FringeStep step(halves);
    set_phase(halves.left(), 255, 128, 0, 128);  // 0
    set_phase(halves.right(), 255, 127, 0, 128); // just below 1
    set_phase(step.left, 128, 0, 128, 255);      // 3/4
    set_phase(step.right, 128, 255, 128, 0);     // 1/4
    return frames;
}

std::vector<cv::Mat> gray_maps(const Halves& halves)
{
    cv::Mat periods = halves.frame(), phase(halves.size, CV_32F, cv::Scalar(0.0));
    periods.colRange(halves.right()).setTo(255); // another decoder may number more than 128 periods
    phase.colRange(halves.right()).setTo(0.999);
    const FringeStep step(halves);
    phase.colRange(step.left).setTo(0.75);
    phase.colRange(step.right).setTo(0.25);
    return { halves.frame(), halves.frame(halves.white), periods, phase };
}

/// Coordinates between which all others lie: the decoder drops what is above 912.
constexpr double first_coordinate = -0.45, last_coordinate = 911.95;

std::vector<cv::Mat> multi_frames(const Halves& halves, const MultiPhaseMatchingParam& param)
{
    constexpr double pi = 3.14159265358979323846, middle_grey = 127.5;
    std::vector<cv::Mat> frames { halves.frame(), halves.frame(halves.white) };
    for (std::size_t f = 0; f < 3; ++f) {
        for (int s = 0; s < 4; ++s) {
            const auto grey_at = [&](double x) {
                return middle_grey * (1.0 - std::cos(2.0 * pi * (x + 0.5) / param.periods[f] + 0.5 * pi * s));
            };
            frames.push_back(halves.frame());
            frames.back().colRange(halves.left()).setTo(grey_at(first_coordinate));
            frames.back().colRange(halves.right()).setTo(grey_at(last_coordinate));
        }
    }
    return frames;
}

std::vector<cv::Mat> multi_maps(const Halves& halves, const MultiPhaseMatchingParam& param)
{
    std::vector<cv::Mat> maps { halves.frame(), halves.frame(halves.white) };
    for (std::size_t f = 0; f < 3; ++f) {
        const double period = param.periods[f];
        const auto phase_at = [&](double x) { return x / period - std::floor((x + 0.5) / period); };
        maps.emplace_back(halves.size, CV_32F, cv::Scalar(phase_at(first_coordinate)));
        maps.back().colRange(halves.right()).setTo(phase_at(last_coordinate));
    }
    return maps;
}

std::vector<cv::Mat> partner_for_all(const Halves& halves, const MatchingRecord& record)
{
    const bool maps = is_decoded(record);
    if (const auto* multi = std::get_if<MultiPhaseMatchingParam>(&record))
        return maps ? multi_maps(halves, *multi) : multi_frames(halves, *multi);
    return maps ? gray_maps(halves) : gray_frames(halves);
}

/// Everything that tells one cause from another.
struct Evidence {
    cv::Mat inside, contrast, modulation; ///< rectified masks
    Cloud survivors, any_phase;
    const Cloud* any_disparity = nullptr;
    SecondView second;

    Cause at(int y, int x) const
    {
        if (inside.at<uchar>(y, x) != 255) return Cause::outside_image;
        if (contrast.at<uchar>(y, x) != 255) return Cause::contrast;
        if (modulation.at<uchar>(y, x) != 255) return Cause::modulation;
        if (any_disparity->measured(y, x)) return Cause::disparity;
        if (any_phase.measured(y, x)) return Cause::phase_difference;
        if (!second.usable[static_cast<std::size_t>(y)]) return Cause::no_partner;
        return survivors.measured(y, x) ? Cause::no_partner : Cause::unwrapping;
    }
};

template <class At> CauseMap map_of(const Cloud& cloud, const At& cause_at)
{
    CauseMap map;
    map.causes = cv::Mat(cloud.size, CV_8U);
    in_parallel(static_cast<std::size_t>(cloud.size.height), [&](std::size_t row) {
        const int y = static_cast<int>(row);
        for (int x = 0; x < cloud.size.width; ++x)
            map.causes.at<uchar>(y, x) = static_cast<uchar>(cloud.measured(y, x) ? Cause::none : cause_at(y, x));
    });
    for (int y = 0; y < cloud.size.height; ++y)
        for (int x = 0; x < cloud.size.width; ++x)
            ++map.counts[map.causes.at<uchar>(y, x)];
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
            Cause::speckle };
    return { Cause::none, Cause::outside_image, Cause::contrast, Cause::modulation, Cause::unwrapping,
        Cause::no_partner, Cause::phase_difference, Cause::disparity };
}

MatchingRecord lift_disparity(MatchingRecord record)
{
    set_disparity_limits(record, -unlimited, unlimited);
    return record;
}

const char* words_of(Cause cause)
{
    return name_of(cause).words;
}
const char* key_of(Cause cause)
{
    return name_of(cause).key;
}

std::vector<Label> cause_legend()
{
    std::vector<Label> legend;
    for (std::size_t i = 0; i < cause_count; ++i) {
        const CauseName& name = name_of(static_cast<Cause>(i));
        legend.push_back({ name.colour, name.words });
    }
    return legend;
}

CauseMap find_phase_causes(iStereoCamera& camera, const CameraFrames& frames, const PixelMasks& masks,
    const MatchingRecord& record, bool interpolate, const Cloud& cloud, const Cloud& any_disparity)
{
    const cv::Size raw_size = masks.contrast.size();
    Evidence evidence;
    evidence.inside = seen_by_camera0(camera, raw_size);
    evidence.contrast = rectified(camera, masks.contrast, 0);
    evidence.modulation = rectified(camera, masks.modulation, 0);
    evidence.second = look_through_camera1(camera, raw_size);
    evidence.any_disparity = &any_disparity;
    evidence.any_phase = match(camera, frames, lift_both(record), interpolate);
    const Halves halves { raw_size, evidence.second.middle, std::min(light_limits(record).max_white, 255) };
    evidence.survivors = match(camera, { frames[0], partner_for_all(halves, record) }, lift_both(record), false);
    return map_of(cloud, [&evidence](int y, int x) { return evidence.at(y, x); });
}

CauseMap find_block_causes(
    iStereoCamera& camera, const CameraFrames& frames, const SGBMatchingParam& param, const Cloud& cloud)
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

} // namespace vexo::app
