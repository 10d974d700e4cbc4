#include "calibration_check.h"

#include "pictures.h"

#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>

namespace vexo::app {

namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr std::size_t fewest_markers = 5; ///< as the library's calibrators have it
constexpr double degrees = 180.0 / CV_PI;

/// Sum of squares that becomes a root mean square.
struct Squares {
    double sum = 0, count = 0;
    void add(double square)
    {
        sum += square;
        ++count;
    }
    double rms() const { return count > 0 ? std::sqrt(sum / count) : nan; }
};

struct SeenMarkers {
    std::vector<cv::Point3f> board_mm;
    std::vector<cv::Point2f> image_px;
};

SeenMarkers seen_markers(const BoardPicture& view, const BoardFile& board)
{
    SeenMarkers seen;
    for (std::size_t k = 0; k < view.markers.size(); ++k) {
        if (view.markers[k].x == FLT_MAX) continue;
        seen.board_mm.push_back(board_point(board, k));
        seen.image_px.push_back(view.markers[k]);
    }
    return seen;
}

/// Rectified and triangulated markers of one pair of views.
struct Triangulated {
    std::vector<std::size_t> index; ///< place in the recogniser's lists
    std::vector<cv::Vec3d> point;   ///< rectified camera 0, mm
    std::vector<double> row_error;  ///< y0 - y1, px
    std::vector<cv::Point2d> place; ///< in the image of camera 0, 0 to 1
};

/// Two cameras with their rectifying rotations.
class RectifiedPair {
public:
    explicit RectifiedPair(const std::vector<CalibratedCamera>& cameras)
        : _cameras(cameras)
    {
        const cv::Matx33d R = cameras[1].R * cameras[0].R.t();
        const cv::Vec3d T = cameras[1].T - R * cameras[0].T;
        cv::stereoRectify(cameras[0].K, cameras[0].D, cameras[1].K, cameras[1].D, cameras[0].size, R, T, _rotations[0],
            _rotations[1], _projections[0], _projections[1], _q, 0, -1, cameras[0].size);
    }

    Triangulated triangulate(const BoardPicture& left, const BoardPicture& right) const
    {
        Triangulated t;
        std::array<std::vector<cv::Point2d>, 2> raw, rectified;
        for (std::size_t k = 0; k < left.markers.size() && k < right.markers.size(); ++k) {
            if (left.markers[k].x == FLT_MAX || right.markers[k].x == FLT_MAX) continue;
            t.index.push_back(k);
            raw[0].push_back(left.markers[k]);
            raw[1].push_back(right.markers[k]);
        }
        if (t.index.empty()) return t;
        for (std::size_t c = 0; c < 2; ++c)
            cv::undistortPoints(raw[c], rectified[c], _cameras[c].K, _cameras[c].D, _rotations[c], _projections[c]);
        cv::Mat homogeneous;
        cv::triangulatePoints(_projections[0], _projections[1], rectified[0], rectified[1], homogeneous);
        for (std::size_t i = 0; i < t.index.size(); ++i) {
            const int column = static_cast<int>(i);
            const double w = homogeneous.at<double>(3, column);
            t.point.emplace_back(homogeneous.at<double>(0, column) / w, homogeneous.at<double>(1, column) / w,
                homogeneous.at<double>(2, column) / w);
            t.row_error.push_back(_row_error(rectified, i));
            t.place.emplace_back(raw[0][i].x / _cameras[0].size.width, raw[0][i].y / _cameras[0].size.height);
        }
        return t;
    }

private:
    /// Across the epipolar lines: rows on a horizontal rig, columns on a vertical one.
    double _row_error(const std::array<std::vector<cv::Point2d>, 2>& rectified, std::size_t i) const
    {
        const bool vertical = std::abs(_projections[1].at<double>(1, 3)) > std::abs(_projections[1].at<double>(0, 3));
        const cv::Point2d apart = rectified[0][i] - rectified[1][i];
        return vertical ? apart.x : apart.y;
    }

