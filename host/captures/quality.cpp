#include "host/captures/quality.h"

#include "base/statistics.h"
#include "host/captures/agreement.h"
#include "host/captures/fringe_steps.h"
#include "host/captures/fringes.h"
#include "host/captures/least_light.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vexo {

namespace {

constexpr double pi = 3.14159265358979323846;

constexpr int clipped = 255;

constexpr int nearly_clipped = 250; ///< grey: above, noise and sharpening clip single frames

/// The fringe patterns of this program: mean and amplitude, of 255.
constexpr double fringe_mean = 127.5, fringe_amplitude = 120.0;

/// Which pixels a statistic may use.
enum Kind : unsigned char { unlit, weak, good, clipped_lit, clipped_fringe };

/// Kind of a pixel from lit, dark and all fringe frames.
Kind kind_at(const std::vector<cv::Mat>& frames, const std::vector<std::size_t>& groups, int y, int x)
{
    const int dark = frames[0].at<uchar>(y, x), lit = frames[1].at<uchar>(y, x);
    if (lit - dark < least_contrast) return unlit;
    double modulation = 1e9;
    bool clips = false;
    for (const std::size_t first : groups) {
        const FringeSteps steps(frames, first, y, x);
        modulation = std::min(modulation, steps.modulation());
        clips = clips || !steps.all_below(clipped);
    }
    if (clips) return clipped_fringe; // also without modulation: glare that hides the fringes
    if (modulation < least_modulation) return weak;
    return lit >= clipped ? clipped_lit : good;
}

/// Standard deviation of a grey value in a frame without structure, from second differences along rows:
/// I(x - 1) - 2 I(x) + I(x + 1) has 6 times the variance. Quartiles, so that edges do not count; 8-bit rounding of
/// its own, 1/12, is left in.
double noise_of(const cv::Mat& frame)
{
    std::vector<float> differences;
    for (int y = 0; y < frame.rows; y += 2)
        for (int x = 1; x + 1 < frame.cols; x += 3) {
            const int second = frame.at<uchar>(y, x - 1) - 2 * frame.at<uchar>(y, x) + frame.at<uchar>(y, x + 1);
            differences.push_back(static_cast<float>(second));
        }
    double squares = 0, count = 0;
    const double limit = 5 * std::max(1.0, (quantile(differences, 0.84) - quantile(differences, 0.16)) / 2);
    for (const float d : differences) {
        if (std::abs(d) > static_cast<float>(limit)) continue;
        squares += static_cast<double>(d) * static_cast<double>(d);
        ++count;
    }
    return std::sqrt(squares / std::max(count, 1.0) / 6.0);
}

/// Mean light of the fringe pattern through light = grey^gamma, as a share of full light.
double mean_light(double gamma)
{
    constexpr int n = 64;
    double sum = 0;
    for (int i = 0; i < n; ++i)
        sum += std::pow((fringe_mean + fringe_amplitude * std::cos(2 * pi * i / n)) / 255.0, gamma);
    return sum / n;
}

/// Gamma from the mean of the fringes between dark and lit: 0.5 when linear. Blur leaves that mean alone, unlike the
/// second harmonic, which it damps. NaN outside 0.2 to 5.
double gamma_from_mean(double share)
{
    double low = 0.2, high = 5.0;
    if (!(share < mean_light(low)) || !(share > mean_light(high))) return std::numeric_limits<double>::quiet_NaN();
    for (int i = 0; i < 60; ++i) {
        const double middle = 0.5 * (low + high);
        (mean_light(middle) > share ? low : high) = middle;
    }
    return 0.5 * (low + high);
}

/// Sums over the pixels that show unclipped fringes.
struct FringeSums {
    double rmc = 0, mmcc = 0, rr = 0, count = 0;
    std::vector<float> means;            ///< place of the fringes' mean between dark (0) and lit (1)
    std::vector<float> residuals, lifts; ///< r, and modulation * cos(2t): r = a2/a1 * lift

