#include "host/captures/order.h"

#include "base/statistics.h"
#include "host/captures/fringe_steps.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vexo {

namespace {

constexpr double pi = 3.14159265358979323846;

/// An exchange must explain two fifths of the fringes that do not fit, and ten at least. In order, no exchange explains
/// any: each breaks what fitted.
constexpr double explained = 0.4, least_explained = 10;

constexpr std::size_t first_fringe = 9; ///< of gray code + phase

/// Rows that are looked at, and which of their pixels see the pattern in whatever order the frames are.
struct Sample {
    std::vector<int> rows;
    std::vector<std::vector<bool>> seen; ///< [row][column]
};

Sample make_sample(const std::vector<cv::Mat>& frames)
{
    constexpr int rows_looked_at = 48, least_range = 20;
    Sample sample;
    const int height = frames[0].rows, width = frames[0].cols;
    for (int y = 0; y < height; y += std::max(1, height / rows_looked_at)) {
        std::vector<bool> seen(static_cast<std::size_t>(width));
        for (int x = 0; x < width; ++x) {
            int low = 255, high = 0;
            for (const cv::Mat& frame : frames) {
                low = std::min<int>(low, frame.at<uchar>(y, x));
                high = std::max<int>(high, frame.at<uchar>(y, x));
            }
            seen[static_cast<std::size_t>(x)] = high - low >= least_range;
        }
        sample.rows.push_back(y);
        sample.seen.push_back(seen);
    }
    return sample;
}

/// The middle half of one fringe in a row.
struct Fringe {
    int begin, end; ///< columns [begin, end)
    int code;       ///< number by the gray code; -1: its pixels disagree, or the phase does not rise
};

/// What agrees, and out of how many.
struct Agreement {
    double agreeing = 0, all = 0;
    /// NaN when there is too little to judge by.
    double share() const { return all >= 20 ? agreeing / all : std::numeric_limits<double>::quiet_NaN(); }
};

int gray_code(const std::vector<cv::Mat>& frames, int y, int x)
{
    const int twice_middle = frames[0].at<uchar>(y, x) + frames[1].at<uchar>(y, x);
    int code = 0, bit = 0;
    for (std::size_t k = 2; k < 9; ++k) {
        bit ^= 2 * frames[k].at<uchar>(y, x) > twice_middle ? 1 : 0;
        code = 2 * code + bit;
    }
    return code;
}

std::vector<Fringe> fringes_of_row(const std::vector<cv::Mat>& frames, int y, const std::vector<bool>& seen)
{
    std::vector<Fringe> found;
    double before = -1;
    for (int x = 0; x < frames[0].cols; ++x) {
        const double phase = seen[static_cast<std::size_t>(x)] ? FringeSteps(frames, first_fringe, y, x).phase() : -1;
        const bool middle = phase >= 0.25 && phase <= 0.75;
        if (middle) {
            const int code = gray_code(frames, y, x);
            const bool goes_on = !found.empty() && found.back().end == x;
            if (!goes_on)
                found.push_back({ x, x + 1, code });
            else if (found.back().code != code || phase < before - 0.05)
                found.back().code = -1;
            found.back().end = x + 1;
            before = phase;
        }
    }
    return found;
}

/// Neighbouring fringes of which the second has the next number. The middle half of a fringe has one number, its
/// phase rises, and the next begins about as far away as it is wide.
Agreement agreement_gray(const std::vector<cv::Mat>& frames, const Sample& sample)
{
    Agreement a;
    for (std::size_t i = 0; i < sample.rows.size(); ++i) {
        const std::vector<Fringe> fringes = fringes_of_row(frames, sample.rows[i], sample.seen[i]);
        for (std::size_t k = 1; k < fringes.size(); ++k) {
            const Fringe &left = fringes[k - 1], &right = fringes[k];
            const int width = left.end - left.begin;
            if (right.begin - left.end > 2 * width + 2) continue; // a gap in the surface
            ++a.all;
            a.agreeing += left.code >= 0 && right.code == left.code + 1 ? 1 : 0;
        }
    }
    return a;
}

/// Projector coordinate of a pixel by trying all fringes of the first period; -1 when the three periods disagree.
double multi_position(const std::vector<cv::Mat>& frames, const std::vector<int>& periods, int y, int x)
{
    constexpr double tolerance = 0.35; // px; chance agreement of some fringe is then still about one in two
    constexpr int columns = 912;
    std::array<double, 3> within {};
    for (std::size_t f = 0; f < 3; ++f) {
        const FringeSteps s(frames, 2 + 4 * f, y, x);
        const double angle = std::atan2(s.i3 - s.i1, s.i0 - s.i2) + pi - pi / periods[f];
        within[f] = periods[f] * angle / (2 * pi);
    }
    double best = -1, least = tolerance;
    for (int start = 0; start < columns; start += periods[0]) {
        double worst = 0;
        for (std::size_t f = 1; f < 3; ++f) {
            const double apart = (start + within[0] - within[f]) / periods[f];
            worst = std::max(worst, std::abs(apart - std::round(apart)) * periods[f]);
        }
        if (worst >= least) continue;
        least = worst;
        best = start + within[0];
    }
    return best;
}

/// Pairs of pixels two columns apart whose positions rise by a few projector columns.
Agreement agreement_multi(const std::vector<cv::Mat>& frames, const std::vector<int>& periods, const Sample& sample)
{
    constexpr int every = 16;
    Agreement a;
    for (std::size_t i = 0; i < sample.rows.size(); ++i) {
        const std::vector<bool>& seen = sample.seen[i];
        for (int x = every; x + 2 < frames[0].cols; x += every) {
            const auto at = static_cast<std::size_t>(x);
            if (!seen[at] || !seen[at + 1] || !seen[at + 2]) continue;
            ++a.all;
            const double left = multi_position(frames, periods, sample.rows[i], x);
            const double right = multi_position(frames, periods, sample.rows[i], x + 2);
            a.agreeing += left >= 0 && right > left && right < left + 8 ? 1 : 0;
        }
    }
    return a;
}

Agreement agreement(const std::vector<cv::Mat>& frames, const FringeMethod& method, const Sample& sample)
{
    return method.multi() ? agreement_multi(frames, method.periods, sample) : agreement_gray(frames, sample);
}

} // namespace

