#include "capture_check.h"

#include "common.h"
#include "pictures.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>

namespace vexo::app {

namespace {

constexpr double pi = 3.14159265358979323846;

constexpr int least_contrast = 16;       ///< grey levels, lit - dark: as the library's default
constexpr double least_modulation = 6.0; ///< grey levels: as `vexo measure` has it
constexpr int clipped = 255;
constexpr int nearly_clipped = 250; ///< grey: above, noise and sharpening clip single frames

/// The fringe patterns of this program: mean and amplitude, of 255.
constexpr double fringe_mean = 127.5, fringe_amplitude = 120.0;

// --- limits of the verdict ---

/// A clipped fringe frame flattens the sinusoid: phases there are off by up to a twentieth of a period. From one
/// pixel in fifty on that shows as stripes and holes in the cloud.
constexpr double most_saturated = 0.02;
/// With more than half of them clipped, what is left are islands.
constexpr double hopelessly_saturated = 0.5;
/// Phase noise is noise / (sqrt(2) modulation) rad. At 10 it is a 90th of a period, and differences of periods up to
/// 11 px still round safely: 0.5 px is 2.9 standard deviations of x1 - x0.
constexpr double least_modulation_per_noise = 10.0;
/// Below, rounding to 8 bits alone is a noticeable part of the noise, and shadows drop out.
constexpr double weak_modulation = 15.0;
/// Four steps cancel the second harmonic, and the third, which bends the phase, stays below 2 % of the first up to a
/// gamma of 3. What a gamma costs is contrast in the dark half of the fringes: at a second harmonic of 10 %, a gamma
/// of 1.6 or 0.5, it is a third. A smaller one is noted: correcting it is free.
constexpr double most_second_harmonic = 0.1;
constexpr double noted_gamma = 0.15;
/// Good captures have 90 % and more of their fringes in agreement, a badly over-exposed one of glossy plaster still two
/// thirds. Wrong frames leave less than a tenth, a scene that moved in the middle what stood still.
constexpr double least_fitting = 0.5;
/// An exchange must explain two fifths of the fringes that do not fit, and ten at least. In order, no exchange explains
/// any: each breaks what fitted.
constexpr double explained = 0.4, least_explained = 10;
/// Where the dark and the lit frame see nothing, nothing lights up: in captures of a scene at rest not one pixel in
/// 10^4, along the edges of an object that moved by a pixel, some.
constexpr double most_lighting_up = 0.0004;
/// Blur and noise move the edges of the gray code by 0.02 to 0.04 of a fringe against the phase, motion between the two
/// moves all of them.
constexpr double most_slip = 0.08;
/// Noise of the fringes over that of the dark frame: shot noise makes it 1.5 to 3.
constexpr double strange_noise = 4.0;
/// Glare and interreflection raise the fringes' residual to a tenth of their modulation; a quarter is left when their
/// frames do not belong together.
constexpr double hopeless_modulation_per_noise = 4.0;
/// Lamps on mains power flicker by some per cent; the phase error is a quarter of the change, in rad.
constexpr double most_brightness_change = 0.06;
constexpr double least_pixels = 0.002; ///< share of the image; less is a stray reflection

/// Which pixels a statistic may use.
enum Kind : unsigned char { unlit, weak, good, clipped_lit, clipped_fringe };

/// Four fringe frames a quarter period apart, at one pixel.
struct Steps {
    double i0, i1, i2, i3;

