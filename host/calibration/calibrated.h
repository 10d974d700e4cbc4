#pragma once

#include "host/calibration/camera_fit.h"
#include "host/calibration/depth_apart.h"
#include "host/calibration/pair_agreement.h"
#include "host/calibration/pair_fit.h"
#include "host/calibration/refine_views.h"
#include "host/cameras/covariance_share.h"

#include <opencv2/core.hpp>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vexo {

/// A hold-out check: each view against the cameras that the other half of the views gave.
struct HoldOut {
    bool done = false;
    std::vector<CameraFit> fits; ///< by camera
    PairFit pair;
    double focal_spread = 0; ///< px, largest difference of a focal length between the halves
    DepthApart apart;        ///< of a pair: what the halves' differences do to a cloud at the middle distance
};

/// What the views say of how the board's markers really lie.
struct LearntShape {
    bool kept = false;      ///< the board has this shape now
    double flat_px = 0.0;   ///< standard deviation of a coordinate with the board as it was given
    double shaped_px = 0.0; ///< the same with the shape; both 0: not asked
};

/// Everything that a calibration was made from and what came out.
struct Calibrated {
    BoardFile board;                 ///< with the pitch as corrected by the rulers, and the shape that was kept
    double printed_pitch = 0;        ///< mm, of the board file
    double ruler_x = 0, ruler_y = 0; ///< mm, 0: not given
    BoardViews views;
    std::vector<bool> used;   ///< by view
    std::vector<int> dropped; ///< numbers of views left out on request
    cv::Size size;            ///< px
    std::vector<CalibratedCamera> cameras;
    double rms = 0;                            ///< px, as the calibration itself reports
    double baseline = 0;                       ///< mm; a pair only
    std::vector<std::vector<double>> view_rms; ///< [camera][view] px, as the calibration itself reports
    std::vector<CameraFit> fits;               ///< by camera
    PairFit pair;
    PairAgreement agreement; ///< only asked for when the pair fits far worse than its cameras, else empty
    HoldOut hold_out;
    Refinement refinement; ///< of the last round; the views added and the seconds of all
    LearntShape shape;
    std::optional<CameraCovariance> covariance; ///< nothing: the views do not determine it
    StatedShare share;                          ///< of a pair, by the covariance
    cv::Mat share_map;                          ///< of a pair: see share_map(); empty: unknown
    StatedDirection direction;                  ///< of a single camera

    /// cameras.yaml, and of a pair the rectified camera's files and boardRT.yaml: name, and bytes
    std::vector<std::pair<std::string, std::string>> files;

    bool is_pair() const { return cameras.size() == 2; }
    std::size_t used_count() const;
};

} // namespace vexo
