#include "host/calibration/marker_edges.h"

#include "base/statistics.h"

#include <Eigen/Dense>

#include <algorithm>
#include <cmath>
#include <vector>

namespace vexo {

namespace {

constexpr int normals = 64;

/// One normal of the outline: what it measures, d = (nx, ny, growth) . (s, g).
struct Edge {
    Eigen::Vector3d by;
    double distance = 0.0;
    bool used = true;
};

/// Grey value between four pixels.
double sample(const cv::Mat& picture, cv::Point2d at)
{
    const int x = cvFloor(at.x), y = cvFloor(at.y);
    const double u = at.x - x, v = at.y - y;
    const auto grey = [&](int dy, int dx) { return static_cast<double>(picture.at<uchar>(y + dy, x + dx)); };
    return (1.0 - v) * ((1.0 - u) * grey(0, 0) + u * grey(0, 1)) + v * ((1.0 - u) * grey(1, 0) + u * grey(1, 1));
}

/// How far outside the outline the step lies: the covered part of the line from -half to half, from its middle.
double step_along(const cv::Mat& picture, cv::Point2d at, cv::Vec2d normal, double half, const MarkerFit& levels)
{
    constexpr double spacing = 0.25;
    const int count = std::max(1, cvRound(2.0 * half / spacing));
    double covered = 0.0;
    for (int i = 0; i < count; ++i) {
        const double t = half * (2.0 * (i + 0.5) / count - 1.0);
        const cv::Point2d offset = at + t * cv::Point2d(normal);
        // Both levels follow the light: it scales them alike, and cover is their ratio.
        const double light = 1.0 + levels.tilt.x * offset.x + levels.tilt.y * offset.y;
        const double grey = sample(picture, offset + levels.middle) / light;
        covered += (levels.paper - grey) / (levels.paper - levels.ink);
    }
    return 2.0 * half * covered / count - half;
}

/// Half of the line that is free of the hole and of the neighbours, px.
double free_half(const BoardFile& board, double mm_per_px, bool ring)
{
    constexpr double most = 3.0;
    const BoardLayout& l = board.layout;
    double mm = 0.5 * (l.pitch_mm - l.diameter_mm);
    if (ring) mm = std::min(mm, 0.25 * (l.diameter_mm - l.hole_mm));
    return std::min(most, mm / mm_per_px);
}

std::vector<Edge> find_edges(
    const cv::Mat& picture, const BoardFile& board, const MarkerModel& model, const MarkerFit& levels, bool ring)
{
    const double radius = 0.5 * board.layout.diameter_mm;
    std::vector<Edge> edges;
    for (int i = 0; i < normals; ++i) {
        const double angle = 2.0 * CV_PI * i / normals;
        const cv::Point2d on_board(radius * std::cos(angle), radius * std::sin(angle));
        const cv::Matx22d slope = model.in_picture.slope(on_board);
        const cv::Vec2d tangent = slope * cv::Vec2d(-on_board.y, on_board.x), growth = slope * cv::Vec2d(on_board);
        cv::Vec2d normal(tangent[1], -tangent[0]);
        normal *= 1.0 / std::sqrt(normal.dot(normal));
        if (normal.dot(growth) < 0.0) normal = -normal;
        const double half = free_half(board, radius / normal.dot(growth), ring);
        Edge edge;
        edge.by = { normal[0], normal[1], normal.dot(growth) };
        edge.distance = step_along(picture, model.in_picture.at(on_board), normal, half, levels);
        edge.used = std::abs(edge.distance) < 0.7 * half;
        edges.push_back(edge);
    }
    return edges;
}

std::optional<Eigen::Vector3d> solve(const std::vector<Edge>& edges)
{
    Eigen::Matrix3d matrix = Eigen::Matrix3d::Zero();
    Eigen::Vector3d right = Eigen::Vector3d::Zero();
    int count = 0;
    for (const Edge& e : edges) {
        if (!e.used) continue;
        matrix += e.by * e.by.transpose();
        right += e.distance * e.by;
        ++count;
    }
    const Eigen::LLT<Eigen::Matrix3d> solver(matrix);
    if (count < normals / 2 || solver.info() != Eigen::Success) return std::nullopt;
    return solver.solve(right);
}

/// Leaves out what is too far off; false when nothing is.
bool drop_outliers(std::vector<Edge>& edges, const Eigen::Vector3d& found)
{
    constexpr double limit = 3.5, to_sigma = 1.4826, least_px = 0.005;
    std::vector<double> sizes;
    for (const Edge& e : edges)
        if (e.used) sizes.push_back(std::abs(e.distance - e.by.dot(found)));
    const double beyond = limit * std::max(least_px, to_sigma * median(sizes));
    bool any = false;
    for (Edge& e : edges)
        if (e.used && std::abs(e.distance - e.by.dot(found)) > beyond) {
            e.used = false;
            any = true;
        }
    return any;
}

} // namespace

std::optional<cv::Point2d> centre_by_edges(
    const cv::Mat& picture, const BoardFile& board, const MarkerModel& model, const MarkerFit& fitted, bool ring)
{
    constexpr int most_rounds = 4;
    std::vector<Edge> edges = find_edges(picture, board, model, fitted, ring);
    std::optional<Eigen::Vector3d> found = solve(edges);
    for (int i = 0; found && i < most_rounds && drop_outliers(edges, *found); ++i)
        found = solve(edges);
    if (!found) return std::nullopt;
    return fitted.middle + cv::Point2d((*found)[0], (*found)[1]);
}

} // namespace vexo
