#pragma once

#include "base/on_step.h"
#include "host/cameras/view_poses.h"
#include "host/clouds/fuse_views.h"
#include "host/files/shape.h"
#include "host/results/view_fit.h"

#include <opencv2/core.hpp>

#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// Which results become one.
struct MergeRequest {
    std::vector<std::string> results; ///< folders
    std::string poses;                ///< file that the poses were read from
    /// The poses are those of rectified camera 0, in whose axes cloud.ply is; else those of raw camera 0, which is
    /// turned against it by the rectifying rotation
    bool rectified = false;
    std::optional<cv::Vec6d> box; ///< x0 y0 z0 x1 y1 z1, mm in the axes of each cloud.ply: only points within it
};

/// Null when the request can be answered, else its first fault.
const char* why_invalid(const MergeRequest& request);

/// One cloud and one mesh of several results, in the frame of the poses and in the results' unit.
struct Merged {
    std::vector<ResultView> results; ///< in the order of the request; their maps are empty
    ViewPoses poses;
    std::vector<cv::Affine3d> given; ///< common_from_rectified0 by the poses, mm; as they were refined in `fit`
    ViewFit fit;
    struct Counts {
        std::size_t kept = 0, doubled = 0, contradicted = 0;
    };
    std::vector<Counts> counts; ///< points of each result
    Shape cloud, mesh;          ///< with the number of the result of each point
    std::vector<Finding> findings;
    double seconds = 0.0;
};

constexpr int merge_steps = 4;

/// What folders are called, whatever path leads there. Throws Failure for one that is not there, UsageFailure for one
/// that is named twice.
std::vector<std::string> names_of_results(const std::vector<std::string>& folders);

/// Joins results of one object that were measured from several sides. Throws Failure that names the results: those
/// which share no surface with the others or do not fit, of different units, or of one and the same capture.
/// @param poses  one a result, in their order
Merged merge(const MergeRequest& request, ViewPoses poses, const OnStep& on_step);

} // namespace vexo
