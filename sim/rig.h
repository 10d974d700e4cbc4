#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

#include "patterns/method.h"
#include "sim/camera.h"
#include "sim/noise.h"

namespace vexo {
namespace sim {

/// Everything that can be chosen about a simulated capture.
struct RigOptions {
    cv::Size image_size = { 1280, 1024 };    ///< px; the field of view across stays the same
    cv::Size projector_size = { 1024, 768 }; ///< px
    Method method = Method::gray_phase;      ///< what is projected; see pattern_of()
    /// Gray-phase: projector px, 2 or more; 128 must cover the projector.
    int fringe_period = default_periods(Method::gray_phase)[0];
    /// Multi-phase: projector px, three.
    std::vector<int> periods = default_periods(Method::multi_phase);
    double distance_mm = 600;              ///< from the cameras' baseline to the middle of the scene
    double baseline_mm = 160;              ///< between the optical centres
    double toe_in_deg = -1;                ///< each camera turned inwards; negative: both look at the middle
    double exposure = 1;                   ///< factor on all light; at 1 a white wall reads about 190
    double exposure_ms = 0;                ///< what capture.json says of it; 0: nothing
    double ambient = 8;                    ///< grey levels that a white surface has with the projector dark
    double noise = 1.6;                    ///< grey levels; standard deviation at grey 128, read and shot noise
    double gamma = 1;                      ///< of the projector: light = grey^gamma
    double defocus = 0.5;                  ///< projector px; standard deviation of its blur
    double tilt_deg = 8;                   ///< of the plane and the balls' table
    std::uint64_t seed = 1;                ///< of the noise
    std::array<int, 2> swapped = { 0, 0 }; ///< two frames that are projected in each other's place
    double move_mm = 0;                    ///< the scene moves by so much before the last two frames
    /// Degrees by which the scene is turned about the upright axis through its middle, clockwise seen from above:
    /// what faces camera 1's side comes to the front.
    double turned_deg = 0;
};

/// The options of one capture of a series, whose noise is not that of the others.
RigOptions with_own_noise(RigOptions options, std::size_t index);

/// The options of one capture of a series at several exposures: the same rig, noise of its own, and a time of 10 ms at
/// exposure 1.
/// @param index  of the capture in its series
RigOptions at_exposure(RigOptions options, double exposure, std::size_t index);

/// Null when the options describe a rig that can be built, else their first fault.
const char* why_invalid(const RigOptions& options) noexcept;

/// Sensor of both cameras: grey = black + light, noise variance = read^2 + shot * light (grey levels^2).
/// Source: EMVA Standard 1288, linear camera model.
struct Sensor {
    double black; ///< grey levels without light
    double read;  ///< grey levels
    double shot;  ///< grey levels^2 a grey level of light

    /// Grey level of a pixel, 8 bits, with the noise that belongs to a frame's key and the pixel's number.
    uchar grey(double light, std::uint64_t key, std::uint64_t pixel) const noexcept
    {
        const double sigma = std::sqrt(read * read + shot * light);
        const double noise = sigma > 0 ? sigma * normal_of(key, pixel) : 0;
        return static_cast<uchar>(std::floor(std::clamp(black + light + noise, 0.0, 255.0) + 0.5));
    }
};

/// Two cameras and a projector. Rig frame: origin in the middle of the baseline, x to camera 1, y down, z away from
/// the cameras; mm. Camera 0 is the left one as the cameras see it.
struct Rig {
    RigOptions options;
    std::array<Camera, 2> cameras;
    Camera projector; ///< no distortion; pixel centres at integers like a camera
    Sensor sensor;
    bool flat_light;  ///< even light from all over the front, and no projector: block matching
    double lit_white; ///< grey levels of light from a white wall that faces the projector at `distance_mm`

    double pixel_mm() const { return options.distance_mm / cameras[0].K(0, 0); } ///< at `distance_mm`
};

Rig make_rig(const RigOptions& options);

} // namespace sim
} // namespace vexo
