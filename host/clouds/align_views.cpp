#include "host/clouds/align_views.h"

#include "base/parallel.h"
#include "base/statistics.h"
#include "host/clouds/view_pairs.h"

#include <Eigen/Dense>
#include <opencv2/core/eigen.hpp>

#include <algorithm>
#include <limits>
#include <numeric>

namespace vexo {

namespace {

using Vector6 = Eigen::Matrix<double, 6, 1>;
using Matrix6 = Eigen::Matrix<double, 6, 6>;

constexpr double of_median = 1.4826; // a normal distribution's standard deviation over its median deviation

/// What all rounds work with.
struct Frame {
    cv::Vec3d pivot;     ///< about which is turned
    double reach = 1.0;  ///< mm: a turn counts as what it moves there
    double radius = 0.0; ///< mm: farther from each other points are no partners
};

/// Normal equations of one pair of views: both move, against each other.
struct PairSums {
    std::size_t a = 0, b = 0;
    Matrix6 normals = Matrix6::Zero();
    Vector6 right = Vector6::Zero();
    double scatter = 0.0; ///< mm, typical distance
    std::size_t count = 0;
};

using Pixels = std::vector<std::vector<cv::Point>>;
using Poses = std::vector<cv::Affine3d>;

Pixels spread_over(const std::vector<View>& views, std::size_t most)
{
    Pixels pixels(views.size());
    in_parallel(views.size(), [&](std::size_t i) { pixels[i] = spread_pixels(views[i], most); });
    return pixels;
}

/// Distances of a view to the planes of another, `sign` -1 where the roles are exchanged.
struct Side {
    std::vector<PointPair> pairs;
    double sign = 1.0;
};

void add(const Side& side, double typical, const Frame& frame, PairSums& sums)
{
    constexpr double cut = 4.0;
    for (const PointPair& p : side.pairs) {
        const double spread = typical * p.sigma;
        if (std::abs(p.along) > std::min(cut * spread, frame.radius)) continue;
        const cv::Vec3d turn = (p.place - frame.pivot).cross(p.normal) / frame.reach;
        Vector6 row;
        row << turn[0], turn[1], turn[2], p.normal[0], p.normal[1], p.normal[2];
        row *= side.sign / spread;
        sums.normals.selfadjointView<Eigen::Lower>().rankUpdate(row);
        sums.right -= row * (p.along / spread);
        ++sums.count;
    }
}

PairSums sums_of(std::size_t a, std::size_t b, const std::vector<View>& views, const Pixels& pixels, const Poses& poses,
    const Frame& frame)
{
    const Side sides[] = { { pairs_of(views[a], pixels[a], poses[a], views[b], poses[b]), 1.0 },
        { pairs_of(views[b], pixels[b], poses[b], views[a], poses[a]), -1.0 } };
    PairSums sums;
    sums.a = a;
    sums.b = b;
    std::vector<double> sizes, lengths;
    for (const Side& side : sides)
        for (const PointPair& p : side.pairs)
            if (std::abs(p.along) <= frame.radius) {
                sizes.push_back(std::abs(p.along) / p.sigma);
                lengths.push_back(std::abs(p.along));
            }
    if (sizes.size() < fewest_view_pairs) return sums;
    const double typical = std::max(1.0, of_median * median(std::move(sizes)));
    sums.scatter = of_median * median(std::move(lengths));
    for (const Side& side : sides)
        add(side, typical, frame, sums);
    sums.normals.triangularView<Eigen::StrictlyUpper>() = sums.normals.transpose();
    return sums;
}

/// One for each two views, still empty.
template <typename Pair> std::vector<Pair> every_two_of(std::size_t views)
{
    std::vector<Pair> all;
    for (std::size_t a = 0; a < views; ++a)
        for (std::size_t b = a + 1; b < views; ++b) {
            all.emplace_back();
            all.back().a = a;
            all.back().b = b;
        }
    return all;
}

std::vector<PairSums> all_sums(
    const std::vector<View>& views, const Pixels& pixels, const Poses& poses, const Frame& frame)
{
    auto all = every_two_of<PairSums>(views.size());
    in_parallel(all.size(), [&](std::size_t i) { all[i] = sums_of(all[i].a, all[i].b, views, pixels, poses, frame); });
    return all;
}

/// Adds what a pair says of the motions of its two views, of which the first view has none.
void add_pair(const Matrix6& block, std::size_t a, std::size_t b, Eigen::MatrixXd& all)
{
    const auto at = [](std::size_t view) { return 6 * (static_cast<Eigen::Index>(view) - 1); };
    if (a > 0) all.block<6, 6>(at(a), at(a)) += block;
    all.block<6, 6>(at(b), at(b)) += block;
    if (a == 0) return;
    all.block<6, 6>(at(a), at(b)) -= block;
    all.block<6, 6>(at(b), at(a)) -= block;
}

struct Step {
    Eigen::VectorXd motion; ///< of each view but the first: turn times reach, shift
    int free = 0;
    std::vector<bool> slides;
};

/// Solves as far as the normals determine it: a plane may slide on a plane, and a ball turn in a ball. A direction is
/// free where the views hold each other by next to nothing of what they would if each pair held all its directions as
/// well as its best.
/// @param least  share below which it is next to nothing
Step solve_determined(const std::vector<PairSums>& pairs, std::size_t views, double least)
{
    const auto size = static_cast<Eigen::Index>(6 * (views - 1));
    Eigen::MatrixXd normals = Eigen::MatrixXd::Zero(size, size), best = normals;
    Eigen::VectorXd right = Eigen::VectorXd::Zero(size);
    for (const PairSums& p : pairs) {
        if (p.count == 0) continue;
        const double most = p.normals.selfadjointView<Eigen::Lower>().eigenvalues().maxCoeff();
        add_pair(p.normals, p.a, p.b, normals);
        add_pair(most * Matrix6::Identity(), p.a, p.b, best);
        if (p.a > 0) right.segment<6>(6 * (static_cast<Eigen::Index>(p.a) - 1)) += p.right;
        right.segment<6>(6 * (static_cast<Eigen::Index>(p.b) - 1)) -= p.right;
    }
    best.diagonal().array() += 1e-9 * best.diagonal().maxCoeff(); // a view whose pairs went is free
    const Eigen::GeneralizedSelfAdjointEigenSolver<Eigen::MatrixXd> solver(normals, best);
    Step step { Eigen::VectorXd::Zero(size), 0, std::vector<bool>(views, false) };
    for (Eigen::Index k = 0; k < size; ++k) {
        const auto axis = solver.eigenvectors().col(k);
        if (solver.eigenvalues()[k] > least) {
            step.motion += axis * (axis.dot(right) / solver.eigenvalues()[k]);
            continue;
        }
        ++step.free;
        for (std::size_t v = 1; v < views; ++v)
            if (axis.segment<6>(6 * (static_cast<Eigen::Index>(v) - 1)).norm() > 0.1 * axis.norm())
                step.slides[v] = true;
    }
    return step;
}

cv::Affine3d motion_of(const Vector6& step, const Frame& frame)
{
    const cv::Vec3d turn = cv::Vec3d(step[0], step[1], step[2]) / frame.reach;
    const cv::Affine3d turned(turn);
    const cv::Vec3d shift = frame.pivot + cv::Vec3d(step[3], step[4], step[5]) - turned.rotation() * frame.pivot;
    return { turned.rotation(), shift };
}

/// Some points of a view in the common axes.
std::vector<cv::Vec3d> places_of(const View& view, const cv::Affine3d& pose)
{
    constexpr std::size_t enough = 1000;
    std::vector<cv::Vec3d> places;
    for (const cv::Point& p : spread_pixels(view, enough))
        places.push_back(pose * cv::Vec3d(view.points(p)));
    return places;
}

cv::Vec3d middle_of(const std::vector<cv::Vec3d>& places)
{
    cv::Vec3d middle;
    std::vector<double> values(places.size());
    for (int k = 0; k < 3; ++k) {
        std::transform(places.begin(), places.end(), values.begin(), [k](const cv::Vec3d& p) { return p[k]; });
        middle[k] = median(values);
    }
    return middle;
}

Frame frame_of(const std::vector<View>& views, const Poses& poses)
{
    std::vector<cv::Vec3d> places;
    for (std::size_t i = 0; i < views.size(); ++i) {
        const auto own = places_of(views[i], poses[i]);
        places.insert(places.end(), own.begin(), own.end());
    }
    const double reach = reach_of(views);
    return { middle_of(places), reach, farthest_in_reaches * reach };
}

/// Standard deviation of the depth of most points, mm.
double usual_sigma(const std::vector<View>& views, const Pixels& pixels)
{
    std::vector<double> sigmas;
    for (std::size_t i = 0; i < views.size(); ++i)
        for (const cv::Point& p : pixels[i])
            sigmas.push_back(static_cast<double>(views[i].sigma(p)));
    return median(std::move(sigmas));
}

ViewPair pair_of(std::size_t a, std::size_t b, const std::vector<View>& views, const Pixels& pixels, const Poses& poses,
    double nearest_mm)
{
    ViewPair pair;
    pair.a = a;
    pair.b = b;
    std::vector<double> sizes, in_sigmas;
    double squares = 0.0;
    std::size_t within = 0, front = 0;
    for (const auto& [own, other] : { std::pair(a, b), std::pair(b, a) }) {
        std::size_t here = 0;
        for (const PointPair& p : pairs_of(views[own], pixels[own], poses[own], views[other], poses[other])) {
            const double sigmas = std::abs(p.along) / p.sigma;
            if (std::abs(p.along) > nearest_mm) continue;
            ++here;
            sizes.push_back(std::abs(p.along));
            in_sigmas.push_back(sigmas);
            if (sigmas <= 6.0) {
                squares += sigmas * sigmas;
                ++within;
            } else if (p.apart < 0.0) {
                ++front;
            }
        }
        pair.overlap = std::max(pair.overlap,
            static_cast<double>(here) / static_cast<double>(std::max<std::size_t>(1, pixels[own].size())));
    }
    pair.pairs = sizes.size();
    const auto all = static_cast<double>(std::max<std::size_t>(1, sizes.size()));
    pair.rms_sigmas = std::sqrt(squares / static_cast<double>(std::max<std::size_t>(1, within)));
    pair.beyond = 1.0 - static_cast<double>(within) / all;
    pair.in_front = static_cast<double>(front) / all;
    pair.median_mm = median(std::move(sizes));
    pair.typical_sigmas = of_median * median(std::move(in_sigmas));
    return pair;
}

constexpr std::size_t few = 4000, many = 12000; ///< points of each view

} // namespace

double reach_of(const std::vector<View>& views)
{
    std::vector<double> reaches;
    for (const View& view : views) {
        const auto places = places_of(view, cv::Affine3d::Identity());
        const cv::Vec3d middle = middle_of(places);
        std::vector<double> values(places.size());
        std::transform(
            places.begin(), places.end(), values.begin(), [&](const cv::Vec3d& p) { return cv::norm(p - middle); });
        reaches.push_back(median(std::move(values)));
    }
    return std::max(median(std::move(reaches)), 1e-9);
}

std::vector<ViewPair> overlaps_of(
    const std::vector<View>& views, const Poses& poses, double nearest_mm, std::size_t points)
{
    const Pixels pixels = spread_over(views, points);
    auto pairs = every_two_of<ViewPair>(views.size());
    in_parallel(pairs.size(),
        [&](std::size_t i) { pairs[i] = pair_of(pairs[i].a, pairs[i].b, views, pixels, poses, nearest_mm); });
    pairs.erase(
        std::remove_if(pairs.begin(), pairs.end(), [](const ViewPair& p) { return p.pairs < fewest_view_pairs; }),
        pairs.end());
    return pairs;
}

std::vector<std::size_t> joined(std::size_t views, const std::vector<ViewPair>& pairs)
{
    std::vector<std::size_t> first(views);
    std::iota(first.begin(), first.end(), std::size_t { 0 });
    for (const ViewPair& p : pairs) {
        const auto [low, high] = std::minmax(first[p.a], first[p.b]);
        const std::size_t from = high, to = low;
        std::replace(first.begin(), first.end(), from, to);
    }
    return first;
}

AlignedViews align_views(const std::vector<View>& views, Poses poses)
{
    constexpr int most_rounds = 100;
    constexpr double shrinking = 0.8, in_scatters = 6.0, in_sigmas = 30.0, still_in_sigmas = 0.02;
    // Normals within two degrees of one another hold nothing. Where views still lie beside each other their normals
    // differ by more, and balls would turn by degrees: so these come to rest first by what holds them well.
    constexpr double least = 1e-3, strong = 0.02;
    constexpr int strong_rounds = 2;
    AlignedViews a;
    a.common_from_view = std::move(poses);
    a.slides.resize(views.size());
    Frame frame = frame_of(views, a.common_from_view);
    Pixels pixels = spread_over(views, few);
    const double sigma = usual_sigma(views, pixels), least_radius = in_sigmas * sigma;
    bool coarse = true;
    for (a.rounds = 1; a.rounds <= most_rounds; ++a.rounds) {
        const auto pairs = all_sums(views, pixels, a.common_from_view, frame);
        double scatter = 0.0;
        for (const PairSums& p : pairs)
            scatter = std::max(scatter, p.scatter);
        const Step step = solve_determined(pairs, views.size(), a.rounds <= strong_rounds ? strong : least);
        a.free_directions = step.free;
        a.slides = step.slides;
        a.last_step = 0.0;
        for (std::size_t v = 1; v < views.size(); ++v) {
            const Vector6 own = step.motion.segment<6>(6 * (static_cast<Eigen::Index>(v) - 1));
            a.common_from_view[v] = motion_of(own, frame) * a.common_from_view[v];
            a.last_step = std::max(a.last_step, own.norm());
        }
        const bool still = a.last_step < still_in_sigmas * sigma;
        if (a.rounds <= strong_rounds) continue;
        if (still && !coarse) {
            a.converged = true;
            break;
        }
        if (coarse && (still || (frame.radius <= least_radius && a.last_step < sigma))) {
            coarse = false;
            pixels = spread_over(views, many);
        }
        frame.radius = std::max(least_radius, std::min(shrinking * frame.radius, in_scatters * scatter));
    }
    return a;
}

} // namespace vexo
