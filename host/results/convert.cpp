#include "host/results/convert.h"

#include "base/text.h"
#include "host/clouds/mesh.h"
#include "host/clouds/normals.h"
#include "host/clouds/smooth.h"
#include "host/files/marker.h"
#include "host/files/shape_format.h"
#include "host/results/frame.h"
#include "host/results/result_maps.h"

#include <cmath>
#include <limits>
#include <sstream>

namespace vexo {

namespace {

/// What the surface of a result is, as maps.
struct Surface {
    ResultMaps maps;
    cv::Mat_<cv::Vec3f> normals;
    cv::Mat_<float> depth; ///< NaN, too, where a point lies outside the box
    DisparityScale scale;
    long long smoothed = 0; ///< points that were put on the surface around them
};

/// The report says where points are seen and in which unit: one that was changed by hand would be believed.
void refuse_changed(const std::string& folder, const Result& r)
{
    if (was_changed(folder, "report.json"))
        throw Failure(r.report_path + ": was changed since vexo measure wrote it; run it again");
}

void refuse_unfit_for_smoothing(const Result& r)
{
    const Json::json_pointer why("/sigma/why_none");
    if (is_smoothed(r.report)) throw Failure(r.report_path + ": these points are smoothed already; leave out --smooth");
    if (r.sigma.empty())
        throw Failure(r.report_path + ": --smooth weighs points by their sigma, and they have none"
            + (r.report.contains(why) && r.report[why].is_string() ? ": " + r.report[why].get<std::string>() : ""));
}

void smooth_points(Surface& s, cv::Mat_<float>& disparity, cv::Mat_<float>& sigma)
{
    const Smoothed smoothed = smooth(disparity, sigma);
    s.smoothed = smoothed.changed;
    for (int y = 0; y < disparity.rows; ++y)
        for (int x = 0; x < disparity.cols; ++x) {
            const double z = s.scale.depth(static_cast<double>(smoothed.disparity.at<float>(y, x)));
            if (!(z > 0.0) || smoothed.disparity.at<float>(y, x) == disparity(y, x)) continue;
            disparity(y, x) = smoothed.disparity.at<float>(y, x);
            sigma(y, x) = smoothed.sigma.at<float>(y, x);
            s.maps.points(y, x) = cv::Vec3d((x - s.scale.cx) / s.scale.f * z, (y - s.scale.cy) / s.scale.f * z, z);
            s.maps.sigma(y, x) = static_cast<float>(static_cast<double>(sigma(y, x)) / s.scale.px_per_length(z));
            s.depth(y, x) = static_cast<float>(z);
        }
}

/// Normals are fitted before anything is cut away.
Surface surface_of(const std::string& folder, const Result& r, bool smoothed)
{
    Surface s { read_maps(folder, r), {}, {}, { r.f, r.cx, r.cy, r.baseline, 0.0 } };
    cv::extractChannel(s.maps.points, s.depth, 2);
    cv::Mat_<float> disparity(r.size), sigma(s.maps.sigma.size());
    for (int y = 0; y < disparity.rows; ++y)
        for (int x = 0; x < disparity.cols; ++x) {
            const auto z = static_cast<double>(s.depth(y, x));
            disparity(y, x) = static_cast<float>(s.scale.disparity(z));
            if (!sigma.empty())
                sigma(y, x) = static_cast<float>(static_cast<double>(s.maps.sigma(y, x)) * s.scale.px_per_length(z));
        }
    if (smoothed) smooth_points(s, disparity, sigma);
    s.normals = surface_normals(disparity, sigma, s.scale);
    return s;
}

void cut(Surface& s, const cv::Vec6d& box_mm, const Unit& unit)
{
    const auto within = [&](const cv::Vec3f& point) {
        for (int k = 0; k < 3; ++k) {
            const double mm = static_cast<double>(point[k]) * unit.in_mm;
            if (!(mm >= box_mm[k] && mm <= box_mm[k + 3])) return false;
        }
        return true;
    };
    for (int y = 0; y < s.depth.rows; ++y)
        for (int x = 0; x < s.depth.cols; ++x)
            if (!within(s.maps.points(y, x))) s.depth(y, x) = std::numeric_limits<float>::quiet_NaN();
}

/// The pixels of each Nth point.
std::vector<cv::Point> pixels_of(const cv::Mat_<float>& depth, int every)
{
    std::vector<cv::Point> pixels;
    long long number = 0;
    for (int y = 0; y < depth.rows; ++y)
        for (int x = 0; x < depth.cols; ++x)
            if (!std::isnan(depth(y, x)) && number++ % every == 0) pixels.emplace_back(x, y);
    return pixels;
}

cv::Vec3f moved(const cv::Matx44d& frame, const cv::Vec3f& v, double shift)
{
    const cv::Vec4d to = frame * cv::Vec4d(v[0], v[1], v[2], shift);
    return cv::Vec3f(cv::Vec3d(to[0], to[1], to[2]));
}

Shape shape_of(const Surface& s, GridMesh mesh, const Frame& frame)
{
    Shape shape;
    shape.triangles = std::move(mesh.triangles);
    for (const cv::Point& p : mesh.pixels) {
        shape.points.emplace_back(moved(frame.from_camera, s.maps.points(p), 1.0));
        shape.normals.push_back(moved(frame.from_camera, s.normals(p), 0.0));
        shape.grey.push_back(s.maps.texture.at<unsigned char>(p));
        if (!s.maps.sigma.empty()) shape.sigma.push_back(s.maps.sigma(p));
    }
    return shape;
}

void refuse_nothing(const Shape& shape, const std::vector<cv::Point3f>& cloud, const ConvertRequest& request)
{
    if (shape.points.empty() && request.mesh && !request.box)
        throw Failure("no three neighbouring points form a surface; write them with --points");
    if (!shape.points.empty()) return;
    const Bounds all = bounds_of(cloud);
    std::string extent;
    for (int k = 0; k < 3; ++k)
        extent += std::string(k == 0 ? "" : ", ") + "xyz"[k] + " " + number(static_cast<double>(all.low[k]), 3) + ":"
            + number(static_cast<double>(all.high[k]), 3);
    throw Failure("--box: nothing to write lies within it; the cloud spans " + extent);
}

/// Numbers of files have 24 bits: far from the origin they would round the points off.
void refuse_far(const Frame& frame, const std::vector<cv::Point3f>& cloud, const Unit& unit)
{
    constexpr double rounding = 1.0 / (1 << 24), most = 1e-5; // of the depth
    double farthest = 0.0;
    for (int k = 0; k < 3; ++k)
        farthest = std::max(farthest, std::abs(frame.from_camera(k, 3)));
    if (farthest * rounding <= most * static_cast<double>(bounds_of(cloud).low[2])) return;
    std::ostringstream text;
    text << "--frame: its origin lies " << farthest << ' ' << unit.name
         << " away, where the numbers of a file would round points by " << farthest * rounding << ' ' << unit.name
         << "; give it in " << unit.name << ", and nearer";
    throw Failure(text.str());
}

/// The numbers as they stand in the file.
Json figures_of(const Shape& shape, const ShapeFormat& format, const ConvertRequest& request, const Frame& frame,
    long long smoothed)
{
    const Bounds bounds = bounds_of(format.metres_y_up ? in_metres_y_up(shape) : shape.points);
    const auto numbers = [](const cv::Vec3f& v) { return Json { v[0], v[1], v[2] }; };
    return { { "file", request.file }, { "kind", request.mesh ? "mesh" : "points" },
        { "vertices", shape.points.size() }, { "triangles", shape.triangles.size() }, { "smoothed", smoothed },
        { "unit", format.metres_y_up ? "m" : shape.unit }, { "frame", frame.words },
        { "axes", format.metres_y_up ? y_up_axes : "x, y, z" },
        { "bounds", { { "low", numbers(bounds.low) }, { "high", numbers(bounds.high) } } } };
}

} // namespace

const char* why_invalid(const ConvertRequest& r)
{
    for (int k = 0; r.box && k < 3; ++k)
        if (!((*r.box)[k] < (*r.box)[k + 3])) return "a box is X0 Y0 Z0 X1 Y1 Z1, each 1 above its 0";
    if (r.every < 1) return "each Nth point: N is 1 or more";
    if (r.mesh && r.every > 1) return "a mesh needs all points; say --points, or leave out --every";
    if (!r.calibration.empty() && r.frame != "board") return "a calibration is asked for the frame of the board alone";
    return nullptr;
}

Converted convert(const std::string& folder, const ConvertRequest& request, const OnStep& on_step)
{
    const ShapeFormat& format = shape_format_of(request.file);
    next_step(on_step, "reading the result");
    const Result r = read_result(folder);
    refuse_changed(folder, r);
    refuse_empty(r);
    if (request.smooth) refuse_unfit_for_smoothing(r);
    const Unit unit = unit_of(r);
    const Frame frame = request.frame.empty() ? Frame()
        : request.frame == "board"            ? frame_of_board(r, request.calibration)
                                              : frame_of_file(request.frame);
    refuse_far(frame, r.cloud, unit);
    next_step(on_step, request.mesh ? "laying the mesh" : "fitting normals");
    Surface surface = surface_of(folder, r, request.smooth);
    if (request.box) cut(surface, *request.box, unit);
    GridMesh mesh;
    if (request.mesh)
        mesh = mesh_of(surface.depth, surface.maps.sigma, surface.scale);
    else
        mesh.pixels = pixels_of(surface.depth, request.every);
    Shape shape = shape_of(surface, std::move(mesh), frame);
    refuse_nothing(shape, r.cloud, request);
    shape.unit = unit.name;
    shape.in_mm = unit.in_mm;
    shape.notes = { "vexo: unit " + (format.metres_y_up ? "m" : unit.name), "axes: " + frame.words };
    if (format.metres_y_up) shape.notes.emplace_back(std::string("written as ") + y_up_axes + " of that frame");
    if (request.smooth || is_smoothed(r.report)) shape.notes.emplace_back(how_smoothed);
    next_step(on_step, "making the file");
    return { format.make(shape), figures_of(shape, format, request, frame, surface.smoothed) };
}

} // namespace vexo
