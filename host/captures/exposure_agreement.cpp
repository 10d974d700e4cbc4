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
#include <random>

namespace vexo {

namespace {

constexpr double pi = 3.14159265358979323846;

/// Fewer pixels say nothing.
constexpr double least_pixels = 200.0;

/// Of scenes at rest no phase in 10^4 is away; an object that moves takes more than a hundredth of the pixels along.
constexpr double most_away = 0.01, noted_away = 0.001;

/// Periods: a tenth of a camera pixel of fringes that are ten px long, as a scene moved by 0.3 mm has it. Lamps that
/// flicker by 6 % shift a phase by half of it.
constexpr double most_shift = 0.01, noted_shift = 0.003;
/// The same of longer fringes, camera px.
constexpr double most_px = 0.1, noted_px = 0.03;

/// The median that noise alone makes: it is known to 5 %, and four times the scatter of a pixel's over the root of
/// their number.
constexpr double known_to = 1.05, scatter = 4.0;

/// Standard deviations of equal grey levels: at one gain they are alike.
constexpr double most_noise = 1.5;

/// Bits are read where they are clear; none of them differs but at edges that moved.
constexpr double most_codes = 0.01, most_exchanged = 0.01;

/// What two captures show in the pixels of some rows of one camera.
struct Comparison {
    std::vector<float> differences, deviations; ///< of the phases, and the standard deviation that noise gives them
    std::vector<float> slopes;                  ///< of the phases, periods per px
    std::vector<double> codes;                  ///< [plane]: pixels with another bit
    double pixels = 0.0, away = 0.0, exchanged = 0.0, noise = 1.0;
};

/// One camera of both captures.
class Pair {
public:
    Pair(const std::vector<cv::Mat>& longer, const std::vector<cv::Mat>& shorter, Method method)
        : _sets(phase_sets(method))
        , _planes(_sets[0] - first_plane)
        , _frames { &longer, &shorter }
    {
        _estimate_noise();
        constexpr double dark = 16.0, floor = 8.0; // grey levels
        for (std::size_t i = 0; i < 2; ++i) {
            const double s = std::sqrt(_variance_at(i, dark));
            _least_contrast[i] = std::max(floor, 6.0 * std::sqrt(2.0) * s);
            _least_modulation[i] = std::max(0.375 * floor, 3.0 * s);
        }
    }

    Comparison compare() const
    {
        constexpr double rows = 128.0;
        const cv::Mat& any = (*_frames[0])[0];
        const int step = std::max(1, static_cast<int>(any.rows / rows));
        Comparison c;
        c.codes.assign(_planes, 0.0);
        c.noise = std::sqrt(_variance_at(1, usual_grey) / _variance_at(0, usual_grey));
        for (int y = step / 2; y < any.rows; y += step)
            for (int x = 0; x < any.cols; ++x)
                _add(y, x, c);
        return c;
    }

private:
    static constexpr std::size_t first_plane = 2;
    static constexpr double usual_grey = 64.0;

    /// That of a capture with few lit pixels is the other's.
    void _estimate_noise()
    {
        constexpr int enough = 1000, least_lit = 8;
        std::array<int, 2> lit {};
        for (std::size_t i = 0; i < 2; ++i) {
            cv::Mat contrast;
            cv::subtract((*_frames[i])[1], (*_frames[i])[0], contrast);
            contrast = contrast >= least_lit;
            lit[i] = cv::countNonZero(contrast);
            _noise[i] = estimate_noise(*_frames[i], _sets, contrast);
        }
        for (std::size_t i = 0; i < 2; ++i)
            if (lit[i] < enough && lit[i] < lit[1 - i]) _noise[i] = _noise[1 - i];
    }

    int _grey(std::size_t i, std::size_t k, int y, int x) const { return (*_frames[i])[k].at<uchar>(y, x); }

    void _add(int y, int x, Comparison& c) const
    {
        std::array<int, 2> contrast {};
        for (std::size_t i = 0; i < 2; ++i) {
            contrast[i] = _grey(i, 1, y, x) - _grey(i, 0, y, x);
            if (std::abs(contrast[i]) < _least_contrast[i]) return;
        }
        const auto [least, most] = std::minmax(contrast[0], contrast[1]);
        if (most < 0 || (least > 0 && !_unclipped(y, x))) return;
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
            if (a.modulation() < _least_modulation[0] || b.modulation() < _least_modulation[1]) continue;
            const double raw = a.phase() - b.phase(), difference = std::abs(raw - std::round(raw));
            const double deviation = std::sqrt(_variance(0, a) + _variance(1, b));
            c.differences.push_back(static_cast<float>(difference));
            c.deviations.push_back(static_cast<float>(deviation));
            if (x + 1 < (*_frames[0])[0].cols) c.slopes.push_back(_slope(a, first, y, x));
            away = away || difference > 5.0 * deviation + 0.02;
        }
        c.away += away ? 1.0 : 0.0;
        for (std::size_t plane = 0; plane < _planes; ++plane) {
            const int a = _bit(0, plane, contrast[0], y, x), b = _bit(1, plane, contrast[1], y, x);
            c.codes[plane] += a * b < 0 ? 1.0 : 0.0;
        }
    }

