#include "host/results/merge_report.h"

#include "host/results/provenance.h"
#include "vexo/version.h"

#include <filesystem>

namespace vexo {

namespace {

constexpr int schema = 1;

Json rows_of(const cv::Affine3d& pose)
{
    Json rows = Json::array();
    for (int i = 0; i < 4; ++i)
        rows.push_back({ pose.matrix(i, 0), pose.matrix(i, 1), pose.matrix(i, 2), pose.matrix(i, 3) });
    return rows;
}

/// By how much the refinement moved a view, about the place that it looks at.
Json moved_by(const cv::Affine3d& given, const cv::Affine3d& refined, double distance)
{
    const cv::Vec3d looked_at(0.0, 0.0, distance);
    const cv::Matx33d turn = refined.rotation() * given.rotation().t();
    return { { "mm", cv::norm(refined * looked_at - given * looked_at) },
        { "deg", cv::norm(cv::Affine3d(turn).rvec()) * 180.0 / CV_PI } };
}

Json views_of(const Merged& m)
{
    Json views = Json::array();
    for (std::size_t i = 0; i < m.results.size(); ++i) {
        const ResultView& r = m.results[i];
        const cv::Affine3d& refined = m.fit.aligned.common_from_view[i];
        const double distance = number_in(r.report, "/depth/q50", r.folder + "/report.json") * r.unit.in_mm;
        views.push_back({ { "view", i }, { "result", r.folder }, { "pose", m.poses.where[i] }, { "points", r.points },
            { "kept", m.counts[i].kept }, { "doubled", m.counts[i].doubled },
            { "contradicted", m.counts[i].contradicted }, { "common_from_rectified0", rows_of(refined) },
            { "given", rows_of(m.given[i]) }, { "moved", moved_by(m.given[i], refined, distance) } });
    }
    return views;
}

Json pairs_of(const Merged& m)
{
    Json pairs = Json::array();
    for (const ViewPair& p : m.fit.pairs)
        pairs.push_back({ { "a", p.a }, { "b", p.b }, { "overlap", p.overlap }, { "pairs", p.pairs },
            { "rms_sigmas", p.rms_sigmas }, { "typical_sigmas", p.typical_sigmas }, { "median_mm", p.median_mm },
            { "beyond_6_sigma", p.beyond }, { "in_front", p.in_front } });
    return pairs;
}

Json hashes_of_reports(const MergeRequest& request)
{
    Json made_from { { "poses", hashes_of({ request.poses }) }, { "results", Json::array() } };
    for (const std::string& folder : request.results) {
        const std::filesystem::path place(folder);
        made_from["results"].push_back(hashes_of({ (place / "report.json").string(), (place / "cloud.ply").string() }));
    }
    return made_from;
}

} // namespace

Json merge_report(const MergeRequest& request, const Merged& m)
{
    Json report { { "schema", schema }, { "program", "vexo " VEXO_VERSION_STRING },
        { "verdict", word_of(heaviest(m.findings)) }, { "findings", Json::array() }, { "unit", m.results[0].unit.name },
        { "input",
            { { "results", request.results }, { "poses", request.poses }, { "read_as", m.poses.read_as },
                { "poses_of", request.rectified ? "rectified camera 0" : "raw camera 0" } } } };
    for (const Finding& finding : m.findings)
        report["findings"].push_back(to_json(finding));
    if (request.box) report["input"]["box"] = std::vector<double>(request.box->val, request.box->val + 6);
    report["made_from"] = hashes_of_reports(request);
    report["points"] = m.cloud.points.size();
    report["mesh"] = { { "vertices", m.mesh.points.size() }, { "triangles", m.mesh.triangles.size() } };
    report["refinement"] = { { "rounds", m.fit.aligned.rounds }, { "last_step_mm", m.fit.aligned.last_step },
        { "free_directions", m.fit.aligned.free_directions } };
    report["views"] = views_of(m);
    report["pairs"] = pairs_of(m);
    report["seconds"] = m.seconds;
    return report;
}

} // namespace vexo
