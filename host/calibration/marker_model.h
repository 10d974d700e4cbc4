#pragma once

#include "host/calibration/board_file.h"
#include "host/cameras/board_pose.h"
#include "host/cameras/camera_file.h"

#include <opencv2/core.hpp>

#include <array>
#include <vector>

namespace vexo {

/// A pair of polynomials of second degree of two variables: coefficients of 1, a, b, a^2, a b, b^2.
struct Quadratics {
    std::array<double, 6> x {}, y {};

    cv::Point2d at(cv::Point2d p) const { return { _value(x, p), _value(y, p) }; }
    /// Derivatives: d(x, y) / d(a, b).
    cv::Matx22d slope(cv::Point2d p) const { return { _by_a(x, p), _by_b(x, p), _by_a(y, p), _by_b(y, p) }; }

private:
    using Coefficients = std::array<double, 6>;

    static double _value(const Coefficients& c, cv::Point2d p)
    {
        return c[0] + p.x * (c[1] + c[3] * p.x + c[4] * p.y) + p.y * (c[2] + c[5] * p.y);
    }
    static double _by_a(const Coefficients& c, cv::Point2d p) { return c[1] + 2.0 * c[3] * p.x + c[4] * p.y; }
    static double _by_b(const Coefficients& c, cv::Point2d p) { return c[2] + c[4] * p.x + 2.0 * c[5] * p.y; }
};

/// How a camera sees the surroundings of one marker, through pose and distortion. Both directions, since edges are
/// given on the board and grey values in the picture.
struct MarkerModel {
    cv::Point2d middle;    ///< where its centre is seen, px
    Quadratics on_board;   ///< mm from its centre, by px from `middle`
    Quadratics in_picture; ///< px from `middle`, by mm from its centre
    double reach = 0.0;    ///< the disc lies within so many px of `middle`, along both axes
    /// Whether the board has a marker beside it towards its x, its -x, its y and its -y: blurred, that reaches over.
    std::array<bool, 4> beside {};
};

/// Models of all markers of a board, in the order of the recogniser's lists. Each is fitted to the projections of 5 x 5
/// points around the centre, to 1.4 radii: what is left is below 0.001 px for discs of up to 30 px.
std::vector<MarkerModel> marker_models(const BoardFile& board, const BoardPose& pose, const CalibratedCamera& camera);

} // namespace vexo