    void add(const FringeSteps& steps, int dark, int lit)
    {
        const double r = steps.residual(), lift = steps.modulation() * steps.second_cosine();
        rmc += r * lift;
        mmcc += lift * lift;
        rr += r * r;
        ++count;
        residuals.push_back(static_cast<float>(r));
        lifts.push_back(static_cast<float>(lift));
        if (lit < nearly_clipped) means.push_back(static_cast<float>((steps.mean() - dark) / (lit - dark)));
    }
};

void measure_response(const std::vector<cv::Mat>& frames, const std::vector<std::size_t>& groups, CameraFigures& f)
{
    FringeSums sums;
    for (int y = 0; y < f.kinds.rows; ++y) {
        for (int x = 0; x < f.kinds.cols; ++x) {
            const int kind = f.kinds.at<uchar>(y, x);
            if (kind != good && kind != clipped_lit) continue;
            for (const std::size_t first : groups) {
                const FringeSteps steps(frames, first, y, x);
                if (steps.all_below(nearly_clipped))
                    sums.add(steps, frames[0].at<uchar>(y, x), frames[1].at<uchar>(y, x));
            }
        }
    }
    if (sums.count == 0) return;
    f.second_harmonic = sums.mmcc > 0 ? sums.rmc / sums.mmcc : 0;
    f.residual_rms = std::sqrt(sums.rr / sums.count);
    f.gamma = gamma_from_mean(quantile(sums.means, 0.5));
    std::vector<float> rest(sums.residuals.size());
    for (std::size_t i = 0; i < rest.size(); ++i)
        rest[i] = std::abs(sums.residuals[i] - static_cast<float>(f.second_harmonic) * sums.lifts[i]);
    // A grey noise s gives r the standard deviation s / 2; 0.6745 of it is the median of |r|.
    f.fringe_noise = 2 * quantile(rest, 0.5) / 0.6745;
}

void measure_pixels(const std::vector<cv::Mat>& frames, const std::vector<std::size_t>& groups, CameraFigures& f)
{
    constexpr float nothing = std::numeric_limits<float>::quiet_NaN();
    f.kinds.create(f.size, CV_8U);
    f.modulation_map = cv::Mat(f.size, CV_32F, cv::Scalar(nothing));
    f.residual_map = f.modulation_map.clone();
    for (int y = 0; y < f.size.height; ++y) {
        for (int x = 0; x < f.size.width; ++x) {
            const Kind kind = kind_at(frames, groups, y, x);
            f.kinds.at<uchar>(y, x) = kind;
            if (kind == unlit || kind == weak) continue;
            const FringeSteps steps(frames, groups.front(), y, x);
            f.modulation_map.at<float>(y, x) = static_cast<float>(steps.modulation());
            f.residual_map.at<float>(y, x) = static_cast<float>(steps.residual());
        }
    }
    cv::Mat brightest = frames[0].clone();
    for (const cv::Mat& frame : frames)
        cv::max(brightest, frame, brightest);
    f.saturated = cv::countNonZero(brightest == clipped) / static_cast<double>(f.size.area());
}

/// From second differences of the residual along rows, which have 6 times its variance; long fringes change it slowly.
void measure_random_noise(CameraFigures& f)
{
    std::vector<float> differences;
    for (int y = 0; y < f.size.height; ++y) {
        const float* r = f.residual_map.ptr<float>(y);
        for (int x = 1; x + 1 < f.size.width; x += 3) {
            const float second = r[x - 1] - 2 * r[x] + r[x + 1];
            if (std::isfinite(second) && f.kinds.at<uchar>(y, x) == good) differences.push_back(std::abs(second));
        }
    }
    f.random_noise = f.fringe_noise;
    if (differences.empty()) return;
    f.random_noise = std::min(f.fringe_noise, 2 * quantile(std::move(differences), 0.5) / (0.6745 * std::sqrt(6.0)));
}

/// Whether fewer than two of four steps are below 255. Then the phase is that of the one that is, in the middle of its
/// quarter, and up to an eighth of a fringe off.
bool is_flattened(const FringeSteps& s)
{
    return (s.i0 >= clipped) + (s.i1 >= clipped) + (s.i2 >= clipped) + (s.i3 >= clipped) > 2;
}

void measure_flattened(const std::vector<cv::Mat>& frames, const std::vector<std::size_t>& groups, CameraFigures& f)
{
    double flat = 0;
    const cv::Mat clips = f.kinds == clipped_fringe;
    for (int y = 0; y < f.size.height; ++y)
        for (int x = 0; x < f.size.width; ++x) {
            if (clips.at<uchar>(y, x) == 0) continue;
            bool any = false;
            for (const std::size_t first : groups)
                any = any || is_flattened(FringeSteps(frames, first, y, x));
            flat += any ? 1 : 0;
        }
    f.flattened = flat / std::max(1.0, f.pixels * static_cast<double>(f.size.area()));
    f.fringe_length = fringe_length(frames, groups.front(), (f.kinds == good) | (f.kinds == clipped_lit));
}

void summarize_pixels(const std::vector<cv::Mat>& frames, CameraFigures& f)
{
    std::vector<float> lit, modulation;
    double clips = 0;
    for (int y = 0; y < f.size.height; ++y) {
        for (int x = 0; x < f.size.width; ++x) {
            const int kind = f.kinds.at<uchar>(y, x);
            if (kind == unlit || kind == weak) continue;
            clips += kind == clipped_fringe ? 1 : 0;
            lit.push_back(frames[1].at<uchar>(y, x));
            const float m = f.modulation_map.at<float>(y, x);
            modulation.push_back(m);
            const auto bin = std::min(static_cast<std::size_t>(m / 4), f.modulation_histogram.size() - 1);
            f.modulation_histogram[bin] += 1;
        }
    }
    if (lit.empty()) return;
    const auto count = static_cast<double>(lit.size());
    for (double& share : f.modulation_histogram)
        share /= count;
    f.pixels = count / static_cast<double>(f.size.area());
    f.saturated_fringes = clips / count;
    f.lit_median = quantile(lit, 0.5);
    f.lit_bright = quantile(lit, 0.99);
    f.modulation = quantile(modulation, 0.5);
}

/// Frames in which pixels light up that the lit frame leaves dark: no pattern does that, motion does. Pixels that are
/// lit tell less: glare makes single frames brighter than the lit one.
void measure_lighting_up(const std::vector<cv::Mat>& frames, CameraFigures& f)
{
    const int margin = static_cast<int>(std::max(10.0, 8.0 * f.dark_noise)); // differences are whole
    const cv::Mat dark = f.kinds == unlit;
    const double seen = f.pixels * static_cast<double>(f.size.area());
    cv::Mat brighter;
    for (std::size_t k = 2; k < frames.size(); ++k) {
        cv::subtract(frames[k], frames[1], brighter);
        const double count = cv::countNonZero((brighter > margin) & dark);
        if (count / std::max(seen, 1.0) <= f.lighting_up) continue;
        f.lighting_up = count / std::max(seen, 1.0);
        f.lighting_up_frame = k;
    }
}

/// What the projector lights, and how much of that light the fringes modulate.
void measure_light(const std::vector<cv::Mat>& frames, const std::vector<std::size_t>& groups, CameraFigures& f)
{
    const double dim = std::max(3.0, 4.0 * f.dark_noise);
    const LeastLight least = least_light(frames, groups);
    std::vector<float> sharpness;
    double lit = 0, accepted = 0;
    for (int y = 0; y < f.size.height; ++y) {
        for (int x = 0; x < f.size.width; ++x) {
            const int light = frames[1].at<uchar>(y, x) - frames[0].at<uchar>(y, x);
            lit += light >= dim ? 1 : 0;
            if (light < least.contrast) continue;
            double modulation = 255;
            for (const std::size_t first : groups)
                modulation = std::min(modulation, FringeSteps(frames, first, y, x).modulation());
            accepted += modulation >= least.modulation ? 1 : 0;
            if (light >= least_contrast && f.kinds.at<uchar>(y, x) <= good)
                sharpness.push_back(static_cast<float>(modulation / light));
        }
    }
    f.lit = lit / static_cast<double>(f.size.area());
    f.accepted = accepted / static_cast<double>(f.size.area());
    f.sharpness = sharpness.empty() ? 0 : quantile(std::move(sharpness), 0.5);
}

/// Fringe frames of one group are equally bright on the whole, whatever the scene.
void measure_brightness(const std::vector<cv::Mat>& frames, const std::vector<std::size_t>& groups, CameraFigures& f)
{
    const cv::Mat seen = f.kinds == good;
    if (cv::countNonZero(seen) == 0) return;
    const double dark = cv::mean(frames[0], seen)[0];
    for (const std::size_t first : groups) {
        std::array<double, 4> level {};
        for (std::size_t k = 0; k < 4; ++k)
            level[k] = cv::mean(frames[first + k], seen)[0] - dark;
        std::array<double, 4> sorted = level;
        std::sort(sorted.begin(), sorted.end());
        const double middle = std::max(0.5 * (sorted[1] + sorted[2]), 1.0);
        for (std::size_t k = 0; k < 4; ++k) {
            const double change = std::abs(level[k] - middle) / middle;
            if (change <= f.brightness_change) continue;
            f.brightness_change = change;
            f.brightness_frame = first + k;
        }
    }
}

} // namespace

