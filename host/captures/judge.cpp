#include "host/captures/judge.h"

#include "base/text.h"
#include "host/captures/agreement.h"

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

/// A clipped fringe frame flattens the sinusoid: phases there are off by up to a twentieth of a period. From one
/// pixel in fifty on that shows as stripes and holes in the cloud. Where all of them clip there is no modulation left,
/// so that what is lost is seen as a hole, and never as a wrong point.
constexpr double most_saturated = 0.02;

/// With one of four steps below 255 a phase is that step's alone, and off by up to an eighth of a fringe. A bust and a
/// plane with a quarter of such pixels had 1 % of their points wrong by more than 1 mm, with half of them 1 to 7 %,
/// with two thirds 17 %.
constexpr double hopeless_flattened = 0.5;

/// Disparities that scatter by more, px, say that shorter fringes would measure better.
constexpr double noted_disparity_noise = 0.1;

/// Phase noise is noise / (sqrt(2) modulation) rad. At 10 it is a 90th of a period, and differences of periods up to
/// 11 px still round safely: 0.5 px is 2.9 standard deviations of x1 - x0.
constexpr double least_modulation_per_noise = 10.0;

/// Below, rounding to 8 bits alone is a noticeable part of the noise, and shadows drop out.
constexpr double weak_modulation = 15.0;

/// Of what the projector lights: with less than a tenth nothing is left but islands; in good captures, nine tenths.
constexpr double least_measurable = 0.1, most_measurable = 0.7;

/// Modulation over lit - dark is 120 / 255 where the fringes are sharp, half of it at a blur of a sixth of a fringe.
constexpr double least_sharpness = 0.24;

/// Four steps cancel the second harmonic, and the third, which bends the phase, stays below 2 % of the first up to a
/// gamma of 3. What a gamma costs is contrast in the dark half of the fringes: at a second harmonic of 10 %, a gamma
/// of 1.6 or 0.5, it is a third. A smaller one is noted: correcting it is free.
constexpr double most_second_harmonic = 0.1;

constexpr double noted_gamma = 0.15;

/// Good captures have 90 % and more of their fringes in agreement, a badly over-exposed one of glossy plaster still two
/// thirds. Wrong frames leave less than a tenth, a scene that moved in the middle what stood still.
constexpr double least_fitting = 0.5;

/// Several periods lose numbers to noise, and to a frame that is brighter or darker, of a scene at rest: of those that
/// fit in 45 and 40 % of their pixels, a bust's, 1 % of the points were wrong, in 22 % by a darker frame, 21 %.
constexpr double most_position_noise = 0.15, hopeless_fitting = 0.3;

/// Where the dark and the lit frame see nothing, nothing lights up: in captures of a scene at rest not one pixel in
/// 10^4, along the edges of an object that moved by a pixel, some.
constexpr double most_lighting_up = 0.0004;

/// Blur and noise move the edges of the gray code by 0.02 to 0.04 of a fringe against the phase, motion between the two
/// moves all of them. A fringe keeps its number while most of it has one code. Where the edges lie beside the start
/// of the phase by one distance everywhere, the fringes were projected so; what moves in depth moves unevenly.
constexpr double most_slip = 0.08, hopeless_slip = 0.3, most_spread = 0.5, even_spread = 0.1;

/// Noise of the fringes over that of the dark frame: shot noise makes it 1.5 to 3.
constexpr double strange_noise = 4.0;

/// Glare and interreflection raise the fringes' residual to a tenth of their modulation; a quarter is left when their
/// frames do not belong together. Where things move besides, a tenth is enough.
constexpr double hopeless_modulation_per_noise = 4.0;

/// Lamps on mains power flicker by some per cent. A frame that is brighter by a share c shifts the phase by up to
/// c / (4 pi) of a fringe, as the mean is about the modulation: 0.01 at a tenth, 0.03 at 0.4, a third of a pixel of
/// fringes that are 11 px long.
constexpr double most_brightness_change = 0.06, hopeless_brightness_change = 0.4;

constexpr double least_pixels = 0.002; ///< share of the image; less is a stray reflection

constexpr double pi = 3.14159265358979323846;

std::string percent_of(double share)
{
    return number(100 * share, share < 0.0095 ? 2 : 1) + " %";
}

/// Judges one camera.
class Judge {
public:
    Judge(const CameraFigures& figures, const FringeMethod& method, int camera, const std::vector<std::string>& names)
        : f(figures)
        , _method(method)
        , _names(names)
        , _where("camera " + std::to_string(camera))
    {
    }

