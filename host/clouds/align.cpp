#include "host/clouds/align.h"

#include "base/parallel.h"
#include "base/statistics.h"
#include "host/clouds/nearest.h"

#include <opencv2/calib3d.hpp>

#include <limits>
#include <optional>

namespace vexo {

namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

/// Calls `work` with each number below `count`, in blocks on all cores.
template <class Work> void for_each_number(std::size_t count, const Work& work)
{
    constexpr std::size_t block = 512;
    in_parallel((count + block - 1) / block, [&](std::size_t b) {
        for (std::size_t i = b * block; i < std::min(count, (b + 1) * block); ++i)
            work(i);
    });
}

std::vector<std::size_t> evenly(std::size_t size, std::size_t most)
{
    const std::size_t step = (size + most - 1) / most;
    std::vector<std::size_t> numbers;
    for (std::size_t i = 0; i < size; i += std::max<std::size_t>(step, 1))
        numbers.push_back(i);
    return numbers;
}

cv::Vec3d moved(const cv::Matx44d& motion, const cv::Vec3d& p)
{
    const cv::Vec4d q = motion * cv::Vec4d(p[0], p[1], p[2], 1.0);
    return { q[0], q[1], q[2] };
}

/// The middle of each coordinate, which strays do not move.
cv::Vec3d middle_of(const std::vector<cv::Vec3d>& points)
{
    cv::Vec3d middle;
    for (int k = 0; k < 3; ++k) {
        std::vector<double> values;
        values.reserve(points.size());
        for (const cv::Vec3d& p : points)
            values.push_back(p[k]);
        middle[k] = median(std::move(values));
    }
    return middle;
}

std::vector<cv::Vec3d> points_of(const std::vector<Sighted>& sighted)
{
    std::vector<cv::Vec3d> points;
    points.reserve(sighted.size());
    for (const Sighted& s : sighted)
        points.push_back(s.point);
    return points;
}

/// A reference, the planes of its points, and how densely these lie.
class Reference {
public:
    explicit Reference(const std::vector<Sighted>& sighted)
        : points(points_of(sighted))
        , _sighted(sighted)
        , _near(points)
        , _normals(sighted.size())
        , _known(sighted.size(), false)
    {
        std::vector<double> gaps;
        for (const std::size_t i : evenly(points.size(), 2000))
            gaps.push_back(cv::norm(points[_near.nearest(points[i], 2).back()] - points[i]));
        spacing = median(std::move(gaps));
    }

    /// Numbers of the nearest points, whose normals are known afterwards.
    std::vector<std::size_t> nearest(const std::vector<cv::Vec3d>& places)
    {
        std::vector<std::size_t> numbers(places.size());
        for_each_number(places.size(), [&](std::size_t i) { numbers[i] = _near.nearest(places[i]); });
        std::vector<std::size_t> unknown;
        for (const std::size_t number : numbers) {
            if (_known[number]) continue;
            _known[number] = true;
            unknown.push_back(number);
        }
        for_each_number(unknown.size(), [&](std::size_t i) { _normals[unknown[i]] = _normal_at(points[unknown[i]]); });
        return numbers;
    }
    const cv::Vec3d& normal(std::size_t number) const { return _normals[number]; }
    double sigma(std::size_t number) const
    {
        const Sighted& s = _sighted[number];
        return s.sigma > 0.0 ? sigma_along(s, _normals[number]) : 0.0;
    }

    const std::vector<cv::Vec3d> points;
    double spacing = 0.0;

private:
    cv::Vec3d _normal_at(const cv::Vec3d& place) const
    {
        constexpr std::size_t neighbours = 12;
        const auto numbers = _near.nearest(place, neighbours);
        cv::Vec3d mean;
        for (const std::size_t i : numbers)
            mean += points[i] / static_cast<double>(numbers.size());
        cv::Matx33d scatter = cv::Matx33d::zeros();
        for (const std::size_t i : numbers)
            scatter += (points[i] - mean) * (points[i] - mean).t();
        cv::Vec3d sizes;
        cv::Matx33d axes;
        cv::eigen(scatter, sizes, axes);
        return { axes(2, 0), axes(2, 1), axes(2, 2) };
    }

