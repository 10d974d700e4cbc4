#include "host/cameras/geometry.h"

#include "base/failure.h"

#include <opencv2/core.hpp>

#include <cmath>

namespace vexo {

namespace {

cv::Vec3d point_at(iStereoCamera& camera, int x, int y, double disparity)
{
    cv::Vec3d xyz;
    camera.get3dposition(xyz.val, x, y, disparity);
    return xyz;
}

} // namespace

Geometry probe_geometry(iStereoCamera& camera)
{
    int width = 0, height = 0;
    camera.get_outimage_size(&width, &height);
    // Two disparities on either side of infinity cannot both be at it.
    constexpr double d0 = -100.0, d1 = 100.0, d2 = 300.0;
    Geometry g;
    const double inverse0 = 1.0 / point_at(camera, 0, 0, d0)[2];
    const double inverse1 = 1.0 / point_at(camera, 0, 0, d1)[2];
    g.slope = (inverse1 - inverse0) / (d1 - d0);
    g.offset = inverse0 - g.slope * d0;

    const double d = std::isfinite(point_at(camera, 0, 0, d1)[2]) ? d1 : d0;
    const cv::Vec3d origin = point_at(camera, 0, 0, d), right = point_at(camera, width - 1, 0, d);
    g.f = (width - 1) * origin[2] / (right[0] - origin[0]);
    g.cx = -g.f * origin[0] / origin[2];
    g.cy = -g.f * origin[1] / origin[2];

    bool holds = std::isfinite(g.f) && std::isfinite(g.slope) && g.slope != 0.0;
    for (const cv::Point pixel : { cv::Point(0, 0), cv::Point(width - 1, height - 1), cv::Point(0, height - 1) }) {
        const double inverse = 1.0 / point_at(camera, pixel.x, pixel.y, d2)[2];
        holds = holds && std::abs(inverse - (g.slope * d2 + g.offset)) <= 1e-9 * std::abs(inverse);
    }
    if (!holds)
        throw Failure("the stereo camera's points do not lie in the axes of rectified camera 0; use a set "
                      "that was stored without a board frame");
    return g;
}

} // namespace vexo
