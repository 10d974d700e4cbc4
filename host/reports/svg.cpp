#include "host/reports/svg.h"

#include "base/text.h"

namespace vexo {

std::string open_svg(double width, double height)
{
    return "<svg viewBox=\"0 0 " + number(width, 0) + " " + number(height, 0) + "\">";
}

std::string svg_text(double x, double y, const std::string& text, const std::string& more)
{
    return "<text x=\"" + number(x, 1) + "\" y=\"" + number(y, 1) + "\" font-size=\"12\" fill=\"#5b6776\" " + more + ">"
        + text + "</text>";
}

std::string svg_dot(double x, double y, double r, const std::string& more)
{
    return "<circle cx=\"" + number(x, 1) + "\" cy=\"" + number(y, 1) + "\" r=\"" + number(r, 1) + "\" " + more + "/>";
}

std::string stroke(cv::Point2d from, cv::Vec2d along)
{
    return "M" + number(from.x, 1) + " " + number(from.y, 1) + "l" + number(along[0], 1) + " " + number(along[1], 1);
}

} // namespace vexo
