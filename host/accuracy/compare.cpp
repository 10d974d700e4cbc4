#include "host/accuracy/compare.h"

#include "base/failure.h"
#include "host/accuracy/result_in_mm.h"
#include "host/accuracy/sigma_check.h"
#include "host/clouds/sphere_fit.h"

#include <cmath>

namespace vexo {

namespace {

cv::Vec3d vector_in(const Json& json, const std::string& pointer, const std::string& path)
{
    cv::Vec3d v;
    for (int k = 0; k < 3; ++k)
        v[k] = number_in(json, pointer + "/" + std::to_string(k), path);
    return v;
}

/// Points of a ball: near its surface, and turned towards both cameras by less than 60 degrees. Steeper flanks
/// bend within the samples of the sub-pixel fit, and pixels at the rim mix ball and background.
std::vector<cv::Vec3d> ball_points(const Errors& e, const cv::Vec3d& camera1, const cv::Vec3d& centre, double diameter)
{
    constexpr double window_mm = 2.0, least_cosine = 0.5;
    const auto faces = [](const cv::Vec3d& normal, const cv::Vec3d& ray) {
        return -normal.dot(ray) >= least_cosine * cv::norm(normal) * cv::norm(ray);
    };
    std::vector<cv::Vec3d> points;
    for (const cv::Point3d& point : e.points) {
        const cv::Vec3d p(point.x, point.y, point.z), normal = p - centre;
        if (std::abs(cv::norm(normal) - 0.5 * diameter) > window_mm) continue;
        if (faces(normal, p) && faces(normal, p - camera1)) points.push_back(p);
    }
    return points;
}

Json compare_balls(const Errors& e, const Truth& t)
{
    const std::string& path = t.scene_path;
    const double diameter = number_in(t.scene, "/balls/diameter_mm", path);
    const double distance = number_in(t.scene, "/balls/distance_mm", path);
    const cv::Vec3d camera1 = vector_in(t.scene, "/camera1_centre_cam0_mm", path);
    SphereFit fits[2];
    Json result = { { "true_diameter", diameter }, { "true_distance", distance }, { "diameters", Json::array() },
        { "fit_rms", Json::array() } };
    for (int i = 0; i < 2; ++i) {
        const cv::Vec3d centre = vector_in(t.scene, "/balls/centres_cam0_mm/" + std::to_string(i), path);
        fits[i] = fit_sphere(ball_points(e, camera1, centre, diameter));
        if (fits[i].points == 0) throw Failure(path + ": too few points on ball " + std::to_string(i) + " to fit it");
        result["diameters"].push_back(fits[i].diameter);
        result["fit_rms"].push_back(fits[i].rms);
    }
    result["distance"] = cv::norm(fits[1].centre - fits[0].centre);
    return result;
}

} // namespace

Compared compare(const std::string& result_folder, const std::string& scan_folder, const OnStep& on_step)
{
    next_step(on_step, "reading the result");
    const Result r = read_result_in_mm(result_folder);
    if (!r.raw_from_rectified)
        throw Failure(r.report_path + ": says no rectifying rotation; measure with a YAML calibration");
    next_step(on_step, "reading the truth");
    const Truth t = read_truth(scan_folder);
    next_step(on_step, "comparing");
    const Errors e = find_errors(r, t);
    Json c;
    c["result"] = result_folder;
    c["scan"] = scan_folder;
    c["scene"] = text_in(t.scene, "scene", "");
    c["method"] = r.method;
    c["decode_and_match_seconds"] = r.decode_and_match_seconds;
    c["error"] = statistics(e);
    if (c["error"]["points"] == c["error"]["points_beside_the_surface"])
        throw Failure(result_folder + ": no point lies where the truth of " + scan_folder
            + " has a surface; was it measured from this capture?");
    c["coverage"] = coverage(e);
    if (!r.sigma.empty())
        c["sigma"] = check_sigma(e);
    else if (r.predicted_noise) {
        c["predicted_noise"] = *r.predicted_noise;
        c["rms_over_predicted"] = c["error"]["rms_without_outliers"].get<double>() / *r.predicted_noise;
    }
    if (t.scene.contains("balls")) c["balls"] = compare_balls(e, t);
    return { c, e.picture };
}

} // namespace vexo
