#include "base/failure.h"
#include "base/statistics.h"
#include "base/text.h"
#include "host/accuracy/body_check.h"
#include "host/accuracy/expectation.h"
#include "host/clouds/align.h"
#include "host/files/ply.h"

#include <cmath>

namespace vexo {

namespace {

/// Less of the cloud than this on the reference is no alignment; less than the other is worth saying.
constexpr double least_overlap = 0.2, small_overlap = 0.5;

/// Those that are finite. Of a result's cloud.ply the points are as exact as their sigma says, of others they are
/// exact.
std::vector<Sighted> finite_points(const std::string& path)
{
    std::vector<Sighted> points;
    const PlyCloud cloud = read_ply_cloud(path);
    for (std::size_t i = 0; i < cloud.points.size(); ++i) {
        const cv::Point3d p(cloud.points[i]);
        const auto sigma = cloud.sigma.empty() ? 0.0 : static_cast<double>(cloud.sigma[i]);
        if (std::isfinite(p.dot(p))) points.push_back({ p, std::isfinite(sigma) && p.z > 0.0 ? sigma : 0.0, {} });
    }
    if (points.size() < fewest_reference_points)
        throw Failure(path + ": holds " + std::to_string(points.size()) + " points, and a reference needs "
            + std::to_string(fewest_reference_points) + " at least; give a denser cloud");
    return points;
}

Aligned aligned(const Judged& judged, const std::string& path)
{
    Aligned a = align(judged.points, finite_points(path), judged.sigma_known);
    const std::string remedy
        = "; is it in mm, and of the same body? turn it roughly into place, in the axes of cloud.ply";
    if (a.overlap < least_overlap)
        throw Failure(
            path + ": only " + percent(a.overlap, 1.0) + " of the points come to lie on this reference" + remedy);
    if (!a.converged)
        throw Failure(path + ": the cloud does not come to rest on this reference: after "
            + std::to_string(a.rounds - 1) + " rounds it still moves by " + number(a.last_step, 4) + " mm" + remedy);
    return a;
}

/// The distances on the reference without outliers.
struct Distances {
    std::vector<float> values, sizes;
    std::vector<double> depths;
    double squares = 0.0, variances = 0.0;
    std::size_t on_reference = 0;
};

Distances without_outliers(const Judged& judged, const Aligned& a)
{
    std::vector<double> residuals;
    for (std::size_t k = 0; k < a.distances.size(); ++k)
        if (std::isfinite(a.distances[k])) residuals.push_back(std::abs(a.distances[k]) / std::max(a.noise[k], 1e-12));
    const double limit = outlier_limit(residuals, judged.sigma_known);
    Distances d;
    d.on_reference = residuals.size();
    for (std::size_t k = 0; k < a.distances.size(); ++k) {
        const double distance = a.distances[k];
        if (!(std::abs(distance) <= limit * std::max(a.noise[k], 1e-12))) continue; // nor NaN
        d.values.push_back(static_cast<float>(distance));
        d.sizes.push_back(static_cast<float>(std::abs(distance)));
        d.squares += distance * distance;
        d.variances += a.noise[k] * a.noise[k];
        d.depths.push_back(judged.points[a.compared[k]].point[2]);
    }
    return d;
}

void judge_alignment(const Aligned& a, BodyCheck& check)
{
    if (a.moved_to_centroid)
        check.findings.push_back({ "start", Weight::note, "",
            "as it lies the cloud did not come to the reference; the search began with one middle on the other", "" });
    if (a.free_directions > 0)
        check.findings.push_back({ "slides", Weight::note, "",
            "the reference leaves the cloud free in " + std::to_string(a.free_directions)
                + " of six directions, as a plane or a ball does; in these it stays as it lies",
            "" });
    if (a.overlap < small_overlap)
        check.findings.push_back(
            { "overlap", Weight::worse, "", "only " + percent(a.overlap, 1.0) + " of the points lie on the reference",
                "choose what the reference shows with --box or --pixel" });
}

} // namespace

BodyCheck check_reference(const Judged& judged, const std::string& path)
{
    const Aligned a = aligned(judged, path);
    Distances d = without_outliers(judged, a);
    const auto n = static_cast<double>(d.values.size());
    Expectation rms { std::sqrt(d.squares / n), std::sqrt(d.variances / n), std::nullopt };
    if (!judged.sigma_known) rms.noise.reset();
    if (judged.share) rms.calibration = judged.share->at(median(d.depths)).bend_mm;
    const double outliers = 1.0 - n / static_cast<double>(d.on_reference);
    BodyCheck check;
    check.figures = { { "reference", path }, { "outliers", outliers } };
    Json& figure = check.figures["distances"] = { { "name", "distance to the reference, rms" } };
    figure.update(expectation_json(rms));
    const std::vector<double> ends = quantiles(std::move(d.sizes), { 0.95, 1.0 });
    figure.update({ { "median_mm", quantile(d.values, 0.5) }, { "p95_mm", ends[0] }, { "largest_mm", ends[1] },
        { "compared", a.compared.size() }, { "overlap", a.overlap } });
    check.figures["alignment"] = {
        { "reference_from_cloud", std::vector<double>(a.reference_from_cloud.val, a.reference_from_cloud.val + 16) },
        { "rounds", a.rounds - 1 }, { "began_at_centroid", a.moved_to_centroid }, { "spacing_mm", a.spacing }
    };
    check.bounded = { "/distances" };
    judge_alignment(a, check);
    judge_outliers(outliers, "on the reference are off it", check);
    return check;
}

} // namespace vexo
