#include "host/clouds/shared_noise.h"

namespace vexo {

namespace {

/// What two samples have in common that are so far apart.
double between(int d)
{
    return d == 0 ? 2.0 / 3.0 : std::abs(d) == 1 ? 1.0 / 6.0 : 0.0;
}

/// The same of two lines through five samples each.
double of_lines(int dx)
{
    constexpr double t_squared = 1.0 / 12.0;
    double sum = 0.0;
    for (int i = -2; i <= 2; ++i)
        for (int j = -2; j <= 2; ++j)
            sum += (0.04 + 0.01 * t_squared * i * j) * between(dx + j - i);
    return sum;
}

/// Residuals at their pixels, NaN elsewhere.
cv::Mat picture_of(
    const std::vector<Sighted>& points, const std::vector<std::size_t>& which, const std::vector<double>& residuals)
{
    cv::Rect box;
    for (const std::size_t i : which)
        box = box.empty() ? cv::Rect(points[i].pixel, cv::Size(1, 1)) : box | cv::Rect(points[i].pixel, cv::Size(1, 1));
    cv::Mat picture(box.size(), CV_32F, cv::Scalar(std::nan("")));
    for (std::size_t k = 0; k < which.size(); ++k)
        picture.at<float>(points[which[k]].pixel - box.tl()) = static_cast<float>(residuals[k]);
    return picture;
}

/// Mean product of residuals that are so far apart; 0 where there are none.
double covariance(const cv::Mat& picture, int dx, int dy)
{
    double sum = 0.0;
    long long pairs = 0;
    for (int y = 0; y + dy < picture.rows; ++y) {
        const float *a = picture.ptr<float>(y), *b = picture.ptr<float>(y + dy);
        for (int x = std::max(0, -dx); x < picture.cols - std::max(0, dx); ++x) {
            const auto product = static_cast<double>(a[x] * b[x + dx]);
            if (!(product == product)) continue;
            sum += product;
            ++pairs;
        }
    }
    return pairs > 0 ? sum / static_cast<double>(pairs) : 0.0;
}

} // namespace

SharedNoise::SharedNoise()
{
    for (int dx = 0; dx <= columns; ++dx)
        for (int dy = 0; dy <= rows; ++dy)
            _share[static_cast<std::size_t>(dx)][static_cast<std::size_t>(dy)]
                = between(dy) * (between(dx) + of_lines(dx)) / (between(0) * (between(0) + of_lines(0)));
}

double points_as_one(
    const std::vector<Sighted>& points, const std::vector<std::size_t>& which, const std::vector<double>& residuals)
{
    constexpr int along = 6, across = 2; // px that a shared pixel reaches: five samples, and two rectified pictures
    constexpr int far = 9, farthest = 12;
    const cv::Mat picture = picture_of(points, which, residuals);
    double apart = 0.0, count = 0.0;
    for (int dx = far; dx <= farthest; ++dx)
        for (int dy = 0; dy <= across; ++dy, ++count)
            apart += covariance(picture, dx, dy);
    apart /= count;
    const double alone = covariance(picture, 0, 0) - apart;
    double sum = 0.0;
    for (int dy = 0; dy <= across; ++dy)
        for (int dx = dy == 0 ? 1 : -along; dx <= along; ++dx)
            sum += covariance(picture, dx, dy) - apart;
    return alone > 0.0 ? std::max(1.0, 1.0 + 2.0 * sum / alone) : 1.0;
}

} // namespace vexo
