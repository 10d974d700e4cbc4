#include "host/captures/depth.h"

namespace vexo {

int largest_grey(const cv::Mat& frame)
{
    double most = 0;
    if (!frame.empty()) cv::minMaxLoc(frame, nullptr, &most);
    return static_cast<int>(most);
}

int bits_of(int largest)
{
    for (const int bits : { common_bits, 10, 12, 14 })
        if (largest < 1 << bits) return bits;
    return 16;
}

cv::Mat to_common_bits(const cv::Mat& frame, int bits)
{
    if (frame.empty()) return {};
    cv::Mat scaled;
    frame.convertTo(scaled, CV_8U, 255.0 / ((1 << bits) - 1)); // rounds to nearest
    return scaled;
}

} // namespace vexo
