#pragma once

#include "host/calibration/marker_fit.h"
#include "host/calibration/marker_model.h"

#include <opencv2/core.hpp>

#include <optional>

namespace vexo {

/// The centre by the places of the outer edge alone, without a model of its shape: along 64 normals of the projected
/// outline, the place where a step between paper and ink would have the same area as the grey values. The shift s and
/// the growth g that explain their distances best are found by least squares, d = n . s + g n . r, without those that
/// are more than 3.5 robust standard deviations off; r is what a relative growth moves the outline by, px. It knows
/// nothing of blur, hole or noise that the fit of grey values knows, and so tells when that went wrong.
/// Source: Tabatabai, Mitchell, Edge location to subpixel values, PAMI 6 (1984) 188, for the area.
/// @param picture  CV_8U
/// @param fitted   of the same marker: its levels of paper and ink
/// @return px; nothing when fewer than half of the normals show an edge
std::optional<cv::Point2d> centre_by_edges(
    const cv::Mat& picture, const BoardFile& board, const MarkerModel& model, const MarkerFit& fitted, bool ring);

} // namespace vexo
