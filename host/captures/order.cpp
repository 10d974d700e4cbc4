#include "host/captures/order.h"

#include "host/captures/agreement.h"

#include <algorithm>
#include <filesystem>

namespace vexo {

namespace {

/// Another order must explain two fifths of the pixels that do not agree, and some at least. In order, no other
/// explains any: each breaks what agreed.
constexpr double explained = 0.4, least_explained = 0.02;

/// So many agree only in order.
constexpr double in_order = 0.9;

constexpr std::size_t first_fringe = 9; ///< of gray code + phase

using Frames = std::vector<cv::Mat>;

/// The fourth of four steps of a quarter period by the other three: I0 + I2 = I1 + I3.
cv::Mat fourth_step(const Frames& frames, std::size_t first)
{
    cv::Mat sum, step;
    cv::add(frames[first], frames[first + 2], sum, {}, CV_16S);
    cv::subtract(sum, frames[first + 1], step, {}, CV_8U);
    return step;
}

/// The frames one place earlier; the last, which was not recorded, is made from the others.
Frames one_earlier(const Frames& frames, Method method)
{
    Frames moved(frames.begin() + 1, frames.end());
    moved.push_back(frames.back());
    moved.back() = fourth_step(moved, phase_sets(method).back());
    return moved;
}

/// The frames one place later; the dark frame, which was not recorded, is the darkest of each pixel.
Frames one_later(const Frames& frames)
{
    cv::Mat dark = frames[0].clone();
    for (const cv::Mat& frame : frames)
        cv::min(dark, frame, dark);
    Frames moved { dark };
    moved.insert(moved.end(), frames.begin(), frames.end() - 1);
    return moved;
}

Frames in(const FrameOrder& order, const Frames& frames, Method method)
{
    Frames other = frames;
    switch (order.kind) {
    case FrameOrder::late:
        return one_earlier(frames, method);
    case FrameOrder::early:
        return one_later(frames);
    case FrameOrder::exchanged:
        std::swap(other[order.pair[0]], other[order.pair[1]]);
        break;
    case FrameOrder::fringes:
        for (std::size_t k = 0; k < 4; ++k)
            other[first_fringe + k] = frames[first_fringe + order.four[k]];
        break;
    case FrameOrder::right:
        break;
    }
    return other;
}

/// Likely ones first: of several that explain the same the first counts.
std::vector<FrameOrder> orders_of(Method method)
{
    std::vector<FrameOrder> orders;
    for (std::size_t i = 0; i < frame_count(method); ++i)
        for (std::size_t k = std::max<std::size_t>(i + 1, 2); k < frame_count(method); ++k)
            orders.push_back({ FrameOrder::exchanged, { i, k }, {} });
    orders.push_back({ FrameOrder::late, {}, {} });
    orders.push_back({ FrameOrder::early, {}, {} });
    std::array<std::size_t, 4> four { 0, 1, 2, 3 };
    while (method == Method::gray_phase && std::next_permutation(four.begin(), four.end()))
        orders.push_back({ FrameOrder::fringes, {}, four });
    return orders;
}

/// The best order for all of the cameras; `right` when none explains enough of each.
FrameOrder best_order(const std::vector<const Frames*>& cameras, const FringeMethod& method)
{
    const auto agreement_of = [&](const FrameOrder& order) {
        std::vector<Agreement> all;
        for (const Frames* frames : cameras)
            all.push_back(agreement(in(order, *frames, method.method), method));
        return all;
    };
    const std::vector<Agreement> given = agreement_of({});
    FrameOrder best;
    double most = 0;
    for (const FrameOrder& order : orders_of(method.method)) {
        const std::vector<Agreement> found = agreement_of(order);
        double gain = 0;
        bool enough = true;
        for (std::size_t c = 0; c < given.size(); ++c) {
            const double all = std::max(given[c].all, found[c].all), more = found[c].exact - given[c].exact;
            enough = enough && all >= 100 && more >= explained * (all - given[c].agreeing)
                && more >= least_explained * all;
            gain += more;
        }
        if (!enough || gain <= 1.02 * most) continue;
        most = gain;
        best = order;
    }
    return best;
}

bool agrees(const Frames& frames, const FringeMethod& method)
{
    constexpr double brighter = 1.02; // than the lit frame, on the whole, no other can be
    const double lit = cv::mean(frames[1])[0];
    for (const cv::Mat& frame : frames)
        if (cv::mean(frame)[0] > brighter * lit + 1) return false;
    return agreement(frames, method).share() >= in_order; // false for NaN
}

} // namespace

FrameOrder find_exchange(const Frames& frames, const FringeMethod& method, const Frames* other)
{
    if (cv::mean(frames[0])[0] > cv::mean(frames[1])[0]) {
        const FrameOrder dark_lit { FrameOrder::exchanged, { 0, 1 }, {} };
        if (agrees(in(dark_lit, frames, method.method), method)) return dark_lit;
    }
    if (agrees(frames, method)) return {};
    if (other != nullptr && !agrees(*other, method))
        if (const FrameOrder both = best_order({ &frames, other }, method)) return both;
    return best_order({ &frames }, method);
}

std::array<std::string, 2> words_of(const FrameOrder& order, const std::vector<std::string>& names)
{
    const auto stem = [&](std::size_t k) { return std::filesystem::path(names[k]).stem().string(); };
    std::string list;
    switch (order.kind) {
    case FrameOrder::exchanged:
        return { names[order.pair[0]] + " and " + names[order.pair[1]] + " are exchanged", "exchange their names" };
    case FrameOrder::fringes:
        for (const std::size_t k : order.four)
            list += (list.empty() ? "" : ", ") + stem(first_fringe + k);
        return { "the four fringe frames are in another order",
            "reorder " + stem(first_fringe) + " to " + stem(first_fringe + 3) + " as " + list };
    case FrameOrder::late:
        return { "every frame is one late: " + names[1] + " is the dark one, and the last fringe frame is missing",
            "start the camera with the projector, and record again" };
    case FrameOrder::early:
        return { "every frame is one early: " + names[0] + " is the lit one, and the dark one is missing",
            "start the camera before the projector, and record again" };
    case FrameOrder::right:
        break;
    }
    return {};
}

} // namespace vexo
