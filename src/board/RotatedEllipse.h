#pragma once

#include <opencv2/core.hpp>

#include <vector>

namespace vexo {

/// An ellipse in any position, fitted to the contour of a marker.
///
/// Frame    principal frame: origin at the mean of the points, axes along their principal directions.
/// Units    px, radians.
class RotatedEllipse {
public:
    cv::Matx22d directions = cv::Matx22d::eye(); ///< rows: first and second principal direction, unit length
    cv::Point2d center;                          ///< px
    double full_axes[2] = { 0, 0 };              ///< px, 2a and 2b
    double a = 0;                                ///< px, semi-axis along the first direction
    double b = 0;                                ///< px, semi-axis along the second direction
    double angle = 0;                            ///< rad, of the first direction, from image x towards image y

    /// Fits the ellipse to contour points, with its centre and directions taken from their principal
    /// components and the axes from linear least squares in the principal frame.
    ///
    ///     minimise sum_i (A x_i^2 + B y_i^2 - 1)^2       a = 1 / sqrt(A)       b = 1 / sqrt(B)
    ///
    /// @param points     any number, px
    /// @param tolerance  px
    /// @return           share of the points, 0..1, that lie within the tolerance of the ellipse, measured
    ///                   along their own ray from the centre. 0, with semi-axes 0, for points that determine
    ///                   no ellipse: fewer than three directions from their mean, or a hyperbola fits best
    /// A digital ellipse is symmetric about its centre, so the mean of its contour is the centre.
    double fit(std::vector<cv::Point>& points, double tolerance);

    /// Distance from the centre to the ellipse along a direction of any length, px.
    double getRadius(cv::Vec2d direction) const; // NOLINT(readability-identifier-naming)

    /// The larger and the smaller full axis, px.
    double major_axis() const;
    double minor_axis() const;

    /// For cv::ellipse: centre, full axes times `scale`, angle in degrees.
    cv::RotatedRect rectangle(double scale = 1.0) const;

private:
    bool _principal_frame(const cv::Mat_<double>& points, cv::Mat& in_principal_frame);
    bool _solve_axes(const cv::Mat_<double>& p);
    double _share_within(const cv::Mat_<double>& p, double tolerance) const;
};

} // namespace vexo