    const std::vector<Sighted>& _sighted;
    NearestPoints _near;
    std::vector<cv::Vec3d> _normals;
    std::vector<bool> _known;
};

/// Points of the cloud beside their partners in the reference.
struct Pairs {
    std::vector<cv::Vec3d> places; ///< of the cloud, moved
    std::vector<std::size_t> partners;
    std::vector<double> gaps;  ///< distances to the partner
    std::vector<double> along; ///< distances to its plane
    std::vector<double> sigma; ///< along its normal
};

Pairs pair_up(const std::vector<Sighted>& points, const std::vector<std::size_t>& which, const cv::Matx44d& motion,
    Reference& reference)
{
    Pairs pairs;
    for (const std::size_t i : which)
        pairs.places.push_back(moved(motion, points[i].point));
    pairs.partners = reference.nearest(pairs.places);
    const cv::Matx33d to_cloud = motion.get_minor<3, 3>(0, 0).t();
    for (std::size_t k = 0; k < which.size(); ++k) {
        const cv::Vec3d apart = pairs.places[k] - reference.points[pairs.partners[k]];
        const cv::Vec3d& normal = reference.normal(pairs.partners[k]);
        pairs.gaps.push_back(cv::norm(apart));
        pairs.along.push_back(normal.dot(apart));
        pairs.sigma.push_back(
            std::hypot(sigma_along(points[which[k]], to_cloud * normal), reference.sigma(pairs.partners[k])));
    }
    return pairs;
}

/// Solves for a motion as far as the normals determine it: a plane may slide on a plane, and a ball turn in a ball.
/// Where next to nothing holds it the cloud stays. Answers the number of directions that are free.
int solve_determined(const cv::Matx66d& normals, const cv::Vec6d& right, cv::Vec6d& step)
{
    constexpr double least = 1e-3; // of what holds it best: normals within two degrees of one another
    cv::Vec6d sizes;
    cv::Matx66d axes;
    cv::eigen(normals, sizes, axes);
    int free = 0;
    step = cv::Vec6d();
    for (int k = 0; k < 6; ++k) {
        const cv::Vec6d axis(axes.row(k).t().val);
        if (sizes[k] > least * sizes[0])
            step += axis * (axis.dot(right) / sizes[k]);
        else
            ++free;
    }
    return free;
}

/// What one round works with.
struct Round {
    double radius = 0.0; ///< mm, within which partners count
    double reach = 1.0;  ///< mm, of the cloud: a turn counts as what it moves there
    cv::Vec3d pivot;     ///< about which is turned
};

/// The small motion that brings the pairs closest: turn times reach, and shift. False when they are too few.
bool solve_step(const Pairs& pairs, const Reference& reference, const Round& round, cv::Vec6d& step, int& free)
{
    std::vector<double> sizes;
    for (std::size_t k = 0; k < pairs.gaps.size(); ++k)
        if (pairs.gaps[k] <= round.radius) sizes.push_back(std::abs(pairs.along[k]));
    constexpr std::size_t fewest = 20;
    if (sizes.size() < fewest) return false;
    const double scatter = 1.4826 * median(sizes);
    cv::Matx66d normals = cv::Matx66d::zeros();
    cv::Vec6d right;
    for (std::size_t k = 0; k < pairs.gaps.size(); ++k) {
        const double spread = std::max(std::hypot(pairs.sigma[k], scatter), 1e-9);
        if (pairs.gaps[k] > round.radius || std::abs(pairs.along[k]) > outlier_sigmas * spread) continue;
        const cv::Vec3d& n = reference.normal(pairs.partners[k]);
        const cv::Vec3d turn = (pairs.places[k] - round.pivot).cross(n) / round.reach;
        const cv::Vec6d row(turn[0], turn[1], turn[2], n[0], n[1], n[2]);
        const double weight = 1.0 / (spread * spread);
        normals += weight * row * row.t();
        right -= weight * pairs.along[k] * row;
    }
    free = solve_determined(normals, right, step);
    return true;
}

cv::Matx44d motion_of(const cv::Vec6d& step, const Round& round)
{
    cv::Matx33d R;
    const cv::Vec3d& pivot = round.pivot;
    cv::Rodrigues(cv::Vec3d(step[0], step[1], step[2]) / round.reach, R);
    const cv::Vec3d t = pivot + cv::Vec3d(step[3], step[4], step[5]) - R * pivot;
    return { R(0, 0), R(0, 1), R(0, 2), t[0], R(1, 0), R(1, 1), R(1, 2), t[1], R(2, 0), R(2, 1), R(2, 2), t[2], 0, 0, 0,
        1 };
}

/// How far places lie from their middle.
double reach_of(const std::vector<cv::Vec3d>& places, const cv::Vec3d& middle)
{
    std::vector<double> reach;
    reach.reserve(places.size());
    for (const cv::Vec3d& place : places)
        reach.push_back(cv::norm(place - middle));
    return std::max(median(std::move(reach)), 1e-9);
}

/// The shift that puts the middle of the cloud on that of the reference.
cv::Matx44d onto_middle(
    const std::vector<Sighted>& points, const std::vector<std::size_t>& which, const Reference& reference)
{
    std::vector<cv::Vec3d> places;
    places.reserve(which.size());
    for (const std::size_t i : which)
        places.push_back(points[i].point);
    const cv::Vec3d shift = middle_of(reference.points) - middle_of(places);
    return { 1, 0, 0, shift[0], 0, 1, 0, shift[1], 0, 0, 1, shift[2], 0, 0, 0, 1 };
}

void iterate(const std::vector<Sighted>& points, const std::vector<std::size_t>& which, Reference& reference,
    double least_radius, Aligned& a)
{
    constexpr int most_rounds = 100;
    constexpr double shrinking = 0.8;
    const double still_mm = std::max(1e-4, 1e-3 * reference.spacing);
    Round round;
    round.radius = std::numeric_limits<double>::infinity();
    for (a.rounds = 1; a.rounds <= most_rounds && !a.converged; ++a.rounds) {
        const Pairs pairs = pair_up(points, which, a.reference_from_cloud, reference);
        round.radius = std::max(least_radius, std::min(shrinking * round.radius, 3.0 * median(pairs.gaps)));
        round.pivot = middle_of(pairs.places);
        round.reach = reach_of(pairs.places, round.pivot);
        cv::Vec6d step;
        if (!solve_step(pairs, reference, round, step, a.free_directions)) return;
        a.reference_from_cloud = motion_of(step, round) * a.reference_from_cloud;
        a.last_step = cv::norm(step);
        a.converged = round.radius <= least_radius && a.last_step < still_mm;
    }
}

/// Where the reference has no surface: its nearest point lies to the side, or far off.
void measure_distances(const std::vector<Sighted>& points, Reference& reference, double farthest, Aligned& a)
{
    constexpr std::size_t most_points = 250000;
    constexpr double gap_in_spacings = 4.0; // a slanted surface has its points so much farther apart
    a.compared = evenly(points.size(), most_points);
    const Pairs pairs = pair_up(points, a.compared, a.reference_from_cloud, reference);
    std::size_t beside = 0;
    for (std::size_t k = 0; k < pairs.gaps.size(); ++k) {
        const double to_the_side = std::sqrt(std::max(0.0, std::pow(pairs.gaps[k], 2) - std::pow(pairs.along[k], 2)));
        const bool on = to_the_side <= gap_in_spacings * reference.spacing && std::abs(pairs.along[k]) <= farthest;
        a.distances.push_back(on ? pairs.along[k] : nan);
        beside += on ? 0 : 1;
    }
    a.noise = pairs.sigma;
    a.overlap = 1.0 - static_cast<double>(beside) / static_cast<double>(pairs.gaps.size());
}

} // namespace

