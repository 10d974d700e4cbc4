#include "common.h"
#include "frames.h"
#include "pictures.h"
#include "ply.h"
#include "report.h"
#include "rig.h"
#include "sphere_fit.h"
#include "vexo/limits.h"

#include <CLI/CLI.hpp>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

constexpr double outlier_mm = 1.0;
constexpr int inner_margin_px = 10;

/// What the measurement tells of itself: geometry of its rectified camera 0, and its noise.
struct Result {
    std::string report_path;
    Json report;
    cv::Size size; ///< of the rectified picture
    double f = 0.0, cx = 0.0, cy = 0.0, baseline = 0.0, disparity_at_infinity = 0.0;
    cv::Matx33d raw_from_rectified;
    std::vector<cv::Point3f> cloud; ///< rectified camera-0 axes
};

/// What was really there, in raw camera 0.
struct Truth {
    CalibratedCamera camera0, camera1;
    cv::Mat depth;    ///< CV_32F, NaN where nothing is
    cv::Mat visible;  ///< CV_8U, 255: lit, and seen by both cameras
    cv::Mat visible1; ///< the same of camera 1's pixels
    Json scene;
};

cv::Matx33d rotation_in(const Json& report, const std::string& path)
{
    const Json::json_pointer where("/camera/rectifying_rotation");
    if (!report.contains(where) || !report.at(where).is_array() || report.at(where).size() != 9)
        throw Failure(path + ": tells no rectifying rotation; measure with a YAML calibration");
    cv::Matx33d rotation;
    for (int i = 0; i < 9; ++i)
        rotation.val[i] = number_in(report, "/camera/rectifying_rotation/" + std::to_string(i), path);
    return rotation;
}

Result read_result(const std::string& folder)
{
    Result r;
    r.report_path = (fs::path(folder) / "report.json").string();
    r.report = read_json(r.report_path);
    const auto get = [&r](const std::string& pointer) { return number_in(r.report, pointer, r.report_path); };
    r.f = get("/camera/f");
    r.cx = get("/camera/cx");
    r.cy = get("/camera/cy");
    r.baseline = get("/camera/baseline");
    r.disparity_at_infinity = get("/camera/disparity_at_infinity");
    const double width = get("/camera/output_size/0"), height = get("/camera/output_size/1");
    if (!(r.f > 0.0) || !(r.baseline > 0.0) || !is_picture_size(width, height))
        throw Failure(r.report_path + ": f, baseline or size make no sense; run vexo measure again");
    r.size = { static_cast<int>(width), static_cast<int>(height) };
    r.raw_from_rectified = rotation_in(r.report, r.report_path).t();
    r.cloud = read_ply((fs::path(folder) / "cloud.ply").string());
    if (r.cloud.empty()) throw Failure(folder + "/cloud.ply: holds no points");
    return r;
}

cv::Mat read_map(const std::string& path, int type)
{
    cv::Mat map = read_picture(path, cv::IMREAD_UNCHANGED);
    if (map.type() != type) throw Failure(path + ": is not a map of a simulated capture; run vexo simulate again");
    return map;
}

Truth read_truth(const std::string& folder)
{
    const fs::path scan(folder);
    std::error_code ignored;
    if (!fs::exists(scan / "truth.tiff", ignored))
        throw Failure(folder + ": has no truth.tiff; only a capture of vexo simulate can be compared with");
    Truth t;
    const auto cameras = read_cameras({ (scan / "cameras.yaml").string() });
    t.camera0 = cameras[0];
    t.camera1 = cameras[1];
    t.depth = read_map((scan / "truth.tiff").string(), CV_32FC1);
    t.visible = read_map((scan / "visible.png").string(), CV_8UC1);
    t.visible1 = read_map((scan / "visible1.png").string(), CV_8UC1);
    t.scene = read_json((scan / "scene.json").string());
    if (text_in(t.scene, "scene", "").empty())
        throw Failure((scan / "scene.json").string() + ": names no scene; run vexo simulate again");
    if (t.depth.size() != t.visible.size() || t.depth.size() != t.camera0.size || t.visible1.size() != t.camera1.size)
        throw Failure(folder + ": truth.tiff, visible*.png and cameras.yaml differ in size; run vexo simulate again");
    return t;
}

