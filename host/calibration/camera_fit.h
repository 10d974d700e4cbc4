#pragma once

#include "host/calibration/board_views.h"
#include "host/cameras/board_pose.h"
#include "host/cameras/camera_file.h"

#include <opencv2/core.hpp>

#include <cstddef>
#include <limits>
#include <vector>

/// How good a calibrated camera is, asked of views of the board: those it was made from, or better, those it was not.
namespace vexo {

/// One marker of one view: where it was seen, and how far from where the calibrated camera puts it.
struct Residual {
    cv::Point2d seen_px;
    cv::Vec2d error_px; ///< seen - projected
};

/// A camera against its views.
struct CameraFit {
    std::vector<double> view_rms;      ///< px, NaN for a view that is not used
    std::vector<double> view_tilt;     ///< degrees between the board's normal and the sight line, NaN likewise
    std::vector<cv::Vec3d> normals;    ///< of the board in the camera's axes, one for each used view
    std::vector<Residual> residuals;   ///< of all used views
    double rms = 0;                    ///< px, over all markers
    double middle_depth = 0;           ///< mm, median over the used views of that of the board's middle
    std::vector<double> marker_depths; ///< mm, 5, 50 and 95 % of all seen markers are nearer to the camera
};

/// Cameras, and the views that they are held against. A plain check has one fold with all views; a hold-out check has
/// several, each with the cameras that the *other* views gave.
struct Fold {
    std::vector<CalibratedCamera> cameras;
    std::vector<bool> views; ///< by view
};

/// The board's pose is fitted to each view alone; what remains is the camera's error and the noise.
CameraFit fit_camera(
    const std::vector<Fold>& folds, std::size_t camera, const BoardViews& views, const BoardFile& board);

/// The markers that were seen in a picture.
SeenMarkers seen_markers(const BoardPicture& view, const BoardFile& board);

/// Sum of squares that becomes a root mean square.
struct Squares {
    double sum = 0, count = 0;
    void add(double square)
    {
        sum += square;
        ++count;
    }
    double rms() const { return count > 0 ? std::sqrt(sum / count) : std::numeric_limits<double>::quiet_NaN(); }
};

/// Angle between the board's normal and the line of sight to its middle; the pose takes board to camera.
double tilt_deg(const cv::Vec3d& rvec, const cv::Vec3d& tvec, const BoardFile& board);

/// How far directions spread about their mean, degrees.
struct Spread {
    double along = 0;  ///< between the outermost, in the direction in which they spread most
    double across = 0; ///< at right angles to it
};
Spread spread_deg(const std::vector<cv::Vec3d>& directions);

/// Share of a grid of 8 x 6 cells over the image in which some used view has a marker.
double coverage(const std::vector<BoardPicture>& views, const std::vector<bool>& use, cv::Size size);

/// Views whose error is far above the others': more than twice the median and 0.05 px above it.
std::vector<std::size_t> outliers(const std::vector<double>& view_rms);

} // namespace vexo
