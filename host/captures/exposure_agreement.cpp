#include "host/captures/exposure_agreement.h"

#include "base/failure.h"
#include "base/parallel.h"
#include "base/statistics.h"
#include "base/text.h"
#include "host/captures/fringe_steps.h"
#include "host/captures/noise.h"
#include "host/captures/positions.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace vexo {

namespace {

constexpr double pi = 3.14159265358979323846;

/// Fewer pixels say nothing.
constexpr double least_pixels = 200.0;

/// Of scenes at rest no phase in 10^4 is away; an object that moves takes more than a hundredth of the pixels along.
constexpr double most_away = 0.01;

/// Periods: a tenth of a camera pixel of fringes that are ten px long, as a scene moved by 0.1 mm has it. Lamps that
/// flicker by 6 % shift a phase by half of it.
constexpr double most_median = 0.01, noted_median = 0.004, noted_per_expected = 2.0;

/// Bits are read where they are clear; none of them differs but at edges that moved.
constexpr double most_codes = 0.01, most_exchanged = 0.01;

/// What two captures show in the pixels of some rows of one camera.
struct Comparison {
    std::vector<float> differences, deviations; ///< of the phases, and the standard deviation that noise gives them
    std::vector<double> codes;                  ///< [plane]: pixels with another bit
    double pixels = 0.0, away = 0.0, exchanged = 0.0;
};

/// One camera of both captures.
class Pair {
public:
    Pair(const std::vector<cv::Mat>& longer, const std::vector<cv::Mat>& shorter, Method method)
        : _sets(phase_sets(method))
        , _planes(_sets[0] - first_plane)
        , _frames { &longer, &shorter }
    {
        for (std::size_t i = 0; i < 2; ++i)
            _noise[i] = estimate_noise(*_frames[i], _sets, _lit(i));
    }

    Comparison compare() const
    {
        constexpr double rows = 128.0;
        const cv::Mat& any = (*_frames[0])[0];
        const int step = std::max(1, static_cast<int>(any.rows / rows));
        Comparison c;
        c.codes.assign(_planes, 0.0);
        for (int y = step / 2; y < any.rows; y += step)
            for (int x = 0; x < any.cols; ++x)
                _add(y, x, c);
        return c;
    }

private:
    static constexpr std::size_t first_plane = 2;

    cv::Mat _lit(std::size_t i) const
    {
        cv::Mat contrast;
        cv::subtract((*_frames[i])[1], (*_frames[i])[0], contrast);
        return contrast >= least_contrast;
    }

    int _grey(std::size_t i, std::size_t k, int y, int x) const { return (*_frames[i])[k].at<uchar>(y, x); }

    void _add(int y, int x, Comparison& c) const
    {
        std::array<int, 2> contrast {};
        for (std::size_t i = 0; i < 2; ++i)
            contrast[i] = _grey(i, 1, y, x) - _grey(i, 0, y, x);
        const auto [least, most] = std::minmax(contrast[0], contrast[1]);
        if (most < least_contrast || std::abs(least) < least_contrast) return;
        if (least > 0 && !_unclipped(y, x)) return;
        ++c.pixels;
        if (least < 0)
            ++c.exchanged;
        else
            _add_seen(contrast, y, x, c);
    }

    bool _unclipped(int y, int x) const
    {
        for (std::size_t i = 0; i < 2; ++i)
            for (std::size_t k = 1; k < _frames[i]->size(); ++k)
                if (_grey(i, k, y, x) >= clipped_grey) return false;
        return true;
    }

    void _add_seen(const std::array<int, 2>& contrast, int y, int x, Comparison& c) const
    {
        bool away = false;
        for (const std::size_t first : _sets) {
            const FringeSteps a(*_frames[0], first, y, x), b(*_frames[1], first, y, x);
            if (std::min(a.modulation(), b.modulation()) < least_modulation) continue;
            const double raw = a.phase() - b.phase(), difference = std::abs(raw - std::round(raw));
            const double deviation = std::sqrt(_variance(0, a) + _variance(1, b));
            c.differences.push_back(static_cast<float>(difference));
            c.deviations.push_back(static_cast<float>(deviation));
            away = away || difference > 5.0 * deviation + 0.02;
        }
        c.away += away ? 1.0 : 0.0;
        for (std::size_t plane = 0; plane < _planes; ++plane) {
            const int a = _bit(0, plane, contrast[0], y, x), b = _bit(1, plane, contrast[1], y, x);
            c.codes[plane] += a * b < 0 ? 1.0 : 0.0;
        }
    }

    double _variance(std::size_t i, const FringeSteps& s) const
    {
        const double m = s.modulation();
        return (_noise[i].c0 + _noise[i].k * s.mean()) / (2.0 * m * m) / (4.0 * pi * pi);
    }

