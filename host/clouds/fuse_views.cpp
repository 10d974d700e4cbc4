#include "host/clouds/fuse_views.h"

#include "base/parallel.h"
#include "base/statistics.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>

namespace vexo {

namespace {

constexpr float same_sigmas = 6.0F;

/// In pixels of the view that looks: within this a point is of the surface there, or wrong.
constexpr float band_px = 4.0F;

enum class Kind : std::uint8_t {
    same,  ///< both are of one place
    near,  ///< one of them is wrong: they are of one surface, but farther apart than noise explains
    before ///< one of them is wrong: this point lies in the free space before the other
};

/// A point and what another view has there.
struct Meeting {
    std::int32_t own, other; ///< numbers of the pixels
    std::uint8_t view;       ///< the other
    Kind kind;
};

/// How good each point is: standard deviation along the line of sight, averaged over its neighbours.
cv::Mat_<float> blur_of(const View& view)
{
    constexpr int side = 41;
    constexpr double of_unknown = 4.0; // where no sigma is known there is a reason: times the usual one
    const auto usual = static_cast<float>(of_unknown * quantile(finite_values(view.sigma), 0.5));
    cv::Mat_<float> sums(view.points.size(), 0.0F), counts(view.points.size(), 0.0F);
    for (int y = 0; y < sums.rows; ++y)
        for (int x = 0; x < sums.cols; ++x) {
            const cv::Point p(x, y);
            if (!view.measured(p)) continue;
            const cv::Vec3f& point = view.points(p);
            const float sigma = view.sigma(p) > 0.0F ? view.sigma(p) : usual;
            sums(p) = sigma * std::sqrt(point.dot(point)) / point[2];
            counts(p) = 1.0F;
        }
    cv::blur(sums, sums, { side, side }, { -1, -1 }, cv::BORDER_CONSTANT);
    cv::blur(counts, counts, { side, side }, { -1, -1 }, cv::BORDER_CONSTANT);
    cv::divide(sums, counts, sums); // what is not measured is never asked
    return sums;
}

class Fusion {
public:
    Fusion(const std::vector<View>& views, const std::vector<cv::Affine3d>& poses)
        : _views(views)
        , _poses(poses)
        , _meetings(views.size())
        , _blur(views.size())
        , _support(views.size())
        , _fates(views.size())
    {
    }

    FusedViews run()
    {
        in_parallel(_views.size(), [&](std::size_t i) { _meet(i); });
        for (std::size_t i = 0; i < _views.size(); ++i)
            _drop_contradicted(i);
        in_parallel(_views.size(), [&](std::size_t i) { _doubled[i] = _worse_doubles(i); });
        for (std::size_t i = 0; i < _views.size(); ++i)
            for (const std::int32_t own : _doubled[i])
                _fate(i, own) = static_cast<uchar>(Fate::doubled);
        for (std::size_t i = 0; i < _views.size(); ++i)
            _fill_holes(i);
        for (std::size_t i = 0; i < _views.size(); ++i)
            _drop_pairs(i);
        std::vector<std::vector<FusedViews::Border>> borders(_views.size());
        in_parallel(_views.size(), [&](std::size_t i) { borders[i] = _borders(i); });
        return { std::move(_fates), std::move(borders) };
    }

private:
    uchar& _fate(std::size_t view, std::int32_t pixel) { return _fates[view].data[pixel]; }
    bool _is(std::size_t view, std::int32_t pixel, Fate fate) const
    {
        return _fates[view].data[pixel] == static_cast<uchar>(fate);
    }
    float _blur_at(std::size_t view, std::int32_t pixel) const { return _blur[view].ptr<float>()[pixel]; }
    int _supports(std::size_t view, std::int32_t pixel) const { return _support[view].data[pixel]; }

    /// Of two points the one that is seen worse; in doubt that of the later view.
    bool _is_worse(std::size_t view, std::int32_t own, std::size_t than, std::int32_t other) const
    {
        const float a = _blur_at(view, own), b = _blur_at(than, other);
        return a > b || (a == b && view > than);
    }

