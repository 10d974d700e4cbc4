#include "host/cameras/rectification.h"

#include "base/failure.h"

#include <opencv2/calib3d.hpp>

namespace vexo {

Rectification rectify(
    const std::array<CalibratedCamera, 2>& cameras, cv::Size input, double alpha, int flags, cv::Size output)
{
    const cv::Matx33d R = cameras[1].R * cameras[0].R.t();
    const cv::Vec3d T = cameras[1].T - R * cameras[0].T;
    cv::Mat R0, R1, P0, P1, Q;
    cv::stereoRectify(
        cameras[0].K, cameras[0].D, cameras[1].K, cameras[1].D, input, R, T, R0, R1, P0, P1, Q, flags, alpha, output);
    return { cv::Matx33d(R0.ptr<double>()), cv::Matx33d(R1.ptr<double>()), cv::Matx34d(P0.ptr<double>()),
        cv::Matx34d(P1.ptr<double>()), cv::norm(T) };
}

cv::Mat rectified(iStereoCamera& camera, const cv::Mat& raw, int which)
{
    int width = 0, height = 0;
    camera.get_outimage_size(&width, &height);
    cv::Mat out(height, width, CV_8U, cv::Scalar(0));
    if (!camera.remap(raw.data, raw.step, out.data, out.step, which))
        throw Failure("the stereo camera has no rectification tables");
    return out;
}

} // namespace vexo
