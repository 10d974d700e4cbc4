#pragma once

#include "run.h"
#include "support/plane_rig.h"

#include "base/plain_yaml.h"
#include "vexo/vexo.h"

#include <opencv2/imgcodecs.hpp>

namespace hard {

using vexo::Owned;

constexpr int width = 48, height = 36; ///< of the pictures in the sample files

/// Pair with lens distortion, the sample files' own.
inline rig::Camera sample_camera()
{
    return rig::make_camera(7, 0.05, {}, { width, height });
}

inline vexo::StereoCameraParam sample_param()
{
    vexo::StereoCameraParam param;
    param.inp_width = width;
    param.inp_height = height;
    return param;
}

inline cv::Mat sample_picture()
{
    cv::Mat_<uchar> picture(height, width);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            picture(y, x) = static_cast<uchar>(5 * x + 3 * y);
    return picture;
}

/// One good file of every format that the library reads. @return whether all were written
inline bool write_samples(const Folder& folder)
{
    rig::Camera stereo = sample_camera();
    if (!stereo) return false;
    stereo->cam0.map_file = folder / "map0.bin";
    stereo->cam1.map_file = folder / "map1.bin";
    cv::FileStorage pair = vexo::memory_yaml(), yaml = vexo::memory_yaml();
    cv::FileStorage transform = vexo::memory_yaml();
    vexo::DistortCamera cams[2] = { { { width, height }, "cam0" }, { { width, height }, "cam1" } };
    for (vexo::DistortCamera& cam : cams) {
        cam.K = (cv::Mat_<double>(3, 3) << 60, 0, 24, 0, 60, 18, 0, 0, 1);
        cam.D = (cv::Mat_<double>(1, 5) << -0.1, 0.02, 0.001, -0.001, 0.0);
        cam.T(0) = cam.name == "cam1" ? -50 : 0;
        cam.compose();
        if (!cam.save(&pair)) return false;
    }
    cv::write(transform, "RT", (cv::Mat_<double>(4, 4) << 0, -1, 0, 5, 1, 0, 0, 6, 0, 0, 1, 7, 0, 0, 0, 1));
    bool good = stereo->save(&yaml) && vexo::close_yaml(yaml, folder / "stereo.yaml")
        && vexo::close_yaml(pair, folder / "cams.yaml") && vexo::close_yaml(transform, folder / "rt.yaml")
        && vexo::store_StereoCamera_to_Hmats(
            stereo.get(), folder / "p0.hmat", folder / "p1.hmat", folder / "tables.bin");
    for (const char* name : { "picture.png", "picture.bmp", "picture.jpg", "picture.pgm", "picture.tif" })
        good = good && cv::imwrite(folder / name, sample_picture());
    return good;
}

} // namespace hard