/// Raw pixels of points through the distorted model; x_camera = R x + T.
std::vector<cv::Point2d> project(const std::vector<cv::Point3d>& points, const CalibratedCamera& camera,
    const cv::Matx33d& R = cv::Matx33d::eye(), const cv::Vec3d& T = cv::Vec3d())
{
    std::vector<cv::Point2d> pixels;
    cv::Vec3d turn;
    cv::Rodrigues(R, turn);
    if (!points.empty()) cv::projectPoints(points, turn, T, cv::Mat(camera.K), camera.D, pixels);
    return pixels;
}

cv::Point3d rotate(const cv::Matx33d& rotation, const cv::Point3d& p)
{
    const cv::Vec3d r = rotation * cv::Vec3d(p.x, p.y, p.z);
    return { r[0], r[1], r[2] };
}

/// Depth of the truth at a raw pixel: bilinear between four neighbours of one surface, else the nearest
/// pixel; NaN where nothing is.
double depth_at(const cv::Mat& depth, const cv::Point2d& pixel)
{
    constexpr double one_surface = 0.01; // neighbours on a surface differ by less than this share of the depth
    if (!(pixel.x > -0.5 && pixel.y > -0.5 && pixel.x < depth.cols - 0.5 && pixel.y < depth.rows - 0.5))
        return std::nan("");
    const int x = std::clamp(static_cast<int>(std::floor(pixel.x)), 0, depth.cols - 2);
    const int y = std::clamp(static_cast<int>(std::floor(pixel.y)), 0, depth.rows - 2);
    const auto at = [&](int dy, int dx) { return static_cast<double>(depth.at<float>(y + dy, x + dx)); };
    const auto [low, high] = std::minmax({ at(0, 0), at(0, 1), at(1, 0), at(1, 1) });
    const bool all = std::isfinite(at(0, 0) + at(0, 1) + at(1, 0) + at(1, 1));
    const double u = pixel.x - x, v = pixel.y - y;
    if (!all || high - low > one_surface * high) return at(v < 0.5 ? 0 : 1, u < 0.5 ? 0 : 1);
    return (1 - v) * ((1 - u) * at(0, 0) + u * at(0, 1)) + v * ((1 - u) * at(1, 0) + u * at(1, 1));
}

struct Errors {
    std::vector<cv::Point3d> points; ///< cloud in raw camera-0 axes
    std::vector<float> errors;       ///< measured - true depth of each point, NaN: nothing is there
    cv::Mat picture;                 ///< CV_32F, the errors at their rectified pixels
    cv::Mat measured;                ///< CV_8U, 255: rectified pixels with a point
};

Errors find_errors(const Result& r, const Truth& t)
{
    Errors e;
    for (const cv::Point3f& p : r.cloud)
        e.points.push_back(rotate(r.raw_from_rectified, cv::Point3d(p)));
    const std::vector<cv::Point2d> pixels = project(e.points, t.camera0);
    e.picture = cv::Mat(r.size, CV_32F, cv::Scalar(static_cast<double>(std::nanf(""))));
    e.measured = cv::Mat::zeros(r.size, CV_8U);
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        const double error = e.points[i].z - depth_at(t.depth, pixels[i]);
        e.errors.push_back(static_cast<float>(error));
        const cv::Point3d p(r.cloud[i]);
        const double x = std::round(r.f * p.x / p.z + r.cx), y = std::round(r.f * p.y / p.z + r.cy);
        if (!(x >= 0 && y >= 0 && x < r.size.width && y < r.size.height)) continue;
        e.picture.at<float>(static_cast<int>(y), static_cast<int>(x)) = static_cast<float>(error);
        e.measured.at<uchar>(static_cast<int>(y), static_cast<int>(x)) = 255;
    }
    return e;
}

/// 255 when all four raw pixels around a raw position are of the mask, as rectification mixes them.
uchar mask_at(const cv::Mat& mask, const cv::Point2d& p)
{
    const double x = std::floor(p.x), y = std::floor(p.y);
    if (!(x >= 0 && y >= 0 && x + 1 < mask.cols && y + 1 < mask.rows)) return 0;
    const cv::Mat four = mask(cv::Rect(static_cast<int>(x), static_cast<int>(y), 2, 2));
    return cv::countNonZero(four == 255) == 4 ? 255 : 0;
}

/// Rectified pixels that look at surface which both cameras see and the projector lights.
struct VisibleSurface {
    cv::Mat all;       ///< CV_8U, 255: such pixels
    cv::Mat in_common; ///< those whose point lies in the rectified picture of camera 1, too, on whole pixels of it
};

