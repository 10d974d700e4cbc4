#include "host/calibration/marker_model.h"

#include <Eigen/Dense>
#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

constexpr int side = 5, grid_points = side * side;
constexpr double grid_step = 0.7, grid_reach = 1.4; // radii, from point to point and to the outermost

using Design = Eigen::Matrix<double, grid_points, 6>;

std::array<double, 6> terms(cv::Point2d p)
{
    return { 1.0, p.x, p.y, p.x * p.x, p.x * p.y, p.y * p.y };
}

/// The quadratics of least squares that take one list of points to the other.
Quadratics fit(const std::array<cv::Point2d, grid_points>& from, const std::array<cv::Point2d, grid_points>& to)
{
    double scale = 0.0;
    for (const cv::Point2d& p : from)
        scale = std::max({ scale, std::abs(p.x), std::abs(p.y) });
    Design design;
    Eigen::Matrix<double, grid_points, 2> values;
    for (int i = 0; i < grid_points; ++i) {
        const auto index = static_cast<std::size_t>(i);
        const std::array<double, 6> row = terms(from[index] * (1.0 / scale));
        for (int k = 0; k < 6; ++k)
            design(i, k) = row[static_cast<std::size_t>(k)];
        values(i, 0) = to[index].x;
        values(i, 1) = to[index].y;
    }
    const Eigen::Matrix<double, 6, 2> found = design.colPivHouseholderQr().solve(values);
    Quadratics fitted;
    const std::array<double, 6> scales { 1.0, scale, scale, scale * scale, scale * scale, scale * scale };
    for (int k = 0; k < 6; ++k) {
        const auto index = static_cast<std::size_t>(k);
        fitted.x[index] = found(k, 0) / scales[index];
        fitted.y[index] = found(k, 1) / scales[index];
    }
    return fitted;
}

std::array<cv::Point2d, grid_points> grid_on_board(double radius)
{
    std::array<cv::Point2d, grid_points> grid;
    constexpr int middle = side / 2;
    for (int i = 0; i < grid_points; ++i) {
        const int column = i % side - middle, row = i / side - middle;
        grid[static_cast<std::size_t>(i)] = { grid_step * radius * column, grid_step * radius * row };
    }
    return grid;
}

} // namespace

std::vector<MarkerModel> marker_models(const BoardFile& board, const BoardPose& pose, const CalibratedCamera& camera)
{
    const std::array<cv::Point2d, grid_points> grid = grid_on_board(0.5 * board.layout.diameter_mm);
    std::vector<cv::Point3d> points;
    const auto count = static_cast<std::size_t>(board.markers());
    for (std::size_t marker = 0; marker < count; ++marker) {
        const cv::Point2d centre = printed_point(board, marker);
        for (const cv::Point2d& offset : grid)
            points.push_back(board.shape.at(centre + offset));
    }
    std::vector<cv::Point2d> seen;
    cv::projectPoints(points, pose.rvec, pose.tvec, camera.K, camera.D, seen);
    std::vector<MarkerModel> models(count);
    for (std::size_t marker = 0; marker < count; ++marker) {
        MarkerModel& model = models[marker];
        const auto first = marker * grid_points;
        model.middle = seen[first + grid_points / 2];
        std::array<cv::Point2d, grid_points> offsets;
        for (std::size_t i = 0; i < grid_points; ++i) {
            offsets[i] = seen[first + i] - model.middle;
            model.reach = std::max({ model.reach, std::abs(offsets[i].x), std::abs(offsets[i].y) });
        }
        model.reach /= grid_reach;
        const auto rows = static_cast<std::size_t>(board.layout.rows);
        model.beside = { marker >= rows, (marker + rows) < count, (marker % rows) > 0, ((marker + 1) % rows) > 0 };
        model.on_board = fit(offsets, grid);
        model.in_picture = fit(grid, offsets);
    }
    return models;
}

} // namespace vexo
