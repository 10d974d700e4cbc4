#pragma once

#include "base/plain_yaml.h"
#include "camera/camera_distort.h"
#include "camera/stereo_construction.h"
#include "support/bits.h"
#include "support/folder.h"
#include "vexo/owned.h"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include <array>
#include <random>

/// A calibrated pair with distortion, and helpers shared by the camera tests.
namespace rig {

using Stereo = vexo::Owned<vexo::StereoCamera>;
using Pair = std::array<vexo::DistortCamera, 2>;

inline cv::Mat_<double> rotation(double x, double y, double z)
{
    cv::Mat_<double> R;
    cv::Rodrigues(cv::Vec3d(x, y, z), R);
    return R;
}

inline vexo::DistortCamera camera(const std::string& name, cv::Size size, double f, std::vector<double> D)
{
    vexo::DistortCamera cam(size, name);
    cam.K = (cv::Mat_<double>(3, 3) << f, 0, size.width / 2.0 + 3, 0, f * 1.001, size.height / 2.0 - 2, 0, 0, 1);
    if (!D.empty()) cam.D = cv::Mat_<double>(D, true).reshape(1, 1);
    cam.compose();
    return cam;
}

/// Two cameras that look at a scene 600 mm away, 160 mm apart, toed in; a vertical rig has camera 1 below.
inline Pair pair(bool vertical = false, cv::Size size = { 320, 256 })
{
    Pair cams { camera("cam0", size, 430, { -0.12, 0.09, 0.001, -0.0007, 0.01 }),
        camera("cam1", size, 436, { -0.10, 0.07, -0.0008, 0.0005, -0.02 }) };
    cams[1].R = vertical ? rotation(-0.22, 0.01, 0.015) : rotation(0.012, 0.25, -0.01);
    cams[1].T = vertical ? cv::Mat_<double>((cv::Mat_<double>(3, 1) << 2, -158, 19))
                         : cv::Mat_<double>((cv::Mat_<double>(3, 1) << -158, 1, 20));
    cams[1].compose();
    return cams;
}

inline Stereo rectify(const Pair& cams, int flags = 0, cv::Size size = { 0, 0 }, double alpha = -1)
{
    return Stereo(vexo::create_StereoCamera_from_pair(cams.data(), size, alpha, flags, 10, 20));
}

/// Gives both cameras another world: the pair itself stays the same.
inline void move_world(Pair& cams, const cv::Mat_<double>& old_from_new)
{
    for (vexo::DistortCamera& cam : cams) {
        const cv::Mat_<double> pose(cam.RT * old_from_new);
        pose(cv::Rect(0, 0, 3, 3)).copyTo(cam.R);
        pose(cv::Rect(3, 0, 1, 3)).copyTo(cam.T);
        cam.compose();
    }
}

inline cv::Mat_<double> pose(const cv::Mat_<double>& R, const cv::Vec3d& t)
{
    cv::Mat_<double> RT(cv::Mat_<double>::eye(4, 4));
    R.copyTo(RT(cv::Rect(0, 0, 3, 3)));
    for (int r = 0; r < 3; ++r)
        RT(r, 3) = t[r];
    return RT;
}

inline cv::Vec3d moved(const cv::Mat_<double>& RT, const cv::Vec3d& x)
{
    cv::Vec3d y;
    for (int r = 0; r < 3; ++r)
        y[r] = RT(r, 0) * x[0] + RT(r, 1) * x[1] + RT(r, 2) * x[2] + RT(r, 3);
    return y;
}

/// Points in front of rectified camera 0 that both cameras see.
inline std::vector<cv::Vec3d> points(int count)
{
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(-1, 1);
    std::vector<cv::Vec3d> list;
    for (int i = 0; i < count; ++i)
        list.emplace_back(60 + 60 * u(rng), 50 * u(rng), 600 + 80 * u(rng));
    return list;
}

inline double max_difference(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() ? cv::norm(a, b, cv::NORM_INF) : HUGE_VAL;
}

/// A folder of the test's own.
class Folder : public testing::Test {
protected:
    std::string path(const std::string& file) const { return _folder / file; }
    static bool exists(const std::string& file) { return std::filesystem::exists(file); }

private:
    ::Folder _folder;

protected:
    const std::string folder = _folder / "";
};

/// YAML text of whatever saves itself into a storage.
template <class Camera> std::string yaml(Camera& camera)
{
    cv::FileStorage fs = vexo::memory_yaml();
    EXPECT_TRUE(camera.save(&fs));
    return fs.releaseAndGetString();
}

template <class Camera> bool load_text(Camera& camera, const std::string& text)
{
    cv::FileStorage fs(text, cv::FileStorage::READ | cv::FileStorage::MEMORY);
    return camera.load(&fs);
}

} // namespace rig

inline bool same_bits(const vexo::PinHoleCamera& a, const vexo::PinHoleCamera& b)
{
    return a.size == b.size && a.name == b.name && same_bits(a.K, b.K) && same_bits(a.R, b.R) && same_bits(a.T, b.T)
        && same_bits(a.P, b.P) && same_bits(a.P_inv, b.P_inv) && same_bits(a.RT, b.RT) && same_bits(a.RT_inv, b.RT_inv);
}

inline bool same_bits(const vexo::UndistortCamera& a, const vexo::UndistortCamera& b)
{
    return same_bits(static_cast<const vexo::PinHoleCamera&>(a), static_cast<const vexo::PinHoleCamera&>(b))
        && same_bits(a.map1, b.map1) && same_bits(a.map2, b.map2) && a.roi == b.roi && a.fill == b.fill;
}

inline bool same_bits(const vexo::StereoCamera& a, const vexo::StereoCamera& b)
{
    return a.name == b.name && a.input_size == b.input_size && a.output_size == b.output_size
        && same_bits(a.cam0, b.cam0) && same_bits(a.cam1, b.cam1) && same_bits(a.cam0_R2, b.cam0_R2)
        && same_bits(a.cam1_R2, b.cam1_R2) && same_bits(a.Q, b.Q) && same_bits(a.T, b.T);
}
