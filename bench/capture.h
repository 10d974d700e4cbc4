#pragma once

#include <opencv2/core.hpp>

#include <array>
#include <memory>
#include <vector>

#include "camera/stereo_camera.h"
#include "patterns/method.h"
#include "vexo/owned.h"
#include "vexo/point_cloud.h"

/// Frames of the virtual rig, and the library's objects around them, for the benchmarks.
namespace bench {

using Camera = vexo::Owned<vexo::StereoCamera>;
using vexo::Method;
using vexo::Owned;

/// What both cameras recorded of a ball before a wall.
struct Capture {
    Method method;
    cv::Size size;                              ///< px
    std::array<std::vector<cv::Mat>, 2> frames; ///< per camera, in capture order; one frame each for sgbm
    Camera camera;

    int frames_per_camera() const { return static_cast<int>(frames[0].size()); }
    double pixels() const { return static_cast<double>(size.area()); }
};

/// Renders, or reads what an earlier run rendered into the folder for temporary files.
Capture make_capture(Method method, cv::Size size);

/// A generator of the capture's method with its parameters set and the camera bound; null on failure.
Owned<vexo::iPointCloudGenerator> make_generator(const Capture& capture);

/// setpict() of all frames. @return whether each was taken
bool put_frames(vexo::iPointCloudGenerator& generator, const Capture& capture);

/// Frames to cloud. @return the number of points
int run_chain(vexo::iPointCloudGenerator& generator, const Capture& capture);

} // namespace bench
