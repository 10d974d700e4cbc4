#include "host/captures/order.h"

#include "host/captures/agreement.h"
#include "host/captures/odd_frames.h"

#include <algorithm>
#include <filesystem>

namespace vexo {

namespace {

/// Another order must explain two fifths of the pixels that do not agree, and some at least. In order, no other
/// explains any: each breaks what agreed.
constexpr double explained = 0.4, least_explained = 0.02;

/// So many agree only in order.
constexpr double in_order = 0.9;

constexpr std::size_t first_plane = 2, first_fringe = 9; ///< of gray code + phase

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
    case FrameOrder::planes:
        for (std::size_t k = 0; k < code_planes; ++k)
            other[first_plane + k] = frames[first_plane + order.seven[k]];
        break;
    case FrameOrder::right:
        break;
    }
    return other;
}

/// Likely ones first: of several that explain the same the first counts. Those of the gray code's planes are tried
/// apart.
std::vector<FrameOrder> orders_of(Method method)
{
    std::vector<FrameOrder> orders;
    const auto is_plane = [&](std::size_t k) { return method == Method::gray_phase && k >= 2 && k < first_fringe; };
    for (std::size_t i = 0; i < frame_count(method); ++i)
        for (std::size_t k = std::max<std::size_t>(i + 1, 2); k < frame_count(method); ++k)
            if (!is_plane(i) || !is_plane(k)) orders.push_back({ FrameOrder::exchanged, { i, k }, {} });
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

/// The order of the code's planes, of the cameras together.
FrameOrder order_of_planes(const std::vector<const Frames*>& cameras, const FringeMethod& method)
{
    if (method.multi()) return {};
    const PlaneOrder seven = find_plane_order(cameras);
    std::vector<std::size_t> moved;
    for (std::size_t k = 0; k < code_planes; ++k)
        if (seven[k] != k) moved.push_back(first_plane + k);
    if (moved.size() == 2) return { FrameOrder::exchanged, { moved[0], moved[1] }, {}, planes_as_given, true };
    return { moved.empty() ? FrameOrder::right : FrameOrder::planes, {}, {}, seven, true };
}

bool agrees(const Frames& frames, const FringeMethod& method)
{
    constexpr double brighter = 1.02; // than the lit frame, on the whole, no other can be
    const double lit = cv::mean(frames[1])[0];
    for (const cv::Mat& frame : frames)
        if (cv::mean(frame)[0] > brighter * lit + 1) return false;
    return agreement(frames, method).share() >= in_order; // false for NaN
}

/// For each frame the share of the lit pixels where it differs by a quarter of what the projector does there from the
/// darkest frame (from the brightest): nowhere that of the dark (lit) one, whatever the room's light. Blank frames were
/// not seen by a camera.
std::vector<double> shares_off(const Frames& frames, bool from_the_brightest)
{
    constexpr int every = 4, quarter = 4;
    std::vector<std::size_t> seen;
    std::vector<double> off(frames.size(), 0);
    for (std::size_t k = 0; k < frames.size(); ++k)
        if (!is_blank(frames[k])) seen.push_back(k);
    double lit = 0;
    for (int y = 0; y < frames[0].rows; y += every)
        for (int x = 0; x < frames[0].cols; ++x) {
            int least = 255, most = 0;
            for (const std::size_t k : seen) {
                least = std::min<int>(least, frames[k].at<uchar>(y, x));
                most = std::max<int>(most, frames[k].at<uchar>(y, x));
            }
            if (most - least < 2 * least_contrast) continue;
            ++lit;
            for (const std::size_t k : seen) {
                const int grey = frames[k].at<uchar>(y, x);
                off[k] += quarter * (from_the_brightest ? most - grey : grey - least) > most - least ? 1 : 0;
            }
        }
    for (std::size_t k = 0; k < frames.size(); ++k)
        off[k] = is_blank(frames[k]) ? 1 : off[k] / std::max(lit, 1.0);
    return off;
}

/// The dark or the lit frame in another one's place. Where it is, nothing counts as lit, and what is left may agree.
/// @param which  0: the dark frame, 1: the lit one
FrameOrder order_of_reference(const Frames& frames, const FringeMethod& method, std::size_t which)
{
    constexpr double right = 0.01, wrong = 0.05, least_fitting = 0.5;
    const std::vector<double> off = shares_off(frames, which == 1);
    FrameOrder best;
    const bool doubled = std::any_of(frames.begin(), frames.end(),
        [&](const cv::Mat& frame) { return &frame != &frames[which] && same_picture(frame, frames[which]); });
    if (off[which] < wrong || is_blank(frames[which]) || doubled) return best;
    double most = 0;
    for (std::size_t k = 0; k < frames.size(); ++k) {
        if (off[k] > right) continue;
        const FrameOrder order { FrameOrder::exchanged, { std::min(k, which), std::max(k, which) }, {}, {}, true };
        const Frames ordered = in(order, frames, method.method);
        const Agreement found = agreement(ordered, method);
        if (!(found.share() > least_fitting) || found.exact <= most || order_of_planes({ &ordered }, method)) continue;
        most = found.exact;
        best = order;
    }
    return best;
}

} // namespace

FrameOrder find_exchange(const Frames& frames, const FringeMethod& method, const Frames* other)
{
    for (const std::size_t reference : { std::size_t { 0 }, std::size_t { 1 } })
        if (const FrameOrder found = order_of_reference(frames, method, reference)) return found;
    if (const FrameOrder planes = order_of_planes({ &frames }, method)) return planes;
    if (agrees(frames, method)) return {};
    FrameOrder best;
    if (other != nullptr && !agrees(*other, method)) best = best_order({ &frames, other }, method);
    if (!best) best = best_order({ &frames }, method);
    best.certain = best && agrees(in(best, frames, method.method), method);
    return best;
}

std::array<std::string, 2> words_of(const FrameOrder& order, const std::vector<std::string>& names)
{
    const auto stem = [&](std::size_t k) { return std::filesystem::path(names[k]).stem().string(); };
    const auto listed = [&](std::size_t first, const auto& places) {
        std::string list;
        for (const std::size_t k : places)
            list += (list.empty() ? "" : ", ") + stem(first + k);
        return "reorder " + stem(first) + " to " + stem(first + places.size() - 1) + " as " + list;
    };
    switch (order.kind) {
    case FrameOrder::exchanged:
        return { names[order.pair[0]] + " and " + names[order.pair[1]] + " are exchanged", "exchange their names" };
    case FrameOrder::fringes:
        return { "the four fringe frames are in another order", listed(first_fringe, order.four) };
    case FrameOrder::planes:
        return { "the planes of the gray code are in another order", listed(first_plane, order.seven) };
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