    std::vector<Finding> judge(const FrameOrder& order)
    {
        if (!_wrong_frames(order) && _light()) {
            _fit();
            _motion();
            _brightness();
            _exposure();
            _noise();
            _response();
        }
        for (const std::size_t k : f.odd.unused)
            _add("blank-frame", Weight::note, _names[k] + " has one grey value all over, as the others allow");
        return std::move(_found);
    }

private:
    void _add(const char* name, Weight weight, const std::string& text, const std::string& advice = {})
    {
        _found.push_back({ name, weight, _where, text, advice });
    }

    /// Frames that are not what they should be; figures of wrong frames mean nothing.
    bool _wrong_frames(const FrameOrder& order)
    {
        // Another order that is not certain may only be better than a blank or a doubled frame, and that of the fringe
        // frames is never certain while one of them is blank.
        const bool exchanged = order.kind == FrameOrder::exchanged, of_dark_or_lit = exchanged && order.pair[0] < 2,
                   else_whole = (of_dark_or_lit || f.odd.empty.empty()) && !(exchanged && !f.odd.equal.empty()),
                   certain = order.certain && (order.kind != FrameOrder::fringes || f.odd.empty.empty());
        if (order && (certain || else_whole)) {
            const auto [text, advice] = words_of(order, _names);
            const bool shifted = order.kind == FrameOrder::late || order.kind == FrameOrder::early;
            _add(shifted ? "shifted-frames" : "out-of-order", Weight::spoils, text, advice);
            return true;
        }
        for (const std::size_t k : f.odd.empty)
            _add("blank-frame", Weight::spoils, _names[k] + " shows no pattern, and the others need it",
                "record it again");
        if (f.lit < least_pixels && f.odd.equal.size() != 1) return false; // all are as dark as the dark frame
        for (const auto& [i, k] : f.odd.equal)
            _add("equal-frames", Weight::spoils, _names[i] + " and " + _names[k] + " are the same picture",
                "record the one that is wrong again");
        return !f.odd.empty.empty() || !f.odd.equal.empty();
    }

    /// Whether enough is left to judge by.
    bool _light()
    {
        if (f.lit < least_pixels) {
            _add("pattern-unseen", Weight::spoils,
                "the lit frame is brighter than the dark one on " + percent_of(f.lit) + " of the image only",
                "check projector, exposure and the order of the frames");
            return false;
        }
        const double left = measurable(f);
        if (left >= most_measurable && f.sharpness >= least_sharpness) return true;
        const bool hopeless = left < least_measurable || f.pixels < least_pixels;
        const bool blurred = f.sharpness > 0 && f.sharpness < least_sharpness;
        const std::string lost = percent_of(left) + " of what the projector lights can be measured";
        if (blurred)
            _add("out-of-focus", hopeless ? Weight::spoils : Weight::worse,
                "the fringes modulate " + percent_of(f.sharpness) + " of the light, sharp ones 47 %; " + lost,
                "focus projector and cameras, or project longer fringes");
        else if (hopeless || f.lit_median < 2 * weak_modulation)
            _add("under-exposed", hopeless ? Weight::spoils : Weight::worse, "only " + lost, "expose more");
        return !hopeless;
    }

    /// Noise of a position, projector px, that costs fringe numbers of several periods; 0 of one.
    double _position_noise() const
    {
        return _method.multi() ? phase_noise(f) * *std::max_element(_method.periods.begin(), _method.periods.end()) : 0;
    }

    bool _lost_to_noise() const { return f.fitting < least_fitting && _position_noise() > most_position_noise; }

    void _fit()
    {
        const bool unsteady = _method.multi() && f.brightness_change > most_brightness_change;
        if (_lost_to_noise())
            _add("noisy", f.fitting < least_measurable ? Weight::spoils : Weight::worse,
                "noise leaves " + percent_of(f.fitting) + " of the fringes their numbers: it moves positions by "
                    + number(_position_noise(), 2) + " projector px",
                "expose more, or project shorter periods such as 9,10,11");
        else if (f.fitting < least_fitting && !unsteady)
            _add("moving-scene", Weight::spoils,
                "only " + percent_of(f.fitting)
                    + " of the fringes agree with the other frames: the scene moved, or these are other patterns",
                "let nothing move, check the patterns, and record again");
        else if (f.modulation
                < (f.lighting_up > most_lighting_up ? least_modulation_per_noise : hopeless_modulation_per_noise)
                    * f.fringe_noise
            && f.fringe_noise > strange_noise * std::max(f.dark_noise, 0.3))
            _add("moving-scene", Weight::spoils,
                "the four frames of a fringe do not belong together: they are " + number(f.fringe_noise, 1)
                    + " grey levels off a sinusoid, the dark frame's noise is " + number(f.dark_noise, 1),
                "let nothing move, and record again");
    }

