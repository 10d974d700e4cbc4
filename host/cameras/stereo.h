#pragma once

#include "host/cameras/calibration_notes.h"
#include "host/cameras/geometry.h"
#include "host/verdict/finding.h"
#include "vexo/owned.h"
#include "vexo/records.h"
#include "vexo/stereo_camera.h"

#include <opencv2/core.hpp>

#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// A stereo camera that was opened from files, and what measuring has to know of it.
struct Stereo {
    std::vector<std::string> files; ///< as opened: one or two YAML files, or the three of an hmat set
    StereoCameraParam param;
    Owned<iStereoCamera> camera;
    Geometry geometry;
    /// x_rectified = rectifying_rotation * x_raw of camera 0; nothing for an hmat set, which does not say
    std::optional<cv::Matx33d> rectifying_rotation;
    CalibrationNotes notes; ///< the unit of all lengths, and how good the calibration was found
};

/// Opens one or two YAML files (both cameras in one, or one each) or the three files of an hmat set, for images
/// of param's input size. Throws Failure that says which file and why.
/// @param unit  of the calibration's lengths, whatever its files say; empty: as they say
Stereo open_stereo(const std::vector<std::string>& files, const StereoCameraParam& param, const std::string& unit = "");

/// What is to be said of a calibration before anything is measured with it: a unit that nothing states and that looks
/// wrong, a verdict that was not good.
std::vector<Finding> judge_calibration(const Stereo& stereo);

} // namespace vexo
