#pragma once

#include "host/cameras/camera_file.h"

#include <opencv2/core.hpp>

#include <array>
#include <vector>

/// Points that a pair of cameras sees, without pictures: what a calibration does to depth is asked at these.
namespace vexo {

/// Pixels spread evenly over a picture, as the points of a cloud are and markers are not.
/// @param grid  columns and rows, of which the pixels are the middles of the cells
std::vector<cv::Point2d> evenly_over(cv::Size picture, cv::Size grid);

/// Pixels of both raw pictures that show the same points.
struct CommonPixels {
    std::array<std::vector<cv::Point2d>, 2> of;
};

/// Pixels of camera 0, and where camera 1 sees what is there at that depth; those outside its picture are left out.
CommonPixels in_common(
    const std::vector<CalibratedCamera>& pair, const std::vector<cv::Point2d>& of_camera0, double depth);

/// The points, in raw axes of camera 0, as measuring has them: their depth by the disparity between the rectified
/// pictures, their direction by the pixel of camera 0.
std::vector<cv::Vec3d> triangulate(const std::vector<CalibratedCamera>& pair, const CommonPixels& pixels);

} // namespace vexo