    std::vector<CalibratedCamera> _cameras;
    std::array<cv::Mat, 2> _rotations, _projections;
    cv::Mat _q;
};

struct DistanceSums {
    double error = 0, square = 0, length = 0;
    int count = 0;
    DistanceErrors result() const
    {
        if (count == 0) return { nan, nan, nan, 0 };
        return { error / count, std::sqrt(square / count), length / count, count };
    }
};

/// Distances from each marker to the one `step` places further on in the recogniser's lists.
/// @param wraps  rows of the board when the step is along y, so that it may not leave the column; else 0
void add_distances(
    const Triangulated& t, const BoardFile& board, std::size_t step, std::size_t wraps, DistanceSums& sums)
{
    std::vector<int> place(static_cast<std::size_t>(board.markers()), -1);
    for (std::size_t i = 0; i < t.index.size(); ++i)
        place[t.index[i]] = static_cast<int>(i);
    for (std::size_t k = 0; k + step < place.size(); ++k) {
        if (wraps > 0 && k % wraps + step >= wraps) continue;
        if (place[k] < 0 || place[k + step] < 0) continue;
        const cv::Vec3d apart
            = t.point[static_cast<std::size_t>(place[k])] - t.point[static_cast<std::size_t>(place[k + step])];
        const double printed = cv::norm(board_point(board, k) - board_point(board, k + step));
        const double error = cv::norm(apart) - printed;
        sums.error += error;
        sums.square += error * error;
        sums.length += printed;
        ++sums.count;
    }
}

/// Rigid motion that takes the seen points onto the printed board, in the least squares sense.
/// Source: Arun, Huang, Blostein, IEEE PAMI 9 (1987) 698.
std::vector<cv::Vec3d> on_board(const Triangulated& t, const BoardFile& board)
{
    cv::Vec3d seen_middle, board_middle;
    const double n = static_cast<double>(t.index.size());
    std::vector<cv::Vec3d> printed;
    for (std::size_t i = 0; i < t.index.size(); ++i) {
        const cv::Point3f p = board_point(board, t.index[i]);
        printed.emplace_back(p.x, p.y, p.z);
        seen_middle += t.point[i] / n;
        board_middle += printed[i] / n;
    }
    cv::Matx33d covariance = cv::Matx33d::zeros();
    for (std::size_t i = 0; i < printed.size(); ++i)
        covariance += (printed[i] - board_middle) * (t.point[i] - seen_middle).t();
    cv::Matx33d U, Vt;
    cv::Vec3d w;
    cv::SVD::compute(covariance, w, U, Vt);
    const cv::Matx33d flip = cv::Matx33d::diag({ 1, 1, cv::determinant(U * Vt) });
    const cv::Matx33d R = U * flip * Vt;
    std::vector<cv::Vec3d> points;
    for (const cv::Vec3d& p : t.point)
        points.push_back(R * (p - seen_middle) + board_middle);
    return points;
}

/// Mean over the cells of a grid over the image: noise averages out.
class CellMeans {
public:
    void add(cv::Point2d place, double value)
    {
        const int x = std::clamp(static_cast<int>(place.x * across), 0, across - 1);
        const int y = std::clamp(static_cast<int>(place.y * down), 0, down - 1);
        const std::size_t cell = static_cast<std::size_t>(y) * across + static_cast<std::size_t>(x);
        _sum[cell] += value;
        ++_count[cell];
    }
    /// Root mean square of the means of cells with enough values; NaN: there is none.
    double rms() const
    {
        Squares squares;
        for (std::size_t i = 0; i < _sum.size(); ++i)
            if (_count[i] >= least) squares.add(_sum[i] / _count[i] * (_sum[i] / _count[i]));
        return squares.rms();
    }

private:
    static constexpr int across = 8, down = 6, least = 20;
    std::array<double, across * down> _sum {}, _count {};
};

/// Mean position of every marker over the views.
struct ShapeSums {
    std::vector<cv::Vec3d> sum;
    std::vector<double> count;
};

void add_shape(const Triangulated& t, const BoardFile& board, ShapeSums& shape)
{
    if (t.index.size() < 20) return; // too little of the board to lay it onto the printed one
    const std::vector<cv::Vec3d> points = on_board(t, board);
    for (std::size_t i = 0; i < points.size(); ++i) {
        shape.sum[t.index[i]] += points[i];
        ++shape.count[t.index[i]];
    }
}

/// Slope of b over a, both about their means.
double slope(const std::vector<double>& a, const std::vector<double>& b)
{
    double ma = 0, mb = 0, aa = 0, ab = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        ma += a[i] / static_cast<double>(a.size());
        mb += b[i] / static_cast<double>(a.size());
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        aa += (a[i] - ma) * (a[i] - ma);
        ab += (a[i] - ma) * (b[i] - mb);
    }
    return aa > 0 ? ab / aa : nan;
}

