#pragma once

/// Everything that a host of libvexo.so needs: six factories, the interfaces they return, the parameter records.
///
/// Linking    find_package(vexo) and the target vexo::vexo, or pkg-config vexo.
/// OpenCV     the interfaces pass cv::Mat, cv::Point and std:: types, so a host needs the same OpenCV
///            major.minor and the same C++ standard library that the library was built with.
/// Frames     docs/conventions.md defines pixels, cameras, the rectified frame and the board frame.
/// Ownership  every object that a factory returns belongs to the host until it calls destroy() on it.
/// Errors     nothing here throws, unless its comment says so; failures are return values.

#include "vexo/board.h"
#include "vexo/calibration.h"
#include "vexo/factories.h"
#include "vexo/limits.h"
#include "vexo/owned.h"
#include "vexo/point_cloud.h"
#include "vexo/pose.h"
#include "vexo/records.h"
#include "vexo/stereo_camera.h"
#include "vexo/version.h"