    /// 1 or -1; 0 where the plane is neither bright nor dark.
    int _bit(std::size_t i, std::size_t plane, int contrast, int y, int x) const
    {
        const int twice = 2 * (_grey(i, first_plane + plane, y, x) - _grey(i, 0, y, x)) - contrast; // from the middle
        return 2 * std::abs(twice) < contrast ? 0 : twice > 0 ? 1 : -1;
    }

    std::vector<std::size_t> _sets;
    std::size_t _planes;
    std::array<const std::vector<cv::Mat>*, 2> _frames;
    std::array<NoiseModel, 2> _noise;
};

std::string why_refuted(const ExposureAgreement& a)
{
    if (a.exchanged > most_exchanged) return "dark and lit frame are exchanged in one of them";
    if (a.codes > most_codes)
        return "planes of the gray code differ in " + percent(a.codes, 1.0) + " of the pixels that both measure";
    return "phases differ in " + percent(a.away, 1.0) + " of the pixels that both measure, by " + number(a.median, 3)
        + " of a fringe in the middle";
}

} // namespace

bool ExposureAgreement::tested() const
{
    return pixels >= least_pixels;
}

bool ExposureAgreement::refuted() const
{
    return tested() && (away > most_away || median > most_median || codes > most_codes || exchanged > most_exchanged);
}

bool ExposureAgreement::doubtful() const
{
    return tested() && !refuted() && median > noted_median && median > noted_per_expected * expected;
}

ExposureAgreement compare_exposures(const FrameSet& longer, const FrameSet& shorter, Method method)
{
    std::array<Comparison, 2> cameras;
    in_parallel(2, [&](std::size_t c) { cameras[c] = Pair(longer.frames[c], shorter.frames[c], method).compare(); });
    ExposureAgreement sum;
    std::vector<float> differences, deviations;
    for (const Comparison& c : cameras) {
        sum.pixels += c.pixels;
        sum.away += c.away;
        sum.exchanged += c.exchanged;
        differences.insert(differences.end(), c.differences.begin(), c.differences.end());
        deviations.insert(deviations.end(), c.deviations.begin(), c.deviations.end());
    }
    for (std::size_t plane = 0; plane < cameras[0].codes.size(); ++plane)
        sum.codes = std::max(sum.codes, cameras[0].codes[plane] + cameras[1].codes[plane]);
    for (double* share : { &sum.away, &sum.exchanged, &sum.codes })
        *share /= std::max(sum.pixels, 1.0);
    if (differences.empty()) return sum;
    sum.median = quantile(std::move(differences), 0.5);
    sum.expected = 0.6745 * quantile(std::move(deviations), 0.5);
    return sum;
}

std::vector<Finding> check_exposures(
    const std::vector<const FrameSet*>& sets, const std::vector<std::string>& folders, Method method)
{
    const std::size_t n = sets.size();
    std::vector<Finding> found;
    std::vector<int> contradicted(n, 0);
    std::vector<bool> tested(n, false);
    std::optional<std::pair<std::size_t, std::size_t>> worst;
    std::string why;
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t k = i + 1; k < n; ++k) {
            const ExposureAgreement a = compare_exposures(*sets[i], *sets[k], method);
            if (a.tested()) tested[i] = tested[k] = true;
            if (a.doubtful())
                found.push_back({ "exposures-differ", Weight::worse, folders[k],
                    "its phases are " + number(a.median, 4) + " of a fringe away from those of " + folders[i]
                        + ", noise explains " + number(a.expected, 4),
                    "let nothing move and no lamp flicker between the exposures" });
            if (!a.refuted()) continue;
            ++contradicted[i];
            ++contradicted[k];
            if (worst && contradicted[worst->second] >= contradicted[k]) continue;
            worst = { i, k };
            why = why_refuted(a);
        }
    if (worst) {
        const auto most = std::max_element(contradicted.begin(), contradicted.end());
        const auto odd = static_cast<std::size_t>(most - contradicted.begin());
        const bool alone = std::count(contradicted.begin(), contradicted.end(), *most) == 1;
        const std::string who = alone
            ? folders[odd] + ": is no exposure of what the others show"
            : folders[worst->second] + ": is no exposure of what " + folders[worst->first] + " shows";
        throw Failure(who + ": " + why
            + "; something moved between the exposures, it is another scene, or its frames are in another order");
    }
    for (std::size_t i = 0; i < n; ++i)
        if (!tested[i])
            found.push_back({ "exposures-unchecked", Weight::worse, folders[i],
                "no other exposure measures the same pixels, so nothing shows whether it is of the same scene",
                "record exposures that are at most 16 times apart" });
    return found;
}

} // namespace vexo
