#include "host/calibration/calibrate.h"

#include "base/boundary.h"
#include "base/failure.h"
#include "base/statistics.h"
#include "base/whole_file.h"
#include "host/calibration/checks.h"
#include "host/calibration/pair_agreement.h"
#include "host/files/temporary_folder.h"
#include "vexo/calibration.h"
#include "vexo/factories.h"
#include "vexo/owned.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>

namespace vexo {

namespace {

/// Views that are held out together must leave this many for a calibration of their own.
constexpr std::size_t least_half = 4;

/// What a calibrator of the library found.
struct Found {
    std::vector<CalibratedCamera> cameras;
    std::vector<std::vector<double>> view_rms; ///< [camera][view], NaN for views that were not put
    double rms = 0;
};

template <class Calibrator> void set_board(Calibrator* calibrator, const BoardFile& board)
{
    BoardFile copy = board;
    CalibBoardParam geometry = board.geometry();
    if (calibrator == nullptr || !calibrator->set_parameters(copy.pre, copy.circle, geometry))
        throw Failure("the library refuses this board's parameters");
}

constexpr const char* no_calibration = "the views determine no calibration; take ten or more views of the whole board, "
                                       "tilted by 25 to 45 degrees to all sides";

/// Spreads the errors of the views that were put over all views.
std::vector<double> by_view(const std::vector<double>& errors, const std::vector<bool>& use)
{
    std::vector<double> all(use.size(), std::nan(""));
    std::size_t next = 0;
    for (std::size_t v = 0; v < use.size() && next < errors.size(); ++v)
        if (use[v]) all[v] = errors[next++];
    return all;
}

/// The library reads and recognises the pictures itself, so that a host that calls it alike gets the same bits. Nothing
/// for views that determine no pair.
std::optional<Found> calibrate_pair(iStereoCalibrator* calibrator, const CalibrateRequest& o, const BoardFile& board,
    const BoardViews& views, const std::vector<bool>& use, const std::string& file)
{
    set_board(calibrator, board);
    for (std::size_t v = 0; v < views.count(); ++v)
        for (int camera = 0; camera < 2 && use[v]; ++camera)
            calibrator->put_image(camera, views.cameras[static_cast<std::size_t>(camera)][v].path, false, "");
    CameraCalibParam param;
    param.focal_guess = o.focal;
    param.flags = o.flags;
    Found found;
    std::vector<std::vector<double>> errors;
    if (!value_if_opencv_throws(false, [&] { return calibrator->do_calibrate(param, &errors, &found.rms); }))
        return std::nullopt;
    for (std::size_t k = 0; k < 2; ++k)
        found.view_rms.push_back(by_view(errors[k], use));
    if (!calibrator->save_calibfile(file, "")) throw Failure(file + ": cannot be written");
    const auto cameras = read_cameras({ file });
    found.cameras.assign(cameras.begin(), cameras.end());
    return found;
}

std::optional<Found> calibrate_one(iCameraCalibrator* calibrator, const CalibrateRequest& o, const BoardFile& board,
    const BoardViews& views, const std::vector<bool>& use, const std::string& file)
{
    set_board(calibrator, board);
    for (std::size_t v = 0; v < views.count(); ++v)
        if (use[v]) calibrator->put_image(views.cameras[0][v].path, false, "");
    CameraCalibParam param;
    param.focal_guess = o.focal;
    param.flags = o.flags;
    Found found;
    std::vector<double> errors;
    if (!value_if_opencv_throws(false, [&] { return calibrator->do_calibrate(param, &errors, &found.rms); }))
        return std::nullopt;
    found.view_rms.push_back(by_view(errors, use));
    if (!calibrator->save_calibfile(file, "cam0")) throw Failure(file + ": cannot be written");
    found.cameras.push_back(read_camera(file, "cam0"));
    return found;
}

std::optional<Found> calibrate_again(
    const CalibrateRequest& o, const Calibrated& c, const std::vector<bool>& use, const std::string& file)
{
    if (c.is_pair())
        return calibrate_pair(Owned<iStereoCalibrator>(CreateStereoCalibrator()).get(), o, c.board, c.views, use, file);
    return calibrate_one(Owned<iCameraCalibrator>(CreateCameraCalibrator()).get(), o, c.board, c.views, use, file);
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

/// Pixels spread evenly over the part of the picture in which markers were seen: those lie denser in the middle, points
/// of a cloud do not.
std::vector<cv::Point2d> evenly_over(const std::vector<cv::Point2d>& seen, cv::Size size)
{
    constexpr int columns = 40, rows = 32;
    std::vector<cv::Point2f> hull, markers(seen.begin(), seen.end());
    cv::convexHull(markers, hull);
    std::vector<cv::Point2d> pixels;
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < columns; ++x) {
            const cv::Point2d pixel((x + 0.5) * size.width / columns - 0.5, (y + 0.5) * size.height / rows - 0.5);
            if (cv::pointPolygonTest(hull, pixel, false) >= 0.0) pixels.push_back(pixel);
        }
    return pixels;
}

/// Half of what the halves differ by; nothing where the cameras saw too little in common to say it.
std::optional<CalibrationShare> share_of(const std::array<DepthApart, 3>& apart)
{
    CalibrationShare share;
    for (std::size_t i = 0; i < apart.size(); ++i) {
        share.distance_mm[i] = apart[i].distance;
        share.depth_mm[i] = 0.5 * apart[i].depth;
        share.bend_mm[i] = 0.5 * apart[i].bend;
        share.scale[i] = 0.5 * apart[i].scale;
    }
    if (!is_share(share)) return std::nullopt;
    return share;
}

HoldOut hold_out(const CalibrateRequest& o, const Calibrated& c, const std::string& file)
{
    HoldOut held;
    if (c.used_count() < 2 * least_half) return held;
    std::vector<Fold> folds;
    for (const bool second : { false, true }) {
        const auto found = calibrate_again(o, c, half(c.used, second), file);
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
        const auto apart_at = [&](double distance) {
            return depth_apart(c.cameras, folds[0].cameras, folds[1].cameras, seen, distance);
        };
        held.apart = apart_at(c.fits[0].middle_depth);
        seen = evenly_over(seen, c.size);
        const std::vector<double>& depths = c.fits[0].marker_depths;
        held.share = share_of({ apart_at(depths[0]), apart_at(depths[1]), apart_at(depths[2]) });
    }
    held.done = true;
    return held;
}

void add_file(Calibrated& c, const TemporaryFolder& temporary, const std::string& name)
{
    constexpr std::size_t limit = std::size_t { 1 } << 31;
    c.files.emplace_back(name, read_bytes(temporary / name, limit));
}

/// Rectified pair, tables, hmat set and the board's pose in the first pair used. False for cameras that cannot be
/// rectified.
bool save_stereo(iStereoCalibrator& calibrator, const CalibrateRequest& o, const TemporaryFolder& t, Calibrated& c)
{
    RectifyParam rectify = o.rectify;
    c.baseline = calibrator.create_stereo_camera(rectify, nullptr, nullptr);
    if (!(c.baseline > 0) || !calibrator.save_stereofile(t / "stereo.yaml", t / "map0.bin", t / "map1.bin")
        || !calibrator.save_boardRT(t / "boardRT.yaml"))
        return false;
    for (const char* name : { "cameras.yaml", "stereo.yaml", "map0.bin", "map1.bin", "boardRT.yaml" })
        add_file(c, t, name);
    // An hmat set cannot express a rectified size that differs from the pictures'.
    if (!calibrator.save_stereohmat(t / "hmat0.bin", t / "hmat1.bin", t / "hmat_tables.bin", false)) return true;
    for (const char* name : { "hmat0.bin", "hmat1.bin", "hmat_tables.bin" })
        add_file(c, t, name);
    return true;
}

/// Whether the pair fits far worse than each camera by itself did.
bool pair_is_spoilt(const Calibrated& c)
{
    constexpr double times = 2.0;
    return c.is_pair() && c.rms > times * std::max(median(c.view_rms[0]), median(c.view_rms[1]));
}

/// Both cameras calibrated one by one.
std::vector<CalibratedCamera> cameras_alone(const CalibrateRequest& o, const Calibrated& c, const std::string& file)
{
    std::vector<CalibratedCamera> cameras;
    for (const auto& pictures : c.views.cameras) {
        const Owned<iCameraCalibrator> calibrator(CreateCameraCalibrator());
        const auto found = calibrate_one(calibrator.get(), o, c.board, { { pictures } }, c.used, file);
        if (!found) throw Failure(no_calibration);
        cameras.push_back(found->cameras.front());
    }
    return cameras;
}

void hold_against_views(const CalibrateRequest& o, Calibrated& c, const TemporaryFolder& temporary)
{
    const std::vector<Fold> all { { c.cameras, c.used } };
    for (std::size_t k = 0; k < c.cameras.size(); ++k)
        c.fits.push_back(fit_camera(all, k, c.views, c.board));
    if (c.is_pair()) c.pair = fit_pair(all, c.views, c.board);
    if (pair_is_spoilt(c))
        c.agreement = pair_agreement(cameras_alone(o, c, temporary / "alone.yaml"), c.views, c.used, c.board);
    if (o.hold_out) c.hold_out = hold_out(o, c, temporary / "half.yaml");
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
[[noreturn]] void fail_as_pair(
    const CalibrateRequest& o, const Calibrated& c, const TemporaryFolder& temporary, const std::string& otherwise)
{
    const auto agreement = pair_agreement(cameras_alone(o, c, temporary / "alone.yaml"), c.views, c.used, c.board);
    const std::string exchanged = exchange_in_words(agreement, c.views);
    throw Failure(exchanged.empty() ? otherwise : exchanged + "; give the files their right names");
}

Found calibrated_pair(const CalibrateRequest& o, Calibrated& c, const TemporaryFolder& temporary)
{
    const Owned<iStereoCalibrator> calibrator(CreateStereoCalibrator());
    const auto found = calibrate_pair(calibrator.get(), o, c.board, c.views, c.used, temporary / "cameras.yaml");
    if (!found) fail_as_pair(o, c, temporary, no_calibration);
    if (!save_stereo(*calibrator, o, temporary, c))
        fail_as_pair(
            o, c, temporary, "the pair cannot be rectified; do both cameras see the same board, side by side?");
    return *found;
}

Found calibrated_camera(const CalibrateRequest& o, Calibrated& c, const TemporaryFolder& temporary)
{
    const Owned<iCameraCalibrator> calibrator(CreateCameraCalibrator());
    const auto found = calibrate_one(calibrator.get(), o, c.board, c.views, c.used, temporary / "cameras.yaml");
    if (!found) throw Failure(no_calibration);
    add_file(c, temporary, "cameras.yaml");
    return *found;
}

} // namespace

BoardFile corrected_board(const BoardFile& board, const CalibrateRequest& request)
{
    double sum = 0, count = 0;
    for (const double ruler : { request.ruler_x, request.ruler_y }) {
        if (ruler <= 0) continue;
        sum += ruler / 100.0;
        ++count;
    }
    BoardFile corrected = board;
    if (count > 0) corrected.layout.pitch_mm *= sum / count;
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
    const TemporaryFolder temporary;
    const Found found
        = views.pair() ? calibrated_pair(request, c, temporary) : calibrated_camera(request, c, temporary);
    c.cameras = found.cameras;
    c.view_rms = found.view_rms;
    c.rms = found.rms;
    next_step(on_step, "hold-out check");
    hold_against_views(request, c, temporary);
    return c;
}

} // namespace vexo