    float _slope(const FringeSteps& here, std::size_t first, int y, int x) const
    {
        const double step = FringeSteps(*_frames[0], first, y, x + 1).phase() - here.phase();
        return static_cast<float>(std::abs(step - std::round(step)));
    }

    double _variance(std::size_t i, const FringeSteps& s) const
    {
        const double m = s.modulation();
        return _variance_at(i, s.mean()) / (2.0 * m * m) / (4.0 * pi * pi);
    }

    double _variance_at(std::size_t i, double grey) const { return _noise[i].c0 + _noise[i].k * grey; }

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
    std::array<double, 2> _least_contrast {}, _least_modulation {}; ///< grey levels, of pixels that are compared
};

/// Median of the absolute values of normal noise with these deviations, which differ from pixel to pixel.
double median_of_noise(std::vector<float> deviations)
{
    std::mt19937 random;
    std::normal_distribution<float> noise;
    for (float& of_pixel : deviations)
        of_pixel *= std::abs(noise(random));
    return quantile(std::move(deviations), 0.5);
}

std::string why_refuted(const ExposureAgreement& a)
{
    if (a.exchanged > most_exchanged) return "dark and lit frame are exchanged in one of them";
    if (a.codes > most_codes)
        return "planes of the gray code differ in " + percent(a.codes, 1.0) + " of the pixels that both measure";
    std::string apart = "their phases are " + number(a.median, 3)
        + " of a fringe apart in the middle, where noise explains " + number(a.expected, 3);
    if (a.away <= most_away) return apart;
    return apart + ", and farther in " + percent(a.away, 1.0) + " of the pixels that both measure";
}

} // namespace

bool ExposureAgreement::tested() const
{
    return pixels >= least_pixels;
}

double ExposureAgreement::shift() const
{
    return median > (known_to + scatter / std::sqrt(std::max(pixels, 1.0))) * expected
        ? std::sqrt(median * median - expected * expected)
        : 0.0;
}

bool ExposureAgreement::refuted() const
{
    return tested()
        && (away > most_away || shift() > most_shift || shift() * fringe > most_px || codes > most_codes
            || exchanged > most_exchanged);
}

bool ExposureAgreement::doubtful() const
{
    return tested() && !refuted() && (shift() > noted_shift || shift() * fringe > noted_px || away > noted_away);
}

bool ExposureAgreement::noisier() const
{
    return tested() && (noise > most_noise || noise * most_noise < 1.0);
}

ExposureAgreement compare_exposures(const FrameSet& longer, const FrameSet& shorter, Method method)
{
    std::array<Comparison, 2> cameras;
    in_parallel(2, [&](std::size_t c) { cameras[c] = Pair(longer.frames[c], shorter.frames[c], method).compare(); });
    ExposureAgreement sum;
    std::vector<float> differences, deviations, slopes;
    for (const Comparison& c : cameras) {
        sum.pixels += c.pixels;
        sum.away += c.away;
        sum.exchanged += c.exchanged;
        if (std::abs(std::log(c.noise)) > std::abs(std::log(sum.noise))) sum.noise = c.noise;
        differences.insert(differences.end(), c.differences.begin(), c.differences.end());
        deviations.insert(deviations.end(), c.deviations.begin(), c.deviations.end());
        slopes.insert(slopes.end(), c.slopes.begin(), c.slopes.end());
    }
    for (std::size_t plane = 0; plane < cameras[0].codes.size(); ++plane)
        sum.codes = std::max(sum.codes, cameras[0].codes[plane] + cameras[1].codes[plane]);
    for (double* share : { &sum.away, &sum.exchanged, &sum.codes })
        *share /= std::max(sum.pixels, 1.0);
    if (differences.empty()) return sum;
    if (!slopes.empty()) sum.fringe = 1.0 / std::max(quantile(std::move(slopes), 0.5), 0.001);
    sum.median = quantile(std::move(differences), 0.5);
    sum.expected = median_of_noise(std::move(deviations));
    return sum;
}

