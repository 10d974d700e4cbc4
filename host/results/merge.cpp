#include "host/results/merge.h"

#include "base/failure.h"
#include "base/parallel.h"
#include "base/stopwatch.h"
#include "base/text.h"
#include "host/clouds/mesh_of_views.h"
#include "host/results/read_result.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <utility>

namespace vexo {

namespace fs = std::filesystem;

namespace {

using Poses = std::vector<cv::Affine3d>;

constexpr std::size_t most_results = 255; // the PLY's `view` is a byte

/// Throws Failure.
void refuse_strangers(const std::vector<ResultView>& results)
{
    for (const ResultView& r : results)
        if (r.unit.name != results[0].unit.name)
            throw Failure(r.folder + ": is in " + r.unit.name + ", and " + results[0].folder + " in "
                + results[0].unit.name + "; say the unit of both calibrations, and measure again");
    const Json::json_pointer frames("/made_from/cam0");
    for (std::size_t i = 0; i < results.size(); ++i)
        for (std::size_t k = 0; k < i; ++k)
            if (results[i].report.contains(frames) && !results[i].report[frames].empty()
                && results[k].report.contains(frames) && results[i].report[frames] == results[k].report[frames])
                throw Failure(results[k].folder + " and " + results[i].folder
                    + " were measured from the same frames; name one of them");
}

std::vector<ResultView> read_results(const MergeRequest& request)
{
    std::vector<ResultView> results(request.results.size());
    in_parallel(results.size(), [&](std::size_t i) { results[i] = read_view(request.results[i], request.box); });
    refuse_strangers(results);
    return results;
}

/// Of the points: poses are the raw camera's unless it is said that they are not.
Poses poses_of_points(const std::vector<ResultView>& results, const Poses& common_from_camera, bool rectified)
{
    Poses poses;
    for (std::size_t i = 0; i < results.size(); ++i) {
        if (!rectified && !results[i].raw_from_rectified)
            throw Failure(results[i].folder
                + ": says no rectifying rotation, so the raw camera's pose is not that of its points; measure with "
                  "the calibration's cameras.yaml, or give poses of the rectified camera, and --rectified");
        const cv::Matx33d turn = rectified ? cv::Matx33d::eye() : *results[i].raw_from_rectified;
        poses.push_back(common_from_camera[i] * cv::Affine3d(turn));
    }
    return poses;
}

/// What else the poses may mean.
std::vector<ViewPoses::Other> other_readings(
    const std::vector<ResultView>& results, const ViewPoses& poses, const MergeRequest& request)
{
    std::vector<ViewPoses::Other> others;
    const bool says_rotations = std::all_of(
        results.begin(), results.end(), [](const ResultView& r) { return r.raw_from_rectified.has_value(); });
    for (const bool rectified : { request.rectified, !request.rectified }) {
        if (!rectified && !says_rotations) continue;
        const bool same = rectified == request.rectified;
        const std::string word = same ? "" : rectified ? "--rectified" : "without --rectified";
        if (!same) others.push_back({ word, poses_of_points(results, poses.common_from_camera, rectified) });
        for (const ViewPoses::Other& other : poses.others)
            others.push_back({ same ? other.advice : other.advice + " and " + word,
                poses_of_points(results, other.common_from_camera, rectified) });
    }
    return others;
}

/// The reading at which the views do fit, in words; empty: there is none.
std::string reading_that_fits(
    const std::vector<ResultView>& results, const std::vector<View>& views, std::vector<ViewPoses::Other> others)
{
    constexpr std::size_t most_tries = 3;
    std::vector<std::pair<double, std::size_t>> ranks;
    for (std::size_t i = 0; i < others.size(); ++i)
        ranks.emplace_back(-closeness(views, others[i].common_from_camera), i);
    std::stable_sort(ranks.begin(), ranks.end());
    for (std::size_t k = 0; k < std::min(most_tries, ranks.size()); ++k) {
        const ViewPoses::Other& other = others[ranks[k].second];
        if (fit_views(results, views, other.common_from_camera).fault.empty()) return other.advice;
    }
    return "";
}

/// Where points of a view go, in the unit of the results.
class Placing {
public:
    Placing(const cv::Affine3d& common_from_view, double in_mm)
        : _turn(common_from_view.rotation())
        , _shift(common_from_view.translation())
        , _per_mm(1.0 / in_mm)
    {
    }

