#include "host/clouds/view_pairs.h"

#include <algorithm>

namespace vexo {

namespace {

/// Whether a surface is turned to the camera that sees it by less than the angle of that cosine.
bool faces(const cv::Vec3f& normal, const cv::Vec3f& point, float cosine)
{
    const float facing = normal.dot(point);
    return facing < 0.0F && facing * facing > cosine * cosine * point.dot(point);
}

} // namespace

std::vector<cv::Point> spread_pixels(const View& view, std::size_t most)
{
    const auto usable = [&](const cv::Point& p) { return view.measured(p) && view.sigma(p) > 0.0F; };
    std::vector<cv::Point> pixels;
    for (int y = 0; y < view.points.rows; ++y)
        for (int x = 0; x < view.points.cols; ++x)
            if (usable({ x, y })) pixels.emplace_back(x, y);
    const std::size_t step = std::max<std::size_t>(1, (pixels.size() + most - 1) / most);
    std::size_t kept = 0;
    for (std::size_t i = 0; i < pixels.size(); i += step)
        pixels[kept++] = pixels[i];
    pixels.resize(kept);
    return pixels;
}

std::vector<PointPair> pairs_of(const View& view, const std::vector<cv::Point>& pixels,
    const cv::Affine3d& common_from_view, const View& other, const cv::Affine3d& common_from_other)
{
    constexpr float least_cosine = 0.7071F, least_facing = 0.34F; // 45 and 70 degrees
    const cv::Affine3d other_from_view = inverse_of(common_from_other) * common_from_view;
    const Sight sight(other_from_view, other);
    const cv::Matx33d to_common = common_from_other.rotation();
    std::vector<PointPair> pairs;
    pairs.reserve(pixels.size());
    Sight::Seen seen;
    for (const cv::Point& p : pixels) {
        if (!faces(view.normals(p), view.points(p), least_facing)) continue;
        if (!sight.see(view.points(p), view.normals(p), seen)) continue;
        const cv::Vec3f& normal = other.normals(seen.pixel);
        if (!faces(other.normals(seen.pixel), other.points(seen.pixel), least_facing)) continue;
        const float sigma_there = other.sigma_along(seen.pixel, normal);
        const cv::Vec3f normal_here = sight.back(normal);
        if (!(normal_here.dot(view.normals(p)) >= least_cosine) || !(sigma_there > 0.0F)) continue;
        const cv::Vec3f off = seen.place - other.points(seen.pixel);
        const double sigma
            = std::hypot(static_cast<double>(sigma_there), static_cast<double>(view.sigma_along(p, normal_here)));
        pairs.push_back({ common_from_view * cv::Vec3d(view.points(p)), to_common * cv::Vec3d(normal),
            static_cast<double>(normal.dot(off)), sigma, static_cast<double>(off[2]) });
    }
    return pairs;
}

} // namespace vexo
