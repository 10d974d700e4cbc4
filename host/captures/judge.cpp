#include "host/captures/judge.h"

#include "base/text.h"

#include <algorithm>
#include <cmath>
#include <functional>

namespace vexo {

namespace {

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

std::string percent_of(double share)
{
    return number(100 * share, share < 0.0095 ? 2 : 1) + " %";
}

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

std::vector<Finding> judge(const CameraFigures& f, const FringeMethod& method, int camera,
    const std::array<std::size_t, 2>& exchange, const std::vector<std::string>& names)
{
    std::vector<Finding> found;
    const auto add = [&](const char* name, Weight weight, const std::string& text, const std::string& advice = {}) {
        found.push_back({ name, weight, "camera " + std::to_string(camera), text, advice });
    };
    judge_frames(f, exchange, names, add);
    for (const std::size_t k : f.blank)
        add("blank-frame", Weight::note, names[k] + " has one grey value all over");
    if (exchange[1] != 0 || f.pixels < least_pixels) return found; // figures of wrong frames mean nothing

    if (f.saturated_fringes > most_saturated)
        add("over-exposed", f.saturated_fringes > hopelessly_saturated ? Weight::spoils : Weight::worse,
            percent_of(f.saturated_fringes) + " of the pixels are at 255 in a fringe frame", "expose less");
    if (f.modulation < weak_modulation && f.saturated_fringes <= most_saturated)
        add("under-exposed", Weight::worse,
            "modulation " + number(f.modulation, 1) + " grey levels; " + number(weak_modulation, 0)
                + " or more are needed",
            "expose more");
    const int longest = method.multi() ? *std::max_element(method.periods.begin(), method.periods.end()) : 0;
    const double needed = std::max(least_modulation_per_noise, 0.95 * longest); // grows with the period, see above
    if (f.modulation < needed * f.fringe_noise)
        add("noisy", Weight::worse,
            "the fringes' modulation is " + number(f.modulation / f.fringe_noise, 1) + " times their noise of "
                + number(f.fringe_noise, 1) + " grey levels; " + number(needed, 0) + " times is needed"
                + (f.fringe_noise > strange_noise * std::max(f.dark_noise, 0.3) ? "; the dark frame's is "
                            + number(f.dark_noise, 1) + " only: motion during these frames, or clipping"
                                                                                : ""));
    const std::string response
        = "gamma " + number(f.gamma, 2) + ", second harmonic " + percent_of(std::abs(f.second_harmonic));
    const std::string linear = "vexo patterns --gamma-table makes the projector linear";
    if (std::abs(f.second_harmonic) > most_second_harmonic)
        add("non-linear", Weight::worse, response, linear);
    else if (std::abs(f.gamma - 1) > noted_gamma)
        add("gamma", Weight::note, response, linear);
    return found;
}

} // namespace vexo