namespace {

/// What each two of some exposures show of one another.
class Pairs {
public:
    Pairs(const std::vector<const FrameSet*>& sets, Method method)
        : n(sets.size())
        , _agreements(n * n)
    {
        for (std::size_t i = 0; i < n; ++i)
            for (std::size_t k = i + 1; k < n; ++k)
                _agreements[i * n + k] = compare_exposures(*sets[i], *sets[k], method);
    }

    const ExposureAgreement& of(std::size_t i, std::size_t k) const
    {
        return _agreements[std::min(i, k) * n + std::max(i, k)];
    }

    std::size_t refuted(std::size_t i) const
    {
        std::size_t count = 0;
        for (std::size_t k = 0; k < n; ++k)
            count += i != k && of(i, k).refuted() ? 1 : 0;
        return count;
    }

    /// Those that share pixels with one of them, directly or by way of others.
    std::vector<bool> linked_to(std::size_t start) const
    {
        std::vector<bool> linked(n, false);
        std::vector<std::size_t> open { start };
        while (!open.empty()) {
            const std::size_t i = open.back();
            open.pop_back();
            if (linked[i]) continue;
            linked[i] = true;
            for (std::size_t k = 0; k < n; ++k)
                if (i != k && of(i, k).tested()) open.push_back(k);
        }
        return linked;
    }

    std::size_t n;

private:
    std::vector<ExposureAgreement> _agreements;
};

/// Throws where two exposures contradict one another.
void refuse_refuted(const Pairs& pairs, const std::vector<std::string>& folders)
{
    std::size_t odd = 0, most = 0, with_most = 0;
    for (std::size_t i = 0; i < pairs.n; ++i) {
        const std::size_t count = pairs.refuted(i);
        with_most = count > most ? 1 : with_most + (count == most ? 1 : 0);
        if (count >= most) odd = i;
        most = std::max(most, count);
    }
    if (most == 0) return;
    std::size_t other = 0;
    while (other == odd || !pairs.of(other, odd).refuted())
        ++other;
    const bool alone = with_most == 1;
    throw Failure((alone ? folders[odd] + ": is no exposure of what the others show: "
                         : folders[other] + ", " + folders[odd] + ": are no exposures of one scene: ")
        + why_refuted(pairs.of(other, odd))
        + "; something moved between the exposures, it is another scene, or frames are in another order; record "
          "them anew at rest");
}

void add_doubts(const Pairs& pairs, const std::vector<std::string>& folders, std::vector<Finding>& found)
{
    for (std::size_t i = 0; i < pairs.n; ++i)
        for (std::size_t k = i + 1; k < pairs.n; ++k) {
            const ExposureAgreement& a = pairs.of(i, k);
            if (a.doubtful())
                found.push_back({ "exposures-differ", Weight::worse, folders[k],
                    "its phases are " + number(a.median, 4) + " of a fringe away from those of " + folders[i]
                        + ", noise explains " + number(a.expected, 4) + "; " + percent(a.away, 1.0)
                        + " of the pixels are farther away",
                    "let nothing move and no lamp flicker between the exposures" });
            if (a.noisier())
                found.push_back({ "exposures-noise", Weight::worse, folders[k],
                    "equal grey levels have " + number(a.noise, 2) + " times the noise of those in " + folders[i]
                        + ", so sigma is right in neither",
                    "change the time of exposure or the projector's light, never the camera's gain" });
        }
}

void add_unlinked(const Pairs& pairs, const std::vector<std::string>& folders, std::vector<Finding>& found)
{
    std::vector<bool> most;
    for (std::size_t i = 0; i < pairs.n; ++i) {
        const std::vector<bool> linked = pairs.linked_to(i);
        if (std::count(linked.begin(), linked.end(), true) > std::count(most.begin(), most.end(), true)) most = linked;
    }
    for (std::size_t i = 0; i < pairs.n; ++i)
        if (!most[i])
            found.push_back({ "exposures-unchecked", Weight::spoils, folders[i],
                "shares too few measured pixels with the other exposures to show whether it is of the same scene",
                "record another exposure between them, so that neighbours are at most 8 times apart" });
}

} // namespace

std::vector<Finding> check_exposures(
    const std::vector<const FrameSet*>& sets, const std::vector<std::string>& folders, Method method)
{
    const Pairs pairs(sets, method);
    refuse_refuted(pairs, folders);
    std::vector<Finding> found;
    add_doubts(pairs, folders, found);
    add_unlinked(pairs, folders, found);
    return found;
}

} // namespace vexo
