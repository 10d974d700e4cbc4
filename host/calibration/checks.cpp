#include "host/calibration/checks.h"

#include "base/text.h"
#include "host/cameras/calibration_notes.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace vexo {

namespace {

/// A dozen views leave fx uncertain by a third of what one view leaves; below five distortion is guessed.
constexpr std::size_t enough_views = 10, fewest_views = 5;

/// Distortion is only known where markers were; a quarter of the image without any is usually a corner.
constexpr double enough_coverage = 0.75, least_coverage = 0.5;

/// Focal length and distance of a board seen straight on cannot be told apart.
constexpr double enough_tilt_deg = 25.0, least_tilt_deg = 12.0;

/// Centres of discs are found to 0.03 to 0.1 px in sharp pictures; half a pixel means blur, motion or a wrong board.
constexpr double good_rms = 0.2, poor_rms = 0.5;

/// Matching along rows reads the phase of a neighbour row by so much; where fringes are slanted, 0.1 px of it shifts
/// the match by some hundredths of a px.
constexpr double good_row = 0.03, poor_row = 0.1;

/// The row error of single markers: twice what their centres' noise makes of a pair, and far more.
constexpr double good_row_rms = 0.25, poor_row_rms = 0.7;

/// With enough views the other half is hit nearly as well as one's own.
constexpr double good_ratio = 1.3, poor_ratio = 2.0;

/// 0.05 % is 0.3 mm at 600 mm; the rulers are read no better than that.
constexpr double good_distance = 5e-4, poor_distance = 2e-3;

/// Bend of the board over its size.
constexpr double good_bend = 5e-4, poor_bend = 2e-3;

/// Difference of the two rulers over their length.
constexpr double good_square = 1e-3;

Weight level(double value, double good, double poor)
{
    if (!std::isfinite(value)) return Weight::unknown;
    return value <= good ? Weight::good : value <= poor ? Weight::worse : Weight::spoils;
}

std::string each(const std::vector<double>& values, int decimals, const std::string& unit)
{
    std::string text;
    for (std::size_t i = 0; i < values.size(); ++i)
        text += (i == 0 ? "" : " and ") + number(values[i], decimals);
    return text + unit;
}

double largest(const std::vector<double>& values)
{
    double most = -1;
    for (const double v : values)
        if (std::isfinite(v)) most = std::max(most, v);
    return most;
}

Finding check_views(const Calibrated& c)
{
    const std::size_t n = c.used_count();
    const Weight level = n >= enough_views ? Weight::good : n >= fewest_views ? Weight::worse : Weight::spoils;
    return { "views", level, "", std::to_string(n) + " of " + std::to_string(c.views.count()) + " used",
        level == Weight::good ? "" : "take " + std::to_string(enough_views) + " or more" };
}

Finding check_coverage(const Calibrated& c)
{
    std::vector<double> shares, percents;
    for (std::size_t k = 0; k < c.cameras.size(); ++k) {
        shares.push_back(-coverage(c.views.cameras[k], c.used, c.size));
        percents.push_back(-100 * shares.back());
    }
    const Weight l = level(largest(shares), -enough_coverage, -least_coverage);
    return { "coverage", l, "", each(percents, 0, " % of the image has markers"),
        l == Weight::good ? "" : "move the board into the empty parts, the corners above all" };
}

Finding check_tilt(const Calibrated& c)
{
    std::vector<double> tilts;
    for (const CameraFit& fit : c.fits)
        tilts.push_back(largest(fit.view_tilt));
    const Weight l = level(-*std::min_element(tilts.begin(), tilts.end()), -enough_tilt_deg, -least_tilt_deg);
    return { "tilt", l, "", "up to " + each(tilts, 0, " degrees"),
        l == Weight::good ? "" : "tilt the board by 25 to 45 degrees, to all sides, in most views" };
}

Finding check_rms(const Calibrated& c)
{
    std::vector<double> rms;
    for (const CameraFit& fit : c.fits)
        rms.push_back(fit.rms);
    const Weight l = level(std::max(largest(rms), c.rms), good_rms, poor_rms);
    return { "fit", l, "",
        "rms " + number(c.rms, 3) + " px as calibrated; " + each(rms, 3, " px a camera, best pose for each view"),
        l == Weight::good
            ? ""
            : "take sharper pictures with the board at rest; check board.yaml and that the board is flat" };
}

Finding check_outliers(const Calibrated& c)
{
    std::string numbers;
    for (const std::size_t v : outlying_views(c))
        numbers += (numbers.empty() ? "" : ",") + std::to_string(c.views.cameras[0][v].number);
    if (numbers.empty()) return { "outlying-views", Weight::good, "", "no view stands out", "" };
    return { "outlying-views", Weight::worse, "",
        (outliers(c.agreement).empty() ? "views far above the others: " : "views whose two pictures show no one pose: ")
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
    const Weight l = std::max(level(largest(ratios), good_ratio, poor_ratio), level(largest(rms), good_rms, poor_rms));
    return { name, l, "",
        "rms " + each(rms, 3, " px on held-out views, ") + each(ratios, 2, " times that of its own")
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

Finding check_scale(const Calibrated& c)
{
    const std::string name = "scale";
    if (c.ruler_x <= 0 && c.ruler_y <= 0)
        return { name, Weight::unknown, "", "not measured: no picture can tell the size of the board",
            "measure the sheet's two rulers and give --ruler-x and --ruler-y" };
    const double apart = c.ruler_x > 0 && c.ruler_y > 0 ? std::abs(c.ruler_x - c.ruler_y) / 100.0 : 0.0;
    const std::string answer = "rulers read " + (c.ruler_x > 0 ? short_number(c.ruler_x) + " mm along x" : "")
        + (c.ruler_x > 0 && c.ruler_y > 0 ? ", " : "") + (c.ruler_y > 0 ? short_number(c.ruler_y) + " mm along y" : "")
        + "; pitch corrected from " + short_number(c.printed_pitch) + " to " + short_number(c.board.layout.pitch_mm)
        + " mm";
    if (apart <= good_square) return { name, Weight::good, "", answer, "" };
    return { name, Weight::worse, "", answer + "; " + number(100 * apart, 2) + " % apart: the printer is not square",
        "one pitch cannot describe this board; use another printer" };
}

Finding check_shape(const Calibrated& c)
{
    const BoardLayout& b = c.board.layout;
    const double size = b.pitch_mm * std::max(b.columns, b.rows);
    const double squeeze = std::abs(c.pair.scale_x - c.pair.scale_y);
    const Weight l = level(std::max(c.pair.bend / size, squeeze), good_bend, poor_bend);
    return { "shape", l, "",
        "bent by " + number(c.pair.bend, 3) + " mm over " + number(size, 0) + " mm; size along x "
            + number(100 * (c.pair.scale_x - 1), 3) + " %, along y " + number(100 * (c.pair.scale_y - 1), 3)
            + " % off the printed one",
        l == Weight::good ? "" : "mount the sheet on a stiff, flat plate; print it unscaled" };
}

} // namespace

std::size_t Calibrated::used_count() const
{
    return static_cast<std::size_t>(std::count(used.begin(), used.end(), true));
}

std::vector<std::size_t> outlying_views(const Calibrated& c)
{
    std::vector<std::size_t> mixed_up = outliers(c.agreement);
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
    std::vector<Finding> checks { check_rms(c), check_outliers(c), check_hold_out(c), check_views(c), check_coverage(c),
        check_tilt(c), check_scale(c) };
    if (c.is_pair()) {
        checks.insert(checks.begin() + 3, check_rows(c));
        checks.insert(checks.begin() + 4, check_distances(c));
        checks.push_back(check_shape(c));
    }
    return checks;
}

std::string question_of(const Finding& finding)
{
    static const std::map<std::string, std::string> questions {
        { "views", "Are there enough views?" },
        { "coverage", "Do the views fill the image?" },
        { "tilt", "Is the board tilted enough?" },
        { "fit", "Do the cameras fit the pictures?" },
        { "outlying-views", "Does a view spoil it?" },
        { "rows", "Do rows match after rectification?" },
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
