#include "host/captures/derived_frames.h"

#include "base/failure.h"
#include "host/captures/fringe_steps.h"

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

constexpr std::size_t first_plane = 2, first_fringe = 9; ///< of gray code + phase

std::size_t planes_end(Method method)
{
    return method == Method::gray_phase ? first_fringe : first_plane;
}

/// The least and the most light of a pixel: of its fringes, mean and amplitude say it, of the planes the darkest and
/// the brightest. Planes of one grey value show nothing.
void add_light(std::vector<cv::Mat>& frames, Method method, cv::Mat& least, cv::Mat& most)
{
    const cv::Mat& any = frames[planes_end(method)];
    least = cv::Mat(any.size(), CV_8U, cv::Scalar(255));
    most = cv::Mat::zeros(any.size(), CV_8U);
    for (const std::size_t first : phase_sets(method))
        for (int y = 0; y < any.rows; ++y)
            for (int x = 0; x < any.cols; ++x) {
                const FringeSteps steps(frames, first, y, x);
                uchar &low = least.at<uchar>(y, x), &high = most.at<uchar>(y, x);
                low = std::min(low, cv::saturate_cast<uchar>(steps.mean() - steps.modulation()));
                high = std::max(high, cv::saturate_cast<uchar>(steps.mean() + steps.modulation()));
            }
    for (std::size_t k = first_plane; k < planes_end(method); ++k) {
        double low = 0, high = 0;
        if (!frames[k].empty()) cv::minMaxLoc(frames[k], &low, &high);
        if (low == high) continue;
        cv::min(least, frames[k], least);
        cv::max(most, frames[k], most);
    }
}

void refuse_what_is_needed(const std::vector<cv::Mat>& frames, Method method, const std::string& where)
{
    const auto fail = [&](std::size_t k, const std::string& why) {
        throw Failure(where + ": frame " + std::to_string(k) + " was not recorded, and " + why);
    };
    bool recorded = false;
    for (std::size_t k = first_plane; k < planes_end(method); ++k) {
        if (recorded && frames[k].empty()) fail(k, "it tells the fringes of coarser planes apart");
        recorded = recorded || !frames[k].empty();
    }
    if (!recorded && method == Method::gray_phase) fail(first_fringe - 1, "without planes no fringe has a number");
    for (std::size_t k = method == Method::sgbm ? 0 : planes_end(method); k < frames.size(); ++k)
        if (frames[k].empty()) fail(k, "every fringe frame is needed");
}

/// Dark and lit frame, where they are missing.
std::string add_dark_and_lit(std::vector<cv::Mat>& frames, Method method)
{
    const bool no_dark = frames[0].empty(), no_lit = frames[1].empty();
    if (!no_dark && !no_lit) return "";
    cv::Mat least, most;
    add_light(frames, method, least, most);
    if (no_dark) frames[0] = least;
    if (no_lit) frames[1] = most;
    return std::string(no_dark && no_lit ? "dark and lit frame were"
                   : no_dark             ? "the dark frame was"
                                         : "the lit frame was")
        + " not recorded: made of the least and the most light of each pixel";
}

/// Turns the planes that are there.
void turn_code(std::vector<cv::Mat>& frames)
{
    for (std::size_t k = first_plane; k < first_fringe; ++k) {
        if (frames[k].empty()) continue;
        cv::Mat sum, turned;
        cv::add(frames[0], frames[1], sum, {}, CV_16S);
        cv::subtract(sum, frames[k], turned, {}, CV_8U);
        frames[k] = turned;
    }
}

} // namespace

std::string add_missing_frames(
    std::vector<cv::Mat>& frames, Method method, const std::string& where, bool inverted_code)
{
    refuse_what_is_needed(frames, method, where);
    if (method == Method::sgbm) return "";
    std::string said = add_dark_and_lit(frames, method);
    if (inverted_code) turn_code(frames);
    std::size_t planes = 0;
    for (std::size_t k = first_plane; k < planes_end(method); ++k) {
        if (!frames[k].empty()) continue;
        frames[k] = cv::Mat::zeros(frames[0].size(), CV_8U);
        ++planes;
    }
    if (planes > 0)
        said += (said.empty() ? "" : "; ") + std::string("of the gray code the coarsest ")
            + (planes == 1 ? "plane was" : std::to_string(planes) + " planes were") + " not recorded: taken as dark";
    return said;
}

} // namespace vexo
