#include "host/captures/odd_frames.h"

#include "host/captures/agreement.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vexo {

namespace {

constexpr std::size_t first_plane = 2, first_fringe = 9; ///< of gray code + phase

enum class Bits { zero, one, both };

/// What a plane of the code says where the projector lights.
Bits bits_of(const std::vector<cv::Mat>& frames, std::size_t k, const cv::Mat& lit)
{
    constexpr double stray = 0.002; // noise, and edges of what moved
    double ones = 0, all = 0;
    for (int y = 0; y < lit.rows; y += 2)
        for (int x = 0; x < lit.cols; ++x) {
            if (lit.at<uchar>(y, x) == 0) continue;
            ones += code_bit(frames, k, y, x) ? 1 : 0;
            ++all;
        }
    if (ones <= stray * all) return Bits::zero;
    return ones >= (1 - stray) * all ? Bits::one : Bits::both;
}

/// Whether pixels that do not agree would, had plane `k` the other bit: a plane that the picture has no use for breaks
/// the order everywhere when it is turned.
bool other_bit_agrees(const std::vector<cv::Mat>& frames, std::size_t k, Bits bits, const FringeMethod& method)
{
    constexpr double explained = 0.3, least = 0.05;
    const Agreement given = agreement(frames, method);
    std::vector<cv::Mat> turned = frames;
    turned[k] = frames[bits == Bits::zero ? 1 : 0];
    const double lost = given.all - given.agreeing;
    return lost > least * given.all && agreement(turned, method).agreeing > explained * lost;
}

/// A fringe frame as dark as the dark frame.
bool is_dark(const cv::Mat& frame, const std::vector<cv::Mat>& frames, const cv::Mat& lit)
{
    constexpr double least_light = 0.1; // fringes have half of the lit frame's
    const double dark = cv::mean(frames[0], lit)[0];
    return cv::mean(frame, lit)[0] - dark < least_light * (cv::mean(frames[1], lit)[0] - dark);
}

/// The planes that show nothing, and the fringe frames.
void find_empty(const std::vector<cv::Mat>& frames, const FringeMethod& method, OddFrames& odd)
{
    cv::Mat contrast;
    cv::subtract(frames[1], frames[0], contrast);
    const cv::Mat lit = contrast >= least_contrast;
    if (cv::countNonZero(lit) == 0) return;
    const std::size_t planes = method.multi() ? first_plane : first_fringe;
    for (std::size_t k = first_plane; k < planes; ++k) {
        const Bits bits = bits_of(frames, k, lit);
        if (bits == Bits::both) continue;
        if (other_bit_agrees(frames, k, bits, method))
            odd.empty.push_back(k);
        else if (is_blank(frames[k]))
            odd.unused.push_back(k);
    }
    for (std::size_t k = planes; k < frames.size(); ++k)
        if (is_blank(frames[k]) || is_dark(frames[k], frames, lit)) odd.empty.push_back(k);
}

} // namespace

bool is_blank(const cv::Mat& frame)
{
    double low = 0, high = 0;
    cv::minMaxLoc(frame, &low, &high);
    return low == high;
}

bool same_picture(const cv::Mat& a, const cv::Mat& b)
{
    if (a.size() != b.size() || a.type() != b.type()) return false;
    for (int y = 0; y < a.rows; ++y)
        if (std::memcmp(a.ptr(y), b.ptr(y), static_cast<std::size_t>(a.cols) * a.elemSize()) != 0) return false;
    return true;
}

OddFrames find_odd_frames(const std::vector<cv::Mat>& frames, const FringeMethod& method)
{
    OddFrames odd;
    find_empty(frames, method, odd);
    const auto is_in = [](const std::vector<std::size_t>& list, std::size_t k) {
        return std::count(list.begin(), list.end(), k) > 0;
    };
    for (std::size_t i = 0; i < frames.size(); ++i)
        for (std::size_t k = i + 1; k < frames.size(); ++k) // the darkest of all frames may be one that is not used
            if (!is_in(odd.unused, i) && !is_in(odd.unused, k) && same_picture(frames[i], frames[k]))
                odd.equal.push_back({ i, k });
    return odd;
}

} // namespace vexo
