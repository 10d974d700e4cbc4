#pragma once

#include "host/cameras/calibration_notes.h"
#include "host/cameras/calibration_share.h"
#include "host/cameras/geometry.h"
#include "host/cameras/rectifying_tables.h"
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
    std::vector<std::string> files; ///< that were read: see find_calibration(); none of a pair given in numbers
    StereoCameraParam param;
    Owned<iStereoCamera> camera;
    Geometry geometry;
    /// x_rectified = rectifying_rotation * x_raw of camera 0; nothing for an hmat set, which does not say
    std::optional<cv::Matx33d> rectifying_rotation;
    RectifyingTables tables;     ///< of the library's rectification
    std::vector<Finding> doubts; ///< whether the files belong to these frames
    CalibrationNotes notes;      ///< the unit of all lengths, and how good the calibration was found
    StatedShare share;           ///< what the calibration itself is off by
};

/// Opens what find_calibration() finds, for images of param's input size. Throws Failure that says which file and why.
/// @param unit  of the calibration's lengths, whatever its files say; empty: as they say
Stereo open_stereo(const std::vector<std::string>& named, const StereoCameraParam& param, const std::string& unit = "");

/// A pair whose pictures are rectified already: rows are epipolar lines, both cameras have one focal length and one
/// principal point, and camera 1 stands at the right.
struct RectifiedPair {
    double f = 0.0, cx = 0.0, cy = 0.0; ///< px
    double baseline = 0.0;
};

Stereo open_rectified(const RectifiedPair& pair, const StereoCameraParam& param, const std::string& unit = "");

/// What is to be said of a calibration before anything is measured with it: a unit that nothing states and that looks
/// wrong, a verdict that was not good.
std::vector<Finding> judge_calibration(const Stereo& stereo);

} // namespace vexo
