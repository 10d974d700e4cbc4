#include "host/calibration/checks.h"

#include "base/text.h"
#include "host/calibration/board_heights.h"
#include "host/calibration/levels.h"
#include "host/calibration/share_check.h"
#include "host/calibration/view_checks.h"
#include "host/cameras/calibration_notes.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace vexo {

namespace {

/// Centres of discs are found to 0.03 to 0.1 px in sharp pictures; half a pixel means blur, motion or a wrong board.
constexpr double good_rms = 0.2, poor_rms = 0.5;

/// Matching along rows reads the phase of a neighbour row by so much; where fringes are slanted, 0.1 px of it shifts
/// the match by some hundredths of a px.
constexpr double good_row = 0.03, poor_row = 0.1;

/// The row error of single markers: twice what their centres' noise makes of a pair, and far more.
constexpr double good_row_rms = 0.25, poor_row_rms = 0.7;

/// With enough views the other half is hit nearly as well as one's own.
constexpr double good_ratio = 1.3, poor_ratio = 2.0;

/// Depths of the halves of the views over the distance. Simulated pairs that differ by up to 2.5e-4 measured a plane at
/// 600 mm to 0.15 mm; of 8 that differ by more, up to 2e-3, five were 0.15 to 0.53 mm off; boards tilted by no more
/// than 10 degrees give 6e-3 and 8e-3.
constexpr double good_apart = 2.5e-4, poor_apart = 2e-3;

/// 0.05 % is 0.3 mm at 600 mm; the rulers are read no better than that.
constexpr double good_distance = 5e-4, poor_distance = 2e-3;

/// Bend of the board over its size.
constexpr double good_bend = 5e-4, poor_bend = 2e-3;

/// Difference of the two rulers over their length.
constexpr double good_square = 1e-3;

Finding check_rms(const Calibrated& c)
{
    std::vector<double> rms;
    for (const CameraFit& fit : c.fits)
        rms.push_back(fit.rms);
    const Weight l = level(std::max(largest_of(rms), c.rms), good_rms, poor_rms);
    return { "fit", l, "",
        "rms " + number(c.rms, 3) + " px as calibrated; " + each(rms, 3, " px a camera, best pose for each view"),
        l == Weight::good
            ? ""
            : "take sharper pictures with the board at rest; check board.yaml and that the board is flat" };
}

std::string numbers_of(const Calibrated& c, const std::vector<std::size_t>& views)
{
    std::string numbers;
    for (const std::size_t v : views)
        numbers += (numbers.empty() ? "" : ",") + std::to_string(c.views.cameras[0][v].number);
    return numbers;
}

Finding check_exchange(const Calibrated& c)
{
    std::vector<std::size_t> moved;
    for (const Partners& p : c.agreement.moved)
        moved.push_back(p.cam0);
    return { "outlying-views", Weight::spoils, "", exchange_in_words(c.agreement, c.views),
        "give the files their right names"
            + (2 * moved.size() < c.used_count() ? ", or leave them out: --drop-view " + numbers_of(c, moved) : "") };
}

Finding check_outliers(const Calibrated& c)
{
    if (!c.agreement.moved.empty()) return check_exchange(c);
    const std::string numbers = numbers_of(c, outlying_views(c));
    if (numbers.empty()) return { "outlying-views", Weight::good, "", "no view stands out", "" };
    return { "outlying-views", Weight::worse, "",
        (outliers(c.agreement.error_px).empty() ? "views far above the others: "
                                                : "views whose two pictures show no one pose: ")
            + numbers,
        "look at these pictures; without them: --drop-view " + numbers };
}

Finding check_rows(const Calibrated& c)
{
    const PairFit& fit = c.hold_out.done ? c.hold_out.pair : c.pair;
    const Weight l
        = std::max(level(fit.row_systematic, good_row, poor_row), level(fit.row_rms, good_row_rms, poor_row_rms));
    return { "rows", l, "",
        "row error " + number(fit.row_systematic, 3) + " px where the noise of markers averages out; single markers "
            + number(fit.row_rms, 3) + " px rms" + (c.hold_out.done ? ", on held-out views" : ""),
        l == Weight::good ? "" : "did a camera move, or were the pictures of a pair not taken together?" };
}

Finding check_hold_out(const Calibrated& c)
{
    const std::string name = "hold-out";
    if (!c.hold_out.done)
        return { name, Weight::unknown, "", "too few views to hold half of them out", "take 8 or more" };
    std::vector<double> rms, ratios;
    for (std::size_t k = 0; k < c.cameras.size(); ++k) {
        rms.push_back(c.hold_out.fits[k].rms);
        ratios.push_back(rms.back() / c.fits[k].rms);
    }
    const DepthApart& apart = c.hold_out.apart;
    Weight l = std::max(level(largest_of(ratios), good_ratio, poor_ratio), level(largest_of(rms), good_rms, poor_rms));
    if (c.is_pair()) l = std::max(l, level(apart.depth / apart.distance, good_apart, poor_apart));
    return { name, l, "",
        (c.is_pair()
                ? "the two halves of the views measure a surface " + number(apart.depth, 3) + " mm apart in depth, "
                    + number(apart.shape, 3) + " mm in shape, at " + number(apart.distance, 0) + " mm; "
                : "")
            + "rms " + each(rms, 3, " px on held-out views, ") + each(ratios, 2, " times that of its own")
            + "; focal lengths of the halves differ by " + number(c.hold_out.focal_spread, 2) + " px",
        l == Weight::good ? "" : "take more views, with more tilt and closer to the corners" };
}

Finding check_distances(const Calibrated& c)
{
    const PairFit& fit = c.hold_out.done ? c.hold_out.pair : c.pair;
    const double worst
        = std::max(std::abs(fit.along_x.bias) / fit.along_x.length, std::abs(fit.along_y.bias) / fit.along_y.length);
    const Weight l = level(worst, good_distance, poor_distance);
    const auto text = [](const DistanceErrors& d) {
        return number(d.bias, 3) + " mm (rms " + number(d.rms, 3) + ") over " + number(d.length, 0) + " mm";
    };
    return { "distances", l, "",
        "marker distances along x " + text(fit.along_x) + ", along y " + text(fit.along_y)
            + (c.hold_out.done ? ", on held-out views" : ""),
        l == Weight::good ? "" : "check the pitch in board.yaml, and that the board is flat and printed square" };
}

std::string percent(double share)
{
    return number(100 * share, 3) + " %";
}

/// By how much the rulers say that y is longer than x, and what the views say of it.
struct Squareness {
    double ruled = 0.0, seen = 0.0;
    bool both = false; ///< there are two rulers
};

Squareness squareness_of(const Calibrated& c)
{
    const bool both = c.ruler_x > 0 && c.ruler_y > 0;
    return { both ? c.ruler_y / c.ruler_x - 1.0 : 0.0, c.board.shape.stretch_y, both };
}

Finding check_scale(const Calibrated& c)
{
    const std::string name = "scale";
    if (c.ruler_x <= 0 && c.ruler_y <= 0)
        return { name, Weight::unknown, "", "not measured: no picture can tell the size of the board",
            "measure the sheet's two rulers and give --ruler-x and --ruler-y" };
    const Squareness square = squareness_of(c);
    const std::string answer = "rulers read " + (c.ruler_x > 0 ? short_number(c.ruler_x) + " mm along x" : "")
        + (square.both ? ", " : "") + (c.ruler_y > 0 ? short_number(c.ruler_y) + " mm along y" : "")
        + "; pitch corrected from " + short_number(c.printed_pitch) + " to " + short_number(c.board.layout.pitch_mm)
        + " mm" + (c.shape.kept && c.ruler_x > 0 ? " by ruler x alone" : "");
    if (std::abs(square.ruled - square.seen) <= good_square) return { name, Weight::good, "", answer, "" };
    if (c.shape.kept && square.both)
        return { name, Weight::worse, "",
            answer + "; by the rulers y is longer by " + percent(square.ruled) + ", by the views by "
                + percent(square.seen),
            "measure both rulers again, to 0.1 mm" };
    if (!square.both) return { name, Weight::good, "", answer, "" };
    const bool asked = c.shape.flat_px > 0.0;
    return { name, Weight::worse, "",
        answer + "; " + percent(std::abs(square.ruled))
            + (asked ? " apart, which the views do not show" : " apart: the printer is not square"),
        asked ? "measure both rulers again, to 0.1 mm"
              : "calibrate without --no-refine, which learns by how much; or use another printer" };
}

/// What a learnt shape is, and what it explains.
std::string shape_in_words(const Calibrated& c)
{
    const BoardShape& shape = c.board.shape;
    return "bowed by " + number(heights_of(c.board).range_mm, 3) + " mm, y longer by " + percent(shape.stretch_y)
        + ", the right angle off by " + number(shape.shear * 180.0 / CV_PI, 3)
        + " degrees: learnt from the views, whose markers lie " + number(c.shape.shaped_px, 4)
        + " px from the cameras' with it, " + number(c.shape.flat_px, 4) + " px without; it is in board.yaml";
}

Finding check_shape(const Calibrated& c)
{
    const BoardLayout& b = c.board.layout;
    const double size = b.pitch_mm * std::max(b.columns, b.rows);
    const double squeeze = std::abs(c.pair.scale_x - c.pair.scale_y);
    Weight l = c.is_pair() ? level(std::max(c.pair.bend / size, squeeze), good_bend, poor_bend) : Weight::good;
    std::string text = c.shape.kept ? shape_in_words(c) : "";
    if (c.is_pair())
        text += (c.shape.kept ? "; beside that " : "") + std::string("bent by ") + number(c.pair.bend, 3) + " mm over "
            + number(size, 0) + " mm; size along x " + percent(c.pair.scale_x - 1) + ", along y "
            + percent(c.pair.scale_y - 1) + " off " + (c.shape.kept ? "that" : "the printed one");
    if (c.shape.kept && heights_of(c.board).range_mm > poor_bend * size) l = std::max(l, Weight::worse);
    return { "shape", l, "", text,
        l == Weight::good
            ? ""
            : "mount the sheet on a stiff, flat plate, as it bends anew whenever it is moved; print it unscaled" };
}

} // namespace

