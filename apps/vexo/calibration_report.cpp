#include "calibration_report.h"

#include "common.h"

#include <algorithm>
#include <cmath>

namespace vexo::app {

namespace {

// --- limits; px at the pictures' own resolution ---

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
/// Of single markers: twice what their centres' noise makes of a pair, and far more.
constexpr double good_row_rms = 0.25, poor_row_rms = 0.7;
/// With enough views the other half is hit nearly as well as one's own.
constexpr double good_ratio = 1.3, poor_ratio = 2.0;
/// 0.05 % is 0.3 mm at 600 mm; the rulers are read no better than that.
constexpr double good_distance = 5e-4, poor_distance = 2e-3;
/// Bend of the board over its size.
constexpr double good_bend = 5e-4, poor_bend = 2e-3;
/// Of the two rulers, over their length.
constexpr double good_square = 1e-3;

Check::Level level(double value, double good, double poor)
{
    if (!std::isfinite(value)) return Check::unknown;
    return value <= good ? Check::good : value <= poor ? Check::fair : Check::bad;
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

Check check_views(const Calibration& c)
{
    const std::size_t n = c.used_count();
    const Check::Level level = n >= enough_views ? Check::good : n >= fewest_views ? Check::fair : Check::bad;
    return { "Are there enough views?", level, std::to_string(n) + " of " + std::to_string(c.views.count()) + " used",
        level == Check::good ? "" : "take " + std::to_string(enough_views) + " or more" };
}

Check check_coverage(const Calibration& c)
{
    std::vector<double> shares, percents;
    for (std::size_t k = 0; k < c.cameras.size(); ++k) {
        shares.push_back(-coverage(c.views.cameras[k], c.used, c.size));
        percents.push_back(-100 * shares.back());
    }
    const Check::Level l = level(largest(shares), -enough_coverage, -least_coverage);
    return { "Do the views fill the image?", l, each(percents, 0, " % of the image has markers"),
        l == Check::good ? "" : "move the board into the empty parts, the corners above all" };
}

Check check_tilt(const Calibration& c)
{
    std::vector<double> tilts;
    for (const CameraFit& fit : c.fits)
        tilts.push_back(largest(fit.view_tilt));
    const Check::Level l = level(-*std::min_element(tilts.begin(), tilts.end()), -enough_tilt_deg, -least_tilt_deg);
    return { "Is the board tilted enough?", l, "up to " + each(tilts, 0, " degrees"),
        l == Check::good ? "" : "tilt the board by 25 to 45 degrees, to all sides, in most views" };
}

Check check_rms(const Calibration& c)
{
    std::vector<double> rms;
    for (const CameraFit& fit : c.fits)
        rms.push_back(fit.rms);
    const Check::Level l = level(std::max(largest(rms), c.rms), good_rms, poor_rms);
    return { "Do the cameras fit the pictures?", l,
        "rms " + number(c.rms, 3) + " px as calibrated; " + each(rms, 3, " px a camera, best pose for each view"),
        l == Check::good
            ? ""
            : "take sharper pictures with the board at rest; check board.yaml and that the board is flat" };
}

Check check_outliers(const Calibration& c)
{
    std::string numbers;
    for (const std::size_t v : outlying_views(c))
        numbers += (numbers.empty() ? "" : ",") + std::to_string(c.views.cameras[0][v].number);
    if (numbers.empty()) return { "Does a view spoil it?", Check::good, "no view stands out", "" };
    return { "Does a view spoil it?", Check::fair,
        (outliers(c.agreement).empty() ? "views far above the others: " : "views whose two pictures show no one pose: ")
            + numbers,
        "look at these pictures; without them: --drop-view " + numbers };
}

Check check_rows(const Calibration& c)
{
    const PairFit& fit = c.hold_out.done ? c.hold_out.pair : c.pair;
    const Check::Level l
        = std::max(level(fit.row_systematic, good_row, poor_row), level(fit.row_rms, good_row_rms, poor_row_rms));
    return { "Do rows match after rectification?", l,
        "row error " + number(fit.row_systematic, 3) + " px where the noise of markers averages out; single markers "
            + number(fit.row_rms, 3) + " px rms" + (c.hold_out.done ? ", on held-out views" : ""),
        l == Check::good ? "" : "did a camera move, or were the pictures of a pair not taken together?" };
}

Check check_hold_out(const Calibration& c)
{
    const std::string question = "Does it hold for views it has not seen?";
    if (!c.hold_out.done)
        return { question, Check::unknown, "too few views to hold half of them out", "take 8 or more" };
    std::vector<double> rms, ratios;
    for (std::size_t k = 0; k < c.cameras.size(); ++k) {
        rms.push_back(c.hold_out.fits[k].rms);
        ratios.push_back(rms.back() / c.fits[k].rms);
    }
    const Check::Level l
        = std::max(level(largest(ratios), good_ratio, poor_ratio), level(largest(rms), good_rms, poor_rms));
    return { question, l,
        "rms " + each(rms, 3, " px on held-out views, ") + each(ratios, 2, " times that of its own")
            + "; focal lengths of the halves differ by " + number(c.hold_out.focal_spread, 2) + " px",
        l == Check::good ? "" : "take more views, with more tilt and closer to the corners" };
}

Check check_distances(const Calibration& c)
{
    const PairFit& fit = c.hold_out.done ? c.hold_out.pair : c.pair;
    const double worst
        = std::max(std::abs(fit.along_x.bias) / fit.along_x.length, std::abs(fit.along_y.bias) / fit.along_y.length);
    const Check::Level l = level(worst, good_distance, poor_distance);
    const auto text = [](const DistanceErrors& d) {
        return number(d.bias, 3) + " mm (rms " + number(d.rms, 3) + ") over " + number(d.length, 0) + " mm";
    };
    return { "Are distances right?", l,
        "marker distances along x " + text(fit.along_x) + ", along y " + text(fit.along_y)
            + (c.hold_out.done ? ", on held-out views" : ""),
        l == Check::good ? "" : "check the pitch in board.yaml, and that the board is flat and printed square" };
}

Check check_scale(const Calibration& c)
{
    const std::string question = "Is the printed board true to scale?";
    if (c.ruler_x <= 0 && c.ruler_y <= 0)
        return { question, Check::unknown, "not measured: no picture can tell the size of the board",
            "measure the sheet's two rulers and give --ruler-x and --ruler-y" };
    const double apart = c.ruler_x > 0 && c.ruler_y > 0 ? std::abs(c.ruler_x - c.ruler_y) / 100.0 : 0.0;
    const std::string answer = "rulers read " + (c.ruler_x > 0 ? short_number(c.ruler_x) + " mm along x" : "")
        + (c.ruler_x > 0 && c.ruler_y > 0 ? ", " : "") + (c.ruler_y > 0 ? short_number(c.ruler_y) + " mm along y" : "")
        + "; pitch corrected from " + short_number(c.printed_pitch) + " to " + short_number(c.board.layout.pitch_mm)
        + " mm";
    if (apart <= good_square) return { question, Check::good, answer, "" };
    return { question, Check::fair, answer + "; " + number(100 * apart, 2) + " % apart: the printer is not square",
        "one pitch cannot describe this board; use another printer" };
}

Check check_shape(const Calibration& c)
{
    const BoardLayout& b = c.board.layout;
    const double size = b.pitch_mm * std::max(b.columns, b.rows);
    const double squeeze = std::abs(c.pair.scale_x - c.pair.scale_y);
    const Check::Level l = level(std::max(c.pair.bend / size, squeeze), good_bend, poor_bend);
    return { "Is the board flat and square?", l,
        "bent by " + number(c.pair.bend, 3) + " mm over " + number(size, 0) + " mm; size along x "
            + number(100 * (c.pair.scale_x - 1), 3) + " %, along y " + number(100 * (c.pair.scale_y - 1), 3)
            + " % off the printed one",
        l == Check::good ? "" : "mount the sheet on a stiff, flat plate; print it unscaled" };
}

Json finite(double value)
{
    constexpr double steps = 1e6;
    if (!std::isfinite(value)) return nullptr;
    return std::round(value * steps) / steps;
}

Json finite(const std::vector<double>& values)
{
    Json list = Json::array();
    for (const double value : values)
        list.push_back(finite(value));
    return list;
}

Json to_json(const CalibratedCamera& camera)
{
    Json json { { "fx", camera.K(0, 0) }, { "fy", camera.K(1, 1) }, { "cx", camera.K(0, 2) },
        { "cy", camera.K(1, 2) } };
    json["distortion"] = std::vector<double>(camera.D.begin<double>(), camera.D.end<double>());
    return json;
}

Json to_json(const DistanceErrors& d)
{
    return { { "bias_mm", finite(d.bias) }, { "rms_mm", finite(d.rms) }, { "length_mm", finite(d.length) },
        { "count", d.count } };
}

Json to_json(const PairFit& fit)
{
    return { { "row_error_rms_px", finite(fit.row_rms) }, { "row_error_systematic_px", finite(fit.row_systematic) },
        { "row_error_99_percent_px", finite(fit.row_worst) }, { "row_error_per_view_px", finite(fit.view_row) },
        { "distances_along_x", to_json(fit.along_x) }, { "distances_along_y", to_json(fit.along_y) },
        { "board_bend_mm", finite(fit.bend) }, { "board_scale_x", finite(fit.scale_x) },
        { "board_scale_y", finite(fit.scale_y) } };
}

Json to_json(const BoardPicture& picture, const BoardFile& board)
{
    return { { "file", picture.name }, { "code", picture.code }, { "found", picture.found },
        { "outcome", outcome(picture, board) } };
}

const char* word(Check::Level level)
{
    const char* const words[] = { "good", "fair", "bad", "unknown" };
    return words[level];
}

} // namespace

std::size_t Calibration::used_count() const
{
    return static_cast<std::size_t>(std::count(used.begin(), used.end(), true));
}

std::vector<std::size_t> outlying_views(const Calibration& c)
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

std::vector<Check> check_calibration(const Calibration& c)
{
    std::vector<Check> checks { check_rms(c), check_outliers(c), check_hold_out(c), check_views(c), check_coverage(c),
        check_tilt(c), check_scale(c) };
    if (c.is_pair()) {
        checks.insert(checks.begin() + 3, check_rows(c));
        checks.insert(checks.begin() + 4, check_distances(c));
        checks.push_back(check_shape(c));
    }
    return checks;
}

std::string verdict(const std::vector<Check>& checks)
{
    Check::Level worst = Check::good;
    for (const Check& check : checks)
        if (check.level != Check::unknown) worst = std::max(worst, check.level);
    return worst == Check::good ? "good" : worst == Check::fair ? "usable" : "not good enough";
}

Json calibration_json(const Calibration& c, const std::vector<Check>& checks)
{
    Json json { { "verdict", verdict(checks) }, { "image_size", { c.size.width, c.size.height } },
        { "rms_px", finite(c.rms) }, { "pitch_mm", c.board.layout.pitch_mm }, { "views_used", c.used_count() } };
    if (c.is_pair()) json["baseline_mm"] = finite(c.baseline);
    for (const Check& check : checks)
        json["checks"].push_back({ { "question", check.question }, { "level", word(check.level) },
            { "answer", check.answer }, { "advice", check.advice } });
    for (std::size_t k = 0; k < c.cameras.size(); ++k) {
        Json camera = to_json(c.cameras[k]);
        camera["rms_px"] = finite(c.fits[k].rms);
        camera["per_view_px"] = finite(c.view_rms[k]);
        camera["tilt_deg"] = finite(c.fits[k].view_tilt);
        camera["coverage"] = finite(coverage(c.views.cameras[k], c.used, c.size));
        json["cameras"].push_back(camera);
    }
    for (std::size_t v = 0; v < c.views.count(); ++v) {
        Json view { { "number", c.views.cameras[0][v].number }, { "used", static_cast<bool>(c.used[v]) } };
        for (const auto& pictures : c.views.cameras)
            view["pictures"].push_back(to_json(pictures[v], c.board));
        json["views"].push_back(view);
    }
    json["outlying_views"] = Json::array();
    for (const std::size_t v : outlying_views(c))
        json["outlying_views"].push_back(c.views.cameras[0][v].number);
    if (!c.agreement.empty()) json["pair_agreement_px"] = finite(c.agreement);
    json["dropped_views"] = c.dropped;
    if (c.is_pair()) json["pair"] = to_json(c.pair);
    if (c.hold_out.done) {
        for (const CameraFit& fit : c.hold_out.fits)
            json["hold_out"]["camera_rms_px"].push_back(finite(fit.rms));
        json["hold_out"]["focal_spread_px"] = finite(c.hold_out.focal_spread);
        if (c.is_pair()) json["hold_out"]["pair"] = to_json(c.hold_out.pair);
    }
    return json;
}

} // namespace vexo::app