    /// Whether it is the meeting's own point that goes, of two that cannot both be right. In doubt it is the one in the
    /// free space before the other, or that which is seen worse.
    bool _own_goes(std::size_t view, const Meeting& m) const
    {
        const int own = _supports(view, m.own), other = _supports(m.view, m.other);
        if (own != other) return own < other;
        return m.kind == Kind::before || _is_worse(view, m.own, m.view, m.other);
    }

    /// Fills what belongs to one view: its blur, its meetings, its support.
    void _meet(std::size_t i)
    {
        const View& view = _views[i];
        _blur[i] = blur_of(view);
        _support[i] = cv::Mat_<uchar>(view.points.size(), uchar { 0 });
        _fates[i] = cv::Mat_<uchar>(view.points.size(), static_cast<uchar>(Fate::none));
        std::vector<Sight> sights;
        for (std::size_t j = 0; j < _views.size(); ++j)
            sights.emplace_back(inverse_of(_poses[j]) * _poses[i], _views[j]);
        for (int y = 0; y < view.points.rows; ++y)
            for (int x = 0; x < view.points.cols; ++x)
                if (view.measured({ x, y })) _meet(i, { x, y }, sights);
    }

    void _meet(std::size_t i, const cv::Point& p, const std::vector<Sight>& sights)
    {
        const View& view = _views[i];
        const auto own = static_cast<std::int32_t>(p.y * view.points.cols + p.x);
        _fate(i, own) = static_cast<uchar>(Fate::kept);
        Sight::Seen seen;
        for (std::size_t j = 0; j < _views.size(); ++j) {
            if (j == i || !sights[j].see(view.points(p), view.normals(p), seen)) continue;
            Kind kind = Kind::same;
            if (!_classify(view, p, sights[j], seen, _views[j], kind)) continue;
            const auto other = static_cast<std::int32_t>(seen.pixel.y * _views[j].points.cols + seen.pixel.x);
            _meetings[i].push_back({ own, other, static_cast<std::uint8_t>(j), kind });
            if (kind == Kind::same) ++_support[i].data[own];
        }
    }

    /// False where neither says anything of the other: a point after what the other sees is hidden from it.
    static bool _classify(const View& view, const cv::Point& p, const Sight& sight, const Sight::Seen& seen,
        const View& other, Kind& kind)
    {
        const cv::Vec3f &normal = other.normals(seen.pixel), off = seen.place - other.points(seen.pixel);
        const float there = other.sigma_along(seen.pixel, normal), here = view.sigma_along(p, sight.back(normal));
        const float along = std::abs(normal.dot(off)), variance = there * there + here * here;
        const float band = band_px * seen.place[2] / static_cast<float>(other.scale.f);
        const bool known = variance >= 0.0F; // false for NaN
        const float noise = known ? same_sigmas * std::sqrt(variance) : band;
        kind = along <= std::min(noise, band) ? Kind::same : along <= band ? Kind::near : Kind::before;
        return kind != Kind::before || (off[2] < 0.0F && _sees_through(seen, other, std::max(band, noise)));
    }

    /// Whether the camera sees clearly past a point: all around its pixel something farther off was measured.
    static bool _sees_through(const Sight::Seen& seen, const View& other, float margin)
    {
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx) {
                const cv::Point q = seen.pixel + cv::Point(dx, dy);
                if (!q.inside({ {}, other.points.size() })) return false;
                if (!(other.points(q)[2] > seen.place[2] + margin)) return false; // nor where it is NaN
            }
        return true;
    }

    void _drop_contradicted(std::size_t i)
    {
        for (const Meeting& m : _meetings[i]) {
            if (m.kind == Kind::same) continue;
            const bool own = _own_goes(i, m);
            if (m.kind == Kind::near && _supports(own ? i : m.view, own ? m.own : m.other) > 0) continue;
            (own ? _fate(i, m.own) : _fate(m.view, m.other)) = static_cast<uchar>(Fate::contradicted);
        }
    }