/// Height of the quadratic surface that fits the shape best, from its lowest to its highest marker. Single heights are
/// noisy: a tenth of a px of a marker's centre is some tenths of a mm of depth.
double bend_of(
    const std::vector<double>& x, const std::vector<double>& y, const std::vector<double>& height, double size)
{
    const int n = static_cast<int>(x.size());
    if (n < 12) return nan;
    cv::Mat_<double> terms(n, 6), z(n, 1), surface;
    for (int i = 0; i < n; ++i) {
        const double u = x[static_cast<std::size_t>(i)] / size, v = y[static_cast<std::size_t>(i)] / size;
        const double row[] = { 1, u, v, u * u, u * v, v * v };
        std::copy(std::begin(row), std::end(row), terms[i]);
        z(i, 0) = height[static_cast<std::size_t>(i)];
    }
    if (!cv::solve(terms, z, surface, cv::DECOMP_SVD)) return nan;
    surface.rowRange(0, 3) = 0; // the plane is not bend
    double low = 0, high = 0;
    cv::minMaxLoc(terms * surface, &low, &high);
    return high - low;
}

void finish_shape(const ShapeSums& sums, const BoardFile& board, PairFit& fit)
{
    std::vector<double> x, y, seen_x, seen_y, heights;
    for (std::size_t k = 0; k < sums.sum.size(); ++k) {
        fit.shape.emplace_back(nan, nan, nan);
        if (sums.count[k] == 0) continue;
        const cv::Point3f p = board_point(board, k);
        const cv::Vec3d seen = sums.sum[k] / sums.count[k];
        fit.shape[k] = seen - cv::Vec3d(p.x, p.y, p.z);
        x.push_back(p.x);
        y.push_back(p.y);
        seen_x.push_back(seen[0]);
        seen_y.push_back(seen[1]);
        heights.push_back(seen[2]);
    }
    fit.scale_x = slope(x, seen_x);
    fit.scale_y = slope(y, seen_y);
    fit.bend = bend_of(x, y, heights, board.layout.pitch_mm * std::max(board.layout.columns, board.layout.rows));
}

/// One view against one camera; false when the markers determine no pose.
bool fit_view(
    const CalibratedCamera& camera, const BoardPicture& view, const BoardFile& board, std::size_t v, CameraFit& fit)
{
    const SeenMarkers seen = seen_markers(view, board);
    if (seen.board_mm.size() < fewest_markers) return false;
    cv::Vec3d rvec, tvec;
    std::vector<cv::Point2f> projected;
    try {
        if (!cv::solvePnP(seen.board_mm, seen.image_px, camera.K, camera.D, rvec, tvec)) return false;
        cv::projectPoints(seen.board_mm, rvec, tvec, camera.K, camera.D, projected);
    } catch (const cv::Exception&) {
        return false; // markers in a line, say
    }
    Squares own;
    for (std::size_t i = 0; i < projected.size(); ++i) {
        const cv::Vec2d error(seen.image_px[i].x - projected[i].x, seen.image_px[i].y - projected[i].y);
        fit.residuals.push_back({ seen.image_px[i], error });
        own.add(error.dot(error));
    }
    fit.view_rms[v] = own.rms();
    fit.view_tilt[v] = tilt_deg(rvec, tvec, board);
    return true;
}

