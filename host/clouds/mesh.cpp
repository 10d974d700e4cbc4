#include "host/clouds/mesh.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace vexo {

namespace {

/// tan(75 degrees): beyond, a surface is seen too much from the side to be told from a step.
constexpr float steepest = 3.7320508F;

/// What noise may add, as a share of that: points which know their depth no better stand at the rim of a step.
constexpr float most_noise = 0.5F;

class Mesher {
public:
    Mesher(const cv::Mat& depth, const cv::Mat& sigma, const DisparityScale& scale)
        : _depth(depth)
        , _sigma(sigma)
        , _pixel(static_cast<float>(1.0 / scale.f))
        , _vertex(depth.size(), none)
    {
    }

    GridMesh run()
    {
        for (int y = 0; y + 1 < _depth.rows; ++y)
            for (int x = 0; x + 1 < _depth.cols; ++x)
                _add_quad({ x, y });
        _number_by_rows();
        return std::move(_mesh);
    }

private:
    static constexpr std::int32_t none = -1, used = 0;

    using Corners = std::array<cv::Point, 3>;

    float _step(cv::Point a, cv::Point b) const { return std::abs(_depth.at<float>(a) - _depth.at<float>(b)); }

    float _variance(cv::Point p) const
    {
        const float s = _sigma.empty() ? 0.0F : _sigma.at<float>(p);
        return s > 0.0F ? s * s : 0.0F; // false for NaN
    }

    /// False, too, where a corner was not measured.
    bool _on_one_surface(cv::Point a, cv::Point b) const
    {
        const float length = a.x == b.x || a.y == b.y ? 1.0F : 1.4142136F;
        const float rise = steepest * length * _pixel * std::min(_depth.at<float>(a), _depth.at<float>(b));
        const float noise = 3.0F * std::sqrt(_variance(a) + _variance(b));
        return _step(a, b) <= rise + std::min(noise, most_noise * rise);
    }

    bool _add(const Corners& c)
    {
        if (!_on_one_surface(c[0], c[1]) || !_on_one_surface(c[1], c[2]) || !_on_one_surface(c[2], c[0])) return false;
        _corners.push_back(c);
        for (const cv::Point& p : c)
            _vertex.at<std::int32_t>(p) = used;
        return true;
    }

    void _add_quad(cv::Point p)
    {
        const cv::Point right = p + cv::Point(1, 0), below = p + cv::Point(0, 1), across = p + cv::Point(1, 1);
        const bool falling = _step(p, across) <= _step(right, below); // false where one was not measured
        const bool rising_missing = !(_step(right, below) >= 0.0F);
        if (falling || rising_missing) {
            _add({ p, below, across });
            _add({ p, across, right });
        } else {
            _add({ p, below, right });
            _add({ right, below, across });
        }
    }

    /// Vertices in the order of the pixels, and triangles by their numbers.
    void _number_by_rows()
    {
        for (int y = 0; y < _depth.rows; ++y)
            for (int x = 0; x < _depth.cols; ++x) {
                std::int32_t& number = _vertex.at<std::int32_t>(y, x);
                if (number == none) continue;
                number = static_cast<std::int32_t>(_mesh.pixels.size());
                _mesh.pixels.emplace_back(x, y);
            }
        _mesh.triangles.reserve(_corners.size());
        for (const Corners& c : _corners)
            _mesh.triangles.push_back({ _number(c[0]), _number(c[1]), _number(c[2]) });
    }

    std::uint32_t _number(cv::Point p) const { return static_cast<std::uint32_t>(_vertex.at<std::int32_t>(p)); }

    const cv::Mat &_depth, &_sigma;
    float _pixel;
    cv::Mat_<std::int32_t> _vertex;
    std::vector<Corners> _corners;
    GridMesh _mesh;
};

} // namespace

GridMesh mesh_of(const cv::Mat& depth, const cv::Mat& sigma, const DisparityScale& scale)
{
    return Mesher(depth, sigma, scale).run();
}

} // namespace vexo
