#include "host/clouds/ball_fit.h"

#include "host/clouds/shared_noise.h"

namespace vexo {

namespace {

struct Ball {
    cv::Vec3d centre;
    double radius = 0.0;

    double off(const cv::Vec3d& p) const { return cv::norm(p - centre) - radius; }
};

/// Whether a point on the ball is turned towards both cameras.
bool faces(const Ball& ball, const cv::Vec3d& p, const Sight& sight)
{
    constexpr double least_cosine = 0.5;
    const cv::Vec3d normal = p - ball.centre, other(p[0] - sight.baseline, p[1], p[2]);
    const double length = cv::norm(normal);
    return -normal.dot(p) >= least_cosine * length * cv::norm(p)
        && -normal.dot(other) >= least_cosine * length * cv::norm(other);
}

/// Numbers of the points at their pixels, -1 where there is none.
cv::Mat_<int> numbers_at(const std::vector<Sighted>& points, cv::Size size)
{
    cv::Mat_<int> numbers(size, -1);
    for (std::size_t i = 0; i < points.size(); ++i)
        numbers(points[i].pixel) = static_cast<int>(i);
    return numbers;
}

/// Where a ball is seen: a square of the picture, and every how many px it is looked at.
struct Disc {
    Disc(const Ball& ball, const Sight& sight, double part, int samples)
        : middle(sight.pixel(ball.centre))
        , radius(part * sight.f * ball.radius / ball.centre[2])
        , step(std::max(1, whole(2.0 * radius) / samples))
        , area(cv::Rect(cv::Point(whole(middle.x - radius), whole(middle.y - radius)),
                   cv::Point(whole(middle.x + radius) + 1, whole(middle.y + radius) + 1))
              & cv::Rect({}, sight.size))
    {
    }
    bool holds(int x, int y) const { return std::hypot(x - middle.x, y - middle.y) <= radius; }

    /// A pixel's coordinate; that of a fit which went astray lies outside of every picture.
    static int whole(double v)
    {
        constexpr double farthest = 1e6;
        return std::abs(v) < farthest ? cvFloor(v) : -1;
    }

    cv::Point2d middle;
    double radius;
    int step;
    cv::Rect area;
};

/// Looks for the ball of one diameter.
class Search {
public:
    Search(const std::vector<Sighted>& points, const Sight& sight, double radius, bool sigma_known)
        : _points(points)
        , _sight(sight)
        , _numbers(numbers_at(points, sight.size))
        , _radius(radius)
        , _sigma_known(sigma_known)
    {
    }

    /// The best of many; a radius of 0: none.
    Ball start();
    bool refine(Ball& ball, BallFit& fit) const;

private:
    const Sighted* _at(const cv::Point& pixel) const;
    bool _guess(Ball& ball);
    double _seen(const Ball& ball) const;
    double _window(const Sighted& s) const
    {
        constexpr double form = 0.04; // of the radius
        return form * _radius + (_sigma_known ? outlier_sigmas * s.sigma : 0.0);
    }
    std::vector<std::size_t> _near(const Ball& ball) const;
    std::vector<std::size_t> _on(const Ball& ball, const std::vector<std::size_t>& near) const;
    void _describe(const Ball& ball, const cv::Matx44d& normals, BallFit& fit) const;

