#pragma once

#include "board_file.h"
#include "board_pictures.h"
#include "rig.h"

#include <opencv2/core.hpp>

#include <array>
#include <string>
#include <vector>

/// How good a calibration is, asked of views of the board: those it was made from, or better, those it was not.
namespace vexo::app {

/// One marker of one view: where it was seen, and how far from where the calibrated camera puts it.
struct Residual {
    cv::Point2d seen_px;
    cv::Vec2d error_px; ///< seen - projected
};

/// A camera against its views.
struct CameraFit {
    std::vector<double> view_rms;    ///< px, NaN for a view that is not used
    std::vector<double> view_tilt;   ///< degrees between the board's normal and the sight line, NaN likewise
    std::vector<Residual> residuals; ///< of all used views
    double rms = 0;                  ///< px, over all markers
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

/// Errors of distances between markers, mm: measured minus printed.
struct DistanceErrors {
    double bias = 0, rms = 0;
    double length = 0; ///< mean of the printed distances
    int count = 0;
};

/// A pair against its views.
struct PairFit {
    std::vector<double> view_row; ///< rms of the row differences of a view after rectification, px, NaN: not used
    double row_rms = 0;           ///< px, of single markers: mostly the noise of their centres
    /// px, rms of the means over cells of the image: what the calibration itself does wrong
    double row_systematic = 0;
    double row_worst = 0;            ///< px, 99 % of the markers are better
    std::vector<float> row_errors;   ///< y0 - y1 of every marker, px
    DistanceErrors along_x, along_y; ///< over half the board along its x, and along its y
    /// Shape of the board as the pair sees it, averaged over the views; NaN where never seen. Board frame, mm:
    /// seen minus printed, after the best rigid motion.
    std::vector<cv::Vec3d> shape;
    double scale_x = 1, scale_y = 1; ///< size of that shape along x and y over the printed one
    double bend = 0; ///< mm, height of the quadratic surface through that shape, from lowest to highest marker
};

/// Markers seen by both cameras are rectified and triangulated.
PairFit fit_pair(const std::vector<Fold>& folds, const BoardViews& views, const BoardFile& board);

/// How well each pair of views agrees with the others about where camera 1 stands: rms in px of camera 1's markers,
/// put where camera 0 and the relative pose of the most agreeable view expect them; NaN for views not in `use`. Views
/// that are no pair (mixed up, or not taken together) stand out by far.
/// @param cameras  calibrated one by one, so that no wrong pair has bent them; their poses are not read
std::vector<double> pair_agreement(const std::vector<CalibratedCamera>& cameras, const BoardViews& views,
    const std::vector<bool>& use, const BoardFile& board);

/// Angle between the board's normal and the line of sight to its middle; the pose takes board to camera.
double tilt_deg(const cv::Vec3d& rvec, const cv::Vec3d& tvec, const BoardFile& board);

/// Share of a grid of 8 x 6 cells over the image in which some used view has a marker.
double coverage(const std::vector<BoardPicture>& views, const std::vector<bool>& use, cv::Size size);

/// Views whose error is far above the others': more than twice the median and 0.05 px above it.
std::vector<std::size_t> outliers(const std::vector<double>& view_rms);

double median(std::vector<double> values); ///< of the finite ones; NaN: none

} // namespace vexo::app