Aligned align(const std::vector<Sighted>& points, const std::vector<Sighted>& reference_points, bool sigma_known)
{
    constexpr std::size_t enough = 20000;
    Reference reference(reference_points);
    const std::vector<std::size_t> which = evenly(points.size(), enough);
    std::vector<double> sigmas;
    sigmas.reserve(which.size());
    for (const std::size_t i : which)
        sigmas.push_back(points[i].sigma);
    const double noise = sigma_known ? median(std::move(sigmas)) : 0.0;
    constexpr double spacings = 4.0, times_noise = 20.0;
    const double radius = spacings * reference.spacing + times_noise * noise;
    constexpr double in_radii = 3.0; // farther off a point is of something that the reference has not
    const auto from = [&](const cv::Matx44d& motion) {
        Aligned a;
        a.reference_from_cloud = motion;
        a.spacing = reference.spacing;
        iterate(points, which, reference, radius, a);
        measure_distances(points, reference, in_radii * radius, a);
        return a;
    };
    constexpr double surely = 0.98, clearly = 1.02, far = 10.0;
    const cv::Matx44d as_both_lie = cv::Matx44d::eye(), middles = onto_middle(points, which, reference);
    const auto gap = [&](const cv::Matx44d& motion) { return median(pair_up(points, which, motion, reference).gaps); };
    std::optional<Aligned> as_given;
    if (gap(as_both_lie) < far * gap(middles)) as_given = from(as_both_lie);
    if (as_given && as_given->overlap > surely) return *as_given;
    Aligned from_middle = from(middles);
    from_middle.moved_to_centroid = true;
    return as_given && from_middle.overlap <= clearly * as_given->overlap ? *as_given : from_middle;
}

} // namespace vexo
