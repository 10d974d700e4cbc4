#include "host/calibration/marker_fit.h"

#include <Eigen/Dense>

#include <algorithm>
#include <array>
#include <cmath>

namespace vexo {

namespace {

constexpr double band = 3.0;             // px beside the edge that are looked at
constexpr std::size_t least_pixels = 60; // in it
constexpr int unknowns = 8;
constexpr double out_of_reach = 4.5; // blurs, at which a marker still covers 3e-6
constexpr double none_near = 1e6;    // px
constexpr double tilt_unit = 10.0;   // px: keeps the equations well conditioned

/// The normal distribution and its density from tables of both, by cubic pieces (Hermite) that also have their slopes:
/// to 2e-10, in a fraction of the time of erfc() and exp().
class NormalTable {
public:
    NormalTable()
    {
        for (int i = 0; i < entries; ++i) {
            const double z = i / per_unit - most;
            _at[static_cast<std::size_t>(i)] = { 0.5 * std::erfc(-z * M_SQRT1_2), at_zero * std::exp(-0.5 * z * z) };
        }
    }

    struct Value {
        double below, density;
    };

    Value operator()(double z) const
    {
        if (!(std::abs(z) < most)) return { z > 0.0 ? 1.0 : 0.0, 0.0 };
        const double place = (z + most) * per_unit;
        const auto i = static_cast<std::size_t>(place);
        const double t = place - static_cast<double>(i), from = 1.0 - t, h = 1.0 / per_unit;
        const double z0 = z - t * h;
        const Value &a = _at[i], &b = _at[i + 1];
        const double wa = from * from * (1.0 + 2.0 * t), wb = t * t * (3.0 - 2.0 * t);
        const double sa = h * t * from * from, sb = -h * t * t * from;
        return { wa * a.below + wb * b.below + sa * a.density + sb * b.density,
            wa * a.density + wb * b.density - sa * z0 * a.density - sb * (z0 + h) * b.density };
    }

private:
    static constexpr double most = 6.0, per_unit = 64.0, at_zero = 0.39894228040143268;
    static constexpr int entries = static_cast<int>(2.0 * most * per_unit) + 2;
    std::array<Value, entries> _at;
};

/// How much of a pixel lies inside an edge that is blurred, and how that changes.
struct Edge {
    double inside;  ///< 1 - F(z)
    double density; ///< dF/dz
    double by_blur; ///< -dF/d(ln blur)
};

/// F is the normal distribution with what the pixel's area adds to it: a square pixel is blurred along the normal like
/// a box, whose fourth cumulant is -(nx^4 + ny^4)/120 px^4. With k = cumulant / (24 blur^4),
///
///     F(z) = Phi(z) - k He3(z) phi(z),    He3 = z^3 - 3 z,    He4 = z^4 - 6 z^2 + 3
///
/// Without it sharp pictures leave 1 % of the contrast unexplained, and it counts as noise.
/// Source: Edgeworth's series; Cramer, Mathematical methods of statistics, 17.7.
Edge edge_at(double z, double k)
{
    static const NormalTable normal;
    const auto [below, phi] = normal(z);
    const double square = z * z, third = k * z * (square - 3.0) * phi;
    const double density = phi * (1.0 + k * (square * (square - 6.0) + 3.0));
    return { 1.0 - below + third, density, z * density - 4.0 * third };
}

/// mm of the board that a pixel spans at most, at the marker's centre: the slope's larger singular value.
double most_mm_per_px(const MarkerModel& model)
{
    const cv::Matx22d slope = model.on_board.slope({ 0.0, 0.0 });
    const double squares = slope.dot(slope), area = cv::determinant(slope);
    return std::sqrt(0.5 * (squares + std::sqrt(std::max(0.0, squares * squares - 4.0 * area * area))));
}

} // namespace

struct MarkerFitter::Parameters {
    double x = 0.0, y = 0.0, growth = 0.0, blur = 0.8, paper = 0.0, ink = 0.0, tilt_x = 0.0, tilt_y = 0.0;

