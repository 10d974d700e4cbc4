#include "host/calibration/calibrate.h"

#include "base/failure.h"
#include "base/statistics.h"
#include "host/calibration/bundle.h"
#include "host/calibration/checks.h"
#include "host/calibration/find_share.h"
#include "host/calibration/pair_agreement.h"
#include "host/calibration/solve.h"
#include "host/cameras/pair_files.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace vexo {

namespace {

/// Views that are held out together must leave this many for a calibration of their own.
constexpr std::size_t least_half = 4;

constexpr const char* no_calibration = "the views determine no calibration; take ten or more views of the whole board, "
                                       "tilted by 25 to 45 degrees to all sides";

SolveOptions options_of(const CalibrateRequest& o)
{
    return { o.focal, o.flags };
}

/// Every second used view, from the first or the second on.
std::vector<bool> half(const std::vector<bool>& used, bool second)
{
    std::vector<bool> part(used.size(), false);
    bool take = !second;
    for (std::size_t v = 0; v < used.size(); ++v) {
        if (!used[v]) continue;
        part[v] = take;
        take = !take;
    }
    return part;
}

HoldOut hold_out(const CalibrateRequest& o, const Calibrated& c)
{
    HoldOut held;
    if (c.used_count() < 2 * least_half) return held;
    std::vector<Fold> folds;
    for (const bool second : { false, true }) {
        const auto found = solve_cameras(c.views, c.board, half(c.used, second), options_of(o));
        if (!found) return held;
        folds.push_back({ found->cameras, half(c.used, !second) });
    }
    for (std::size_t k = 0; k < c.cameras.size(); ++k) {
        held.fits.push_back(fit_camera(folds, k, c.views, c.board));
        for (const int axis : { 0, 1 })
            held.focal_spread = std::max(
                held.focal_spread, std::abs(folds[0].cameras[k].K(axis, axis) - folds[1].cameras[k].K(axis, axis)));
    }
    if (c.is_pair()) {
        held.pair = fit_pair(folds, c.views, c.board);
        std::vector<cv::Point2d> seen;
        for (const Residual& residual : c.fits[0].residuals)
            seen.push_back(residual.seen_px);
        held.apart = depth_apart(c.cameras, folds[0].cameras, folds[1].cameras, seen, c.fits[0].middle_depth);
    }
    held.done = true;
    return held;
}

/// Whether the pair fits far worse than each camera by itself did.
bool pair_is_spoilt(const Calibrated& c)
{
    constexpr double times = 2.0;
    return c.is_pair() && c.rms > times * std::max(median(c.view_rms[0]), median(c.view_rms[1]));
}

/// Both cameras calibrated one by one.
std::vector<CalibratedCamera> cameras_alone(const CalibrateRequest& o, const Calibrated& c)
{
    std::vector<CalibratedCamera> cameras;
    for (const auto& pictures : c.views.cameras) {
        const auto found = solve_cameras({ { pictures } }, c.board, c.used, options_of(o));
        if (!found) throw Failure(no_calibration);
        cameras.push_back(found->cameras.front());
    }
    return cameras;
}

void hold_against_views(const CalibrateRequest& o, Calibrated& c)
{
    const std::vector<Fold> all { { c.cameras, c.used } };
    for (std::size_t k = 0; k < c.cameras.size(); ++k)
        c.fits.push_back(fit_camera(all, k, c.views, c.board));
    if (c.is_pair()) c.pair = fit_pair(all, c.views, c.board);
    if (pair_is_spoilt(c)) c.agreement = pair_agreement(cameras_alone(o, c), c.views, c.used, c.board);
    if (o.hold_out) c.hold_out = hold_out(o, c);
}

Calibrated with_usable_views(const BoardViews& views, const BoardFile& board)
{
    Calibrated c;
    c.board = board;
    c.views = views;
    for (std::size_t v = 0; v < views.count(); ++v) {
        c.used.push_back(views.good(v));
        if (c.used[v] && c.size.empty()) c.size = views.cameras[0][v].size;
    }
    if (c.used_count() > 0) return c;
    const BoardPicture& first = views.cameras[0][0];
    throw Failure(
        "the board was recognised in no view; the first picture, " + first.path + ": " + outcome(first, board));
}

/// A pair that cannot be calibrated, since photos were exchanged or for whatever `otherwise` says.
[[noreturn]] void fail_as_pair(const CalibrateRequest& o, const Calibrated& c, const std::string& otherwise)
{
    const auto agreement = pair_agreement(cameras_alone(o, c), c.views, c.used, c.board);
    const std::string exchanged = exchange_in_words(agreement, c.views);
    throw Failure(exchanged.empty() ? otherwise : exchanged + "; give the files their right names");
}

Solved solved_cameras(const CalibrateRequest& o, const Calibrated& c)
{
    const auto solved = solve_cameras(c.views, c.board, c.used, options_of(o));
    if (solved) return *solved;
    if (c.views.pair()) fail_as_pair(o, c, no_calibration);
    throw Failure(no_calibration);
}

/// The pitch along x as the rulers have it. Both are of one size with a board that is square as far as one knows, and
/// their mean errs least; where the shape says by how much y differs, ruler y only checks that.
double ruled_pitch(double printed_mm, const BoardShape& shape, const CalibrateRequest& o)
{
    constexpr double ruler = 100.0; // mm, as printed
    const double by_x = o.ruler_x / ruler, by_y = o.ruler_y / ruler / (1.0 + shape.stretch_y);
    if (o.ruler_x <= 0 && o.ruler_y <= 0) return printed_mm;
    if (o.ruler_x <= 0) return printed_mm * by_y;
    if (o.ruler_y <= 0 || !shape.plain()) return printed_mm * by_x;
    return printed_mm * (0.5 * (by_x + by_y));
}

/// The board with a shape, which was found with the pitch that it has.
BoardFile with_shape(BoardFile board, const BoardShape& shape, double printed_pitch_mm, const CalibrateRequest& o)
{
    const double before = board.layout.pitch_mm;
    board.shape = shape;
    board.layout.pitch_mm = ruled_pitch(printed_pitch_mm, shape, o);
    const double smaller = before / board.layout.pitch_mm; // heights at 100 mm, of a board that is larger
    for (double* bow : { &board.shape.bow_xx, &board.shape.bow_xy, &board.shape.bow_yy })
        *bow *= smaller;
    return board;
}

/// Whether the shape can be that of a board: a bundle of few views may explain errors of another kind by it.
bool plausible(const BoardShape& shape)
{
    constexpr double most_bow_mm = 10.0, most_share = 0.02;
    return std::abs(shape.bow_xx) < most_bow_mm && std::abs(shape.bow_xy) < most_bow_mm
        && std::abs(shape.bow_yy) < most_bow_mm && std::abs(shape.stretch_y) < most_share
        && std::abs(shape.shear) < most_share;
}

/// Asks the views for the board's shape, and takes it where they have it beyond doubt.
/// @param given  the board as it was before its shape was asked for
void learn_shape(const CalibrateRequest& o, const BoardFile& given, const Solved& solved, Calibrated& c)
{
    c.board = given;
    c.shape = {};
    const auto flat = adjust_bundle(c.views, given, c.used, solved.cameras, { o.flags, false });
    const auto shaped = adjust_bundle(c.views, given, c.used, solved.cameras, { o.flags, true });
    if (!flat || !shaped) return;
    c.shape = { plausible(shaped->shape) && shape_is_significant(*flat, *shaped), flat->residual_px(),
        shaped->residual_px() };
    if (c.shape.kept) c.board = with_shape(given, shaped->shape, c.printed_pitch, o);
}

/// Whether the cameras say where markers are nearly enough for these to be measured there. After photos were exchanged
/// they are off by tens of px, and what is found then would hide which photos these are.
bool good_enough_to_refine(const Solved& solved)
{
    constexpr double most_px = 5.0;
    return solved.rms < most_px;
}

/// Calibrates, and with refinement again from what these cameras let the markers be measured by.
Solved solve_in_rounds(const CalibrateRequest& o, Calibrated& c, const OnStep& on_step)
{
    const BoardFile given = c.board;
    Solved solved = solved_cameras(o, c);
    for (int round = 0; o.refine && good_enough_to_refine(solved) && round < refine_rounds; ++round) {
        next_step(on_step, "measuring the markers by their grey values");
        const Refinement before = c.refinement;
        c.refinement = refine_views(c.views, c.used, c.board, solved.cameras);
        c.refinement.views_added += before.views_added;
        c.refinement.seconds += before.seconds;
        solved = solved_cameras(o, c);
        learn_shape(o, given, solved, c);
        if (c.shape.kept) solved = solved_cameras(o, c);
    }
    return solved;
}

/// cameras.yaml, and of a pair the rectified pair, its tables, the hmat set and the board's pose in the first pair
/// used.
void add_files(const CalibrateRequest& o, Calibrated& c)
{
    constexpr const char* apart = "the pair cannot be rectified; do both cameras see the same board, side by side?";
    c.files.emplace_back("cameras.yaml", cameras_yaml(c.cameras));
    if (!c.is_pair()) return;
    const std::array<CalibratedCamera, 2> cameras { c.cameras[0], c.cameras[1] };
    const auto first = static_cast<std::size_t>(std::find(c.used.begin(), c.used.end(), true) - c.used.begin());
    const auto pair = pair_files(cameras, o.rectify);
    if (!pair) fail_as_pair(o, c, apart);
    const auto pose = pose_in_rectified(cameras, *pair,
        { seen_markers(c.views.cameras[0][first], c.board), seen_markers(c.views.cameras[1][first], c.board) });
    if (!pose) fail_as_pair(o, c, apart);
    c.baseline = pair->baseline;
    c.files.insert(c.files.end(), pair->files.begin(), pair->files.end());
    c.files.emplace_back("boardRT.yaml", board_pose_yaml(*pose));
}

} // namespace

BoardFile corrected_board(const BoardFile& board, const CalibrateRequest& request)
{
    BoardFile corrected = board;
    corrected.layout.pitch_mm = ruled_pitch(board.layout.pitch_mm, board.shape, request);
    return corrected;
}

Calibrated calibrate(const BoardViews& views, const BoardFile& board, double printed_pitch_mm,
    const CalibrateRequest& request, const OnStep& on_step)
{
    Calibrated c = with_usable_views(views, board);
    c.printed_pitch = printed_pitch_mm;
    c.ruler_x = request.ruler_x;
    c.ruler_y = request.ruler_y;
    c.dropped = request.dropped;
    next_step(on_step, "calibrating");
    const Solved solved = solve_in_rounds(request, c, on_step);
    c.cameras = solved.cameras;
    c.view_rms = solved.view_rms;
    c.rms = solved.rms;
    add_files(request, c);
    next_step(on_step, "hold-out check");
    hold_against_views(request, c);
    find_share(request.flags, c);
    return c;
}

} // namespace vexo
