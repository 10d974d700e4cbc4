#pragma once

#include "host/captures/capture.h"
#include "host/measurement/measured.h"
#include "host/reports/false_colour.h"

#include <string>
#include <vector>

/// Pictures in a page, with their scales beside them.
namespace vexo {

/// What the colours of a measurement stand for, wherever they are shown.
struct Spans {
    Span depth, sigma; ///< unit of the calibration
};

Spans spans_of(const Measured& measured);

/// A ramp with its round values.
/// @param title  "depth [mm]"
std::string scale_html(const Span& span, Ramp ramp, const std::string& title);

/// Colours with their meaning; entries without a text are left out.
std::string legend_html(const std::vector<Label>& labels);

/// The causes that occur; the texts of others are empty.
std::vector<Label> cause_labels(const CauseMap& causes);

/// A colour of a legend, before its text.
std::string swatch_html(const cv::Vec3b& colour);

/// What was measured and why the rest was not: grey, depth, causes, sigma and row errors, as far as there are any.
std::string result_pictures_html(const Measured& measured, const Spans& spans);

/// What it was measured from: a fringe frame of each camera and how strong its fringes are; block matching: the two
/// pictures. Empty for the maps of another decoder.
std::string capture_pictures_html(const Capture& capture);

} // namespace vexo
