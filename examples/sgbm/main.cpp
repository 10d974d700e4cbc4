// Block matching on a rectified pair with ground truth, against OpenCV run directly and against the truth.
//
//   sgbm [DATA_DIR]       DATA_DIR: aloeL.jpg, aloeR.jpg, aloeGT.png; Debian's package opencv-doc installs them
//                         (Middlebury stereo 2006: f 3740 px, baseline 160 mm, truth in px of disparity, 0: unknown)
#include <vexo/vexo.h>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgcodecs.hpp> // a host reads its pictures as it likes; the library uses none of it

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

constexpr double f = 3740.0;       // px
constexpr double baseline = 160.0; // mm
constexpr float none = -1.0F;

using Camera = vexo::Owned<vexo::iStereoCamera>;
using Generator = vexo::Owned<vexo::iPointCloudGenerator>;

/// A pair whose rectification changes nothing: two equal cameras without distortion, side by side, with the
/// principal point in the middle of the picture and kept the same in both (flag 1024). Then every rectified pixel
/// is its raw pixel, and points at infinity have disparity 0.
Camera rectified_pair(cv::Size size)
{
    const double K[9] = { f, 0, 0.5 * (size.width - 1), 0, f, 0.5 * (size.height - 1), 0, 0, 1 };
    const double D[5] = {}, R[9] = { 1, 0, 0, 0, 1, 0, 0, 0, 1 }, T[3] = { -baseline, 0, 0 };
    vexo::StereoCameraParam param;
    param.inp_width = size.width;
    param.inp_height = size.height;
    param.flags = cv::CALIB_ZERO_DISPARITY;
    return Camera(vexo::CreateStereoCameraFromRaw(K, D, K, D, R, T, &param));
}

/// The rectified picture; empty when it is not the raw one. Only the last column and row, whose right and lower
/// neighbours lie outside, come out in the fill colour.
cv::Mat rectified(vexo::iStereoCamera& camera, const cv::Mat& picture, int which)
{
    cv::Mat out(picture.size(), CV_8U, cv::Scalar(0));
    if (!camera.remap(picture.data, picture.step, out.data, out.step, which)) return {};
    const cv::Rect inner(0, 0, picture.cols - 1, picture.rows - 1);
    return cv::norm(out(inner), picture(inner), cv::NORM_INF) == 0 ? out : cv::Mat();
}

/// Receives the cloud and turns depths back into disparities, d = f b / Z, in OpenCV's sixteenths of a pixel.
struct Disparities : vexo::PointCloudCallback {
    cv::Mat_<float> map;
    void receive(unsigned char*, std::size_t, int width, int height, cv::Point3f* points, int) override
    {
        map.create(height, width);
        for (float& d : map) {
            const double z = (points++)->z;
            d = std::isnan(z) ? none : static_cast<float>(std::round(16.0 * f * baseline / z) / 16.0);
        }
    }
};

cv::Mat_<float> by_library(vexo::iStereoCamera& camera, vexo::SGBMatchingParam param, const cv::Mat pictures[2])
{
    const Generator generator(vexo::CreatePointCloudGenerator(0));
    generator->init(&camera);
    if (!generator->setparams(&param)) return {};
    for (int cam = 0; cam < 2; ++cam) {
        if (!generator->setpict(pictures[cam].data, pictures[cam].step, cam, 0)) return {};
    }
    if (!generator->exec()) return {};
    generator->genPC(vexo::iPointCloudGenerator::MethodQ, false);
    Disparities disparities;
    generator->get_pointcloud(&disparities);
    return disparities.map;
}

cv::Mat_<float> by_opencv(const vexo::SGBMatchingParam& p, const cv::Mat pictures[2])
{
    const int area = p.blockSize * p.blockSize;
    cv::Mat sixteenths, map;
    cv::StereoSGBM::create(p.minDisparity, p.numDisparities, p.blockSize, 8 * area, 32 * area, p.disp12MaxDiff,
        p.preFilterCap, p.uniquenessRatio, p.speckleWindowSize, p.speckleRange, p.mode)
        ->compute(pictures[0], pictures[1], sixteenths);
    sixteenths.convertTo(map, CV_32F, 1.0 / 16.0);
    map.setTo(none, map <= 0); // a disparity of 0 lies at infinity and gives no point
    return map;
}

struct Figures {
    double density = 0.0; ///< share of the pixels with known truth that were measured
    double median = 0.0;  ///< of the errors' sizes, px
};

Figures against_truth(const cv::Mat_<float>& map, const cv::Mat_<uchar>& truth)
{
    std::vector<float> errors;
    for (int y = 0; y < truth.rows; ++y)
        for (int x = 0; x < truth.cols; ++x)
            if (truth(y, x) > 0 && map(y, x) > 0.0F) errors.push_back(std::abs(map(y, x) - truth(y, x)));
    if (errors.empty()) return {};
    const auto middle = errors.begin() + static_cast<std::ptrdiff_t>(errors.size() / 2);
    std::nth_element(errors.begin(), middle, errors.end());
    return { static_cast<double>(errors.size()) / cv::countNonZero(truth), *middle };
}

void print(const char* what, const Figures& figures)
{
    std::printf("%-25s %6.2f %%     %.4f px\n", what, 100.0 * figures.density, figures.median);
}

int fail(const std::string& what)
{
    std::fprintf(stderr, "%s\n", what.c_str());
    return 1;
}

int main(int argc, char** argv)
{
    const std::string folder = argc > 1 ? argv[1] : "/usr/share/doc/opencv-doc/examples/data";
    const cv::Mat pictures[2] = { cv::imread(folder + "/aloeL.jpg", cv::IMREAD_GRAYSCALE),
        cv::imread(folder + "/aloeR.jpg", cv::IMREAD_GRAYSCALE) };
    const cv::Mat_<uchar> truth = cv::imread(folder + "/aloeGT.png", cv::IMREAD_GRAYSCALE);
    const cv::Size size = truth.size();
    if (truth.empty() || pictures[0].size() != size || pictures[1].size() != size)
        return fail(folder + ": no aloeL.jpg, aloeR.jpg, aloeGT.png; they come with Debian's opencv-doc");

    const Camera camera = rectified_pair(size);
    if (!camera) return fail("the library makes no camera pair");
    const cv::Mat pair[2] = { rectified(*camera, pictures[0], 0), rectified(*camera, pictures[1], 1) };
    if (pair[0].empty() || pair[1].empty()) return fail("the rectification changes the pictures");

    const vexo::SGBMatchingParam param; // the library's defaults: disparities 0 to 255, block 5
    const cv::Mat_<float> library = by_library(*camera, param, pictures);
    if (library.empty()) return fail("the library refused the pictures");
    const cv::Mat_<float> opencv = by_opencv(param, pair);
    std::printf("                           density   median error\n");
    print("library", against_truth(library, truth));
    print("OpenCV, rectified pair", against_truth(opencv, truth));
    print("OpenCV, the files", against_truth(by_opencv(param, pictures), truth));
    const int differing = cv::countNonZero(library != opencv);
    std::printf("library and OpenCV differ at %d of %d pixels\n", differing, size.area());
    return differing == 0 ? 0 : 1;
}
