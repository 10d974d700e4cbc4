#include "board/ConnectionFinder.h"

#include "board/result_picture.h"
#include "board/UnionFind.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace vexo {

namespace {

/// Tenths of a diameter, rounded to the nearest whole one. Stays a double: tiny diameters exceed any integer.
double tenths(double distance, double diameter)
{
    return std::trunc(distance * 10 / diameter + 0.5);
}

/// Neighbours of marker i: the four nearest, ascending; of equal distances the first found.
ConnectionFinder::Neighbours nearest_four(int i, const std::vector<int>& state, const double* distances)
{
    ConnectionFinder::Neighbours nearest = { -1, -1, -1, -1 };
    std::array<double, 4> distance;
    distance.fill(ConnectionFinder::no_link);
    const int n = static_cast<int>(state.size());
    for (int j = 0; j < n; ++j) {
        const double d = distances[j];
        if (!(d < distance[3]) || j == i || state[static_cast<size_t>(j)] == 0) continue;
        size_t place = 3;
        for (; place > 0 && d < distance[place - 1]; --place) {
            distance[place] = distance[place - 1];
            nearest[place] = nearest[place - 1];
        }
        distance[place] = d;
        nearest[place] = j;
    }
    return nearest;
}

} // namespace

bool ConnectionFinder::find(cv::Mat& debug)
{
    cv::Mat_<double> D = get_distance_matrix();
    check_distance_matrix(D);

    state.assign(ellipses.size(), 1);
    remain_largest_group(state, D);
    base_markers.clear();
    _connected = search_base_marker(state, D);
    if (_connected) {
        remove_inlier(state, D);
        connections = find_connected(state, D);
    }
    if (!debug.empty()) _draw_connections(debug);
    if (searcher_param.debug_scale != 0) {
        std::fputs("ConnectionFinder show\n", stderr);
        debug_show(debug, "debug", false);
    }
    return _connected;
}

cv::Mat_<double> ConnectionFinder::get_distance_matrix()
{
    const int n = static_cast<int>(ellipses.size());
    std::vector<double> x, y;
    for (const RotatedEllipse& e : ellipses) {
        x.push_back(e.center.x);
        y.push_back(e.center.y);
    }
    cv::Mat_<double> D(n, n);
    for (int i = 0; i < n; ++i) {
        const cv::Point2d center = _ellipse(i).center;
        double* row = D[i];
        for (size_t j = 0; j < x.size(); ++j) {
            const double dx = x[j] - center.x;
            const double dy = y[j] - center.y;
            row[j] = std::sqrt(dx * dx + dy * dy);
        }
        row[i] = no_link;
    }
    return D;
}

void ConnectionFinder::check_distance_matrix(cv::Mat_<double>& D)
{
    const double most = std::trunc((neighbour_limit + 0.1) * 10);
    for (int i = 0; i < D.rows; ++i) {
        const RotatedEllipse& e = _ellipse(i);
        const double largest = e.major_axis();
        const double surely_beyond = 0.100001 * (most + 1) * largest; // spares most pairs the divisions
        for (int j = 0; j < D.cols; ++j) {
            double& d = D(i, j);
            if (d == no_link) continue;
            if (!(d > surely_beyond) && tenths(d, largest) <= most) { // false for NaN, which cuts the link
                const cv::Point2d to = _ellipse(j).center - e.center;
                const double length = std::sqrt(to.x * to.x + to.y * to.y);
                if (tenths(length, 2 * e.getRadius({ to.x, to.y })) <= most) continue;
            }
            d = no_link;
        }
    }
}

void ConnectionFinder::remain_largest_group(std::vector<int>& states, cv::Mat_<double>& D)
{
    UnionFind groups(states.size());
    for (int i = 0; i < D.rows; ++i)
        for (int j = 0; j < D.cols; ++j)
            if (D(i, j) != no_link) groups.unite(i, j);

    int largest = 0;
    for (int i = 1; i < D.rows; ++i)
        if (groups.size(i) > groups.size(largest)) largest = i;

    for (int i = 0; i < D.rows; ++i) {
        if (groups.root(i) == largest) continue;
        states[static_cast<size_t>(i)] = 0;
        D.row(i).setTo(no_link);
    }
}

bool ConnectionFinder::search_base_marker(std::vector<int>& states, cv::Mat_<double>& D)
{
    const size_t before = base_markers.size();
    for (int i = 0; i < D.rows; ++i) {
        if (states[static_cast<size_t>(i)] != 1) continue;
        const RotatedEllipse& e = _ellipse(i);
        double nearest = 0.5 * std::min(static_cast<float>(e.full_axes[0]), static_cast<float>(e.full_axes[1]));
        int inside = -1;
        for (int j = 0; j < D.cols; ++j) {
            if (j == i || !(D(i, j) < nearest)) continue;
            nearest = D(i, j);
            inside = j;
        }
        if (inside >= 0) base_markers.push_back(basemarker_process(i, inside, states));
    }
    return base_markers.size() > before;
}

size_t ConnectionFinder::get_median_contour_length(std::vector<int>& states)
{
    std::vector<size_t> lengths;
    for (size_t i = 0; i < states.size(); ++i)
        if (states[i] != 0) lengths.push_back(contours[i].size());
    if (lengths.empty()) return 0;
    const auto middle = lengths.begin() + static_cast<std::ptrdiff_t>(lengths.size() / 2);
    std::nth_element(lengths.begin(), middle, lengths.end());
    return *middle;
}

void ConnectionFinder::remove_inlier(std::vector<int>& states, cv::Mat_<double>& /*D*/)
{
    const size_t median = get_median_contour_length(states);
    for (size_t i = 0; i < states.size(); ++i) {
        const size_t length = contours[i].size();
        if (states[i] == 1 && (length <= (median + 2) / 4 || length >= 4 * median)) states[i] = 0;
    }
}

std::vector<ConnectionFinder::Neighbours> ConnectionFinder::find_connected(
    std::vector<int>& states, cv::Mat_<double>& D)
{
    std::vector<Neighbours> connected(states.size(), Neighbours { dropped, dropped, dropped, dropped });
    for (int i = 0; i < D.rows; ++i)
        if (states[static_cast<size_t>(i)] != 0) connected[static_cast<size_t>(i)] = nearest_four(i, states, D[i]);
    return connected;
}

void ConnectionFinder::_draw_links(cv::Mat& drawing, const cv::Scalar& bgr) const
{
    for (size_t i = 0; i < state.size(); ++i) {
        if (state[i] == 0) continue;
        for (const int q : connections[i])
            if (_is_marker(q)) cv::line(drawing, ellipses[i].center, _ellipse(q).center, bgr, 4, cv::LINE_8);
    }
}

void ConnectionFinder::_draw_connections(cv::Mat& drawing) const
{
    if (_connected) _draw_links(drawing, { 173, 230, 173 });
    for (size_t i = 0; i < state.size(); ++i)
        if (state[i] != 0) draw_ellipse(drawing, ellipses[i], { 230, 173, 173 }, 4);
    for (const int base : base_markers)
        draw_ellipse(drawing, _ellipse(base), { 173, 173, 230 }, cv::FILLED);
}

} // namespace vexo
