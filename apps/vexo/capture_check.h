#pragma once

#include <opencv2/core.hpp>

#include <array>
#include <string>
#include <vector>

/// What the frames of a capture tell about its quality before anything is measured. Knows the patterns of this
/// program; needs no calibration.
namespace vexo::app {

/// How a capture was made.
struct CaptureMethod {
    std::string name;         ///< "gray-phase" or "multi-phase"
    std::vector<int> periods; ///< multi-phase: projector px; gray-phase: empty

    bool multi() const { return name == "multi-phase"; }
    std::size_t frame_count() const { return multi() ? 2 + 4 * periods.size() : 13; }
    /// First of each four fringe frames a quarter period apart.
    std::vector<std::size_t> fringe_groups() const;
};

/// What a finding means for a measurement.
enum class Weight { note, worse, spoils };

/// Something that is to be said of a capture.
struct Finding {
    /// spoils: "frames-missing", "mixed-size", "out-of-order", "moving-scene", "unsteady-light", "pattern-unseen";
    /// worse: "over-exposed" (spoils above one half), "under-exposed", "noisy", "non-linear"; note: "blank-frame",
    /// "gamma".
    std::string name;
    Weight weight = Weight::note;
    int camera = -1;  ///< 0 or 1; -1: both
    std::string text; ///< with figures, for people
};

/// Figures of one camera. Grey values are those of 8-bit frames; "pixels" are those that show the fringes: lit and
/// dark frame differ by 16 grey levels or more, the modulation is 6 or more.
struct CameraFigures {
    cv::Size size;
    double pixels = 0;            ///< share of the image that shows the fringes
    double lit_median = 0;        ///< grey value of the lit frame there
    double lit_bright = 0;        ///< its 99 % quantile
    double saturated = 0;         ///< share of the image at 255 in any frame
    double saturated_fringes = 0; ///< share of the pixels at 255 in a fringe frame: their phase is wrong
    double modulation = 0;        ///< median amplitude of the fringes
    std::array<double, 32> modulation_histogram {}; ///< shares; bins of 4 grey levels
    double dark_noise = 0;                          ///< standard deviation, from the dark frame
    double fringe_noise = 0;    ///< standard deviation at fringe brightness, from the residual without its gamma part
    double residual_rms = 0;    ///< of r = (I0 + I2 - I1 - I3) / 4, saturated pixels excluded
    double second_harmonic = 0; ///< amplitude of the fringes' second harmonic over the first; 0 when linear
    double gamma = 1;           ///< of projector and camera together: light read = grey^gamma; NaN: not measured
    double fitting = 0;         ///< share of fringes (multi-phase: pixels) whose frames agree with one another
    double slip = 0;            ///< gray-phase: median distance of code edges from the fringes, in fringes
    double lighting_up = 0;     ///< pixels that are dark in the lit frame and bright in another, per pixel
    std::size_t lighting_up_frame = 0; ///< the frame with the most of them
    double brightness_change = 0;      ///< largest relative deviation of a fringe frame's mean brightness
    std::size_t brightness_frame = 0;  ///< that frame

    std::vector<std::size_t> blank; ///< frames behind the lit one that have one grey value all over

    cv::Mat kinds;          ///< CV_8U, index into pixel_kinds()
    cv::Mat modulation_map; ///< CV_32F, NaN where no fringes are seen
    cv::Mat residual_map;   ///< CV_32F, NaN likewise
};

/// Names of the values of CameraFigures::kinds.
const std::vector<std::string>& pixel_kinds();

/// Figures of one camera's frames, all of one size and method.frame_count() of them.
CameraFigures measure_capture(const std::vector<cv::Mat>& frames, const CaptureMethod& method);

/// The exchange of two frames that makes many more fringes fit than the order given; {0, 0} when there is none.
/// Dark and lit frame exchanged count, too.
std::array<std::size_t, 2> find_exchange(const std::vector<cv::Mat>& frames, const CaptureMethod& method);

/// What the figures of a camera say. The limits stand with their reasons in the source.
std::vector<Finding> judge(const CameraFigures& figures, const CaptureMethod& method, int camera,
    const std::array<std::size_t, 2>& exchange, const std::vector<std::string>& names);

} // namespace vexo::app
