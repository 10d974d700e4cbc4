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
    };
    return names[index_of(cause)];
}

constexpr double unlimited = 1e12; // px and fringe periods: beyond everything, and exact at -1

GrayPhaseMatchingParam lift_disparity(GrayPhaseMatchingParam param)
{
    param.min_disparity = -unlimited;
    param.max_disparity = unlimited;
    return param;
}

GrayPhaseMatchingParam lift_both(GrayPhaseMatchingParam param)
{
    param = lift_disparity(param);
    param.max_phase_diff = unlimited;
    return param;
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

/// Frames of a second camera that decode to projector coordinate 0 left of `middle`, and to the last
/// coordinate of all right of it: with lifted limits every coordinate finds a partner there. The phase must
/// fall where the halves meet, for the unwrapping to tell them apart, so the last `step` columns of the left
/// half rise to 3/4 and the first of the right half begin at 1/4.
std::vector<cv::Mat> partner_for_all(cv::Size size, int middle, int max_white)
{
    constexpr int step = 2;
    const cv::Range all(0, size.width), right(middle, size.width);
    const cv::Range left_edge(std::max(0, middle - step), middle);
    const cv::Range right_edge(middle, std::min(size.width, middle + step));
    std::vector<cv::Mat> frames(13);
    for (cv::Mat& frame : frames)
        frame = cv::Mat::zeros(size, CV_8U);
    frames[1].setTo(std::min(max_white, 255));
    frames[2].colRange(right).setTo(255); // gray code 64 is period 127
    const auto set_phase = [&frames](cv::Range columns, int p0, int p1, int p2, int p3) {
        const int levels[4] = { p0, p1, p2, p3 };
        for (std::size_t k = 0; k < 4; ++k)
            frames[9 + k].colRange(columns).setTo(levels[k]);
    };
    set_phase(all, 255, 128, 0, 128);        // 0
    set_phase(right, 255, 127, 0, 128);      // just below 1
    set_phase(left_edge, 128, 0, 128, 255);  // 3/4
    set_phase(right_edge, 128, 255, 128, 0); // 1/4
    return frames;
}

/// Disparities of a cloud, from its depths.
std::vector<float> disparities_of(const Cloud& cloud, const Geometry& geometry)
{
    std::vector<float> disparities;
    for (const cv::Point3f& point : cloud.points)
        if (!std::isnan(point.z))
            disparities.push_back(static_cast<float>(geometry.disparity(static_cast<double>(point.z))));
    return disparities;
}

/// Everything that tells one cause from another.
struct Evidence {
    cv::Mat inside, contrast, modulation; ///< rectified masks
    Cloud survivors, any_phase, any_disparity;
    SecondView second;

    Cause at(int y, int x) const
    {
        if (inside.at<uchar>(y, x) != 255) return Cause::outside_image;
        if (contrast.at<uchar>(y, x) != 255) return Cause::contrast;
        if (modulation.at<uchar>(y, x) != 255) return Cause::modulation;
        if (any_disparity.measured(y, x)) return Cause::disparity;
        if (any_phase.measured(y, x)) return Cause::phase_difference;
        if (!second.usable[static_cast<std::size_t>(y)]) return Cause::no_partner;
        return survivors.measured(y, x) ? Cause::no_partner : Cause::unwrapping;
    }
};

} // namespace

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

CauseMap find_causes(iStereoCamera& camera, const std::array<std::vector<cv::Mat>, 2>& frames, const PixelMasks& masks,
    const GrayPhaseMatchingParam& param, bool interpolate, const Cloud& cloud, const Geometry& geometry)
{
    const cv::Size raw_size = masks.contrast.size();
    Evidence evidence;
    evidence.inside = rectified(camera, cv::Mat(raw_size, CV_8U, cv::Scalar(255)), 0);
    evidence.contrast = rectified(camera, masks.contrast, 0);
    evidence.modulation = rectified(camera, masks.modulation, 0);
    evidence.second = look_through_camera1(camera, raw_size);
    evidence.any_disparity = match(camera, frames, lift_disparity(param), interpolate);
    evidence.any_phase = match(camera, frames, lift_both(param), interpolate);
    const std::array<std::vector<cv::Mat>, 2> alone { frames[0],
        partner_for_all(raw_size, evidence.second.middle, param.max_white) };
    evidence.survivors = match(camera, alone, lift_both(param), false);

    CauseMap map;
    map.causes = cv::Mat(cloud.size, CV_8U);
    for (int y = 0; y < cloud.size.height; ++y) {
        for (int x = 0; x < cloud.size.width; ++x) {
            const Cause cause = cloud.measured(y, x) ? Cause::none : evidence.at(y, x);
            map.causes.at<uchar>(y, x) = static_cast<uchar>(cause);
            ++map.counts[index_of(cause)];
        }
    }
    const std::vector<float> disparities = disparities_of(evidence.any_disparity, geometry);
    map.low_disparity = quantile(disparities, 0.01);
    map.high_disparity = quantile(disparities, 0.99);
    return map;
}

} // namespace vexo::app