VisibleSurface rectified_visible(const Result& r, const Truth& t)
{
    const cv::Matx33d cam1_from_cam0 = t.camera1.R * t.camera0.R.t();
    const cv::Vec3d cam0_in_cam1 = t.camera1.T - cam1_from_cam0 * t.camera0.T;
    VisibleSurface visible { cv::Mat::zeros(r.size, CV_8U), cv::Mat::zeros(r.size, CV_8U) };
    std::vector<cv::Point3d> rays(static_cast<std::size_t>(r.size.width)), points(rays);
    for (int y = 0; y < r.size.height; ++y) {
        for (int x = 0; x < r.size.width; ++x)
            rays[static_cast<std::size_t>(x)]
                = rotate(r.raw_from_rectified, { (x - r.cx) / r.f, (y - r.cy) / r.f, 1.0 });
        const std::vector<cv::Point2d> pixels = project(rays, t.camera0);
        for (std::size_t i = 0; i < rays.size(); ++i)
            points[i] = rays[i] * (depth_at(t.depth, pixels[i]) / rays[i].z);
        const std::vector<cv::Point2d> pixels1 = project(points, t.camera1, cam1_from_cam0, cam0_in_cam1);
        for (int x = 0; x < r.size.width; ++x) {
            const auto i = static_cast<std::size_t>(x);
            if (mask_at(t.visible, pixels[i]) == 0) continue;
            visible.all.at<uchar>(y, x) = 255;
            const double depth = depth_at(t.depth, pixels[i]) / rays[i].z; // in rectified axes
            const double x1 = x - r.disparity_at_infinity - r.f * r.baseline / depth;
            if (x1 >= 0.0 && x1 <= r.size.width - 1.0 && mask_at(t.visible1, pixels1[i]) != 0)
                visible.in_common.at<uchar>(y, x) = 255;
        }
    }
    return visible;
}

double covered(const cv::Mat& measured, const cv::Mat& visible)
{
    return static_cast<double>(cv::countNonZero(measured & visible)) / std::max(1, cv::countNonZero(visible));
}

/// `inner` are the pixels well inside what both rectified pictures hold.
Json coverage(const Errors& e, const VisibleSurface& visible)
{
    cv::Mat inner;
    const int side = 2 * inner_margin_px + 1;
    cv::erode(
        visible.in_common, inner, cv::Mat::ones(side, side, CV_8U), { -1, -1 }, 1, cv::BORDER_CONSTANT, cv::Scalar(0));
    return { { "visible_pixels", cv::countNonZero(visible.all) }, { "coverage", covered(e.measured, visible.all) },
        { "common_pixels", cv::countNonZero(visible.in_common) },
        { "common_coverage", covered(e.measured, visible.in_common) }, { "inner_pixels", cv::countNonZero(inner) },
        { "inner_coverage", covered(e.measured, inner) } };
}

/// Noise of the decoded projector coordinate, in its own unit, and how many px of camera 1 that unit is long.
struct CoordinateNoise {
    double sigma0 = 0.0, sigma1 = 0.0; ///< of camera 0 and 1
    double unit_px = 0.0;
};

/// Of gray code + phase; the unit is a fringe period.
CoordinateNoise gray_noise(const Result& r)
{
    const auto get = [&r](const std::string& key) { return number_in(r.report, "/fringes" + key, r.report_path); };
    return { get("/cam0/phase_noise"), get("/cam1/phase_noise"), get("/cam1/length_px") };
}

/// Of multi-period phase; the unit is a projector px. The coordinate is the mean over three periods T_f with
/// phase noises s_f: sigma^2 = sum (T_f s_f)^2 / 9.
CoordinateNoise multi_noise(const Result& r)
{
    constexpr int periods = 3;
    CoordinateNoise noise;
    double variances[2] = {};
    for (int f = 0; f < periods; ++f) {
        for (std::size_t camera = 0; camera < 2; ++camera) {
            const std::string key = "/fringes/cam" + std::to_string(camera) + "/periods/" + std::to_string(f);
            const double period = number_in(r.report, key + "/period", r.report_path);
            variances[camera] += std::pow(period * number_in(r.report, key + "/phase_noise", r.report_path), 2.0);
            if (camera == 1) noise.unit_px += number_in(r.report, key + "/length_px", r.report_path) / period / periods;
        }
    }
    noise.sigma0 = std::sqrt(variances[0]) / periods;
    noise.sigma1 = std::sqrt(variances[1]) / periods;
    return noise;
}

