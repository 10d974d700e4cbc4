#include "host/reports/share_section.h"

#include "base/pictures.h"
#include "base/text.h"
#include "host/cameras/rectification.h"
#include "host/reports/false_colour.h"
#include "host/reports/page_pictures.h"

#include <opencv2/imgproc.hpp>

#include <cmath>

namespace vexo {

namespace {

std::string map_html(const Calibrated& c)
{
    if (c.share_map.empty()) return "";
    const int cell = 560 / c.share_map.cols;
    const Span span = most_of(c.share_map);
    cv::Mat picture;
    cv::resize(coloured(c.share_map, span, Ramp::Rainbow), picture, {}, cell, cell, cv::INTER_NEAREST);
    const std::string title = "Share of the depth at " + number(c.covariance->distance_mm[1], 0) + " mm";
    return "<div class=\"pictures\"><figure>" + picture_html(encode(".png", picture), "image/png", title)
        + scale_html(span, Ramp::Rainbow, "depth [mm]") + "<figcaption><strong>" + title
        + ".</strong> Over the raw picture of camera 0; dark grey where camera 1 does not "
          "look.</figcaption></figure></div>";
}

std::string pair_table(const Calibrated& c, const CalibrationShare& share)
{
    const double f = rectify({ c.cameras[0], c.cameras[1] }, c.size, -1.0, 0, c.size).P0(0, 0);
    Table table { { { "distance, mm", true }, { "depth, mm", true }, { "bend of a flat wall, mm", true },
                      { "lengths, mm in 100 mm", true }, { "a usual scan's noise, mm", true },
                      { "both together, mm", true } },
        {} };
    for (std::size_t i = 0; i < 3; ++i) {
        const double noise = usual_noise(f, c.baseline, share.distance_mm[i]);
        table.rows.push_back(
            { number(share.distance_mm[i], 0), number(share.depth_mm[i], 4), number(share.bend_mm[i], 4),
                number(100.0 * share.scale[i], 4), number(noise, 4), number(std::hypot(share.depth_mm[i], noise), 4) });
    }
    return table_html(table);
}

std::string direction_table(const DirectionShare& share)
{
    Table table { { { "distance, mm", true }, { "across the line of sight, mm", true }, { "px", true } }, {} };
    for (std::size_t i = 0; i < 3; ++i)
        table.rows.push_back({ number(share.distance_mm[i], 0), number(share.across_mm[i], 4), number(share.px, 4) });
    return table_html(table);
}

std::string markers_html(const Calibrated& c)
{
    if (!c.covariance) return "";
    return "<p>A marker's coordinate is off by " + number(c.covariance->residual_px, 4) + " px"
        + (c.covariance->marker_sigma_px > 0.0
                ? "; its own noise lets one expect " + number(c.covariance->marker_sigma_px, 4) + " px"
                : "")
        + ".</p>";
}

template <class Stated> std::string doubt_html(const Stated& stated)
{
    if (!stated.share) return "<p><strong>Unknown:</strong> " + sentence_html(stated.why_unknown) + "</p>";
    if (stated.share->invalid.empty()) return "";
    return "<p><strong>Not valid, points are off by more:</strong> " + sentence_html(stated.share->invalid) + "</p>";
}

} // namespace

Section share_section(const Calibrated& c)
{
    Section section { "How exact will points be?",
        "What the cameras themselves are off by, as one standard deviation: the same in each scan, beside the noise of "
        "its points. It follows from how exactly markers were found, and where.",
        "" };
    if (c.is_pair())
        section.body = doubt_html(c.share) + (c.share.share ? pair_table(c, *c.share.share) : "") + map_html(c);
    else
        section.body = doubt_html(c.direction) + (c.direction.share ? direction_table(*c.direction.share) : "");
    section.body += markers_html(c);
    return section;
}

} // namespace vexo