/// What a pair of cameras says of its views, gathered.
struct PairSums {
    Squares rows;
    CellMeans cells;
    DistanceSums along_x, along_y;
    ShapeSums shape;
};

void add_views(const Fold& fold, const BoardViews& views, const BoardFile& board, PairFit& fit, PairSums& sums)
{
    const RectifiedPair pair(fold.cameras);
    const auto columns = static_cast<std::size_t>(board.layout.columns);
    const auto rows = static_cast<std::size_t>(board.layout.rows);
    for (std::size_t v = 0; v < views.count(); ++v) {
        if (!fold.views[v] || !views.good(v)) continue;
        const Triangulated t = pair.triangulate(views.cameras[0][v], views.cameras[1][v]);
        Squares own;
        for (std::size_t i = 0; i < t.row_error.size(); ++i) {
            const double error = t.row_error[i];
            own.add(error * error);
            sums.rows.add(error * error);
            sums.cells.add(t.place[i], error);
            fit.row_errors.push_back(static_cast<float>(error));
        }
        fit.view_row[v] = own.rms();
        add_distances(t, board, columns / 2 * rows, 0, sums.along_x);
        add_distances(t, board, rows / 2, rows, sums.along_y);
        add_shape(t, board, sums.shape);
    }
}

} // namespace

CameraFit fit_camera(
    const std::vector<Fold>& folds, std::size_t camera, const BoardViews& views, const BoardFile& board)
{
    CameraFit fit;
    fit.view_rms.assign(views.count(), nan);
    fit.view_tilt.assign(views.count(), nan);
    for (const Fold& fold : folds)
        for (std::size_t v = 0; v < views.count(); ++v)
            if (fold.views[v]) fit_view(fold.cameras[camera], views.cameras[camera][v], board, v, fit);
    Squares all;
    for (const Residual& residual : fit.residuals)
        all.add(residual.error_px.dot(residual.error_px));
    fit.rms = all.rms();
    return fit;
}

PairFit fit_pair(const std::vector<Fold>& folds, const BoardViews& views, const BoardFile& board)
{
    const auto markers = static_cast<std::size_t>(board.markers());
    PairFit fit;
    fit.view_row.assign(views.count(), nan);
    PairSums sums;
    sums.shape = { std::vector<cv::Vec3d>(markers), std::vector<double>(markers, 0.0) };
    for (const Fold& fold : folds)
        add_views(fold, views, board, fit, sums);
    fit.row_rms = sums.rows.rms();
    fit.row_systematic = sums.cells.rms();
    std::vector<float> sizes;
    for (const float error : fit.row_errors)
        sizes.push_back(std::abs(error));
    fit.row_worst = quantile(sizes, 0.99);
    fit.along_x = sums.along_x.result();
    fit.along_y = sums.along_y.result();
    finish_shape(sums.shape, board, fit);
    return fit;
}

namespace {

/// Board to camera, 4x4; false when the markers determine no pose.
bool board_pose(const CalibratedCamera& camera, const SeenMarkers& seen, cv::Matx44d& camera_from_board)
{
    if (seen.board_mm.size() < fewest_markers) return false;
    cv::Vec3d rvec, tvec;
    try {
        if (!cv::solvePnP(seen.board_mm, seen.image_px, camera.K, camera.D, rvec, tvec)) return false;
    } catch (const cv::Exception&) {
        return false; // markers in a line, say
    }
    cv::Matx33d R;
    cv::Rodrigues(rvec, R);
    camera_from_board = cv::Matx44d::eye();
    for (int r = 0; r < 3; ++r) {
        for (int k = 0; k < 3; ++k)
            camera_from_board(r, k) = R(r, k);
        camera_from_board(r, 3) = tvec[r];
    }
    return true;
}

/// The same board in both cameras.
struct PairedView {
    std::size_t view;
    SeenMarkers right;
    cv::Matx44d cam0_from_board, cam1_from_cam0;
};

double error_px(const PairedView& v, const cv::Matx44d& cam1_from_cam0, const CalibratedCamera& camera1)
{
    const cv::Matx44d pose = cam1_from_cam0 * v.cam0_from_board;
    cv::Vec3d rvec;
    cv::Rodrigues(pose.get_minor<3, 3>(0, 0), rvec);
    std::vector<cv::Point2f> projected;
    cv::projectPoints(
        v.right.board_mm, rvec, cv::Vec3d(pose(0, 3), pose(1, 3), pose(2, 3)), camera1.K, camera1.D, projected);
    return cv::norm(v.right.image_px, projected) / std::sqrt(static_cast<double>(projected.size()));
}

} // namespace

