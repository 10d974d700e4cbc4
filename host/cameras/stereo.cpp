#include "host/cameras/stereo.h"

#include "base/failure.h"
#include "base/text.h"
#include "base/whole_file.h"
#include "host/cameras/camera_file.h"
#include "host/cameras/rectification.h"
#include "vexo/factories.h"

#include <algorithm>
#include <array>

namespace vexo {

namespace {

/// No rig for structured light has its cameras closer together or farther apart; a baseline in metres that is taken for
/// mm is nearly always below.
constexpr double least_baseline_mm = 2.0, most_baseline_mm = 20e3;

Owned<iStereoCamera> open_camera(const std::vector<std::string>& files, const StereoCameraParam& param)
{
    const int selector = files.size() >= 3 ? 1 : 2;
    Owned<iStereoCamera> camera(CreateStereoCamera(selector, &files, &param));
    if (camera) return camera;

    for (const std::string& file : files)
        read_bytes(file, std::size_t { 1 } << 31);
    if (selector == 1)
        throw Failure(files[0] + ": these three files are no hmat set for images of "
            + size_text(param.inp_width, param.inp_height));
    const std::array<CalibratedCamera, 2> cameras = read_cameras(files);
    for (std::size_t i = 0; i < 2; ++i) {
        const cv::Size frames(param.inp_width, param.inp_height);
        if (cameras[i].size != frames)
            throw Failure(files[std::min(i, files.size() - 1)] + ": cam" + std::to_string(i) + " is calibrated for "
                + size_text(cameras[i].size.width, cameras[i].size.height) + ", but the frames are "
                + size_text(frames.width, frames.height) + "; record at that size, or calibrate at this one");
    }
    throw Failure(files[0] + ": these cameras make no stereo pair; check baseline, focal lengths and sizes");
}

} // namespace

Stereo open_stereo(const std::vector<std::string>& files, const StereoCameraParam& param, const std::string& unit)
{
    Stereo stereo { files, param, open_camera(files, param), {}, {}, read_notes(files) };
    if (!unit.empty()) stereo.notes.unit = unit_named(unit, "--unit");
    stereo.geometry = probe_geometry(*stereo.camera);
    if (files.size() >= 3) return stereo;
    int width = 0, height = 0;
    stereo.camera->get_outimage_size(&width, &height);
    const cv::Size input(param.inp_width, param.inp_height);
    stereo.rectifying_rotation
        = rectify(read_cameras(files), input, param.alpha, param.flags, { width, height }).rotation0;
    return stereo;
}

std::vector<Finding> judge_calibration(const Stereo& stereo)
{
    std::vector<Finding> findings;
    const Unit& unit = stereo.notes.unit;
    const double baseline = stereo.camera->get_baseline_length(), in_mm = baseline * unit.in_mm;
    if (in_mm < least_baseline_mm || in_mm > most_baseline_mm)
        findings.push_back({ "unit", Weight::worse, "calibration",
            "a baseline of " + number(baseline, 4) + " " + unit.name + (in_mm < least_baseline_mm ? ": metres?" : "?")
                + (unit.stated ? "" : " No unit is stated, and mm is assumed"),
            "pass --unit m, or end " + stereo.files.front() + " with the line \"unit: m\", or what the unit is" });
    const std::string& verdict = stereo.notes.verdict;
    if (verdict.empty() || verdict == good_calibration) return findings;
    findings.push_back({ "calibration", verdict == bad_calibration ? Weight::spoils : Weight::worse, "calibration",
        "vexo calibrate found it " + verdict,
        "see report.html of the calibration, and calibrate again as its advice says" });
    return findings;
}

} // namespace vexo
