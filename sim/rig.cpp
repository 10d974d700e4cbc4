#include "sim/rig.h"

#include <cmath>

namespace vexo {
namespace sim {

namespace {
constexpr double rad_per_deg = CV_PI / 180;

/// Plausible machine-vision lenses on a 1280-wide sensor; no two numbers of a pair are equal on purpose.
struct Make {
    double fx, fy, cx, cy; ///< px; centres relative to the image's
    std::array<double, 5> D;
    double pitch_deg, roll_deg; ///< mounting errors
};
constexpr Make makes[2] = {
    { 1752.4, 1751.6, 8.3, -5.8, { { -0.118, 0.094, 0.0006, -0.0004, -0.021 } }, 0.15, 0.25 },
    { 1746.8, 1747.5, -6.1, 4.4, { { -0.124, 0.102, -0.0005, 0.0007, -0.025 } }, -0.2, -0.35 },
};
constexpr double nominal_width = 1280, nominal_f = 1750;
constexpr double camera_px_per_projector_px = 1.4; // so that the projector covers both cameras' views
constexpr double projector_height_mm = 50;         // above the baseline: light falls from above the eyes

Camera make_camera(const RigOptions& o, int index)
{
    const Make& make = makes[index];
    const double scale = o.image_size.width / nominal_width;
    const double side = index == 0 ? -1 : 1;
    const double toe_in
        = o.toe_in_deg < 0 ? std::atan2(0.5 * o.baseline_mm, o.distance_mm) : o.toe_in_deg * rad_per_deg;
    Camera camera;
    camera.size = o.image_size;
    camera.K = { make.fx * scale, 0, 0.5 * (o.image_size.width - 1) + make.cx * scale, 0, make.fy * scale,
        0.5 * (o.image_size.height - 1) + make.cy * scale, 0, 0, 1 };
    camera.D = make.D;
    const cv::Vec3d centre(side * 0.5 * o.baseline_mm, 0, 0);
    const cv::Vec3d forward(-side * std::sin(toe_in), std::sin(make.pitch_deg * rad_per_deg), std::cos(toe_in));
    camera.R = look_along(forward, make.roll_deg * rad_per_deg);
    camera.T = -(camera.R * centre);
    return camera;
}

Camera make_projector(const RigOptions& o)
{
    // Pixels sized for 1024 columns; another projector fills the same field with its own.
    const double f = nominal_f / camera_px_per_projector_px * o.projector_size.width / 1024;
    Camera projector;
    projector.size = o.projector_size;
    projector.K = { f, 0, 0.5 * (o.projector_size.width - 1), 0, f, 0.5 * (o.projector_size.height - 1), 0, 0, 1 };
    const cv::Vec3d centre(0, -projector_height_mm, 0);
    projector.R = look_along(cv::Vec3d(0, 0, o.distance_mm) - centre, 0);
    projector.T = -(projector.R * centre);
    return projector;
}

bool within(double value, double low, double high) noexcept
{
    return value >= low && value <= high;
}

const char* why_invalid_method(const RigOptions& o) noexcept
{
    const int columns = o.projector_size.width;
    if (o.method == Method::gray_phase) {
        if (o.fringe_period < 2) return "the fringe period must be 2 projector pixels or more";
        if (o.fringe_period < (columns + 127) / 128)
            return "the fringe period is too short: the code numbers 128 periods, which must cover all projector "
                   "columns";
        if (o.fringe_period > columns) return "the fringe period must not exceed the projector's width";
    } else if (o.method == Method::multi_phase) {
        if (o.periods.size() != 3) return "three fringe periods are needed";
        for (const int period : o.periods)
            if (!within(period, 2, columns)) return "a fringe period must be 2 px to the projector's width";
    }
    return nullptr;
}
} // namespace

const char* why_invalid(const RigOptions& o) noexcept
{
    const auto size_ok
        = [](const cv::Size& s) { return s.width >= 16 && s.height >= 16 && s.width <= 8192 && s.height <= 8192; };
    if (!size_ok(o.image_size)) return "the image must be 16 to 8192 pixels wide and high";
    if (!size_ok(o.projector_size)) return "the projector must be 16 to 8192 pixels wide and high";
    if (const char* fault = why_invalid_method(o)) return fault;
    if (!within(o.distance_mm, 200, 5000)) return "the distance must be 200 to 5000 mm";
    if (!within(o.baseline_mm, 10, 2000)) return "the baseline must be 10 to 2000 mm";
    if (!(o.toe_in_deg <= 45)) return "the toe-in must be at most 45 degrees";
    if (!within(o.exposure, 0.01, 100)) return "the exposure must be 0.01 to 100";
    if (!within(o.ambient, 0, 255)) return "the ambient light must be 0 to 255 grey levels";
    if (!within(o.noise, 0, 50)) return "the noise must be 0 to 50 grey levels";
    if (!within(o.gamma, 0.2, 5)) return "gamma must be 0.2 to 5";
    if (!within(o.defocus, 0, 20)) return "the defocus must be 0 to 20 projector pixels";
    if (!within(o.move_mm, 0, 100)) return "the scene may move by 0 to 100 mm";
    if (!within(o.turned_deg, -360, 360)) return "the scene may be turned by -360 to 360 degrees";
    if (!within(o.tilt_deg, -60, 60)) return "the tilt must be -60 to 60 degrees";
    return nullptr;
}

RigOptions with_own_noise(RigOptions options, std::size_t index)
{
    constexpr std::uint64_t seeds_apart = 1000003; // far from seeds that a user counts through
    options.seed += seeds_apart * index;
    return options;
}

RigOptions at_exposure(RigOptions options, double exposure, std::size_t index)
{
    constexpr double ms_at_one = 10;
    options.exposure = exposure;
    options.exposure_ms = ms_at_one * exposure;
    return with_own_noise(options, index);
}

Rig make_rig(const RigOptions& options)
{
    Rig rig;
    rig.options = options;
    rig.cameras = { make_camera(options, 0), make_camera(options, 1) };
    rig.projector = make_projector(options);
    constexpr double mid_grey = 128, read_share = 0.625; // of the noise at mid grey; the rest is shot noise
    rig.sensor.black = 4;
    rig.sensor.read = read_share * options.noise;
    rig.sensor.shot = (1 - read_share * read_share) * options.noise * options.noise / mid_grey;
    rig.flat_light = options.method == Method::sgbm;
    rig.lit_white = 180 * options.exposure;
    return rig;
}

} // namespace sim
} // namespace vexo
