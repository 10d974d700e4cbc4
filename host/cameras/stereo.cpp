#include "host/cameras/stereo.h"

#include "base/failure.h"
#include "base/text.h"
#include "base/whole_file.h"
#include "host/cameras/calibration_files.h"
#include "host/cameras/covariance_share.h"
#include "host/cameras/opencv_files.h"
#include "host/cameras/rectification.h"
#include "host/cameras/stereo_file.h"
#include "host/files/temporary_folder.h"
#include "vexo/factories.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>

namespace vexo {

using Kind = CalibrationFiles::Kind;

namespace {

/// No rig for structured light has its cameras closer together or farther apart; a baseline in metres that is taken for
/// mm is nearly always below.
constexpr double least_baseline_mm = 2.0, most_baseline_mm = 20e3;

/// Why the library opens none of it; does not return.
[[noreturn]] void refuse(const CalibrationFiles& calibration, const StereoCameraParam& param)
{
    const cv::Size frames(param.inp_width, param.inp_height);
    for (const std::string& file : calibration.files)
        read_bytes(file, std::size_t { 1 } << 31);
    if (calibration.kind == Kind::hmat || calibration.kind == Kind::stereo)
        throw Failure(calibration.files[0] + ": these three files are no calibration for images of "
            + size_text(frames.width, frames.height));
    const auto cameras = read_cameras(calibration, frames);
    for (std::size_t i = 0; i < 2; ++i)
        if (cameras[i].size != frames)
            throw Failure(calibration.files[std::min(i, calibration.files.size() - 1)] + ": cam" + std::to_string(i)
                + " is calibrated for " + size_text(cameras[i].size.width, cameras[i].size.height)
                + ", but the frames are " + size_text(frames.width, frames.height)
                + "; record at that size, or calibrate at this one");
    throw Failure(
        calibration.files[0] + ": these cameras make no stereo pair; check baseline, focal lengths and sizes");
}

/// The library reads files alone, and of two kinds; those of other kinds are written for it. Sets the camera and, of
/// files that hold them, the tables.
void open_camera(const CalibrationFiles& calibration, Stereo& stereo)
{
    const StereoCameraParam& param = stereo.param;
    std::vector<std::string> files = calibration.files;
    std::optional<TemporaryFolder> temporary;
    if (calibration.kind == Kind::opencv || calibration.kind == Kind::stereo) temporary.emplace();
    if (calibration.kind == Kind::stereo) files = as_hmat_set(calibration.files, *temporary);
    if (calibration.kind == Kind::opencv) {
        files = { *temporary / "cameras.yaml" };
        const cv::Size frames(param.inp_width, param.inp_height);
        if (!write_file(files[0], camera_yaml(read_cameras(calibration, frames)))) fail_with(errno, files[0]);
    }
    const bool has_tables = files.size() >= 3;
    stereo.camera.reset(CreateStereoCamera(has_tables ? 1 : 2, &files, &param));
    if (!stereo.camera) refuse(calibration, param);
    if (has_tables) stereo.tables = read_tables(files[2], { param.inp_width, param.inp_height });
}

/// Rectified files say nothing of themselves; the camera file beside them does, when it is of the same pair.
void add_what_files_say(const CalibrationFiles& calibration, Stereo& stereo)
{
    std::vector<std::string> files = calibration.files;
    if (calibration.kind == Kind::opencv) {
        stereo.notes = read_notes(files);
        return;
    }
    if (calibration.kind != Kind::cameras) {
        files = { (std::filesystem::path(files[0]).parent_path() / "cameras.yaml").string() };
        const double baseline = stereo.camera->get_baseline_length();
        if (!(std::abs(baseline_in(files[0]) - baseline) <= 1e-6 * baseline)) {
            stereo.share.why_unknown = "beside them there is no cameras.yaml of this pair";
            return;
        }
    }
    stereo.notes = read_notes(files);
    stereo.share = share_beside(files);
}

/// Covariances are in mm, and so is what follows from them.
void set_unit(const std::string& unit, Stereo& stereo)
{
    if (!unit.empty()) stereo.notes.unit = unit_named(unit, "--unit");
    const std::string& name = stereo.notes.unit.name;
    if (stereo.share.share && name != "mm")
        stereo.share = { {}, "it is known in mm, and the unit is said to be " + name };
}

/// The same rectification that the library computed from these cameras.
void rectify_alike(const std::array<CalibratedCamera, 2>& cameras, Stereo& stereo)
{
    cv::Size output;
    stereo.camera->get_outimage_size(&output.width, &output.height);
    const StereoCameraParam& param = stereo.param;
    const Rectification rectification
        = rectify(cameras, { param.inp_width, param.inp_height }, param.alpha, param.flags, output);
    stereo.rectifying_rotation = rectification.rotation0;
    stereo.tables = make_tables(cameras, rectification, output);
}

/// Files that say no size may be of pictures of another one, and lenses sit in front of the middle.
std::vector<Finding> doubts_of_size(const std::array<CalibratedCamera, 2>& cameras)
{
    constexpr double usual = 0.15; // of the width or height
    for (const CalibratedCamera& c : cameras) {
        const double x = c.K(0, 2) / c.size.width - 0.5, y = c.K(1, 2) / c.size.height - 0.5;
        if (std::max(std::abs(x), std::abs(y)) <= usual) continue;
        return { { "calibration", Weight::worse, "",
            "the principal point " + number(c.K(0, 2), 0) + ", " + number(c.K(1, 2), 0)
                + " lies far from the middle of " + size_text(c.size.width, c.size.height)
                + ": of pictures of another size?",
            "the files do not say their size; record at the size at which you calibrated" } };
    }
    return {};
}

} // namespace

Stereo open_stereo(const std::vector<std::string>& named, const StereoCameraParam& param, const std::string& unit)
{
    const CalibrationFiles calibration = find_calibration(named);
    Stereo stereo { calibration.files, param, {}, {}, {}, {}, {}, {}, {} };
    open_camera(calibration, stereo);
    add_what_files_say(calibration, stereo);
    set_unit(unit, stereo);
    stereo.geometry = probe_geometry(*stereo.camera);
    const cv::Size frames(param.inp_width, param.inp_height);
    if (calibration.kind == Kind::stereo) stereo.rectifying_rotation = read_stereo_file(stereo.files[0]).rotation0;
    if (calibration.kind == Kind::cameras || calibration.kind == Kind::opencv) {
        const auto cameras = read_cameras(calibration, frames);
        rectify_alike(cameras, stereo);
        if (calibration.kind == Kind::opencv) stereo.doubts = doubts_of_size(cameras);
    }
    return stereo;
}

Stereo open_rectified(const RectifiedPair& pair, const StereoCameraParam& param, const std::string& unit)
{
    const bool inside = pair.cx >= 0 && pair.cy >= 0 && pair.cx < param.inp_width && pair.cy < param.inp_height;
    if (!(pair.f > 0) || !(pair.baseline > 0) || !inside)
        throw UsageFailure(
            "--rectified F,CX,CY,BASELINE: focal length and baseline are above 0, and the principal point "
            "lies in frames of "
            + size_text(param.inp_width, param.inp_height));
    const cv::Matx33d K(pair.f, 0, pair.cx, 0, pair.f, pair.cy, 0, 0, 1), R = cv::Matx33d::eye();
    const double none[5] = {}, T[3] = { -pair.baseline, 0, 0 };
    Stereo stereo { {}, param, {}, {}, R, {}, {}, {}, {} };
    stereo.camera.reset(CreateStereoCameraFromRaw(K.val, none, K.val, none, R.val, T, &param));
    if (!stereo.camera) throw Failure("--rectified: these numbers make no stereo camera for the frames");
    if (!unit.empty()) stereo.notes.unit = unit_named(unit, "--unit");
    stereo.geometry = probe_geometry(*stereo.camera);
    std::array<CalibratedCamera, 2> cameras;
    for (CalibratedCamera& camera : cameras)
        camera = { { param.inp_width, param.inp_height }, K, {}, R, {} };
    cameras[1].T = cv::Vec3d(T);
    rectify_alike(cameras, stereo);
    return stereo;
}

std::vector<Finding> judge_calibration(const Stereo& stereo)
{
    std::vector<Finding> findings = stereo.doubts;
    const Unit& unit = stereo.notes.unit;
    const double baseline = stereo.camera->get_baseline_length(), in_mm = baseline * unit.in_mm;
    if (in_mm < least_baseline_mm || in_mm > most_baseline_mm)
        findings.push_back({ "unit", Weight::worse, "",
            "the calibration has a baseline of " + number(baseline, 4) + " " + unit.name
                + (in_mm < least_baseline_mm ? ": metres?" : "?")
                + (unit.stated ? "" : " No unit is stated, and mm is assumed"),
            "pass --unit m, or end " + (stereo.files.empty() ? "the camera file" : stereo.files.front())
                + " with the line \"unit: m\", or what the unit is" });
    const std::string& verdict = stereo.notes.verdict;
    if (verdict.empty() || verdict == good_calibration) return findings;
    findings.push_back({ "calibration", verdict == bad_calibration ? Weight::spoils : Weight::worse, "",
        "vexo calibrate found this calibration " + verdict,
        "see report.html of the calibration, and calibrate again as its advice says" });
    return findings;
}

} // namespace vexo
