#include "host/measurement/projector.h"

#include "base/parallel.h"
#include "base/statistics.h"
#include "base/text.h"
#include "host/cameras/rectification.h"
#include "host/captures/positions.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

namespace vexo {

namespace {

constexpr int rows_looked_at = 40;

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

/// Some rows of rectified frames, and which these are.
struct Rows {
    cv::Mat positions; ///< CV_32F, one row for each
    int first = 0, every = 1;
};

Rows rows_of(iStereoCamera& camera, const std::vector<cv::Mat>& frames, const FringeMethod& method, int which)
{
    Rows rows;
    std::vector<cv::Mat> some(frames.size());
    in_parallel(frames.size(), [&](std::size_t k) {
        const cv::Mat whole = rectified(camera, frames[k], which);
        const int every = std::max(1, whole.rows / rows_looked_at);
        const std::size_t step = whole.step * static_cast<std::size_t>(every);
        some[k] = cv::Mat(whole.rows / every, whole.cols, CV_8U, whole.data, step).clone();
        if (k == 0) rows.every = every;
    });
    rows.positions = projector_positions(some, method);
    return rows;
}

/// Columns of a row between which the position rises, by position.
struct Rise {
    float position, next;
    int column;
};

/// Fringes or projector px from one camera column to the next; more is an edge.
float most_step(const FringeMethod& method)
{
    return method.multi() ? 8.0F : 1.0F;
}

std::vector<Rise> rises_of(const cv::Mat& positions, int row, float most)
{
    std::vector<Rise> rises;
    const auto* at = positions.ptr<float>(row);
    for (int x = 0; x + 1 < positions.cols; ++x)
        if (at[x + 1] > at[x] && at[x + 1] - at[x] < most) rises.push_back({ at[x], at[x + 1], x });
    std::sort(
        rises.begin(), rises.end(), [](const Rise& one, const Rise& other) { return one.position < other.position; });
    return rises;
}

struct Partners {
    std::vector<Point> points;
    double asked = 0, columns = 0; ///< columns: a position's length in camera 0, summed
};

void find_partners(const Rows& left, const Rows& right, int row, float most, Partners& partners)
{
    constexpr int every = 4;
    const std::vector<Rise> rises = rises_of(right.positions, row, most);
    const auto* at = left.positions.ptr<float>(row);
    for (int x = every; x + 1 < left.positions.cols; x += every) {
        const float position = at[x];
        if (std::isnan(position)) continue;
        ++partners.asked;
        auto found = std::upper_bound(
            rises.begin(), rises.end(), position, [](float value, const Rise& rise) { return value < rise.position; });
        if (found == rises.begin() || (--found)->next < position) continue;
        const double part = static_cast<double>((position - found->position) / (found->next - found->position));
        partners.points.push_back({ static_cast<double>(x), static_cast<double>(row * left.every),
            x - found->column - part, static_cast<double>(position) });
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
double length_of(const cv::Mat& positions, float most)
{
    std::vector<double> steps;
    for (int y = 0; y < positions.rows; ++y)
        for (int x = 0; x + 1 < positions.cols; x += 3)
            if (const float step = positions.at<float>(y, x + 1) - positions.at<float>(y, x); step > 0 && step < most)
                steps.push_back(static_cast<double>(step));
    return steps.empty() ? 0 : 1 / median(steps);
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

bool fits_better(const ProjectorFit& exchanged, const ProjectorFit& given)
{
    return exchanged.tested() && given.tested()
        && given.scatter * given.relief > exchanged_from * exchanged.scatter * exchanged.relief;
}

Finding judge_projector(const ProjectorFit& fit, bool exchanged)
{
    const std::string figures = percent(fit.outside, 1.0)
        + " of the points lie more than 1 px from where one projector would light them, scatter "
        + number(fit.scatter, 2) + " px";
    if (exchanged)
        return { "projector", Weight::spoils, "",
            "the cameras are exchanged: the other way round the points fit a projector and a surface, as given not ("
                + figures + ")",
            "exchange cam0 and cam1" };
    if (fit.outside <= most_outside) return { "projector", Weight::good, "", figures, "" };
    return { "projector", Weight::spoils, "",
        figures + ": the cameras do not see the same scene, or the calibration is foreign",
        "record both cameras' frames at once, and measure with the calibration of these cameras" };
}

ProjectorFit fit_projector(iStereoCamera& camera, const PairFrames& frames, const FringeMethod& method)
{
    const Rows left = rows_of(camera, frames[0], method, 0), right = rows_of(camera, frames[1], method, 1);
    Partners partners;
    for (int row = 0; row < left.positions.rows; ++row)
        find_partners(left, right, row, most_step(method), partners);
    ProjectorFit result;
    result.points = static_cast<int>(partners.points.size());
    if (partners.asked > 0) result.found = result.points / partners.asked;
    if (result.tested()) fit_all(partners.points, length_of(left.positions, most_step(method)), result);
    return result;
}

} // namespace vexo