double fitting_share(const std::vector<cv::Mat>& frames, const FringeMethod& method)
{
    return agreement(frames, method, make_sample(frames)).share();
}

double code_slip(const std::vector<cv::Mat>& frames)
{
    const Sample sample = make_sample(frames);
    std::vector<float> slips;
    for (std::size_t i = 0; i < sample.rows.size(); ++i) {
        const int y = sample.rows[i];
        for (int x = 1; x < frames[0].cols; ++x) {
            const auto at = static_cast<std::size_t>(x);
            if (!sample.seen[i][at - 1] || !sample.seen[i][at]) continue;
            if (gray_code(frames, y, x) != gray_code(frames, y, x - 1) + 1) continue;
            const double left = FringeSteps(frames, first_fringe, y, x - 1).phase(),
                         step = FringeSteps(frames, first_fringe, y, x).phase() - left;
            const double slip = left + 0.5 * (step - std::round(step)); // between the two pixels
            slips.push_back(static_cast<float>(std::abs(slip - std::round(slip))));
        }
    }
    return slips.empty() ? 0 : quantile(slips, 0.5);
}

std::array<std::size_t, 2> find_exchange(const std::vector<cv::Mat>& frames, const FringeMethod& method)
{
    if (cv::mean(frames[0])[0] > cv::mean(frames[1])[0]) return { 0, 1 };
    const Sample sample = make_sample(frames);
    const Agreement given = agreement(frames, method, sample);
    std::array<std::size_t, 2> best { 0, 0 };
    double most = given.agreeing + std::max(least_explained, explained * (given.all - given.agreeing));
    for (std::size_t i = 0; i < frames.size(); ++i) {
        for (std::size_t k = std::max<std::size_t>(i + 1, 2); k < frames.size(); ++k) {
            std::vector<cv::Mat> other = frames;
            std::swap(other[i], other[k]);
            const Agreement a = agreement(other, method, sample);
            if (a.agreeing <= most) continue;
            most = a.agreeing;
            best = { i, k };
        }
    }
    return best;
}

} // namespace vexo
