#include "host/cameras/view_poses.h"

#include "base/failure.h"
#include "base/plain_yaml.h"
#include "base/text.h"
#include "host/cameras/inverted.h"
#include "host/cameras/unit.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <numeric>

namespace vexo {

namespace {

using Poses = std::vector<cv::Affine3d>;

Poses inverted_all(Poses poses)
{
    std::transform(poses.begin(), poses.end(), poses.begin(), inverted);
    return poses;
}

/// Which row of the file each view has. Throws Failure.
std::vector<std::size_t> rows_of(const RobotPoseFile& file, const std::vector<std::string>& views, bool& by_name)
{
    std::vector<std::size_t> rows;
    std::string missing;
    for (const std::string& view : views) {
        const auto row = std::find_if(
            file.rows.begin(), file.rows.end(), [&view](const RobotPoseRow& r) { return r.picture == view; });
        if (row == file.rows.end())
            missing = view;
        else
            rows.push_back(static_cast<std::size_t>(row - file.rows.begin()));
    }
    by_name = missing.empty();
    if (by_name) return rows;
    if (!rows.empty())
        throw Failure(file.path + ": names some of the results in its column picture, but not " + missing
            + "; name all of them as their folders are called, or none");
    if (file.rows.size() != views.size())
        throw Failure(file.path + ": has " + std::to_string(file.rows.size()) + " poses for "
            + std::to_string(views.size())
            + " results; give one a result, in their order, or name the results' folders in its column picture");
    rows.resize(views.size());
    std::iota(rows.begin(), rows.end(), std::size_t { 0 });
    return rows;
}

/// Empty where one of the rows is no such pose.
Poses poses_of(const RobotPoseFile& file, const std::vector<std::size_t>& rows, const PoseReading& reading)
{
    Poses poses;
    for (const std::size_t row : rows) {
        const auto pose = robot_pose(file.rows[row], reading);
        if (!pose) return {};
        poses.push_back(*pose);
    }
    return poses;
}

std::string option_for(const RotationForm& form)
{
    const std::string angles = form.has_angles() ? form.degrees ? " --angles degrees" : " --angles radians" : "";
    return "--rotation " + (form.kind == RotationForm::Kind::vector ? "vector" : form.order) + angles;
}

ViewPoses of_robot(const std::string& path, const std::vector<std::string>& views, const PoseReadingRequest& request)
{
    const RobotPoseFile file = read_robot_poses(path);
    const PoseReading reading = reading_of(file, request);
    bool by_name = false;
    const std::vector<std::size_t> rows = rows_of(file, views, by_name);
    ViewPoses poses;
    poses.common_from_camera = poses_of(file, rows, reading);
    for (const std::size_t row : rows)
        poses.where.push_back("line " + std::to_string(file.rows[row].line) + ": " + file.rows[row].picture);
    poses.read_as = describe(reading.rotation) + ", " + (reading.unit_mm == 1.0 ? "mm" : "m") + ", "
        + (reading.inverse ? "the common frame in the camera" : "the camera in the common frame") + ", "
        + (by_name ? "by the results' names" : "in the results' order");
    for (const std::string& guess : reading.guessed)
        poses.read_as += "; " + guess;
    poses.others.push_back(
        { reading.inverse ? "without --inverse" : "--inverse", inverted_all(poses.common_from_camera) });
    PoseReading other = reading;
    other.unit_mm = reading.unit_mm == 1.0 ? 1000.0 : 1.0;
    poses.others.push_back({ other.unit_mm == 1.0 ? "--unit mm" : "--unit m", poses_of(file, rows, other) });
    for (const RotationForm& form : other_forms(reading.rotation)) {
        other = reading;
        other.rotation = form;
        for (const bool inverse : { reading.inverse, !reading.inverse }) {
            other.inverse = inverse;
            Poses read = poses_of(file, rows, other);
            if (!read.empty())
                poses.others.push_back({ option_for(form)
                        + (inverse == reading.inverse ? ""
                                : inverse             ? " --inverse"
                                                      : " without --inverse"),
                    std::move(read) });
        }
    }
    return poses;
}

/// Finite numbers of a list. Throws Failure.
std::vector<double> list_in(const cv::FileStorage& yaml, const std::string& path, const char* key, std::size_t count)
{
    const cv::FileNode node = yaml[key];
    std::vector<double> numbers;
    if (node.isSeq())
        for (const cv::FileNode& entry : node)
            numbers.push_back(entry.isReal() || entry.isInt() ? static_cast<double>(entry) : std::nan(""));
    const bool finite
        = std::all_of(numbers.begin(), numbers.end(), [](double number) { return std::isfinite(number); });
    if (!finite || numbers.size() != count)
        throw Failure(path + ": " + key + " is to be a list of " + std::to_string(count) + " numbers, as [ 0, 1, 0 ]");
    return numbers;
}

/// Of each view. Throws Failure.
std::vector<double> angles_in(const cv::FileStorage& yaml, const std::string& path, std::size_t views)
{
    const bool by_step = !yaml["step_deg"].empty(), listed = !yaml["angles_deg"].empty();
    if (by_step == listed)
        throw Failure(path + ": a turntable says either step_deg, from a view to the next, or angles_deg of all");
    if (listed) return list_in(yaml, path, "angles_deg", views);
    const cv::FileNode node = yaml["step_deg"];
    const double step = node.isReal() || node.isInt() ? static_cast<double>(node) : 0.0;
    if (!(std::abs(step) > 0.0 && std::abs(step) <= 360.0))
        throw Failure(path + ": step_deg is to be a number of degrees, not 0 and at most 360");
    std::vector<double> angles;
    for (std::size_t i = 0; i < views; ++i)
        angles.push_back(step * static_cast<double>(i));
    return angles;
}

/// The camera about an object that turns is the camera that turns the other way about an object that rests.
Poses about_axis(const cv::Vec3d& point, const cv::Vec3d& direction, const std::vector<double>& angles)
{
    Poses poses;
    for (const double angle : angles) {
        const cv::Affine3d turn(direction * (-angle * CV_PI / 180.0));
        poses.emplace_back(turn.rotation(), point - turn.rotation() * point);
    }
    return poses;
}

ViewPoses of_turntable(const std::string& path, cv::FileStorage& yaml, const std::vector<std::string>& views)
{
    const cv::Vec3d direction(list_in(yaml, path, "axis_direction", 3).data());
    if (!(cv::norm(direction) > 1e-9)) throw Failure(path + ": axis_direction has no length");
    const std::string unit = yaml["unit"].isString() ? static_cast<std::string>(yaml["unit"]) : "mm";
    const cv::Vec3d point
        = cv::Vec3d(list_in(yaml, path, "axis_point", 3).data()) * unit_named(unit, path + ": unit").in_mm;
    std::vector<double> angles = angles_in(yaml, path, views.size());
    ViewPoses poses;
    poses.common_from_camera = about_axis(point, cv::normalize(direction), angles);
    for (const double angle : angles)
        poses.where.push_back("turned by " + number(angle, 3) + " degrees");
    poses.read_as = "a turntable, in the results' order";
    for (double& angle : angles)
        angle = -angle;
    poses.others.push_back(
        { "the turntable's axis the other way round", about_axis(point, cv::normalize(direction), angles) });
    return poses;
}

} // namespace

ViewPoses read_view_poses(
    const std::string& path, const std::vector<std::string>& views, const PoseReadingRequest& request)
{
    const std::string extension = std::filesystem::path(path).extension().string();
    if (extension != ".yaml" && extension != ".yml") return of_robot(path, views, request);
    if (!request.rotation.empty() || request.degrees || request.unit_mm || request.inverse)
        throw UsageFailure(path + ": is a turntable, of which --rotation, --angles, --unit and --inverse say nothing");
    cv::FileStorage yaml;
    if (!open_yaml(path, yaml))
        throw Failure(path + ": is not there, or no YAML of a turntable; its first line is to be %YAML:1.0");
    return of_turntable(path, yaml, views);
}

} // namespace vexo
