#include "host/measurement/projector.h"

#include "base/parallel.h"
#include "base/statistics.h"
#include "base/text.h"
#include "host/cameras/rectification.h"
#include "host/captures/positions.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

namespace vexo {

namespace {

constexpr int rows_looked_at = 16;

/// Share of the points that lie more than 1 px off. A real rig's over-exposed cast leaves 7 %, frames of another scene
/// three quarters.
constexpr double most_outside = 0.4;

/// Scatter times relief of what was given, over those of the exchanged frames. Right pairs, real and simulated, have up
/// to 0.44 (a dental cast), exchanged ones 2.3 and more: a wall becomes a bowl, a bust fits no projector.
constexpr double exchanged_from = 1.5;

/// A pixel of camera 0 with its partner.
struct Point {
    double x, y, disparity, position;
};

/// Columns apart at which positions are looked at: gray-phase fringes may be some px long.
int spacing(const FringeMethod& method)
{
    return method.multi() ? 4 : 1;
}

/// Fringes or projector px over that; more is an edge.
float most_step(const FringeMethod& method)
{
    return method.multi() ? 24.0F : 1.0F;
}

/// Positions on some rows of rectified frames.
cv::Mat positions_on(const cv::Mat& rows, const std::vector<cv::Mat>& frames, const FringeMethod& method)
{
    std::vector<cv::Mat> some(frames.size());
    in_parallel(frames.size(), [&](std::size_t k) {
        cv::remap(frames[k], some[k], rows, cv::noArray(), cv::INTER_LINEAR, cv::BORDER_CONSTANT);
    });
    return projector_positions(some, method, spacing(method));
}

/// Columns of a row between which the position rises, by position.
struct Rise {
    float position, next;
    int column;
};

std::vector<Rise> rises_of(const cv::Mat& positions, int row, const FringeMethod& method)
{
    const int apart = spacing(method);
    std::vector<Rise> rises;
    const auto* at = positions.ptr<float>(row);
    for (int x = 0; x + apart < positions.cols; x += apart)
        if (at[x + apart] > at[x] && at[x + apart] - at[x] < most_step(method))
            rises.push_back({ at[x], at[x + apart], x });
    std::sort(
        rises.begin(), rises.end(), [](const Rise& one, const Rise& other) { return one.position < other.position; });
    return rises;
}

/// @param every  picture rows from one of these rows to the next
void find_partners(const cv::Mat& left, const cv::Mat& right, int row, int every, const FringeMethod& method,
    std::vector<Point>& points)
{
    constexpr int step = 4;
    const std::vector<Rise> rises = rises_of(right, row, method);
    const auto* at = left.ptr<float>(row);
    for (int x = step; x < left.cols; x += step) {
        const float position = at[x];
        if (std::isnan(position)) continue;
        auto found = std::upper_bound(
            rises.begin(), rises.end(), position, [](float value, const Rise& rise) { return value < rise.position; });
        if (found == rises.begin() || (--found)->next < position) continue;
        const double part = static_cast<double>((position - found->position) / (found->next - found->position));
        points.push_back({ static_cast<double>(x), static_cast<double>(row * every),
            x - found->column - part * spacing(method), static_cast<double>(position) });
    }
}

/// Values about 0 and of about 1.
struct Scaled {
    explicit Scaled(const std::vector<double>& values)
        : middle(median(values))
    {
        for (const double value : values)
            scale = std::max(scale, std::abs(value - middle));
    }
    double operator()(double value) const { return (value - middle) / scale; }
    double middle, scale = 1e-9;
};

/// Least squares of `rows` (each with its right side last), those that the last round left within three standard
/// deviations; what each row is off is given by `off`.
template <int n, class Off>
std::pair<double, double> fit(
    const std::vector<cv::Vec<double, n + 1>>& rows, cv::Vec<double, n>& best, const Off& off, double far)
{
    constexpr int rounds = 8;
    constexpr double ridge = 1e-7; // a flat surface leaves some of it open
    double limit = 1e9, scatter = 0, outside = 0;
    for (int round = 0; round < rounds; ++round) {
        cv::Matx<double, n, n> normal = cv::Matx<double, n, n>::eye() * ridge * static_cast<double>(rows.size());
        cv::Vec<double, n> right;
        std::vector<double> rests;
        for (const auto& row : rows) {
            const double rest = round == 0 ? 0 : std::abs(off(row, best));
            rests.push_back(rest);
            if (rest > limit) continue;
            cv::Vec<double, n> left;
            for (int i = 0; i < n; ++i)
                left[i] = row[i];
            normal += left * left.t();
            right += left * row[n];
        }
        if (round > 0) scatter = 1.4826 * median(rests);
        outside
            = static_cast<double>(std::count_if(rests.begin(), rests.end(), [far](double rest) { return rest > far; }))
            / static_cast<double>(rests.size());
        if (round > 0) limit = std::max(3 * scatter, 1e-9);
        best = normal.inv(cv::DECOMP_CHOLESKY) * right;
    }
    return { scatter, outside };
}

template <class Value> std::vector<double> values_of(const std::vector<Point>& points, const Value& value)
{
    std::vector<double> values;
    for (const Point& point : points)
        values.push_back(value(point));
    return values;
}

/// Length of a unit of position in camera 0, px.
double length_of(const cv::Mat& positions, const FringeMethod& method)
{
    std::vector<double> steps;
    for (int y = 0; y < positions.rows; ++y)
        for (const Rise& rise : rises_of(positions, y, method))
            steps.push_back(static_cast<double>(rise.next - rise.position));
    return steps.empty() ? 0 : spacing(method) / median(steps);
}

void fit_all(const std::vector<Point>& points, double length, ProjectorFit& result)
{
    const Scaled x(values_of(points, [](const Point& p) { return p.x; }));
    const Scaled y(values_of(points, [](const Point& p) { return p.y; }));
    const Scaled d(values_of(points, [](const Point& p) { return p.disparity; }));
    const Scaled position(values_of(points, [](const Point& p) { return p.position; }));
    std::vector<cv::Vec<double, 8>> rows;
    std::vector<cv::Vec<double, 4>> flat;
    for (const Point& point : points) {
        const double qx = x(point.x), qy = y(point.y), qd = d(point.disparity), p = position(point.position);
        rows.push_back({ qx, qy, qd, 1, -p * qx, -p * qy, -p * qd, p });
        flat.push_back({ qx, qy, 1, qd });
    }
    cv::Vec<double, 7> h;
    const auto off = [](const cv::Vec<double, 8>& row, const cv::Vec<double, 7>& at) {
        double sum = -row[7];
        for (int i = 0; i < 7; ++i)
            sum += row[i] * at[i];
        const double depth = 1 + at[4] * row[0] + at[5] * row[1] + at[6] * row[2];
        return sum / (std::abs(depth) > 0.05 ? depth : 0.05);
    };
    const auto [scatter, outside] = fit<7>(rows, h, off, 1.0 / (position.scale * length));
    result.scatter = scatter * position.scale * length;
    result.outside = outside;
    cv::Vec<double, 3> plane;
    result.relief = fit<3>(
                        flat, plane,
                        [](const cv::Vec<double, 4>& row, const cv::Vec<double, 3>& at) {
                            return row[0] * at[0] + row[1] * at[1] + row[2] * at[2] - row[3];
                        },
                        1.0)
                        .first
        * d.scale;
}

} // namespace

bool ProjectorFit::tested() const
{
    constexpr int enough = 200;
    return points >= enough;
}

bool ProjectorTest::cameras_exchanged() const
{
    return exchanged.tested() && given.tested()
        && given.scatter * given.relief > exchanged_from * exchanged.scatter * exchanged.relief;
}

Finding judge_projector(const ProjectorTest& test)
{
    const ProjectorFit& fit = test.given;
    const std::string figures = percent(fit.outside, 1.0)
        + " of the points lie more than 1 px from where one projector would light them, scatter "
        + number(fit.scatter, 2) + " px";
    if (test.cameras_exchanged())
        return { "projector", Weight::spoils, "",
            "the cameras are exchanged: the other way round the points fit one projector to "
                + number(test.exchanged.scatter, 2) + " px and a plane to " + number(test.exchanged.relief, 2)
                + " px, as given to " + number(fit.scatter, 2) + " and " + number(fit.relief, 2) + " px",
            "exchange cam0 and cam1" };
    if (fit.outside <= most_outside) return { "projector", Weight::good, "", figures, "" };
    return { "projector", Weight::spoils, "",
        figures + ": the cameras do not see the same scene, or the calibration is foreign",
        "record both cameras' frames at once, and measure with the calibration of these cameras" };
}

ProjectorTest test_projector(iStereoCamera& camera, const PairFrames& frames, const FringeMethod& method)
{
    int width = 0, height = 0;
    camera.get_outimage_size(&width, &height);
    const int every = std::max(1, height / rows_looked_at);
    std::array<cv::Mat, 2> rows;
    in_parallel(2, [&](std::size_t which) {
        rows[which] = raw_positions(camera, frames[0][0].size(), static_cast<int>(which), every);
    });
    const auto fit_of = [&](const std::vector<cv::Mat>& left, const std::vector<cv::Mat>& right) {
        const std::array<cv::Mat, 2> positions { positions_on(rows[0], left, method),
            positions_on(rows[1], right, method) };
        std::vector<Point> points;
        for (int row = 0; row < positions[0].rows; ++row)
            find_partners(positions[0], positions[1], row, every, method, points);
        ProjectorFit result;
        result.points = static_cast<int>(points.size());
        if (result.tested()) fit_all(points, length_of(positions[0], method), result);
        return result;
    };
    return { fit_of(frames[0], frames[1]), fit_of(frames[1], frames[0]) };
}

} // namespace vexo
