#include "host/captures/agreement.h"

#include "base/statistics.h"
#include "host/captures/fringe_steps.h"
#include "host/captures/positions.h"

#include <algorithm>
#include <cmath>
#include <complex>

namespace vexo {

namespace {

constexpr double pi = 3.14159265358979323846;

constexpr std::size_t first_fringe = 9; ///< of gray code + phase

/// Rows that are looked at, and which of their pixels would be measured with the frames in this order.
struct Sample {
    std::vector<int> rows;
    std::vector<std::vector<bool>> seen; ///< [row][column]
    double noise = 0;                    ///< of the fringes, grey levels
};

Sample make_sample(const std::vector<cv::Mat>& frames, Method method)
{
    constexpr int rows_looked_at = 48;
    constexpr double least_noise = 1, most_noise = 6; // frames that do not belong together leave any residual
    Sample sample;
    std::vector<float> residuals;
    for (int y = 0; y < frames[0].rows; y += std::max(1, frames[0].rows / rows_looked_at)) {
        std::vector<bool> seen(static_cast<std::size_t>(frames[0].cols));
        for (int x = 0; x < frames[0].cols; ++x) {
            bool lit = frames[1].at<uchar>(y, x) - frames[0].at<uchar>(y, x) >= least_contrast;
            for (const std::size_t first : phase_sets(method)) {
                if (!lit) break;
                const FringeSteps steps(frames, first, y, x);
                lit = steps.modulation() >= least_modulation;
                if (lit) residuals.push_back(static_cast<float>(std::abs(steps.residual())));
            }
            seen[static_cast<std::size_t>(x)] = lit;
        }
        sample.rows.push_back(y);
        sample.seen.push_back(seen);
    }
    constexpr double to_noise = 2 / 0.6745; // the residual's deviation is half the noise, 0.6745 of it the median
    if (!residuals.empty())
        sample.noise = std::clamp(to_noise * quantile(std::move(residuals), 0.5), least_noise, most_noise);
    return sample;
}

/// Pixels of one fringe in a row.
struct Fringe {
    int begin = 0, end = 0; ///< columns [begin, end)
    double rise = 0;        ///< of the phase from the first to the last, fringes
    double falls = 0;       ///< that the noise may cause
    std::vector<int> codes;
    int code = 0;     ///< of most of its pixels
    int majority = 0; ///< how many these are

    int pixels() const { return end - begin; }
    bool clear() const { return rise >= -falls && majority >= 0.6 * pixels(); }

    void vote()
    {
        std::sort(codes.begin(), codes.end());
        for (auto i = codes.begin(); i != codes.end();) {
            const auto after = std::upper_bound(i, codes.end(), *i);
            if (after - i > majority) {
                majority = static_cast<int>(after - i);
                code = *i;
            }
            i = after;
        }
    }
};

/// Cuts a row into fringes where the phase, continued from pixel to pixel, passes a whole number. Back across it is a
/// fringe of its own only beyond four standard deviations of the phase: long fringes dither there.
std::vector<Fringe> fringes_of_row(const std::vector<cv::Mat>& frames, int y, const Sample& sample, std::size_t row)
{
    std::vector<Fringe> found;
    double before = 0, along = 0, start = 0;
    int number = 0;
    for (int x = 0; x < frames[0].cols; ++x) {
        if (!sample.seen[row][static_cast<std::size_t>(x)]) continue;
        const FringeSteps steps(frames, first_fringe, y, x);
        const double phase = steps.phase(), step = phase - before,
                     falls = 4 * sample.noise / (std::sqrt(2.0) * steps.modulation() * 2 * pi);
        const bool goes_on = !found.empty() && found.back().end == x;
        along = goes_on ? along + step - std::round(step) : phase;
        if (!goes_on || along >= number + 1 || along < number - falls) {
            found.push_back({ x, x, 0, 0, {}, 0, 0 });
            number = static_cast<int>(std::floor(along));
            start = along;
        }
        Fringe& fringe = found.back();
        fringe.end = x + 1;
        fringe.rise = along - start;
        fringe.falls = std::max(fringe.falls, falls);
        fringe.codes.push_back(gray_code(frames, y, x));
        before = phase;
    }
    for (Fringe& fringe : found)
        fringe.vote();
    return found;
}

bool near(const Fringe& left, const Fringe& right)
{
    return right.begin - left.end <= 2 * std::max(left.pixels(), right.pixels()) + 2; // else a gap in the surface
}

bool next(const Fringe& left, const Fringe& right)
{
    return left.clear() && right.clear() && right.code == left.code + 1;
}

Agreement agreement_gray(const std::vector<cv::Mat>& frames, const Sample& sample)
{
    Agreement a;
    for (std::size_t i = 0; i < sample.rows.size(); ++i) {
        const std::vector<Fringe> fringes = fringes_of_row(frames, sample.rows[i], sample, i);
        for (std::size_t k = 0; k < fringes.size(); ++k) {
            const Fringe* const left = k > 0 && near(fringes[k - 1], fringes[k]) ? &fringes[k - 1] : nullptr;
            const Fringe* const right
                = k + 1 < fringes.size() && near(fringes[k], fringes[k + 1]) ? &fringes[k + 1] : nullptr;
            if (left == nullptr && right == nullptr) continue;
            a.all += fringes[k].pixels();
            if (!(left != nullptr && next(*left, fringes[k])) && !(right != nullptr && next(fringes[k], *right)))
                continue;
            a.agreeing += fringes[k].pixels();
            a.exact += fringes[k].majority;
        }
    }
    return a;
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
    a.exact = a.agreeing;
    return a;
}

} // namespace

Agreement agreement(const std::vector<cv::Mat>& frames, const FringeMethod& method)
{
    const Sample sample = make_sample(frames, method.method);
    return method.multi() ? agreement_multi(frames, method.periods, sample) : agreement_gray(frames, sample);
}

std::vector<CodeLink> code_links(const std::vector<cv::Mat>& frames)
{
    const Sample sample = make_sample(frames, Method::gray_phase);
    std::vector<CodeLink> links;
    for (std::size_t i = 0; i < sample.rows.size(); ++i) {
        const std::vector<Fringe> fringes = fringes_of_row(frames, sample.rows[i], sample, i);
        for (std::size_t k = 1; k < fringes.size(); ++k)
            if (fringes[k - 1].end == fringes[k].begin && fringes[k - 1].clear() && fringes[k].clear())
                links.push_back({ fringes[k - 1].code, fringes[k].code });
    }
    return links;
}

CodeSlip code_slip(const std::vector<cv::Mat>& frames)
{
    const Sample sample = make_sample(frames, Method::gray_phase);
    std::complex<double> sum;
    double count = 0;
    for (std::size_t i = 0; i < sample.rows.size(); ++i) {
        const int y = sample.rows[i];
        for (int x = 1; x < frames[0].cols; ++x) {
            const auto at = static_cast<std::size_t>(x);
            if (!sample.seen[i][at - 1] || !sample.seen[i][at]) continue;
            if (gray_code(frames, y, x) != gray_code(frames, y, x - 1) + 1) continue;
            const double left = FringeSteps(frames, first_fringe, y, x - 1).phase(),
                         step = FringeSteps(frames, first_fringe, y, x).phase() - left;
            const double slip = left + 0.5 * (step - std::round(step)); // between the two pixels
            sum += std::polar(1.0, 2 * pi * slip);
            ++count;
        }
    }
    if (count == 0) return {};
    return { std::arg(sum) / (2 * pi), 1 - std::abs(sum) / count };
}

} // namespace vexo
