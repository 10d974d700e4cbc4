#pragma once

#include "host/captures/fringe_method.h"
#include "host/captures/odd_frames.h"

#include <opencv2/core.hpp>

#include <array>
#include <string>
#include <vector>

/// What the frames of a capture say of its quality before anything is measured. Needs no calibration.
namespace vexo {

/// Figures of one camera. Grey values are those of 8-bit frames; "pixels" are those that show the fringes: lit and
/// dark frame differ by 16 grey levels or more, the modulation is 6 or more.
struct CameraFigures {
    cv::Size size;
    double pixels = 0;            ///< share of the image that shows the fringes
    double accepted = 0;          ///< share of the image whose noise lets it be measured
    double lit = 0;               ///< share of the image that the projector lights, however dimly
    double lit_median = 0;        ///< grey value of the lit frame there
    double lit_bright = 0;        ///< its 99 % quantile
    double saturated = 0;         ///< share of the image at 255 in any frame
    double saturated_fringes = 0; ///< share of the pixels at 255 in a fringe frame: their phase is wrong
    double flattened = 0;         ///< share of the pixels at 255 in three of four fringe frames or in all
    double fringe_length = 0;     ///< median length of a fringe along a row, px; multi-phase: of the first period
    double modulation = 0;        ///< median amplitude of the fringes
    double sharpness = 0; ///< median of modulation / (lit - dark) where these differ by 16 or more; in focus 0.47
    std::array<double, 32> modulation_histogram {}; ///< shares; bins of 4 grey levels
    double dark_noise = 0;                          ///< standard deviation, from the dark frame
    double fringe_noise = 0;    ///< standard deviation at fringe brightness, from the residual without its gamma part
    double random_noise = 0;    ///< the same by neighbouring pixels, which see the same reflections and harmonics
    double residual_rms = 0;    ///< of r = (I0 + I2 - I1 - I3) / 4, saturated pixels excluded
    double second_harmonic = 0; ///< amplitude of the fringes' second harmonic over the first; 0 when linear
    double gamma = 1;           ///< of projector and camera together: light read = grey^gamma; NaN: not measured
    double fitting = 0;         ///< share of fringes (multi-phase: pixels) whose frames agree with one another
    double slip = 0;            ///< gray-phase: mean distance of code edges from the start of the phase, in fringes
    double slip_spread = 0;     ///< of that distance: 0 everywhere the same, 1 anywhere
    double lighting_up = 0;     ///< pixels that are dark in the lit frame and bright in another, per pixel
    std::size_t lighting_up_frame = 0; ///< the frame with the most of them
    double brightness_change = 0;      ///< largest relative deviation of a fringe frame's mean brightness
    std::size_t brightness_frame = 0;  ///< that frame

    OddFrames odd; ///< frames that show nothing, or what another one shows

    cv::Mat kinds;          ///< CV_8U, index into pixel_kinds()
    cv::Mat modulation_map; ///< CV_32F, NaN where no fringes are seen
    cv::Mat residual_map;   ///< CV_32F, NaN likewise
};

/// Names of the values of CameraFigures::kinds.
const std::vector<std::string>& pixel_kinds();

/// Share of what the projector lights that can be measured.
inline double measurable(const CameraFigures& f)
{
    return f.lit > 0 ? f.accepted / f.lit : 0;
}

/// Standard deviation of the phase by the noise of the frames, in fringes: noise / (sqrt(2) modulation) rad.
double phase_noise(const CameraFigures& f);

/// Standard deviation of a disparity by the random noise, px, when both cameras see the fringes alike.
double disparity_noise(const CameraFigures& f);

/// Figures of one camera's frames, all of one size and as many as the method has.
CameraFigures measure_capture(const std::vector<cv::Mat>& frames, const FringeMethod& method);

} // namespace vexo
