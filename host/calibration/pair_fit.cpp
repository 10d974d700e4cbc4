#include "host/calibration/pair_fit.h"

#include "base/statistics.h"
#include "host/calibration/rigid_motion.h"
#include "host/cameras/rectification.h"

#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <limits>

namespace vexo {

namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

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
        const Rectification r = rectify({ cameras[0], cameras[1] }, cameras[0].size, -1, 0, cameras[0].size);
        _rotations = { cv::Mat(r.rotation0), cv::Mat(r.rotation1) };
        _projections = { cv::Mat(r.P0), cv::Mat(r.P1) };
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

/// The seen points, moved onto the printed board.
std::vector<cv::Vec3d> on_board(const Triangulated& t, const BoardFile& board)
{
    std::vector<cv::Vec3d> printed;
    for (const std::size_t k : t.index) {
        const cv::Point3f p = board_point(board, k);
        printed.emplace_back(p.x, p.y, p.z);
    }
    return moved_onto(t.point, printed);
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
        heights.push_back(seen[2] - p.z);
    }
    fit.scale_x = slope(x, seen_x);
    fit.scale_y = slope(y, seen_y);
    fit.bend = bend_of(x, y, heights, board.layout.pitch_mm * std::max(board.layout.columns, board.layout.rows));
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

} // namespace vexo
