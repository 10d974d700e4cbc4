#pragma once

#include "host/cameras/robot_poses.h"

#include <opencv2/core/affine.hpp>

#include <string>
#include <vector>

/// Where a camera stood at each of several views of one object.
namespace vexo {

/// One pose a view, as a file says it.
struct ViewPoses {
    /// The same file read otherwise: what one would have to say, and what the poses then are.
    struct Other {
        std::string advice;
        std::vector<cv::Affine3d> common_from_camera;
    };

    std::vector<cv::Affine3d> common_from_camera; ///< mm
    std::vector<std::string> where;               ///< of each pose, what of the file it is: "line 3: view1"
    std::string read_as;                          ///< "quaternions xyzw, mm, by the results' names"
    std::vector<Other> others;
};

/// Reads poses of a robot or a tracker as read_robot_poses() does, each the camera's in the common frame, or the
/// description of a turntable: a YAML with
///     axis_point, axis_direction    three numbers each, in the axes of the camera; the point in `unit` (mm)
///     step_deg, or angles_deg       by which the object was turned from a view to the next, or at each of them,
///                                   right-handed about the direction
/// The common frame is then that of the camera as the first view's angle of 0 has it.
/// Poses go to views by their names where the file names them in its column `picture`, else in the order of both.
/// Throws Failure that names the file: also where it has not one pose a view; UsageFailure as reading_of() does.
/// @param views  names, all different
ViewPoses read_view_poses(
    const std::string& path, const std::vector<std::string>& views, const PoseReadingRequest& request);

} // namespace vexo
