#include "host/cameras/covariance_share.h"

#include "base/text.h"
#include "host/cameras/pair_points.h"
#include "host/cameras/rectification.h"

#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

using Pixels = std::vector<cv::Point2d>;
using Points = std::vector<cv::Vec3d>;

constexpr std::size_t fewest_points = 12;

const cv::Size coarse_grid(20, 16), fine_grid(40, 32);

constexpr const char* undetermined = "the views do not determine all that is to be calibrated";

/// Part of a standard deviation by which the parameters are moved: the moves of points are linear in it, also where
/// the views determine next to nothing.
constexpr double step = 1e-2;

/// The moves of the points for one standard deviation, by how `where` sees them with cameras on both sides.
template <class Where>
auto moves(const std::vector<CalibratedCamera>& cameras, const cv::Mat_<double>& change, const Where& where)
{
    auto moved = where(changed_by(cameras, cv::Mat_<double>(step * change)));
    const auto back = where(changed_by(cameras, cv::Mat_<double>(-step * change)));
    for (std::size_t i = 0; i < moved.size(); ++i)
        moved[i] = (moved[i] - back[i]) * (0.5 / step);
    return moved;
}

/// Surfaces as they are measured: they face the rig, turned by ten degrees to each of four sides.
using Normals = std::array<cv::Vec3d, 4>;

Normals usual_normals(const std::vector<CalibratedCamera>& pair)
{
    const double slope = std::tan(10.0 * CV_PI / 180.0);
    const Rectification r = rectify({ pair[0], pair[1] }, pair[0].size, -1.0, 0, pair[0].size);
    const auto turned = [&](double x, double y) { return r.rotation0.t() * cv::Vec3d(x, y, 1.0); };
    return { turned(slope, 0.0), turned(-slope, 0.0), turned(0.0, slope), turned(0.0, -slope) };
}

/// Mean square of what a surface through the point is off by in depth, as one reads it along the line of sight on which
/// the point now lies: a move within the surface is none.
double square_of_depth(const cv::Vec3d& point, const cv::Vec3d& move, const Normals& normals)
{
    double squares = 0.0;
    for (const cv::Vec3d& normal : normals)
        squares += std::pow(normal.dot(move) * point[2] / normal.dot(point), 2.0) / static_cast<double>(normals.size());
    return squares;
}

/// rms of what the plane through the moves along z leaves of them.
double bend_of(const Points& points, const Points& moves)
{
    const auto n = static_cast<int>(points.size());
    cv::Mat_<double> A(n, 3), heights(n, 1), plane;
    for (int i = 0; i < n; ++i) {
        const auto k = static_cast<std::size_t>(i);
        A(i, 0) = 1.0;
        A(i, 1) = points[k][0];
        A(i, 2) = points[k][1];
        heights(i) = moves[k][2];
    }
    cv::solve(A, heights, plane, cv::DECOMP_QR);
    return cv::norm(A * plane - heights) / std::sqrt(static_cast<double>(n));
}

/// Mean square by which lengths across the picture change, as a share of each: between points that are spread over it.
double square_of_lengths(const Points& points, const Points& moves)
{
    constexpr std::size_t stride = 7919; // a prime: from each point to one elsewhere
    double squares = 0.0, pairs = 0.0;
    for (std::size_t i = 0; i < points.size(); ++i) {
        const std::size_t j = (i * stride + points.size() / 2) % points.size();
        const cv::Vec3d apart = points[i] - points[j];
        if (!(cv::norm(apart) > 0.1 * points[i][2])) continue; // short ones say nothing of the picture's scale
        squares += std::pow(apart.dot(moves[i] - moves[j]) / apart.dot(apart), 2.0);
        ++pairs;
    }
    return pairs > 0.0 ? squares / pairs : 0.0;
}

double mean_square_depth(const Points& points, const Points& moves, const Normals& normals)
{
    double squares = 0.0;
    for (std::size_t i = 0; i < points.size(); ++i)
        squares += square_of_depth(points[i], moves[i], normals);
    return squares / static_cast<double>(moves.size());
}