/// Standard deviation of the depth that the noise of the grey values lets expect, by first-order propagation:
///
///     sigma_Z = Z^2 / (f b) sigma_d          sigma_d^2 = L^2 (4/9 s0^2 + k s1^2) + 2 q^2
///
/// L is the length of the coordinate's unit in camera 1 in px, s0 and s1 the noise of the coordinate in both cameras
/// (of a phase, in fringe periods: grey noise / (sqrt(2) modulation) / 2 pi). Rectification averages four
/// neighbours: with offsets spread evenly, by 2/3 of the variance along each axis, 4/9 in all. In camera 1 a line
/// through N neighbouring samples is read at most half a pixel from its middle:
///
///     k = 2/3 ((N - 1 + 2/3) / N^2 + 1 / (12 Sxx))          Sxx = N (N^2 - 1) / 12
///
/// q = 1 / (32 sqrt(12)) px is the rounding of cv::remap, which reads each camera's picture at 1/32 px; it changes
/// slowly along a row, so the line does not average it.
/// Source: Surrel, Design of algorithms for phase measurements, Applied Optics 35 (1996) 51, for the phase.
double predicted_noise(const Result& r, const CoordinateNoise& noise)
{
    const double n = number_in(r.report, "/parameters/fit_points", r.report_path);
    const double k = 2.0 / 3.0 * ((n - 1.0 + 2.0 / 3.0) / (n * n) + 1.0 / (n * (n * n - 1.0)));
    constexpr double q_squared = 1.0 / (32.0 * 32.0 * 12.0);
    const double s0 = noise.sigma0 * noise.unit_px, s1 = noise.sigma1 * noise.unit_px;
    const double sigma_d = std::sqrt(4.0 / 9.0 * s0 * s0 + k * s1 * s1 + 2.0 * q_squared);
    double fourth_powers = 0.0;
    for (const cv::Point3f& p : r.cloud)
        fourth_powers += std::pow(static_cast<double>(p.z), 4.0);
    return std::sqrt(fourth_powers / static_cast<double>(r.cloud.size())) / (r.f * r.baseline) * sigma_d;
}

/// Adds the prediction where there is one: block matching has no model of its noise, decoded maps tell none.
void add_prediction(const Result& r, Json& c)
{
    const std::string method = c["method"];
    if (!r.report.contains("fringes") || number_in(r.report, "/parameters/datatype", r.report_path) != 0.0) return;
    const double predicted = predicted_noise(r, method == "multi-phase" ? multi_noise(r) : gray_noise(r));
    c["predicted_noise"] = predicted;
    c["rms_over_predicted"] = c["error"]["rms_without_outliers"].get<double>() / predicted;
}

Json statistics(const Errors& e)
{
    std::vector<float> sizes, inliers;
    double squares = 0.0, inlier_squares = 0.0, inlier_sum = 0.0;
    std::size_t beside = 0;
    for (const float error : e.errors) {
        if (std::isnan(error)) {
            ++beside;
            continue;
        }
        const auto value = static_cast<double>(error);
        sizes.push_back(std::abs(error));
        squares += value * value;
        if (std::abs(value) > outlier_mm) continue;
        inliers.push_back(error);
        inlier_squares += value * value;
        inlier_sum += value;
    }
    const auto count = static_cast<double>(sizes.size()), good = static_cast<double>(inliers.size());
    const auto all = static_cast<double>(e.errors.size());
    return { { "points", e.errors.size() }, { "points_beside_the_surface", beside },
        { "rms", std::sqrt(squares / count) }, { "rms_without_outliers", std::sqrt(inlier_squares / good) },
        { "p95", quantile(sizes, 0.95) }, { "bias", inlier_sum / good }, { "median", quantile(inliers, 0.5) },
        { "outliers", (all - good) / all } };
}

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