    double modulation() const { return 0.5 * std::hypot(i0 - i2, i1 - i3); }
    double residual() const { return 0.25 * (i0 + i2 - i1 - i3); }
    double mean() const { return 0.25 * (i0 + i1 + i2 + i3); }
    bool all_below(int grey) const { return std::max({ i0, i1, i2, i3 }) < grey; }
    /// Cosine of twice the phase angle: with the light a0 + a1 cos(t) + a2 cos(2t) the residual is a2 cos(2t).
    double second_cosine() const
    {
        const double c = i0 - i2, s = i1 - i3;
        return (c * c - s * s) / (c * c + s * s);
    }
};

Steps steps_at(const std::vector<cv::Mat>& frames, std::size_t first, int y, int x)
{
    const auto grey = [&](std::size_t k) { return static_cast<double>(frames[first + k].at<uchar>(y, x)); };
    return { grey(0), grey(1), grey(2), grey(3) };
}

/// Kind of a pixel from lit, dark and all fringe frames.
Kind kind_at(const std::vector<cv::Mat>& frames, const std::vector<std::size_t>& groups, int y, int x)
{
    const int dark = frames[0].at<uchar>(y, x), lit = frames[1].at<uchar>(y, x);
    if (lit - dark < least_contrast) return unlit;
    double modulation = 1e9;
    bool clips = false;
    for (const std::size_t first : groups) {
        const Steps steps = steps_at(frames, first, y, x);
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

    void add(const Steps& steps, int dark, int lit)
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
                const Steps steps = steps_at(frames, first, y, x);
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
    double any_clipped = 0;
    for (int y = 0; y < f.size.height; ++y) {
        for (int x = 0; x < f.size.width; ++x) {
            const Kind kind = kind_at(frames, groups, y, x);
            f.kinds.at<uchar>(y, x) = kind;
            bool clips = false;
            for (const cv::Mat& frame : frames)
                clips = clips || frame.at<uchar>(y, x) == clipped;
            any_clipped += clips ? 1 : 0;
            if (kind == unlit || kind == weak) continue;
            const Steps steps = steps_at(frames, groups.front(), y, x);
            f.modulation_map.at<float>(y, x) = static_cast<float>(steps.modulation());
            f.residual_map.at<float>(y, x) = static_cast<float>(steps.residual());
        }
    }
    f.saturated = any_clipped / static_cast<double>(f.size.area());
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
    const double margin = std::max(10.0, 8.0 * f.dark_noise);
    const double seen = f.pixels * static_cast<double>(f.size.area());
    for (std::size_t k = 2; k < frames.size(); ++k) {
        double count = 0;
        for (int y = 0; y < f.size.height; ++y)
            for (int x = 0; x < f.size.width; ++x)
                count += f.kinds.at<uchar>(y, x) == unlit
                        && frames[k].at<uchar>(y, x) > frames[1].at<uchar>(y, x) + margin
                    ? 1
                    : 0;
        if (count / std::max(seen, 1.0) <= f.lighting_up) continue;
        f.lighting_up = count / std::max(seen, 1.0);
        f.lighting_up_frame = k;
    }
}

/// A plane of the gray code that the projector has no use for may be recorded as an empty picture.
void find_blank(const std::vector<cv::Mat>& frames, CameraFigures& f)
{
    for (std::size_t k = 2; k < frames.size(); ++k) {
        double low = 0, high = 0;
        cv::minMaxLoc(frames[k], &low, &high);
        if (low == high) f.blank.push_back(k);
    }
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

// --- do the frames agree with one another? ---

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

/// Phase in periods, 0 to 1, of gray code + phase.
double gray_phase(const std::vector<cv::Mat>& frames, int y, int x)
{
    const Steps s = steps_at(frames, 9, y, x);
    return (pi - std::atan2(s.i1 - s.i3, s.i2 - s.i0)) / (2 * pi);
}

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
        const double phase = seen[static_cast<std::size_t>(x)] ? gray_phase(frames, y, x) : -1;
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
        const Steps s = steps_at(frames, 2 + 4 * f, y, x);
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

/// How far from the start of the phase the gray code changes its number, in fringes: the median.
double code_slip(const std::vector<cv::Mat>& frames, const Sample& sample)
{
    std::vector<float> slips;
    for (std::size_t i = 0; i < sample.rows.size(); ++i) {
        const int y = sample.rows[i];
        for (int x = 1; x < frames[0].cols; ++x) {
            const auto at = static_cast<std::size_t>(x);
            if (!sample.seen[i][at - 1] || !sample.seen[i][at]) continue;
            if (gray_code(frames, y, x) != gray_code(frames, y, x - 1) + 1) continue;
            const double left = gray_phase(frames, y, x - 1), step = gray_phase(frames, y, x) - left;
            const double slip = left + 0.5 * (step - std::round(step)); // between the two pixels
            slips.push_back(static_cast<float>(std::abs(slip - std::round(slip))));
        }
    }
    return slips.empty() ? 0 : quantile(slips, 0.5);
}

Agreement agreement(const std::vector<cv::Mat>& frames, const CaptureMethod& method, const Sample& sample)
{
    return method.multi() ? agreement_multi(frames, method.periods, sample) : agreement_gray(frames, sample);
}

std::string percent_of(double share)
{
    return number(100 * share, share < 0.0095 ? 2 : 1) + " %";
}

} // namespace

std::vector<std::size_t> CaptureMethod::fringe_groups() const
{
    if (!multi()) return { 9 };
    std::vector<std::size_t> groups;
    for (std::size_t f = 0; f < periods.size(); ++f)
        groups.push_back(2 + 4 * f);
    return groups;
}

const std::vector<std::string>& pixel_kinds()
{
    static const std::vector<std::string> names
        = { "not lit", "fringes too weak", "good", "lit frame at 255", "fringe frame at 255" };
    return names;
}

CameraFigures measure_capture(const std::vector<cv::Mat>& frames, const CaptureMethod& method)
{
    const std::vector<std::size_t> groups = method.fringe_groups();
    CameraFigures f;
    f.size = frames[0].size();
    f.gamma = std::numeric_limits<double>::quiet_NaN();
    f.dark_noise = noise_of(frames[0]);
    measure_pixels(frames, groups, f);
    summarize_pixels(frames, f);
    measure_response(frames, groups, f);
    find_blank(frames, f);
    measure_lighting_up(frames, f);
    measure_brightness(frames, groups, f);
    const Sample sample = make_sample(frames);
    f.fitting = agreement(frames, method, sample).share();
    if (!method.multi()) f.slip = code_slip(frames, sample);
    return f;
}

std::array<std::size_t, 2> find_exchange(const std::vector<cv::Mat>& frames, const CaptureMethod& method)
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

namespace {

/// Faults that leave nothing to measure; the first explains the others.
void judge_frames(const CameraFigures& f, const std::array<std::size_t, 2>& exchange,
    const std::vector<std::string>& names, const std::function<void(const char*, Weight, const std::string&)>& add)
{
    if (exchange[1] != 0)
        add("out-of-order", Weight::spoils, names[exchange[0]] + " and " + names[exchange[1]] + " are exchanged");
    else if (f.pixels < least_pixels)
        add("pattern-unseen", Weight::spoils,
            "hardly a pixel shows the fringes (" + percent_of(f.pixels) + " of the image)");
    else if (f.lighting_up > most_lighting_up)
        add("moving-scene", Weight::spoils,
            "in " + names[f.lighting_up_frame] + " pixels light up that are dark in the lit frame ("
                + percent_of(f.lighting_up) + " of those that show fringes)");
    else if (f.slip > most_slip)
        add("moving-scene", Weight::spoils,
            "the gray code lies " + number(f.slip, 2) + " of a fringe beside the fringes");
    else if (f.fitting < least_fitting)
        add("moving-scene", Weight::spoils,
            "only " + percent_of(f.fitting)
                + " of the fringes agree with the other frames: the scene moved, or these are other patterns");
    else if (f.modulation < hopeless_modulation_per_noise * f.fringe_noise
        && f.fringe_noise > strange_noise * std::max(f.dark_noise, 0.3))
        add("moving-scene", Weight::spoils,
            "the four frames of a fringe do not belong together: they are " + number(f.fringe_noise, 1)
                + " grey levels off a sinusoid, the dark frame's noise is " + number(f.dark_noise, 1));
    else if (f.brightness_change > most_brightness_change)
        add("unsteady-light", Weight::spoils,
            names[f.brightness_frame] + " is " + percent_of(f.brightness_change)
                + " brighter or darker than the fringe frames around it");
}

} // namespace

std::vector<Finding> judge(const CameraFigures& f, const CaptureMethod& method, int camera,
    const std::array<std::size_t, 2>& exchange, const std::vector<std::string>& names)
{
    std::vector<Finding> found;
    const auto add = [&](const char* name, Weight weight, const std::string& text) {
        found.push_back({ name, weight, camera, text });
    };
    judge_frames(f, exchange, names, add);
    for (const std::size_t k : f.blank)
        add("blank-frame", Weight::note, names[k] + " has one grey value all over");
    if (exchange[1] != 0 || f.pixels < least_pixels) return found; // figures of wrong frames mean nothing

    if (f.saturated_fringes > most_saturated)
        add("over-exposed", f.saturated_fringes > hopelessly_saturated ? Weight::spoils : Weight::worse,
            percent_of(f.saturated_fringes) + " of the pixels are at 255 in a fringe frame; expose less");
    if (f.modulation < weak_modulation && f.saturated_fringes <= most_saturated)
        add("under-exposed", Weight::worse,
            "modulation " + number(f.modulation, 1) + " grey levels; " + number(weak_modulation, 0)
                + " or more are needed; expose more");
    const int longest = method.multi() ? *std::max_element(method.periods.begin(), method.periods.end()) : 0;
    const double needed = std::max(least_modulation_per_noise, 0.95 * longest); // grows with the period, see above
    if (f.modulation < needed * f.fringe_noise)
        add("noisy", Weight::worse,
            "the fringes' modulation is " + number(f.modulation / f.fringe_noise, 1) + " times their noise of "
                + number(f.fringe_noise, 1) + " grey levels; " + number(needed, 0) + " times is needed"
                + (f.fringe_noise > strange_noise * std::max(f.dark_noise, 0.3) ? "; the dark frame's is "
                            + number(f.dark_noise, 1) + " only: motion during these frames, or clipping"
                                                                                : ""));
    const std::string response = "gamma " + number(f.gamma, 2) + ", second harmonic "
        + percent_of(std::abs(f.second_harmonic)) + "; vexo patterns --gamma-table makes the projector linear";
    if (std::abs(f.second_harmonic) > most_second_harmonic)
        add("non-linear", Weight::worse, response);
    else if (std::abs(f.gamma - 1) > noted_gamma)
        add("gamma", Weight::note, response);
    return found;
}

} // namespace vexo::app
