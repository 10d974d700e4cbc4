#include "host/reports/hand_eye_report.h"

#include "base/text.h"

#include <opencv2/calib3d.hpp>

#include <cmath>

namespace vexo {

namespace {

/// Names of the transforms: what moves the camera, and what the board is fixed to.
std::string outer(const HandEye& h, bool of_camera)
{
    return (h.setup == HandEyeSetup::eye_in_hand) == of_camera ? "gripper" : "base";
}

struct Transform {
    std::string name;
    cv::Matx44d matrix;
};

std::vector<Transform> transforms(const HandEyeReport& report)
{
    const HandEye& h = report.found.solved;
    std::vector<Transform> all { { outer(h, true) + "_from_camera0", h.camera.matrix } };
    if (report.rectifying_rotation) {
        const cv::Affine3d raw_from_rectified(report.rectifying_rotation->t());
        all.push_back({ outer(h, true) + "_from_rectified0", (h.camera * raw_from_rectified).matrix });
    }
    all.push_back({ outer(h, false) + "_from_board", h.board.matrix });
    return all;
}

Json rows_of(const cv::Matx44d& m)
{
    Json rows = Json::array();
    for (int r = 0; r < 4; ++r)
        rows.push_back({ m(r, 0), m(r, 1), m(r, 2), m(r, 3) });
    return rows;
}

Json numbers(const cv::Vec3d& v)
{
    return { v[0], v[1], v[2] };
}

std::string text_of(const cv::Vec3d& v, int decimals)
{
    return number(v[0], decimals) + ", " + number(v[1], decimals) + ", " + number(v[2], decimals);
}

Json to_json(const HandEyeResidual& r)
{
    const auto value = [](double x) { return std::isfinite(x) ? Json(x) : Json(nullptr); };
    return { { "mm", value(r.mm) }, { "deg", value(r.deg) } };
}

Json views_json(const HandEyeReport& report)
{
    Json views = Json::array();
    for (std::size_t i = 0; i < report.seen.views.size(); ++i) {
        const HandEyeView& view = report.seen.views[i];
        views.push_back({ { "picture", view.picture }, { "line", view.row.line },
            { "residual", to_json(report.found.residuals[i]) }, { "held_out", to_json(report.found.held_out[i]) } });
    }
    return views;
}

} // namespace

std::vector<Finding> HandEyeReport::findings() const
{
    std::vector<Finding> all = seen.findings;
    for (const std::string& guess : reading.guessed)
        all.push_back({ "reading", Weight::note, "", "read as " + guess, "" });
    all.insert(all.end(), found.findings.begin(), found.findings.end());
    return all;
}

std::vector<std::string> hand_eye_lines(const HandEyeReport& report)
{
    const HandEye& h = report.found.solved;
    std::vector<std::string> lines;
    lines.push_back(std::string(name_of(h.setup)) + ", " + std::to_string(report.seen.views.size()) + " poses, read as "
        + describe(report.reading));
    lines.push_back("  camera 0 in the " + outer(h, true) + "'s frame: " + text_of(h.camera.translation(), 3)
        + " mm, rotation vector " + text_of(h.camera.rvec() * (180 / CV_PI), 3) + " degrees");
    lines.push_back("    sigma " + text_of(h.translation_sigma_mm(), 3) + " mm; " + text_of(h.rotation_sigma_deg(), 4)
        + " degrees about the camera's axes");
    lines.push_back("  the robot's readings are off by " + number(h.noise.translation_mm, 3) + " mm and "
        + number(h.noise.rotation_rad * 180 / CV_PI, 4) + " degrees (along and about each axis, estimated)");
    std::string worst;
    for (const std::size_t i : report.found.worst)
        worst += (worst.empty() ? "" : "; ") + report.seen.views[i].picture + " "
            + number(report.found.held_out[i].mm, 3) + " mm, " + number(report.found.held_out[i].deg, 4) + " degrees";
    lines.push_back("  worst poses, held out: " + worst);
    for (const Finding& finding : report.findings()) {
        std::string word = word_of(finding.weight);
        word.resize(7, ' ');
        lines.push_back("  " + word + "  " + sentence(finding));
    }
    return lines;
}

Json hand_eye_json(const HandEyeReport& report)
{
    const HandEye& h = report.found.solved;
    const std::vector<Finding> findings = report.findings();
    Json json { { "verdict", word_of(heaviest(findings)) }, { "setup", name_of(h.setup) },
        { "read_as", describe(report.reading) }, { "unit", "mm" } };
    for (const Transform& transform : transforms(report))
        json[transform.name] = rows_of(transform.matrix);
    json["sigma"] = { { "translation_mm", numbers(h.translation_sigma_mm()) },
        { "rotation_deg", numbers(h.rotation_sigma_deg()) } };
    json["robot"]
        = { { "translation_mm", h.noise.translation_mm }, { "rotation_deg", h.noise.rotation_rad * 180 / CV_PI } };
    json["markers"] = { { "count", report.seen.markers }, { "rms_px", report.seen.rms_px } };
    json["residual_rms"] = to_json(report.found.rms);
    json["held_out_rms"] = to_json(report.found.held_out_rms);
    json["turning_deg"] = { report.found.spread.first_deg, report.found.spread.second_deg };
    json["worst"] = Json::array();
    for (const std::size_t i : report.found.worst)
        json["worst"].push_back(report.seen.views[i].picture);
    json["poses"] = views_json(report);
    json["findings"] = Json::array();
    for (const Finding& finding : findings)
        json["findings"].push_back(to_json(finding));
    json["files"] = report.files;
    return json;
}

std::string hand_eye_yaml(const HandEyeReport& report)
{
    cv::FileStorage yaml(".yaml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
    cv::write(yaml, "setup", name_of(report.found.solved.setup));
    cv::write(yaml, "verdict", word_of(heaviest(report.findings())));
    cv::write(yaml, "unit", "mm");
    for (const Transform& transform : transforms(report))
        cv::write(yaml, transform.name, cv::Mat(transform.matrix));
    cv::write(yaml, "covariance", cv::Mat(report.found.solved.covariance));
    return yaml.releaseAndGetString();
}

} // namespace vexo