Json compare_balls(const Errors& e, const Truth& t, const std::string& path)
{
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

void print_row(const GlobalOptions& global, std::string what, const std::string& value)
{
    what.resize(std::max<std::size_t>(what.size(), 38), ' ');
    say(global, what + value);
}

void print_table(const GlobalOptions& global, const Json& c)
{
    const auto get = [&c](const char* pointer) { return c.at(Json::json_pointer(pointer)).get<double>(); };
    const auto mm = [&](const char* pointer) { return number(get(pointer), 4) + " mm"; };
    print_row(global, "points", grouped(c["error"]["points"].get<long long>()));
    print_row(global, "coverage of the visible surface", percent(get("/coverage/coverage"), 1.0));
    print_row(global, "  on whole pixels of both pictures", percent(get("/coverage/common_coverage"), 1.0));
    print_row(global, "  " + std::to_string(inner_margin_px) + " px inside its edges",
        percent(get("/coverage/inner_coverage"), 1.0));
    print_row(global, "rms of the depth error", mm("/error/rms"));
    print_row(global, "  without outliers", mm("/error/rms_without_outliers"));
    if (c.contains("predicted_noise"))
        print_row(global, "  predicted from the noise",
            mm("/predicted_noise") + " (measured / predicted " + number(get("/rms_over_predicted"), 2) + ")");
    print_row(global, "95 % of the errors below", mm("/error/p95"));
    print_row(global, "bias", mm("/error/bias"));
    print_row(global, "wrong by more than 1 mm", percent(get("/error/outliers"), 1.0));
    if (!c.contains("balls")) return;
    const auto fitted = [&](const char* pointer, const char* truth) {
        const double off = get(pointer) - get(truth);
        return mm(pointer) + " (true " + number(get(truth), 4) + ", " + (off < 0 ? "" : "+") + number(off, 4) + ")";
    };
    print_row(global, "diameter of ball 0", fitted("/balls/diameters/0", "/balls/true_diameter"));
    print_row(global, "diameter of ball 1", fitted("/balls/diameters/1", "/balls/true_diameter"));
    print_row(global, "distance of the balls", fitted("/balls/distance", "/balls/true_distance"));
}

cv::Mat error_view(const Errors& e, const Json& c)
{
    const double spread = std::max(c["error"]["rms_without_outliers"].get<double>(), 1e-4);
    const double limit = std::min(outlier_mm, 4.0 * spread);
    return false_colour(e.picture, -limit, limit, "measured - true depth [mm]");
}

void compare(const GlobalOptions& global, const std::string& result_folder, const std::string& scan_folder)
{
    Progress progress(global, 4);
    progress.step("reading the result");
    const Result r = read_result(result_folder);
    progress.step("reading the truth");
    const Truth t = read_truth(scan_folder);
    OutputFolder out(result_folder);
    progress.step("comparing");
    const Errors e = find_errors(r, t);
    Json c;
    c["result"] = result_folder;
    c["scan"] = scan_folder;
    c["scene"] = text_in(t.scene, "scene", "");
    c["method"] = text_in(r.report, "method", "gray-phase");
    c["decode_and_match_seconds"] = number_in(r.report, "/seconds/decode_and_rectify", r.report_path)
        + number_in(r.report, "/seconds/match_and_triangulate", r.report_path);
    c["error"] = statistics(e);
    if (c["error"]["points"] == c["error"]["points_beside_the_surface"])
        throw Failure(result_folder + ": no point lies where the truth of " + scan_folder
            + " has a surface; was it measured from this capture?");
    c["coverage"] = coverage(e, rectified_visible(r, t));
    add_prediction(r, c);
    if (t.scene.contains("balls")) c["balls"] = compare_balls(e, t, (fs::path(scan_folder) / "scene.json").string());
    progress.step("making the picture");
    out.add("compare_view.png", encode(".png", error_view(e, c)));
    out.add("compare.json", json_text(c));
    out.commit();
    progress.finish();
    print_table(global, c);
    say(global, "result: " + out.path() + "/compare.json, compare_view.png");
    put_json(global, c);
}

} // namespace

void add_compare(CLI::App& app, GlobalOptions& global)
{
    struct Folders {
        std::string result, scan;
    };
    auto o = std::make_shared<Folders>();
    CLI::App* cmd = app.add_subcommand("compare", "error of a measured cloud against the truth of a simulated scan");
    cmd->add_option("result", o->result, "folder that vexo measure wrote")->required();
    cmd->add_option("scan", o->scan, "folder that vexo simulate wrote")->required();
    finish_command(*cmd, global,
        "vexo compare result scan\n"
        "  prints rms, coverage, bias and outliers; writes result/compare.json and result/compare_view.png",
        [o, &global] { compare(global, o->result, o->scan); });
}

} // namespace vexo::app