    const std::vector<Sighted>& _points;
    const Sight& _sight;
    cv::Mat_<int> _numbers;
    double _radius;
    bool _sigma_known;
    cv::RNG _random { 1 };
};

const Sighted* Search::_at(const cv::Point& pixel) const
{
    if (!cv::Rect({}, _sight.size).contains(pixel)) return nullptr;
    const int number = _numbers(pixel);
    return number < 0 ? nullptr : &_points[static_cast<std::size_t>(number)];
}

/// The ball through three points near one another, on the far side of them.
bool Search::_guess(Ball& ball)
{
    const Sighted& first = _points[_random(static_cast<unsigned>(_points.size()))];
    const double whole_picture = _sight.size.width + _sight.size.height;
    const double reach = std::min(0.8 * _sight.f * _radius / first.point[2], whole_picture);
    const auto neighbour = [&] {
        return _at(first.pixel
            + cv::Point(
                static_cast<int>(_random.uniform(-reach, reach)), static_cast<int>(_random.uniform(-reach, reach))));
    };
    const Sighted *second = neighbour(), *third = neighbour();
    if (second == nullptr || third == nullptr) return false;
    const cv::Vec3d a = second->point - first.point, b = third->point - first.point, normal = a.cross(b);
    const double square = normal.dot(normal);
    if (!(square > 0.0)) return false;
    const cv::Vec3d to_middle = (a.dot(a) * b.cross(normal) + b.dot(b) * normal.cross(a)) / (2.0 * square);
    const double ring = cv::norm(to_middle), height = _radius * _radius - ring * ring;
    if (ring < 0.3 * _radius || height <= 0.0) return false;
    const cv::Vec3d away = normal * (normal.dot(first.point) > 0.0 ? 1.0 : -1.0) / std::sqrt(square);
    ball = { first.point + to_middle + std::sqrt(height) * away, _radius };
    return ball.centre[2] > _radius;
}

/// Share of the ball's disc at which its surface was measured.
double Search::_seen(const Ball& ball) const
{
    constexpr int samples = 24;
    const Disc disc(ball, _sight, 0.8, samples);
    int all = 0, on = 0;
    for (int y = disc.area.y; y < disc.area.br().y; y += disc.step)
        for (int x = disc.area.x; x < disc.area.br().x; x += disc.step) {
            if (!disc.holds(x, y)) continue;
            ++all;
            const Sighted* s = _at({ x, y });
            on += s != nullptr && std::abs(ball.off(s->point)) <= _window(*s) && faces(ball, s->point, _sight);
        }
    return all >= 20 ? static_cast<double>(on) / all : 0.0;
}

Ball Search::start()
{
    constexpr int trials = 30000, fewest_trials = 6000;
    constexpr double surely = 0.75, least = 0.4; // a plane through the ball has a quarter of the disc on its surface
    Ball best;
    double most = least;
    for (int trial = 0; trial < trials && !(trial >= fewest_trials && most > surely); ++trial) {
        Ball ball;
        if (!_guess(ball)) continue;
        const double seen = _seen(ball);
        if (!(seen > most)) continue;
        most = seen;
        best = ball;
    }
    return best;
}

std::vector<std::size_t> Search::_near(const Ball& ball) const
{
    const Disc disc(ball, _sight, 1.2, 1 << 20);
    std::vector<std::size_t> near;
    for (int y = disc.area.y; y < disc.area.br().y; ++y)
        for (int x = disc.area.x; x < disc.area.br().x; ++x) {
            const Sighted* s = _at({ x, y });
            if (s != nullptr && std::abs(ball.off(s->point)) <= _window(*s) && faces(ball, s->point, _sight))
                near.push_back(static_cast<std::size_t>(s - _points.data()));
        }
    return near;
}

double in_sigmas(const Ball& ball, const Sighted& s)
{
    const cv::Vec3d outwards = cv::normalize(s.point - ball.centre);
    return ball.off(s.point) / sigma_along(s, outwards);
}

std::vector<std::size_t> Search::_on(const Ball& ball, const std::vector<std::size_t>& near) const
{
    std::vector<double> residuals;
    residuals.reserve(near.size());
    for (const std::size_t i : near)
        residuals.push_back(std::abs(in_sigmas(ball, _points[i])));
    const double limit = outlier_limit(residuals, _sigma_known);
    std::vector<std::size_t> on;
    for (std::size_t k = 0; k < near.size(); ++k)
        if (residuals[k] <= limit) on.push_back(near[k]);
    return on;
}

/// Gauss-Newton in centre and radius; the points on the ball are chosen anew in each round.
bool Search::refine(Ball& ball, BallFit& fit) const
{
    constexpr int rounds = 30;
    cv::Matx44d normals;
    for (int round = 0; round < rounds; ++round) {
        const std::vector<std::size_t> near = _near(ball);
        if (near.size() < fewest_ball_points) return false;
        fit.inliers = _on(ball, near);
        fit.outliers = 1.0 - static_cast<double>(fit.inliers.size()) / static_cast<double>(near.size());
        normals = cv::Matx44d::zeros();
        cv::Vec4d right, step;
        for (const std::size_t i : fit.inliers) {
            const cv::Vec3d outwards = cv::normalize(_points[i].point - ball.centre);
            const double sigma = sigma_along(_points[i], outwards), weight = 1.0 / (sigma * sigma);
            const cv::Vec4d row(outwards[0], outwards[1], outwards[2], 1.0);
            normals += weight * row * row.t();
            right += weight * ball.off(_points[i].point) * row;
        }
        if (!cv::solve(normals, right, step, cv::DECOMP_CHOLESKY)) return false;
        ball.centre += cv::Vec3d(step[0], step[1], step[2]);
        ball.radius += step[3];
        if (cv::norm(step) < 1e-7 * _radius) break;
    }
    _describe(ball, normals, fit);
    return fit.inliers.size() >= fewest_ball_points;
}

void Search::_describe(const Ball& ball, const cv::Matx44d& normals, BallFit& fit) const
{
    fit.centre = ball.centre;
    fit.diameter = 2.0 * ball.radius;
    std::vector<double> residuals;
    double squares = 0.0, variances = 0.0;
    for (const std::size_t i : fit.inliers) {
        const Sighted& s = _points[i];
        residuals.push_back(in_sigmas(ball, s));
        squares += std::pow(ball.off(s.point), 2.0);
        variances += std::pow(sigma_along(s, cv::normalize(s.point - ball.centre)), 2.0);
    }
    const auto n = static_cast<double>(fit.inliers.size());
    fit.rms = std::sqrt(squares / n);
    fit.noise = std::sqrt(variances / n);
    const cv::Matx44d covariance = points_as_one(_points, fit.inliers, residuals) * normals.inv(cv::DECOMP_SVD);
    fit.diameter_sigma = 2.0 * std::sqrt(covariance(3, 3));
    fit.centre_covariance = covariance.get_minor<3, 3>(0, 0);
}

} // namespace

std::optional<BallFit> find_ball(
    const std::vector<Sighted>& points, const Sight& sight, double diameter, bool sigma_known)
{
    constexpr double largest_deviation = 0.05;
    if (points.size() < fewest_ball_points) return std::nullopt;
    Search search(points, sight, 0.5 * diameter, sigma_known);
    Ball ball = search.start();
    BallFit fit;
    if (!(ball.radius > 0.0) || !search.refine(ball, fit)) return std::nullopt;
    if (!(std::abs(fit.diameter - diameter) <= largest_deviation * diameter)) return std::nullopt;
    return fit;
}

} // namespace vexo
