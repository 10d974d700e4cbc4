#include "host/cameras/hand_eye_readings.h"

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

/// How far turns between poses differ in angle from those between the pictures, degrees rms: whatever camera and setup
/// are, these angles are equal. It needs no solving.
double angle_misfit(const std::vector<HandEyePose>& poses)
{
    const auto angle = [](const cv::Matx33d& a, const cv::Matx33d& b) {
        const double chord = cv::norm(a - b) / std::sqrt(8.0); // sine of half the angle
        return 2 * std::asin(std::min(1.0, chord)) * 180 / CV_PI;
    };
    double sum = 0.0;
    for (std::size_t i = 0; i < poses.size(); ++i) {
        const HandEyePose &a = poses[i], &b = poses[(i + 1) % poses.size()];
        sum += std::pow(angle(a.base_from_gripper.rotation(), b.base_from_gripper.rotation())
                - angle(a.camera_from_board().rotation(), b.camera_from_board().rotation()),
            2);
    }
    return std::sqrt(sum / static_cast<double>(poses.size()));
}

std::string options_of(const PoseReading& reading, HandEyeSetup setup)
{
    const RotationForm& form = reading.rotation;
    std::string text = std::string("--setup ") + name_of(setup);
    if (form.kind == RotationForm::Kind::vector) text += " --rotation vector";
    if (!form.order.empty()) text += " --rotation " + form.order;
    if (form.has_angles()) text += form.degrees ? " --angles degrees" : " --angles radians";
    text += reading.unit_mm == 1.0 ? " --unit mm" : " --unit m";
    return text + (reading.inverse ? " --inverse" : "") + (reading.transposed ? " --transposed" : "");
}

/// Pictures and poses of which each belongs to the next one.
std::vector<HandEyePose> shifted(std::vector<HandEyePose> poses, int shift)
{
    if (shift == 0) return poses;
    std::vector<HandEyePose> moved(poses.begin() + 1, poses.end());
    for (std::size_t i = 0; i + 1 < poses.size(); ++i) {
        moved[i] = poses[shift > 0 ? i + 1 : i];
        moved[i].base_from_gripper = poses[shift > 0 ? i : i + 1].base_from_gripper;
    }
    return moved;
}

std::vector<OtherReading> others(const HandEyeRequest& request, HandEyeSetup tried)
{
    std::vector<RotationForm> forms = other_forms(request.reading.rotation);
    forms.push_back(request.reading.rotation);
    std::vector<OtherReading> all;
    for (const RotationForm& form : forms)
        for (const double unit_mm : { 1.0, 1000.0 })
            for (const bool transposed : { false, true })
                for (const HandEyeSetup setup : { tried, other(tried) }) {
                    OtherReading reading { request.reading, setup, 0, {}, "", "" };
                    reading.reading.rotation = form;
                    reading.reading.unit_mm = unit_mm;
                    reading.reading.transposed = transposed;
                    all.push_back(reading);
                }
    for (const int shift : { 1, -1 })
        for (const HandEyeSetup setup : { tried, other(tried) }) // poses far off suggest no setup
            all.push_back({ request.reading, setup, shift, {}, "", "" });
    return all;
}

void describe(OtherReading& found, const HandEyeRequest& request)
{
    found.words = "as " + vexo::describe(found.reading) + "; " + name_of(found.setup);
    found.advice = "try " + options_of(found.reading, found.setup);
    if (found.shift != 0) {
        found.words
            = std::string("with each pose given to the picture ") + (found.shift > 0 ? "after" : "before") + " its own";
        found.advice = "number poses and pictures anew";
    } else if (request.setup && *request.setup != found.setup) {
        PoseReading inverse = found.reading;
        inverse.inverse = !inverse.inverse;
        found.advice += "; or, where the setup is right, " + options_of(inverse, *request.setup);
    }
}

} // namespace

std::vector<HandEyePose> poses_of(const std::vector<HandEyeView>& views, const PoseReading& reading)
{
    std::vector<HandEyePose> poses;
    for (const HandEyeView& view : views) {
        const auto robot = robot_pose(view.row, reading);
        if (!robot) return {};
        poses.push_back(view.pose);
        poses.back().base_from_gripper = *robot;
    }
    return poses;
}

std::vector<HandEyeResidual> residuals_of(
    const std::vector<HandEyePose>& poses, const HandEye& solved, const cv::Vec3d& board_point_mm)
{
    std::vector<HandEyeResidual> all;
    for (const HandEyePose& pose : poses)
        all.push_back(solved.residual(pose, board_point_mm));
    return all;
}

HandEyeResidual rms_of(const std::vector<HandEyeResidual>& residuals)
{
    HandEyeResidual rms;
    for (const HandEyeResidual& r : residuals) {
        rms.mm += r.mm * r.mm;
        rms.deg += r.deg * r.deg;
    }
    const auto count = static_cast<double>(residuals.size());
    return { std::sqrt(rms.mm / count), std::sqrt(rms.deg / count) };
}

std::optional<OtherReading> best_other_reading(
    const std::vector<HandEyeView>& views, const HandEyeRequest& request, HandEyeSetup tried)
{
    std::optional<OtherReading> best;
    constexpr double hopeless_deg = 3.0; // far above a robot's error, far below another order's
    for (OtherReading& reading : others(request, tried)) {
        const std::vector<HandEyePose> poses = shifted(poses_of(views, reading.reading), reading.shift);
        if (poses.size() < fewest_hand_eye_poses || angle_misfit(poses) > hopeless_deg) continue;
        const auto solved = solve_hand_eye(poses, reading.setup);
        if (!solved) continue;
        reading.rms = rms_of(residuals_of(poses, *solved, request.board_point_mm));
        if (!best || reading.rms.mm < best->rms.mm) best = reading;
    }
    if (best) describe(*best, request);
    return best;
}

} // namespace vexo