    /// Steps that no real marker needs are cut, so that a bad start does not throw the fit away.
    void add(const Eigen::Matrix<double, unknowns, 1>& step)
    {
        constexpr double least_blur = 0.25, most_blur = 6.0;
        const auto cut = [&step](int i, double most) { return std::clamp(step[i], -most, most); };
        x += cut(0, 1.0);
        y += cut(1, 1.0);
        growth += cut(2, 0.05);
        blur = std::clamp(blur + cut(3, 0.3), least_blur, most_blur);
        paper += step[4];
        ink += step[5];
        tilt_x += step[6];
        tilt_y += step[7];
    }
};

/// Normal equations of a step.
struct MarkerFitter::Equations {
    Eigen::Matrix<double, unknowns, unknowns> matrix = Eigen::Matrix<double, unknowns, unknowns>::Zero();
    Eigen::Matrix<double, unknowns, 1> right = Eigen::Matrix<double, unknowns, 1>::Zero();
    double squares = 0.0; ///< of the residuals
};

MarkerFitter::MarkerFitter(const cv::Mat& picture, const BoardFile& board)
    : _picture(picture)
    , _radius(0.5 * board.layout.diameter_mm)
    , _hole(0.5 * board.layout.hole_mm)
    , _half_pitch(0.5 * board.layout.pitch_mm)
{
    CV_Assert(picture.type() == CV_8U);
}

/// Only one of the four beside it is ever near enough to reach over.
/// @param at  place on the board, mm from the marker's centre
double MarkerFitter::_from_other(const MarkerModel& model, cv::Point2d at, const cv::Matx22d& slope) const
{
    const bool along_x = std::abs(at.x) > std::abs(at.y);
    const double pitch = 2.0 * _half_pitch;
    const std::size_t which = along_x ? (at.x > 0.0 ? 0U : 1U) : (at.y > 0.0 ? 2U : 3U);
    if (!model.beside[which]) return none_near;
    const cv::Point2d from
        = at - (along_x ? cv::Point2d(std::copysign(pitch, at.x), 0.0) : cv::Point2d(0.0, std::copysign(pitch, at.y)));
    const double distance = std::sqrt(from.dot(from));
    const cv::Vec2d rise((from.x * slope(0, 0) + from.y * slope(1, 0)) / distance,
        (from.x * slope(0, 1) + from.y * slope(1, 1)) / distance);
    return (distance - _radius) / std::sqrt(rise.dot(rise));
}

void MarkerFitter::_collect(const MarkerModel& model)
{
    constexpr double saturated = 255.0, margin = 2.0;
    _pixels.clear();
    const double reach = model.reach + band + margin;
    const cv::Point2d m = model.middle;
    if (!(m.x - reach >= 1.0 && m.y - reach >= 1.0 && m.x + reach <= _picture.cols - 2.0
            && m.y + reach <= _picture.rows - 2.0))
        return;
    // A pixel that is clearly too far from the edge needs no closer look; the slope varies little over a marker.
    constexpr double clearly = 1.25;
    const double far = clearly * band * most_mm_per_px(model), most = _radius + far,
                 least = std::max(0.0, _radius - far);
    const int right = cvFloor(m.x + reach), bottom = cvFloor(m.y + reach);
    for (int y = cvCeil(m.y - reach); y <= bottom; ++y)
        for (int x = cvCeil(m.x - reach); x <= right; ++x) {
            const cv::Point2d offset(x - m.x, y - m.y), at = model.on_board.at(offset);
            if (std::abs(at.x) > _half_pitch || std::abs(at.y) > _half_pitch) continue;
            const double square = at.dot(at);
            if (square > most * most || square < least * least) continue;
            const double from_centre = std::sqrt(square) + 1e-9;
            const cv::Matx22d slope = model.on_board.slope(offset);
            const cv::Vec2d rise((at.x * slope(0, 0) + at.y * slope(1, 0)) / from_centre,
                (at.x * slope(0, 1) + at.y * slope(1, 1)) / from_centre);
            const double mm_per_px = std::sqrt(rise.dot(rise)), edge = (from_centre - _radius) / mm_per_px;
            const double grey = _picture.at<uchar>(y, x);
            if (!(std::abs(edge) < band) || grey >= saturated) continue;
            const double nx = rise[0] / mm_per_px, ny = rise[1] / mm_per_px, nx2 = nx * nx, ny2 = ny * ny;
            _pixels.push_back(
                { edge, (from_centre - _hole) / mm_per_px, _from_other(model, at, slope), nx, ny, _radius / mm_per_px,
                    -(nx2 * nx2 + ny2 * ny2) / 120.0, offset.x / tilt_unit, offset.y / tilt_unit, grey });
        }
}

std::optional<MarkerFitter::Parameters> MarkerFitter::_first_guess(bool ring) const
{
    constexpr double clear_of_blur = 1.5, clear_of_hole = 1.0, least_contrast = 8.0;
    double paper = 0.0, ink = 0.0;
    int papers = 0, inks = 0;
    for (const Pixel& p : _pixels)
        if (p.edge > clear_of_blur) {
            paper += p.grey;
            ++papers;
        } else if (p.edge < -clear_of_blur && (!ring || p.hole > clear_of_hole)) {
            ink += p.grey;
            ++inks;
        }
    if (papers == 0) return std::nullopt;
    Parameters guess;
    guess.paper = paper / papers;
    const auto darkest = std::min_element(
        _pixels.begin(), _pixels.end(), [](const Pixel& a, const Pixel& b) { return a.grey < b.grey; });
    guess.ink = inks > 0 ? ink / inks : darkest->grey;
    if (guess.paper - guess.ink < least_contrast) return std::nullopt; // hidden, or no marker
    return guess;
}

MarkerFitter::Equations MarkerFitter::_equations(const Parameters& at, bool ring) const
{
    Eigen::Matrix<double, unknowns + 1, Eigen::Dynamic> rows(unknowns + 1, static_cast<Eigen::Index>(_pixels.size()));
    Eigen::Index next = 0;
    const double per_blur4 = 1.0 / (24.0 * at.blur * at.blur * at.blur * at.blur);
    for (const Pixel& p : _pixels) {
        const double shift = p.nx * at.x + p.ny * at.y;
        const double k = p.box_cumulant * per_blur4;
        const Edge outer = edge_at((p.edge - shift - p.radius * at.growth) / at.blur, k);
        const Edge inner = ring ? edge_at((p.hole - shift) / at.blur, k) : Edge {};
        const double to_other = (p.beside - p.radius * at.growth) / at.blur;
        const Edge other = to_other < out_of_reach ? edge_at(to_other, k) : Edge {};
        const double cover = outer.inside - inner.inside + other.inside;
        const double light = 1.0 + at.tilt_x * p.x + at.tilt_y * p.y;
        const double grey = at.paper + (at.ink - at.paper) * cover;
        const double contrast = (at.paper - at.ink) * light / at.blur;
        const double edge = contrast * outer.density, both = edge - contrast * inner.density;
        rows.col(next++) << -both * p.nx, -both * p.ny, -(edge + contrast * other.density) * p.radius,
            -contrast * (outer.by_blur - inner.by_blur + other.by_blur), (1.0 - cover) * light, cover * light,
            grey * p.x, grey * p.y, p.grey - grey * light;
    }
    // All products of two columns at once, residuals' included: faster than to add pixel by pixel.
    const Eigen::Matrix<double, unknowns + 1, unknowns + 1> all = rows * rows.transpose();
    Equations sums;
    sums.matrix = all.topLeftCorner<unknowns, unknowns>();
    sums.right = all.topRightCorner<unknowns, 1>();
    sums.squares = all(unknowns, unknowns);
    return sums;
}

std::optional<MarkerFit> MarkerFitter::fit(const MarkerModel& model, bool ring)
{
    constexpr int most_steps = 15;
    constexpr double settled_sigmas = 0.1, settled_px = 1e-3;
    _collect(model);
    if (_pixels.size() < least_pixels) return std::nullopt;
    std::optional<Parameters> at = _first_guess(ring);
    for (int i = 0; at && i < most_steps; ++i) {
        const Equations sums = _equations(*at, ring);
        const Eigen::LLT<Eigen::Matrix<double, unknowns, unknowns>> solver(sums.matrix);
        if (solver.info() != Eigen::Success) return std::nullopt;
        const Eigen::Matrix<double, unknowns, 1> step = solver.solve(sums.right);
        if (!step.allFinite()) return std::nullopt;
        at->add(step);
        const double variance = sums.squares / static_cast<double>(_pixels.size() - unknowns);
        // A start that has the place right may have the blur wrong, and with it sigma: all unknowns must settle. Only a
        // blur that fills the band leaves blur, growth and levels undecided, and the place is none the worse.
        const bool all_settled = step.dot(sums.right) <= settled_sigmas * settled_sigmas * variance;
        const bool place_settled = std::abs(step[0]) + std::abs(step[1]) <= settled_px;
        if (!all_settled && !(place_settled && i + 1 == most_steps)) continue;
        const Eigen::Matrix<double, unknowns, 2> columns = solver.solve(Eigen::Matrix<double, unknowns, 2>::Identity());
        const cv::Matx22d covariance(columns(0, 0), columns(0, 1), columns(1, 0), columns(1, 1));
        return MarkerFit { model.middle + cv::Point2d(at->x, at->y), covariance * variance, model.middle, at->blur,
            at->growth, at->paper, at->ink, cv::Point2d(at->tilt_x, at->tilt_y) * (1.0 / tilt_unit),
            std::sqrt(variance) };
    }
    return std::nullopt;
}

} // namespace vexo