const std::vector<std::string>& pixel_kinds()
{
    static const std::vector<std::string> names
        = { "not lit", "fringes too weak", "good", "lit frame at 255", "fringe frame at 255" };
    return names;
}

CameraFigures measure_capture(const std::vector<cv::Mat>& frames, const FringeMethod& method)
{
    const std::vector<std::size_t> groups = phase_sets(method.method);
    CameraFigures f;
    f.size = frames[0].size();
    f.gamma = std::numeric_limits<double>::quiet_NaN();
    f.dark_noise = noise_of(frames[0]);
    measure_pixels(frames, groups, f);
    summarize_pixels(frames, f);
    measure_flattened(frames, groups, f);
    measure_response(frames, groups, f);
    measure_random_noise(f);
    measure_light(frames, groups, f);
    f.odd = find_odd_frames(frames, method);
    measure_lighting_up(frames, f);
    measure_brightness(frames, groups, f);
    f.fitting = agreement(frames, method).share();
    if (method.multi()) return f;
    const CodeSlip slip = code_slip(frames);
    f.slip = slip.middle;
    f.slip_spread = slip.spread;
    return f;
}

double disparity_noise(const CameraFigures& f)
{
    if (f.modulation <= 0) return 0;
    const double phase = f.random_noise / (std::sqrt(2.0) * f.modulation) / (2 * pi);
    return std::sqrt(2.0) * phase * f.fringe_length;
}

double phase_noise(const CameraFigures& f)
{
    return f.modulation > 0 ? f.fringe_noise / (std::sqrt(2.0) * f.modulation) / (2 * pi) : 0;
}

} // namespace vexo
