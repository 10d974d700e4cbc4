#pragma once

#include "camera/stereo_camera.h"
#include "camera/stereo_construction.h"
#include "vexo/owned.h"
#include "vexo/point_cloud.h"

#include <opencv2/core.hpp>

#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

/// A small ideal rig for the matchers' tests: two cameras without distortion, 50 mm apart, and a projector
/// between them, looking at the plane Z = 500 mm + 0.2 X.
namespace rig {

constexpr int width = 160;
constexpr int height = 120;
constexpr double focal_px = 200.0;
constexpr double baseline_mm = 50.0;
constexpr double period_px = 8.0; ///< of the gray code + phase pattern, in projector px

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

/// Depth of the plane at a lateral position, mm.
inline double plane_depth(double x_mm)
{
    return 500.0 + 0.2 * x_mm;
}

/// Projector column, in edge coordinates (px), that lights what camera `cam` sees in column u.
inline double projector_column(int cam, double u)
{
    const double slope = (u - width / 2.0) / focal_px, origin = cam * baseline_mm;
    const double z = plane_depth(origin) / (1.0 - 0.2 * slope);
    const double x = origin + z * slope;
    return 512.0 + 250.0 * (x - 25.0) / z;
}

/// An image of which every row is alike.
template <class Grey> cv::Mat columns_image(Grey grey)
{
    cv::Mat_<uchar> image(height, width);
    for (int u = 0; u < width; ++u)
        image.col(u) = cv::saturate_cast<uchar>(grey(u));
    return image;
}

/// The 13 frames of gray code + phase of one camera.
inline std::vector<cv::Mat> gray_phase_frames(int cam)
{
    std::vector<cv::Mat> frames { columns_image([](int) { return 20; }), columns_image([](int) { return 220; }) };
    for (int bit = 64; bit > 0; bit /= 2)
        frames.push_back(columns_image([&](int u) {
            const int code = static_cast<int>(std::floor(projector_column(cam, u) / period_px));
            return ((code ^ (code >> 1)) & bit) != 0 ? 220 : 20;
        }));
    for (int k = 0; k < 4; ++k)
        frames.push_back(columns_image([&](int u) {
            return 120 + 100 * std::cos(2 * CV_PI * projector_column(cam, u) / period_px - k * CV_PI / 2);
        }));
    return frames;
}

/// The 14 frames of multi-period phase of one camera, four steps of three periods.
inline std::vector<cv::Mat> multi_phase_frames(int cam, std::array<int, 3> periods = { 9, 10, 11 })
{
    std::vector<cv::Mat> frames { columns_image([](int) { return 20; }), columns_image([](int) { return 220; }) };
    for (const int period : periods)
        for (int s = 0; s < 4; ++s)
            frames.push_back(columns_image([&](int u) {
                return 120 - 100 * std::cos(2 * CV_PI * projector_column(cam, u) / period + s * CV_PI / 2);
            }));
    return frames;
}

/// Gives all frames of both cameras. @return whether each was taken
template <class Matcher, class Frames> bool put_frames(Matcher& matcher, Frames frames_of)
{
    bool taken = true;
    for (int cam = 0; cam < 2; ++cam) {
        std::vector<cv::Mat> frames = frames_of(cam);
        for (std::size_t i = 0; i < frames.size(); ++i)
            taken = matcher.setpict(frames[i].data, frames[i].step[0], cam, static_cast<int>(i)) && taken;
    }
    return taken;
}

/// What a host is handed, copied.
struct Cloud : vexo::PointCloudCallback {
    cv::Mat texture;
    std::vector<cv::Point3f> points;
    int width = -1, height = -1, count = -1, calls = 0;
    bool texture_given = false;

    void receive(unsigned char* pixels, std::size_t step, int w, int h, cv::Point3_<float>* p, int n) override
    {
        ++calls;
        width = w;
        height = h;
        count = n;
        texture_given = pixels != nullptr;
        texture = texture_given ? cv::Mat(h, w, CV_8U, pixels, step).clone() : cv::Mat();
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

inline bool same_bits(const std::vector<cv::Point3f>& a, const std::vector<cv::Point3f>& b)
{
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(cv::Point3f)) == 0;
}

/// Error of a point's depth against the plane, mm.
inline double depth_error(const cv::Point3f& p)
{
    return static_cast<double>(p.z) - plane_depth(static_cast<double>(p.x));
}

} // namespace rig
