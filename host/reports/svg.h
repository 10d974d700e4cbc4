#pragma once

#include <opencv2/core.hpp>

#include <string>

/// Drawings in a page.
namespace vexo {

/// @param width, height  units of the drawing, which is as wide as its place in the page
std::string open_svg(double width, double height);

/// @param text  HTML
/// @param more  further attributes
std::string svg_text(double x, double y, const std::string& text, const std::string& more = "");

std::string svg_dot(double x, double y, double r, const std::string& more);

/// "M x y l dx dy" of a path.
std::string stroke(cv::Point2d from, cv::Vec2d along);

} // namespace vexo
