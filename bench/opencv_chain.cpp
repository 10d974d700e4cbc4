#include "opencv_chain.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace bench {
namespace {

constexpr float no_disparity = -10000.0F;
constexpr int min_contrast = 16;

/// Whole period number from the seven bit planes, most significant first.
int period_of(const std::vector<cv::Mat>& frames, int y, int x, int threshold)
{
    int bit = 0, code = 0;
    for (std::size_t k = 2; k < 9; ++k) {
        bit ^= frames[k].at<uchar>(y, x) > threshold ? 1 : 0;
        code = 2 * code + bit;
    }
    return code;
}

/// Period number and phase as one number. Where both jump at slightly different pixels the number is put right by
/// the grey of the finest stripes: near 0 and 1 of the phase it may be one off.
void absolute_phase_row(const std::vector<cv::Mat>& frames, int y, float* out)
{
    for (int x = 0; x < frames[0].cols; ++x) {
        const int dark = frames[0].at<uchar>(y, x), lit = frames[1].at<uchar>(y, x);
        out[x] = -1.0F;
        if (lit - dark < min_contrast) continue;
        const int code = period_of(frames, y, x, (dark + lit) / 2);
        const float sine = static_cast<float>(frames[10].at<uchar>(y, x) - frames[12].at<uchar>(y, x));
        const float cosine = static_cast<float>(frames[9].at<uchar>(y, x) - frames[11].at<uchar>(y, x));
        const float turn = std::atan2(sine, cosine) / static_cast<float>(2 * CV_PI);
        out[x] = static_cast<float>(code) + (turn < 0 ? turn + 1.0F : turn);
    }
}

} // namespace

OpenCvChain::OpenCvChain(const Capture& capture)
    : _capture(&capture)
    , _map_x { capture.camera->cam0.map1, capture.camera->cam1.map1 }
    , _map_y { capture.camera->cam0.map2, capture.camera->cam1.map2 }
{
    for (auto& rectified : _rectified)
        rectified.resize(capture.frames[0].size());
}

void OpenCvChain::rectify()
{
    for (std::size_t cam = 0; cam < 2; ++cam)
        for (std::size_t k = 0; k < _rectified[cam].size(); ++k)
            cv::remap(_capture->frames[cam][k], _rectified[cam][k], _map_x[cam], _map_y[cam], cv::INTER_LINEAR,
                cv::BORDER_CONSTANT);
}

void OpenCvChain::decode(int cam)
{
    const auto& frames = _rectified[static_cast<std::size_t>(cam)];
    cv::Mat& phase = _phase[static_cast<std::size_t>(cam)];
    phase.create(frames[0].size(), CV_32F);
    cv::parallel_for_(cv::Range(0, phase.rows), [&](const cv::Range& rows) {
        for (int y = rows.start; y < rows.end; ++y)
            absolute_phase_row(frames, y, phase.ptr<float>(y));
    });
}

/// For each pixel the nearest phase of the other row, and a straight line to its neighbour.
void OpenCvChain::match_row(int row)
{
    const float *left = _phase[0].ptr<float>(row), *right = _phase[1].ptr<float>(row);
    const int cols = disparity.cols;
    std::vector<std::pair<float, int>> sorted;
    for (int x = 0; x < cols; ++x)
        if (right[x] >= 0) sorted.emplace_back(right[x], x);
    std::sort(sorted.begin(), sorted.end());
    float* out = disparity.ptr<float>(row);
    for (int x = 0; x < cols; ++x) {
        out[x] = no_disparity;
        if (left[x] < 0) continue;
        const auto above = std::lower_bound(sorted.begin(), sorted.end(), std::make_pair(left[x], 0));
        if (above == sorted.begin() || above == sorted.end()) continue;
        const auto below = above - 1;
        if (above->second - below->second != 1 || above->first - below->first > 0.5F) continue;
        const float part = (left[x] - below->first) / (above->first - below->first);
        out[x] = static_cast<float>(x) - (static_cast<float>(below->second) + part);
    }
}

int OpenCvChain::run()
{
    rectify();
    decode(0);
    decode(1);
    disparity.create(_phase[0].size(), CV_32F);
    cv::parallel_for_(cv::Range(0, disparity.rows), [&](const cv::Range& rows) {
        for (int y = rows.start; y < rows.end; ++y)
            match_row(y);
    });
    cv::reprojectImageTo3D(disparity, points, _capture->camera->Q);
    return cv::countNonZero(disparity > no_disparity);
}

} // namespace bench