    void _motion()
    {
        const double slip = std::abs(f.slip);
        const std::string beside = "the gray code lies " + number(slip, 2) + " of a fringe beside the fringes";
        const bool wanders = f.slip_spread > most_spread, even = f.slip_spread < even_spread && slip < hopeless_slip;
        if (wanders || (slip > hopeless_slip && !even))
            _add("moving-scene", Weight::spoils, beside + (wanders ? ", here more and there less" : ""),
                "let nothing move, and record again");
        else if (slip > most_slip)
            _add(even ? "fringe-start" : "moving-scene", even ? Weight::note : Weight::worse, beside,
                even ? "" : "let nothing move");
        if (f.lighting_up > most_lighting_up)
            _add("moving-scene", Weight::worse,
                "in " + _names[f.lighting_up_frame] + " pixels light up that are dark in the lit frame ("
                    + percent_of(f.lighting_up) + " of those that show fringes)",
                "let nothing move, and keep other light away");
    }

    void _brightness()
    {
        if (f.brightness_change <= most_brightness_change) return;
        const bool hopeless = f.brightness_change > hopeless_brightness_change || f.fitting < hopeless_fitting;
        _add("unsteady-light", hopeless ? Weight::spoils : Weight::worse,
            _names[f.brightness_frame] + " is " + percent_of(f.brightness_change)
                + " brighter or darker than the fringe frames around it: phases are off by up to "
                + number(f.brightness_change / (4 * pi), 3) + " of a fringe",
            "expose for whole periods of the lamps, and switch automatic exposure off");
    }

    void _exposure()
    {
        const bool hopeless = f.flattened > hopeless_flattened;
        if (f.saturated_fringes > most_saturated)
            _add("over-exposed", hopeless ? Weight::spoils : Weight::worse,
                percent_of(f.saturated_fringes) + " of the pixels are at 255 in a fringe frame"
                    + (hopeless ? ", " + percent_of(f.flattened) + " in three of four" : ""),
                "expose less");
        const bool said
            = std::any_of(_found.begin(), _found.end(), [](const Finding& x) { return x.name == "under-exposed"; });
        if (f.modulation < weak_modulation && f.saturated_fringes <= most_saturated && !said
            && f.sharpness >= least_sharpness)
            _add("under-exposed", Weight::worse,
                "modulation " + number(f.modulation, 1) + " grey levels; " + number(weak_modulation, 0)
                    + " or more are needed",
                "expose more");
    }

    void _noise()
    {
        if (disparity_noise(f) > noted_disparity_noise && f.saturated_fringes <= most_saturated)
            _add("scatter", Weight::note,
                "by their noise and length of " + number(f.fringe_length, 0)
                    + " px the fringes give disparities that scatter by " + number(disparity_noise(f), 2) + " px",
                "expose more, or project shorter fringes");
        const int longest = _method.multi() ? *std::max_element(_method.periods.begin(), _method.periods.end()) : 0;
        const double needed = std::max(least_modulation_per_noise, 0.95 * longest); // grows with the period, see above
        if (f.modulation >= needed * f.fringe_noise) return;
        if (_lost_to_noise()) return; // was said
        const bool strange = f.fringe_noise > strange_noise * std::max(f.dark_noise, 0.3);
        _add("noisy", Weight::worse,
            "the fringes' modulation is " + number(f.modulation / f.fringe_noise, 1) + " times their noise of "
                + number(f.fringe_noise, 1) + " grey levels, " + number(needed, 0)
                + " times is needed: the phase's noise is " + number(phase_noise(f), 3) + " of a fringe"
                + (strange ? "; the dark frame's is " + number(f.dark_noise, 1)
                            + " grey levels only: motion during these frames, or clipping"
                           : ""),
            "expose more, or keep other light away");
    }

    void _response()
    {
        const std::string response
            = "gamma " + number(f.gamma, 2) + ", second harmonic " + percent_of(std::abs(f.second_harmonic));
        const std::string linear = "vexo patterns --gamma-table makes the projector linear";
        if (std::abs(f.second_harmonic) > most_second_harmonic)
            _add("non-linear", Weight::worse, response, linear);
        else if (std::abs(f.gamma - 1) > noted_gamma)
            _add("gamma", Weight::note, response, linear);
    }

    const CameraFigures& f;
    const FringeMethod& _method;
    const std::vector<std::string>& _names;
    std::string _where;
    std::vector<Finding> _found;
};

} // namespace

std::vector<Finding> judge(const CameraFigures& figures, const FringeMethod& method, int camera,
    const FrameOrder& exchange, const std::vector<std::string>& names)
{
    return Judge(figures, method, camera, names).judge(exchange);
}

} // namespace vexo