/// The pixels over which the share is asked for, of both cameras, at one distance.
CommonPixels pixels_at(const std::vector<CalibratedCamera>& pair, cv::Size grid, double distance)
{
    return in_common(pair, evenly_over(pair[0].size, grid), distance);
}

void add_at(const std::vector<CalibratedCamera>& pair, const std::vector<cv::Mat_<double>>& changes,
    const CommonPixels& pixels, std::size_t at, CalibrationShare& share)
{
    const auto where = [&pixels](const std::vector<CalibratedCamera>& moved) { return triangulate(moved, pixels); };
    const Points points = where(pair);
    const Normals normals = usual_normals(pair);
    double depth = 0.0, bend = 0.0, scale = 0.0;
    for (const cv::Mat_<double>& change : changes) {
        const Points moved = moves(pair, change, where);
        depth += mean_square_depth(points, moved, normals);
        bend += std::pow(bend_of(points, moved), 2.0);
        scale += square_of_lengths(points, moved);
    }
    share.depth_mm[at] = std::sqrt(depth);
    share.bend_mm[at] = std::sqrt(bend);
    share.scale[at] = std::sqrt(scale);
}

bool is_of(const CameraCovariance& covariance, const std::vector<CalibratedCamera>& cameras)
{
    return covariance.parameters == covariance_parameters(cameras)
        && covariance.covariance.rows == static_cast<int>(covariance.parameters.size());
}

Points directions(const CalibratedCamera& camera, const Pixels& pixels)
{
    Pixels rays;
    cv::undistortPoints(pixels, rays, camera.K, camera.D);
    Points out;
    for (const cv::Point2d& ray : rays)
        out.push_back(cv::normalize(cv::Vec3d(ray.x, ray.y, 1.0)));
    return out;
}

/// The moves of directions without the rotation that explains most of them: least squares of move = turn x direction.
Points without_rotation(const Points& of, Points moves)
{
    cv::Matx33d A = cv::Matx33d::zeros();
    cv::Vec3d b;
    for (std::size_t i = 0; i < of.size(); ++i) {
        A += cv::Matx33d::eye() - of[i] * of[i].t();
        b += of[i].cross(moves[i]);
    }
    const cv::Vec3d turn = A.solve(b, cv::DECOMP_SVD);
    for (std::size_t i = 0; i < of.size(); ++i)
        moves[i] -= turn.cross(of[i]);
    return moves;
}

} // namespace

std::string why_invalid(const CameraCovariance& c)
{
    constexpr double most_times = 2.0, most_apart = 3.0; // by chance halves are so far apart once in hundreds
    constexpr double most_blur = 0.37;                   // at 0.39 depths were off by two to three times the share
    if (!(c.marker_sigma_px > 0.0))
        return "the markers were not refined, and centres as they are recognised are off the same way in all pictures, "
               "which no residual shows";
    const double times = c.residual_px / c.marker_sigma_px;
    if (times <= most_times && c.blur_over_gap > most_blur)
        return "the photos are blurred: by " + number(c.blur_over_gap, 2)
            + " of the paper between the markers, as a standard deviation, which then run into each other";
    if (times <= most_times && c.halves_ratio > most_apart)
        return "the two halves of the views are " + number(c.halves_ratio, 1)
            + " times as far apart as follows from it: markers are off alike in many photos, as in blurred ones";
    if (times <= most_times) return "";
    return "the markers lie " + number(c.residual_px, 3) + " px from where the cameras put them, " + number(times, 1)
        + " times what their own noise explains: a bent or wrong board, one that moved, or a lens that the model does "
          "not follow";
}

