#include "host/results/result_view.h"

#include "base/failure.h"
#include "host/cameras/calibration_share.h"
#include "host/clouds/normals.h"
#include "host/results/result_maps.h"

#include <limits>

namespace vexo {

namespace {

constexpr float nan = std::numeric_limits<float>::quiet_NaN();

void cut(ResultMaps& maps, const cv::Vec6d& box, double in_mm)
{
    for (cv::Vec3f& point : maps.points)
        for (int k = 0; k < 3; ++k) {
            const double mm = static_cast<double>(point[k]) * in_mm;
            if (!(mm >= box[k] && mm <= box[k + 3])) point = cv::Vec3f::all(nan);
        }
}

/// The smallest part of the picture that holds all points; empty: there are none.
cv::Rect part_with_points(const cv::Mat_<cv::Vec3f>& points)
{
    cv::Point low(points.cols, points.rows), high(-1, -1);
    for (int y = 0; y < points.rows; ++y)
        for (int x = 0; x < points.cols; ++x) {
            if (std::isnan(points(y, x)[2])) continue;
            low = { std::min(low.x, x), std::min(low.y, y) };
            high = { std::max(high.x, x), std::max(high.y, y) };
        }
    return high.x < low.x ? cv::Rect() : cv::Rect(low, high + cv::Point(1, 1));
}

/// Normals are those of the disparities.
cv::Mat_<cv::Vec3f> normals_of(const View& view)
{
    cv::Mat_<float> disparity(view.points.size(), nan), sigma(view.points.size(), nan);
    for (int y = 0; y < disparity.rows; ++y)
        for (int x = 0; x < disparity.cols; ++x) {
            if (!view.measured({ x, y })) continue;
            const auto z = static_cast<double>(view.points(y, x)[2]);
            disparity(y, x) = static_cast<float>(view.scale.disparity(z));
            sigma(y, x) = static_cast<float>(static_cast<double>(view.sigma(y, x)) * view.scale.px_per_length(z));
        }
    return surface_normals(disparity, sigma, view.scale);
}

/// Lengths of shares are in mm.
double share_of(const Result& r, double in_mm)
{
    if (!r.report.contains("calibration_share_mm")) return 0.0;
    const auto share = read_share(r.report, r.report_path).usable();
    return share ? share->at(number_in(r.report, "/depth/q50", r.report_path) * in_mm).bend_mm : 0.0;
}

void refuse_without_sigma(const std::string& folder, const cv::Mat_<float>& sigma)
{
    for (const float s : sigma)
        if (s > 0.0F) return;
    throw Failure(folder
        + ": its points have no sigma, which says how much each counts; measure it by a fringe "
          "method, from frames and without --interpolate");
}

} // namespace

ResultView read_view(const std::string& folder, const std::optional<cv::Vec6d>& box_mm)
{
    Result r = read_result(folder);
    refuse_empty(r);
    refuse_without_sigma(folder, r.sigma.empty() ? cv::Mat_<float>() : cv::Mat_<float>(r.sigma));
    ResultView v;
    v.folder = folder;
    v.unit = unit_named(text_in(r.report, "unit", "mm"), r.report_path + ": unit");
    v.raw_from_rectified = r.raw_from_rectified;
    ResultMaps maps = read_maps(folder, r);
    if (box_mm) cut(maps, *box_mm, v.unit.in_mm);
    const cv::Rect part = part_with_points(maps.points);
    if (part.empty()) throw Failure(folder + ": no point of it lies within --box");
    v.corner = part.tl();
    maps.points(part).convertTo(v.view.points, CV_32F, v.unit.in_mm);
    maps.sigma(part).convertTo(v.view.sigma, CV_32F, v.unit.in_mm);
    v.view.grey = maps.texture(part).clone();
    v.view.scale = { r.f, r.cx - part.x, r.cy - part.y, r.baseline * v.unit.in_mm, r.disparity_at_infinity };
    v.view.normals = normals_of(v.view);
    for (const cv::Vec3f& point : v.view.points)
        v.points += std::isnan(point[2]) ? 0U : 1U;
    v.share_mm = share_of(r, v.unit.in_mm);
    v.report = std::move(r.report);
    return v;
}

} // namespace vexo