    /// Kept points whose place another view, with a point that is kept, sees better.
    std::vector<std::int32_t> _worse_doubles(std::size_t i) const
    {
        std::vector<std::int32_t> worse;
        for (const Meeting& m : _meetings[i])
            if (m.kind == Kind::same && _is(i, m.own, Fate::kept) && _is(m.view, m.other, Fate::kept)
                && _is_worse(i, m.own, m.view, m.other))
                worse.push_back(m.own);
        return worse;
    }

    cv::Point _place(std::size_t view, std::int32_t pixel) const
    {
        return { pixel % _fates[view].cols, pixel / _fates[view].cols };
    }

    /// A kept pixel among nine, the one in the middle if it is kept.
    std::optional<cv::Point> _kept_around(std::size_t view, std::int32_t pixel) const
    {
        const cv::Mat_<uchar>& fates = _fates[view];
        const cv::Point at = _place(view, pixel);
        if (_is(view, pixel, Fate::kept)) return at;
        for (int y = std::max(0, at.y - 1); y <= std::min(fates.rows - 1, at.y + 1); ++y)
            for (int x = std::max(0, at.x - 1); x <= std::min(fates.cols - 1, at.x + 1); ++x)
                if (fates(y, x) == static_cast<uchar>(Fate::kept)) return cv::Point(x, y);
        return std::nullopt;
    }

    /// The better point may itself have given way to a third that is not quite at this place.
    void _fill_holes(std::size_t i)
    {
        const std::vector<Meeting>& all = _meetings[i];
        for (std::size_t k = 0; k < all.size();) {
            const std::int32_t own = all[k].own;
            bool covered = !_is(i, own, Fate::doubled);
            for (; k < all.size() && all[k].own == own; ++k)
                covered = covered || (all[k].kind == Kind::same && _kept_around(all[k].view, all[k].other));
            if (!covered) _fate(i, own) = static_cast<uchar>(Fate::kept);
        }
    }

    /// Where the border between two views runs, pixels of both may meet.
    void _drop_pairs(std::size_t i)
    {
        for (const Meeting& m : _meetings[i]) {
            if (m.kind != Kind::same || !_is(i, m.own, Fate::kept) || !_is(m.view, m.other, Fate::kept)) continue;
            const bool own = _is_worse(i, m.own, m.view, m.other);
            (own ? _fate(i, m.own) : _fate(m.view, m.other)) = static_cast<uchar>(Fate::doubled);
        }
    }

    std::vector<FusedViews::Border> _borders(std::size_t i) const
    {
        std::vector<FusedViews::Border> borders;
        std::int32_t last = -1;
        for (const Meeting& m : _meetings[i]) {
            if (m.kind != Kind::same || m.own == last || !_is(i, m.own, Fate::doubled)) continue;
            const auto kept = _kept_around(m.view, m.other);
            if (!kept || !_kept_around(i, m.own)) continue;
            borders.push_back({ _place(i, m.own), m.view, *kept });
            last = m.own;
        }
        return borders;
    }

    const std::vector<View>& _views;
    const std::vector<cv::Affine3d>& _poses;
    std::vector<std::vector<Meeting>> _meetings; ///< of each view, in the order of its pixels
    std::vector<cv::Mat_<float>> _blur;
    std::vector<cv::Mat_<uchar>> _support; ///< number of other views that see a surface at the point
    std::vector<cv::Mat_<uchar>> _fates;
    std::vector<std::vector<std::int32_t>> _doubled { _views.size() };
};

} // namespace

std::size_t FusedViews::count(std::size_t view, Fate fate) const
{
    return static_cast<std::size_t>(cv::countNonZero(fates[view] == static_cast<uchar>(fate)));
}

FusedViews fuse_views(const std::vector<View>& views, const std::vector<cv::Affine3d>& common_from_view)
{
    return Fusion(views, common_from_view).run();
}

} // namespace vexo