    void add(const View& view, const cv::Point& p, std::size_t number, Shape& shape) const
    {
        shape.points.emplace_back(cv::Vec3f((_turn * cv::Vec3d(view.points(p)) + _shift) * _per_mm));
        shape.normals.emplace_back(cv::Vec3f(_turn * cv::Vec3d(view.normals(p))));
        shape.grey.push_back(view.grey(p));
        shape.sigma.push_back(view.sigma(p) * static_cast<float>(_per_mm));
        shape.view.push_back(static_cast<unsigned char>(number));
    }

private:
    cv::Matx33d _turn;
    cv::Vec3d _shift;
    double _per_mm;
};

/// Room for so many points.
void reserve(std::size_t points, Shape& shape)
{
    shape.points.reserve(points);
    shape.normals.reserve(points);
    shape.grey.reserve(points);
    shape.sigma.reserve(points);
    shape.view.reserve(points);
}

void fill_cloud(
    const std::vector<View>& views, const std::vector<Placing>& placings, const FusedViews& fused, Shape& cloud)
{
    for (std::size_t i = 0; i < views.size(); ++i)
        for (int y = 0; y < views[i].points.rows; ++y)
            for (int x = 0; x < views[i].points.cols; ++x)
                if (fused.kept(i, { x, y })) placings[i].add(views[i], { x, y }, i, cloud);
}

void fill_mesh(const std::vector<View>& views, const std::vector<Placing>& placings, ViewsMesh mesh, Shape& shape)
{
    for (std::size_t i = 0; i < views.size(); ++i)
        for (const cv::Point& p : mesh.pixels[i])
            placings[i].add(views[i], p, i, shape);
    shape.triangles = std::move(mesh.triangles);
}

void add_shapes(const std::vector<View>& views, const FusedViews& fused, Merged& m)
{
    std::vector<Placing> placings;
    const Unit& unit = m.results[0].unit;
    std::size_t points = 0;
    for (std::size_t i = 0; i < views.size(); ++i) {
        placings.emplace_back(m.fit.aligned.common_from_view[i], unit.in_mm);
        m.counts.push_back(
            { fused.count(i, Fate::kept), fused.count(i, Fate::doubled), fused.count(i, Fate::contradicted) });
        points += m.counts.back().kept;
    }
    for (Shape* const shape : { &m.cloud, &m.mesh }) {
        shape->unit = unit.name;
        shape->in_mm = unit.in_mm;
        shape->notes = { "vexo: unit " + unit.name, "axes: the common frame of the poses",
            "view: number of the result in report.json" };
        reserve(points, *shape);
    }
    ViewsMesh mesh = mesh_of_views(views, fused);
    in_parallel(2, [&](std::size_t k) {
        if (k == 0)
            fill_cloud(views, placings, fused, m.cloud);
        else
            fill_mesh(views, placings, std::move(mesh), m.mesh);
    });
}

/// What turned far from where it was put may lie on another part of an object that is alike from several sides.
void add_moved(Merged& m)
{
    constexpr double far = 5.0; // degrees: a turntable's axis or a robot is off by 1 at most
    for (std::size_t i = 0; i < m.results.size(); ++i) {
        const cv::Affine3d moved = m.fit.aligned.common_from_view[i] * inverse_of(m.given[i]);
        const double degrees = cv::norm(moved.rvec()) * 180.0 / CV_PI;
        if (degrees > far)
            m.findings.push_back({ "moved", Weight::worse, m.results[i].folder,
                "it turned by " + number(degrees, 1) + " degrees from its pose until it fitted",
                "see that poses and results have the same order; a body that is alike from several sides fits at "
                "more than one place" });
    }
}

void add_findings(Merged& m)
{
    m.findings = m.fit.findings;
    add_moved(m);
    for (const ResultView& r : m.results)
        if (is_smoothed(r.report))
            m.findings.push_back({ "smoothed", Weight::worse, r.folder,
                "its points are smoothed: neighbours share their errors, and fine detail is gone",
                "merge results that were measured without --smooth" });
    for (const ResultView& r : m.results)
        if (text_in(r.report, "verdict", "") == word_of(Weight::spoils))
            m.findings.push_back({ "result", Weight::spoils, r.folder, "its own verdict is that it cannot be trusted",
                "see its report.json; measure it again, or leave it out" });
}

} // namespace

const char* why_invalid(const MergeRequest& r)
{
    if (r.results.size() < 2) return "two results at least";
    if (r.results.size() > most_results) return "255 results at most";
    if (r.poses.empty()) return "--poses FILE or --board FILE says where the camera was at each result";
    for (int k = 0; r.box && k < 3; ++k)
        if (!((*r.box)[k] < (*r.box)[k + 3])) return "a box is X0 Y0 Z0 X1 Y1 Z1, each 1 above its 0";
    return nullptr;
}

std::vector<std::string> names_of_results(const std::vector<std::string>& folders)
{
    std::vector<std::string> names;
    std::set<std::string> places;
    for (const std::string& folder : folders) {
        std::error_code error;
        const fs::path place = fs::canonical(folder, error);
        if (error) throw Failure(folder + ": " + error.message());
        if (!places.insert(place.string()).second) throw UsageFailure(folder + ": is named twice");
        names.push_back(place.filename().string());
    }
    return names;
}

Merged merge(const MergeRequest& request, ViewPoses poses, const OnStep& on_step)
{
    Stopwatch clock;
    Merged m;
    m.poses = std::move(poses);
    next_step(on_step, "reading the results");
    m.results = read_results(request);
    m.given = poses_of_points(m.results, m.poses.common_from_camera, request.rectified);
    std::vector<View> views;
    for (ResultView& r : m.results)
        views.push_back(std::exchange(r.view, View()));
    next_step(on_step, "laying the results onto one another");
    m.fit = fit_views(m.results, views, m.given);
    if (!m.fit.fault.empty()) {
        next_step(on_step, "reading the poses otherwise");
        const std::string right = reading_that_fits(m.results, views, other_readings(m.results, m.poses, request));
        throw Failure(m.fit.fault
            + (right.empty() ? "; are these views of one object that did not change, and the poses in the results' "
                               "order? the poses were read as "
                        + m.poses.read_as
                             : "; " + request.poses + " fits when it is read with: " + right));
    }
    next_step(on_step, "fusing them");
    const FusedViews fused = fuse_views(views, m.fit.aligned.common_from_view);
    next_step(on_step, "laying the mesh");
    add_shapes(views, fused, m);
    add_findings(m);
    m.seconds = clock.lap();
    return m;
}

} // namespace vexo
