#include "host/cameras/rectification.h"

#include "base/failure.h"

#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

/// Positions along one axis, by pictures that go through the camera's own rectification: a ramp over the whole picture,
/// and two steep saw-teeth, a quarter apart so that one of them is always away from its tips.
class Axis {
public:
    Axis(iStereoCamera& camera, cv::Size raw, int which, bool along_x)
        : _length(along_x ? raw.width : raw.height)
    {
        while (_period < _length / 40)
            _period *= 2;
        const auto seen = [&](const auto& value) {
            cv::Mat line(along_x ? 1 : _length, along_x ? _length : 1, CV_8U), picture;
            for (int i = 0; i < _length; ++i)
                line.data[i] = static_cast<uchar>(value(i));
            cv::repeat(line, raw.height / line.rows, raw.width / line.cols, picture);
            return rectified(camera, picture, which);
        };
        _ramp = seen([&](int i) { return 1 + i * 254 / std::max(1, _length - 1); });
        for (int k = 0; k < 2; ++k)
            _teeth[k] = seen([&](int i) {
                const int within = (i + k * _period / 4) % _period;
                return std::min(within, _period - within) * _slope();
            });
    }

    /// NaN outside the raw picture, which rectified() leaves black.
    double at(int y, int x) const
    {
        if (_ramp.at<uchar>(y, x) == 0) return std::nan("");
        const double about = (_ramp.at<uchar>(y, x) - 1) * (_length - 1) / 254.0;
        const int half = _period / 4 * _slope(), first = _teeth[0].at<uchar>(y, x), second = _teeth[1].at<uchar>(y, x);
        const bool by_first = std::abs(first - half) < std::abs(second - half);
        const double height = 1.0 * (by_first ? first : second) / _slope(), shift = by_first ? 0 : _period / 4;
        const auto nearest = [&](double i) { return i + _period * std::round((about - i) / _period); };
        const double up = nearest(height - shift), down = nearest(-height - shift);
        return std::abs(up - about) < std::abs(down - about) ? up : down;
    }

private:
    int _slope() const { return 480 / _period; }

    int _length, _period = 32;
    cv::Mat _ramp, _teeth[2];
};

} // namespace

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

cv::Mat raw_positions(iStereoCamera& camera, cv::Size raw, int which, int every)
{
    const Axis x(camera, raw, which, true), y(camera, raw, which, false);
    int width = 0, height = 0;
    camera.get_outimage_size(&width, &height);
    cv::Mat positions(height / every, width, CV_32FC2);
    for (int row = 0; row < positions.rows; ++row)
        for (int column = 0; column < width; ++column)
            positions.at<cv::Vec2f>(row, column)
                = { static_cast<float>(x.at(row * every, column)), static_cast<float>(y.at(row * every, column)) };
    return positions;
}

} // namespace vexo
