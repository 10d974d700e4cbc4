#include "host/measurement/disparity_range.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <map>

namespace vexo {

namespace {

constexpr double bin_px = 8.0;

constexpr double least_count = 8.0;

/// A picture `small_width` px wide, between two margins that match nothing in particular.
cv::Mat small_copy(const cv::Mat& picture, cv::Size size, int margin)
{
    cv::Mat small;
    cv::resize(picture, small, size, 0, 0, cv::INTER_AREA);
    cv::copyMakeBorder(small, small, 0, 0, margin, margin, cv::BORDER_CONSTANT);
    return small;
}

/// Smallest and largest whole disparity, a multiple of 16 apart, of points before the cameras in a small picture
/// of `width` px: from infinity up to where the pictures would overlap by a quarter.
std::pair<int, int> possible_range(const Geometry& geometry, double scale, int width)
{
    const double infinity = geometry.disparity(1e12) * scale;
    const double near = geometry.slope > 0.0 ? 0.75 * width : -0.75 * width;
    const double low = std::max(std::min(infinity, near), -1.0 * width);
    const double high = std::min(std::max(infinity, near), 1.0 * width);
    const int first = static_cast<int>(std::floor(low)) - 1;
    return { first, std::max(16, (static_cast<int>(std::ceil(high)) - first + 16) / 16 * 16) };
}

} // namespace

std::optional<std::pair<double, double>> occupied_range(const std::vector<float>& disparities, double least_share)
{
    std::map<long, double> counts;
    long bin = 0;
    double* count = nullptr; // of `bin`: neighbours mostly share it, and looking it up takes long
    for (const float d : disparities) {
        const long own = std::lround(std::floor(static_cast<double>(d) / bin_px));
        if (count == nullptr || own != bin) count = &counts[bin = own];
        ++*count;
    }
    if (counts.empty()) return std::nullopt;

    const double enough = std::max(least_count, least_share * static_cast<double>(disparities.size()));
    const auto occupied = [enough](const auto& bin) { return bin.second >= enough; };
    auto first = std::find_if(counts.begin(), counts.end(), occupied);
    auto last = std::find_if(counts.rbegin(), counts.rend(), occupied);
    if (first == counts.end()) {
        first = counts.begin();
        last = counts.rbegin();
    }
    const double low = static_cast<double>(first->first) * bin_px, high = static_cast<double>(last->first + 1) * bin_px;
    const double margin = std::max(bin_px, std::ceil(0.05 * (high - low)));
    return std::make_pair(low - margin, high + margin);
}

std::optional<std::pair<double, double>> matching_range(
    const cv::Mat& rectified0, const cv::Mat& rectified1, const Geometry& geometry)
{
    constexpr int largest_width = 240, block = 5;
    const double scale = std::min(1.0, 1.0 * largest_width / rectified0.cols);
    const cv::Size size(std::max(8, cvRound(rectified0.cols * scale)), std::max(8, cvRound(rectified0.rows * scale)));
    const auto [first, count] = possible_range(geometry, scale, size.width);
    const int margin = std::abs(first) + count;

    cv::Mat sixteenths;
    cv::StereoSGBM::create(first, count, block, 8 * block * block, 32 * block * block, 1, 31, 20, 50, 1)
        ->compute(small_copy(rectified0, size, margin), small_copy(rectified1, size, margin), sixteenths);
    std::vector<float> disparities;
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
            const double d = sixteenths.at<short>(y, x + margin) / 16.0;
            if (d < first || x - d < 0.0 || x - d > size.width - 1.0) continue;
            disparities.push_back(static_cast<float>(d / scale));
        }
    }
    constexpr double least_share = 2e-3; // block matching scatters more wrong matches than phases do
    return occupied_range(disparities, least_share);
}

} // namespace vexo