StatedShare share_of(const std::vector<CalibratedCamera>& pair, const CameraCovariance& covariance)
{
    if (pair.size() != 2 || !is_of(covariance, pair)) return { {}, "the covariance is not one of these two cameras" };
    const std::vector<cv::Mat_<double>> changes = independent_changes(covariance.covariance);
    CalibrationShare share;
    share.invalid = why_invalid(covariance);
    share.distance_mm = covariance.distance_mm;
    for (std::size_t i = 0; i < 3; ++i) {
        const CommonPixels pixels = pixels_at(pair, coarse_grid, share.distance_mm[i]);
        if (pixels.of[0].size() < fewest_points)
            return { {}, "the cameras see too little in common at " + number(share.distance_mm[i], 0) + " mm" };
        add_at(pair, changes, pixels, i, share);
    }
    if (changes.empty() || !is_share(share)) return { {}, undetermined };
    return { share, "" };
}

cv::Mat share_map(const std::vector<CalibratedCamera>& pair, const CameraCovariance& covariance)
{
    if (pair.size() != 2 || !is_of(covariance, pair)) return {};
    const CommonPixels pixels = pixels_at(pair, fine_grid, covariance.distance_mm[1]);
    if (pixels.of[0].size() < fewest_points) return {};
    const auto where = [&pixels](const std::vector<CalibratedCamera>& moved) { return triangulate(moved, pixels); };
    const Points points = where(pair);
    const Normals normals = usual_normals(pair);
    std::vector<double> squares(points.size(), 0.0);
    for (const cv::Mat_<double>& change : independent_changes(covariance.covariance)) {
        const Points moved = moves(pair, change, where);
        for (std::size_t i = 0; i < moved.size(); ++i)
            squares[i] += square_of_depth(points[i], moved[i], normals);
    }
    cv::Mat_<float> map(fine_grid, std::nanf(""));
    for (std::size_t i = 0; i < squares.size(); ++i) {
        const cv::Point2d& pixel = pixels.of[0][i];
        map(static_cast<int>((pixel.y + 0.5) * map.rows / pair[0].size.height),
            static_cast<int>((pixel.x + 0.5) * map.cols / pair[0].size.width))
            = static_cast<float>(std::sqrt(squares[i]));
    }
    return map;
}

StatedDirection direction_share(const CalibratedCamera& camera, const CameraCovariance& covariance)
{
    const Pixels pixels = evenly_over(camera.size, coarse_grid);
    if (!is_of(covariance, { camera })) return { {}, "the covariance is not that of this camera" };
    if (pixels.size() < fewest_points) return { {}, "the picture is too small" };
    const auto where = [&pixels](const std::vector<CalibratedCamera>& moved) { return directions(moved[0], pixels); };
    const Points seen = directions(camera, pixels);
    double angle = 0.0, across = 0.0; // squares; lengths across are those of points in one plane before the camera
    for (const cv::Mat_<double>& change : independent_changes(covariance.covariance)) {
        const Points left = without_rotation(seen, moves({ camera }, change, where));
        for (std::size_t i = 0; i < left.size(); ++i) {
            angle += left[i].dot(left[i]);
            across += left[i].dot(left[i]) / (seen[i][2] * seen[i][2]);
        }
    }
    const auto n = static_cast<double>(seen.size());
    DirectionShare share;
    share.px = std::sqrt(angle / n) * 0.5 * (camera.K(0, 0) + camera.K(1, 1));
    share.distance_mm = covariance.distance_mm;
    for (std::size_t i = 0; i < 3; ++i)
        share.across_mm[i] = std::sqrt(across / n) * share.distance_mm[i];
    share.invalid = why_invalid(covariance);
    if (!(share.px > 0.0) || !std::isfinite(share.px)) return { {}, undetermined };
    return { share, "" };
}

StatedShare share_beside(const std::vector<std::string>& camera_files)
{
    const FoundCovariance found = covariance_beside(camera_files);
    if (!found.covariance) return { {}, found.why_none };
    const auto cameras = read_cameras(camera_files);
    return share_of({ cameras[0], cameras[1] }, *found.covariance);
}

StatedDirection direction_share_beside(const std::string& camera_file)
{
    const FoundCovariance found = covariance_beside({ camera_file });
    if (!found.covariance) return { {}, found.why_none };
    return direction_share(read_camera(camera_file, "cam0"), *found.covariance);
}

} // namespace vexo
