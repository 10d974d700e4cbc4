#pragma once

#include "camera/stereo_camera.h"
#include "camera/stereo_construction.h"
#include "sim/render.h"
#include "vexo/owned.h"
#include "vexo/point_cloud.h"

#include <cmath>
#include <vector>

/// A small ideal rig for the matchers' tests: two cameras without distortion, 50 mm apart, and a projector between
/// them, looking at the plane Z = 500 mm + 0.2 X.
namespace rig {

constexpr int width = 160;
constexpr int height = 120;
constexpr double focal_px = 200.0;
constexpr double baseline_mm = 50.0;

using Camera = vexo::Owned<vexo::StereoCamera>;
using vexo::Owned;

/// @param fill      grey of rectified pixels without a source
/// @param toe_in    rad, rotation of camera 1 about y: with it parts of the rectified images have no source
inline Camera make_camera(
    unsigned char fill = 0, double toe_in = 0.0, cv::Size output = {}, cv::Size input = { width, height })
{
    const double K[] = { focal_px, 0, input.width / 2.0, 0, focal_px, input.height / 2.0, 0, 0, 1 };
    const double D[] = { 0, 0, 0, 0, 0 };
    const double c = std::cos(toe_in), s = std::sin(toe_in);
    const double R[] = { c, 0, s, 0, 1, 0, -s, 0, c };
    const double T[] = { -baseline_mm * c, 0, baseline_mm * s };
    vexo::StereoCameraParam param;
    param.inp_width = input.width;
    param.inp_height = input.height;
    param.out_width = output.width;
    param.out_height = output.height;
    param.flags = 1024; // equal principal points
    param.fill0 = param.fill1 = fill;
    return Camera(vexo::create_StereoCamera_from_raw(K, D, K, D, R, T, &param));
}

/// The virtual rig with these cameras, its frame that of camera 0.
inline vexo::sim::Rig virtual_rig()
{
    vexo::sim::RigOptions options;
    options.distance_mm = 500;
    options.noise = 0;
    options.projector_size = { 256, 192 };
    vexo::sim::Rig rig = make_rig(options);
    const auto eye = [](double x_mm, double f, cv::Size size) -> vexo::sim::Camera {
        return { size, { f, 0, size.width / 2.0, 0, f, size.height / 2.0, 0, 0, 1 }, {}, cv::Matx33d::eye(),
            { -x_mm, 0, 0 } };
    };
    rig.cameras = { eye(0, focal_px, { width, height }), eye(baseline_mm, focal_px, { width, height }) };
    rig.projector = eye(baseline_mm / 2, 250, options.projector_size);
    return rig;
}

/// The frames of a method's pattern as a camera sees the plane under it.
inline std::vector<cv::Mat> frames(int cam, vexo::Method method)
{
    static vexo::sim::Rig rig = virtual_rig();
    static const vexo::sim::Scene plane = [] {
        vexo::sim::Scene scene;
        const cv::Vec3d along(1 / std::sqrt(1.04), 0, 0.2 / std::sqrt(1.04));
        scene.add(std::make_unique<vexo::sim::Rectangle>(cv::Vec3d(0, 0, 500), along, cv::Vec3d(0, 1, 0), 1e4, 1e4));
        return scene;
    }();
    static const vexo::sim::View views[] = { { plane, rig, 0 }, { plane, rig, 1 } };
    rig.options.method = method;
    std::vector<cv::Mat> all;
    for (const vexo::sim::ProjectedRow& row : project(pattern_of(rig.options), rig.options))
        all.push_back(views[cam].picture(row, static_cast<int>(all.size())));
    return all;
}

/// The 13 frames of gray code + phase of one camera.
inline std::vector<cv::Mat> gray_phase_frames(int cam)
{
    return frames(cam, vexo::Method::gray_phase);
}

/// The 14 frames of multi-period phase of one camera, four steps of three periods.
inline std::vector<cv::Mat> multi_phase_frames(int cam)
{
    return frames(cam, vexo::Method::multi_phase);
}

/// Gives all frames of both cameras. @return whether each was taken
template <class Matcher, class Frames> bool put_frames(Matcher& matcher, Frames frames_of)
{
    bool taken = true;
    for (int cam = 0; cam < 2; ++cam) {
        int index = 0;
        for (const cv::Mat& frame : frames_of(cam))
            taken = matcher.setpict(frame.data, frame.step[0], cam, index++) && taken;
    }
    return taken;
}

/// What getpict() hands out.
struct Picture {
    template <class Matcher>
    Picture(Matcher& matcher, int cam, int frame)
        : given(matcher.getpict(&data, &width, &height, &step, cam, frame))
    {
    }
    uchar at(int y, int x) const { return data[static_cast<std::size_t>(y) * step + static_cast<std::size_t>(x)]; }

    unsigned char* data = nullptr;
    int width = 0, height = 0;
    unsigned long step = 0;
    bool given;
};

/// What a host is handed, copied.
struct Cloud : vexo::PointCloudCallback {
    cv::Mat texture;
    std::vector<cv::Point3f> points;
    int width = -1, height = -1, count = -1, calls = 0;

    void receive(unsigned char* pixels, std::size_t step, int w, int h, cv::Point3_<float>* p, int n) override
    {
        ++calls;
        width = w;
        height = h;
        count = n;
        texture = pixels != nullptr ? cv::Mat(h, w, CV_8U, pixels, step).clone() : cv::Mat();
        points.assign(p, p + static_cast<std::ptrdiff_t>(w) * h);
    }
};

template <class Matcher> Cloud cloud_of(Matcher& matcher)
{
    Cloud cloud;
    matcher.get_pointcloud(&cloud);
    return cloud;
}

/// Without the last row and column: the identity rectification finds no fourth neighbour there.
inline cv::Mat inner(const cv::Mat& image)
{
    return image(cv::Rect(0, 0, image.cols - 1, image.rows - 1));
}

} // namespace rig
