#pragma once

#include "host/captures/fringe_method.h"
#include "host/measurement/match.h"
#include "host/verdict/finding.h"

#include <opencv2/core.hpp>

/// Whether what was measured fits one projector, wherever it stands: all points that see one of its columns lie in a
/// plane through its centre. Needs no texture, and speaks where the surface is not flat: with the cameras exchanged,
/// another scene in one of them, or another row, depths come out that no projector could have lit so.
///
/// A flat surface fits a projector however wrong its depth is, and so does whatever turns the whole cloud or scales
/// it: a yaw, a wrong baseline.
namespace vexo {

struct ProjectorFit {
    int points = 0;       ///< that were looked at
    double scatter = 0.0; ///< px along a row of camera 0, 1.4826 times the median of what the fit leaves
    double outside = 0.0; ///< share of the points that the fit leaves by more than 1 px
    double relief = 0.0;  ///< px, the same of the disparities from a plane through them

    bool tested() const;
};

struct ProjectorTest {
    ProjectorFit given, exchanged; ///< exchanged: camera 0's frames as camera 1's, and the other way round

    /// As given the frames fit a projector worse, or the surface is less flat, and the other is not as much better.
    bool cameras_exchanged() const;
};

/// Looks at some rows: decodes each camera's rectified frames by itself, finds equal positions, and fits
///
///     p = (a . q) / (b . q)          q = (x, y, disparity, 1)
///
/// by iterated least squares; p is the projector coordinate. Source: Hartley and Zisserman, Multiple View Geometry,
/// 7.1, for one coordinate of a camera; disparity space is space up to a projective map.
/// @param frames  as recorded
ProjectorTest test_projector(iStereoCamera& camera, const PairFrames& frames, const FringeMethod& method);

/// What it means, as one finding "projector": good or spoils. The limits stand with their reasons in the source.
Finding judge_projector(const ProjectorTest& test);

} // namespace vexo