std::size_t Calibrated::used_count() const
{
    return static_cast<std::size_t>(std::count(used.begin(), used.end(), true));
}

std::vector<std::size_t> outlying_views(const Calibrated& c)
{
    std::vector<std::size_t> mixed_up = outliers(c.agreement.error_px);
    if (!mixed_up.empty()) return mixed_up; // wrong pairs bend all that follows, and right views stand out in turn
    std::vector<std::size_t> all;
    for (const std::vector<double>& errors : c.view_rms)
        for (const std::size_t v : outliers(errors))
            all.push_back(v);
    for (const CameraFit& fit : c.fits)
        for (const std::size_t v : outliers(fit.view_rms))
            all.push_back(v);
    if (c.is_pair())
        for (const std::size_t v : outliers(c.pair.view_row))
            all.push_back(v);
    std::sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
    return all;
}

std::vector<Finding> check_calibration(const Calibrated& c)
{
    std::vector<Finding> checks { check_rms(c), check_outliers(c), check_share(c), check_hold_out(c) };
    if (c.is_pair()) checks.insert(checks.end(), { check_rows(c), check_distances(c) });
    for (const Finding& finding : check_views(c))
        checks.push_back(finding);
    checks.push_back(check_scale(c));
    if (c.is_pair() || c.shape.kept) checks.push_back(check_shape(c));
    if (!c.agreement.moved.empty()) std::swap(checks[0], checks[1]); // first what bends all the others
    constexpr std::size_t too_few = 2;
    for (Finding& finding : checks)
        if (c.used_count() <= too_few && finding.weight == Weight::good) finding.weight = Weight::unknown;
    return checks;
}

std::string question_of(const Finding& finding)
{
    static const std::map<std::string, std::string> questions {
        { "views", "Are there enough views?" },
        { "coverage", "Do the views fill the image?" },
        { "tilt", "Is the board tilted enough?" },
        { "markers", "Can the markers be measured?" },
        { "board", "Is board.yaml that of this board?" },
        { "sides", "Is camera 1 to the right of camera 0?" },
        { "fit", "Do the cameras fit the pictures?" },
        { "outlying-views", "Does a view spoil it?" },
        { "rows", "Do rows match after rectification?" },
        { "share", "How exact will points be?" },
        { "hold-out", "Does it hold for views it has not seen?" },
        { "distances", "Are distances right?" },
        { "scale", "Is the printed board true to scale?" },
        { "shape", "Is the board flat and square?" },
    };
    const auto found = questions.find(finding.name);
    return found == questions.end() ? finding.name : found->second;
}

std::string calibration_verdict(const std::vector<Finding>& findings)
{
    const Weight worst = heaviest(findings);
    return worst == Weight::spoils ? bad_calibration : worst == Weight::worse ? usable_calibration : good_calibration;
}

} // namespace vexo
