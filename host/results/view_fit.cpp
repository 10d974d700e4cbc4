#include "host/results/view_fit.h"

#include "base/text.h"

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

/// Views that have less than this share of their points in common are not judged by it, nor joined.
constexpr double least_overlap = 0.02;

/// Beyond the first a pair does not fit, beyond the second that is worth saying. Sigma is the noise alone; what the
/// calibrations are off by is allowed beside it as far as the results say it.
constexpr double misfit_sigmas = 6.0, misfit_beyond = 0.3, in_shares = 3.0;
constexpr double poor_sigmas = 2.0, poor_beyond = 0.1;

/// Narrower overlaps see surface that is turned from both cameras, which fits worse than sigma says.
constexpr double broad_overlap = 0.15;

std::vector<ViewPair> wide_ones(std::vector<ViewPair> pairs)
{
    pairs.erase(std::remove_if(pairs.begin(), pairs.end(), [](const ViewPair& p) { return p.overlap < least_overlap; }),
        pairs.end());
    return pairs;
}

class Judge {
public:
    Judge(const std::vector<ResultView>& results, double radius)
        : _results(results)
        , _radius(radius)
    {
    }

    /// Why the views do not hang together; empty: they do.
    std::string apart(const std::vector<ViewPair>& pairs, const char* when) const
    {
        const std::vector<std::size_t> first = joined(_results.size(), wide_ones(pairs));
        std::vector<std::size_t> loose;
        for (std::size_t i = 0; i < first.size(); ++i)
            if (first[i] != 0) loose.push_back(i);
        if (loose.empty()) return "";
        std::vector<std::size_t> others;
        for (std::size_t i = 0; i < first.size(); ++i)
            if (first[i] == 0) others.push_back(i);
        const bool fewer = loose.size() > others.size();
        return _names(fewer ? others : loose) + " and the other results show no surface in common " + when
            + " (nothing of one lies within " + number(_radius, 1) + " mm of the other)";
    }

    /// Why the first pair that does not fit does not; empty: all do.
    std::string misfit(const std::vector<ViewPair>& given, const std::vector<ViewPair>& pairs) const
    {
        for (const ViewPair& was : wide_ones(given)) {
            const auto now = std::find_if(
                pairs.begin(), pairs.end(), [&was](const ViewPair& p) { return p.a == was.a && p.b == was.b; });
            const bool gone
                = was.overlap > 4.0 * least_overlap && (now == pairs.end() || now->overlap < 0.25 * was.overlap);
            if (gone)
                return _names({ was.a, was.b }) + " do not fit: the poses put " + percent(was.overlap, 1.0)
                    + " of one on the other, and with the other results in place next to nothing";
        }
        const ViewPair* worst = nullptr;
        for (const ViewPair& p : pairs)
            if (p.overlap >= least_overlap && _is_misfit(p)
                && (worst == nullptr || p.typical_sigmas > worst->typical_sigmas))
                worst = &p;
        if (worst == nullptr) return "";
        return _names({ worst->a, worst->b }) + " do not fit: where they overlap they lie "
            + number(worst->median_mm, 3) + " mm apart in the middle, and " + percent(worst->beyond, 1.0)
            + " of the points by more than 6 sigma";
    }

    std::vector<Finding> findings(const ViewFit& fit) const
    {
        std::vector<Finding> found;
        for (const ViewPair& p : fit.pairs)
            if (p.overlap >= broad_overlap && (p.typical_sigmas > poor_sigmas || p.beyond > poor_beyond))
                found.push_back({ "fit", Weight::worse, _results[p.a].folder + ", " + _results[p.b].folder,
                    "they lie " + number(p.typical_sigmas, 1) + " sigma apart, and " + percent(p.beyond, 1.0)
                        + " of the points by more than 6",
                    "sigma holds the noise alone: has the object moved or bent between them, or has the calibration? "
                    "calibrate, and measure them again" });
        if (fit.aligned.free_directions > 0) found.push_back(_slides(fit.aligned));
        return found;
    }

private:
    std::string _names(const std::vector<std::size_t>& views) const
    {
        std::string names;
        for (std::size_t k = 0; k < views.size(); ++k)
            names += (k == 0 ? "" : k + 1 == views.size() ? " and " : ", ") + _results[views[k]].folder;
        return names;
    }

    bool _is_misfit(const ViewPair& p) const
    {
        const double share = std::hypot(_results[p.a].share_mm, _results[p.b].share_mm);
        const bool by_noise = p.typical_sigmas <= misfit_sigmas && p.beyond <= misfit_beyond;
        return !by_noise && !(p.median_mm <= in_shares * share);
    }

    Finding _slides(const AlignedViews& aligned) const
    {
        std::vector<std::size_t> sliding;
        for (std::size_t i = 0; i < aligned.slides.size(); ++i)
            if (aligned.slides[i]) sliding.push_back(i);
        return { "slides", Weight::worse, "",
            "in " + std::to_string(aligned.free_directions) + " directions nothing holds " + _names(sliding)
                + " on the other results, as on a plane or a ball; there they stay where the poses put them",
            "let the views show something with edges or relief beside it, or be sure of the poses" };
    }

    const std::vector<ResultView>& _results;
    double _radius;
};

} // namespace

ViewFit fit_views(const std::vector<ResultView>& results, const std::vector<View>& views,
    const std::vector<cv::Affine3d>& common_from_view)
{
    const double radius = farthest_in_reaches * reach_of(views);
    const Judge judge(results, radius);
    ViewFit fit;
    constexpr std::size_t roughly = 5000;
    const std::vector<ViewPair> given = overlaps_of(views, common_from_view, radius, roughly);
    fit.fault = judge.apart(given, "where the poses put them");
    if (!fit.fault.empty()) return fit;
    fit.aligned = align_views(views, common_from_view);
    fit.pairs = overlaps_of(views, fit.aligned.common_from_view, radius);
    fit.fault = judge.misfit(given, fit.pairs);
    if (fit.fault.empty()) fit.fault = judge.apart(fit.pairs, "after they were laid onto one another");
    if (fit.fault.empty() && !fit.aligned.converged)
        fit.fault = "the results do not come to rest on one another: after " + std::to_string(fit.aligned.rounds - 1)
            + " rounds one still moves by " + number(fit.aligned.last_step, 4) + " mm";
    if (fit.fault.empty()) fit.findings = judge.findings(fit);
    return fit;
}

double closeness(const std::vector<View>& views, const std::vector<cv::Affine3d>& common_from_view)
{
    constexpr std::size_t few = 2000;
    const double radius = farthest_in_reaches * reach_of(views);
    double sum = 0.0;
    for (const ViewPair& p : overlaps_of(views, common_from_view, radius, few))
        sum += static_cast<double>(p.pairs) * (1.0 - p.median_mm / radius);
    return sum;
}

} // namespace vexo