std::vector<double> pair_agreement(const std::vector<CalibratedCamera>& cameras, const BoardViews& views,
    const std::vector<bool>& use, const BoardFile& board)
{
    std::vector<PairedView> pairs;
    for (std::size_t v = 0; v < views.count(); ++v) {
        if (!use[v] || !views.good(v)) continue;
        PairedView pair { v, seen_markers(views.cameras[1][v], board), {}, {} };
        cv::Matx44d cam1_from_board;
        if (!board_pose(cameras[0], seen_markers(views.cameras[0][v], board), pair.cam0_from_board)) continue;
        if (!board_pose(cameras[1], pair.right, cam1_from_board)) continue;
        pair.cam1_from_cam0 = cam1_from_board * pair.cam0_from_board.inv();
        pairs.push_back(pair);
    }
    std::vector<double> best(views.count(), nan);
    double least = std::numeric_limits<double>::infinity();
    for (const PairedView& reference : pairs) {
        std::vector<double> errors(views.count(), nan);
        for (const PairedView& pair : pairs)
            errors[pair.view] = error_px(pair, reference.cam1_from_cam0, cameras[1]);
        const double usual = median(errors);
        if (!(usual < least)) continue;
        least = usual;
        best = errors;
    }
    return best;
}

double tilt_deg(const cv::Vec3d& rvec, const cv::Vec3d& tvec, const BoardFile& board)
{
    cv::Matx33d rotation;
    cv::Rodrigues(rvec, rotation);
    const cv::Point3f sum = board_point(board, 0) + board_point(board, static_cast<std::size_t>(board.markers()) - 1);
    const cv::Vec3d middle = rotation * cv::Vec3d(0.5 * sum.x, 0.5 * sum.y, 0) + tvec;
    const cv::Vec3d normal(rotation(0, 2), rotation(1, 2), rotation(2, 2));
    return std::acos(std::min(std::abs(normal.dot(middle)) / cv::norm(middle), 1.0)) * degrees;
}

double coverage(const std::vector<BoardPicture>& views, const std::vector<bool>& use, cv::Size size)
{
    constexpr int across = 8, down = 6;
    std::array<bool, across * down> cells {};
    for (std::size_t v = 0; v < views.size(); ++v) {
        for (const cv::Point2f& p : views[v].markers) {
            if (!use[v] || p.x == FLT_MAX) continue;
            const int cx = std::clamp(static_cast<int>(p.x * across / static_cast<float>(size.width)), 0, across - 1);
            const int cy = std::clamp(static_cast<int>(p.y * down / static_cast<float>(size.height)), 0, down - 1);
            cells[static_cast<std::size_t>(cy * across + cx)] = true;
        }
    }
    return static_cast<double>(std::count(cells.begin(), cells.end(), true)) / (across * down);
}

double median(std::vector<double> values)
{
    values.erase(
        std::remove_if(values.begin(), values.end(), [](double v) { return !std::isfinite(v); }), values.end());
    if (values.empty()) return nan;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

std::vector<std::size_t> outliers(const std::vector<double>& view_rms)
{
    constexpr double times = 2.0, above_px = 0.05;
    const double usual = median(view_rms);
    std::vector<std::size_t> found;
    for (std::size_t v = 0; v < view_rms.size(); ++v)
        if (view_rms[v] > std::max(times * usual, usual + above_px)) found.push_back(v);
    return found;
}

} // namespace vexo::app
