#include "base/failure.h"
#include "base/text.h"
#include "host/accuracy/body_check.h"
#include "host/accuracy/expectation.h"
#include "host/clouds/ball_fit.h"

#include <cmath>

namespace vexo {

namespace {

BallFit found_ball(const Judged& judged, const std::vector<Sighted>& points, double diameter, const std::string& other)
{
    const auto fit = find_ball(points, judged.sight, diameter, judged.sigma_known);
    if (fit) return *fit;
    throw Failure(judged.folder + ": there is no" + other + " ball of about " + number(diameter, 3)
        + " mm of which both cameras see most of the near side; give its diameter within 5 %, and choose where it is "
          "with "
          "--box or --pixel");
}

/// Without what belongs to a ball that was found.
std::vector<Sighted> without(const std::vector<Sighted>& points, const BallFit& ball)
{
    constexpr double margin = 1.2;
    std::vector<Sighted> others;
    for (const Sighted& s : points)
        if (cv::norm(s.point - ball.centre) > margin * 0.5 * ball.diameter) others.push_back(s);
    return others;
}

/// The balls in the order of their diameters as given; equal ones from left to right.
std::vector<BallFit> found_balls(const Judged& judged, const std::vector<double>& lengths)
{
    std::vector<BallFit> fits { found_ball(judged, judged.points, lengths[0], "") };
    if (lengths.size() == 1) return fits;
    fits.push_back(found_ball(judged, without(judged.points, fits[0]), lengths[1], " other"));
    const double as_found = std::abs(fits[0].diameter - lengths[0]) + std::abs(fits[1].diameter - lengths[1]);
    const double exchanged = std::abs(fits[1].diameter - lengths[0]) + std::abs(fits[0].diameter - lengths[1]);
    const bool equal = lengths[0] == lengths[1];
    if (equal ? fits[1].centre[0] < fits[0].centre[0] : exchanged < as_found) std::swap(fits[0], fits[1]);
    return fits;
}

std::optional<double> of_length(const Judged& judged, double depth, double length)
{
    if (!judged.share) return std::nullopt;
    return judged.share->at(depth).scale * length;
}

Json described(const Judged& judged, const BallFit& fit, double nominal, const std::string& name)
{
    Expectation diameter { fit.diameter, fit.diameter_sigma, of_length(judged, fit.centre[2], nominal), nominal };
    Expectation form { fit.rms, fit.noise, 0.0 }; // a ball is too small for a calibration to bend it
    if (!judged.sigma_known) form.noise.reset();
    if (!judged.predicts_lengths()) diameter.noise.reset();
    Json json { { "name", name } };
    json.update(expectation_json(diameter));
    json.update({ { "centre_mm", std::vector<double>(fit.centre.val, fit.centre.val + 3) },
        { "points", fit.inliers.size() }, { "outliers", fit.outliers } });
    json["form"] = expectation_json(form);
    return json;
}

Json describe_distance(const Judged& judged, const std::vector<BallFit>& fits, double nominal)
{
    const cv::Vec3d apart = fits[1].centre - fits[0].centre, along = cv::normalize(apart);
    const double variance = along.dot((fits[0].centre_covariance + fits[1].centre_covariance) * along);
    const double depth = 0.5 * (fits[0].centre[2] + fits[1].centre[2]);
    Expectation distance { cv::norm(apart), std::sqrt(variance), of_length(judged, depth, nominal), nominal };
    if (!judged.predicts_lengths()) distance.noise.reset();
    Json json { { "name", "distance of the balls" } };
    json.update(expectation_json(distance));
    return json;
}

} // namespace

BodyCheck check_balls(const Judged& judged, const std::vector<double>& lengths)
{
    const std::vector<BallFit> fits = found_balls(judged, lengths);
    BodyCheck check;
    check.figures["diameters"] = Json::array();
    for (std::size_t i = 0; i < fits.size(); ++i) {
        const std::string name = fits.size() == 1 ? "diameter of the ball" : "diameter of ball " + std::to_string(i);
        check.figures["diameters"].push_back(described(judged, fits[i], lengths[i], name));
        check.bounded.push_back("/diameters/" + std::to_string(i));
        judge_outliers(fits[i].outliers, "at the surface of a ball are not on it", check);
    }
    if (fits.size() == 1) return check;
    check.figures["distance"] = describe_distance(judged, fits, lengths[2]);
    check.bounded.emplace_back("/distance");
    return check;
}

} // namespace vexo
