#include "calibration_report.h"
#include "common.h"

#include "base/whole_file.h"
#include "frames.h"
#include "pictures.h"
#include "stop.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

struct CalibrateOptions {
    std::string folder, cam0, cam1, board, out;
    double ruler_x = 0, ruler_y = 0, focal = 0;
    std::vector<int> dropped;
    int flags = cv::CALIB_USE_INTRINSIC_GUESS; ///< with a focal guess of 0 the library starts without one
    RectifyParam rectify;
    bool hold_out = true;
};

/// Views that are held out together must leave this many for a calibration of their own.
constexpr std::size_t least_half = 4;

using StereoCalibratorPtr = Owned<iStereoCalibrator>;
using CameraCalibratorPtr = Owned<iCameraCalibrator>;

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

/// Runs do_calibrate; what it answers or throws about views that determine no camera becomes a Failure.
template <class Run> void calibrate_or_fail(Run run)
{
    bool good = false;
    try {
        good = run();
    } catch (const cv::Exception&) {
        good = false;
    }
    if (!good)
        throw Failure(
            "the views determine no calibration; take ten or more views of the whole board, tilted by 25 to 45 "
            "degrees to all sides");
}

/// Spreads the errors of the views that were put over all views.
std::vector<double> by_view(const std::vector<double>& errors, const std::vector<bool>& use)
{
    std::vector<double> all(use.size(), std::nan(""));
    std::size_t next = 0;
    for (std::size_t v = 0; v < use.size() && next < errors.size(); ++v)
        if (use[v]) all[v] = errors[next++];
    return all;
}

/// The library reads and recognises the pictures itself, so that a host that calls it alike gets the same bits.
Found calibrate_pair(iStereoCalibrator* calibrator, const CalibrateOptions& o, const BoardFile& board,
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
    calibrate_or_fail([&] { return calibrator->do_calibrate(param, &errors, &found.rms); });
    for (std::size_t k = 0; k < 2; ++k)
        found.view_rms.push_back(by_view(errors[k], use));
    if (!calibrator->save_calibfile(file, "")) throw Failure(file + ": cannot be written");
    const auto cameras = read_cameras({ file });
    found.cameras.assign(cameras.begin(), cameras.end());
    return found;
}

Found calibrate_one(iCameraCalibrator* calibrator, const CalibrateOptions& o, const BoardFile& board,
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
    calibrate_or_fail([&] { return calibrator->do_calibrate(param, &errors, &found.rms); });
    found.view_rms.push_back(by_view(errors, use));
    if (!calibrator->save_calibfile(file, "cam0")) throw Failure(file + ": cannot be written");
    found.cameras.push_back(read_camera(file, "cam0"));
    return found;
}

Found calibrate_again(
    const CalibrateOptions& o, const Calibration& c, const std::vector<bool>& use, const std::string& file)
{
    if (c.is_pair())
        return calibrate_pair(StereoCalibratorPtr(CreateStereoCalibrator()).get(), o, c.board, c.views, use, file);
    return calibrate_one(CameraCalibratorPtr(CreateCameraCalibrator()).get(), o, c.board, c.views, use, file);
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

HoldOut hold_out(const CalibrateOptions& o, const Calibration& c, const std::string& file)
{
    HoldOut held;
    if (c.used_count() < 2 * least_half) return held;
    std::vector<Fold> folds;
    for (const bool second : { false, true })
        folds.push_back({ calibrate_again(o, c, half(c.used, second), file).cameras, half(c.used, !second) });
    for (std::size_t k = 0; k < c.cameras.size(); ++k) {
        held.fits.push_back(fit_camera(folds, k, c.views, c.board));
        for (const int axis : { 0, 1 })
            held.focal_spread = std::max(
                held.focal_spread, std::abs(folds[0].cameras[k].K(axis, axis) - folds[1].cameras[k].K(axis, axis)));
    }
    if (c.is_pair()) held.pair = fit_pair(folds, c.views, c.board);
    held.done = true;
    return held;
}

void complete(CalibrateOptions& o)
{
    std::error_code ignored;
    if (o.folder.empty() && o.cam0.empty())
        throw Failure("name a folder with cam0/ and cam1/, or give --cam0 and --cam1 (one camera: --cam0 alone)");
    if (!o.folder.empty() && !fs::is_directory(o.folder, ignored))
        throw Failure(o.folder + ": there is no such folder");
    const fs::path folder(o.folder);
    if (o.cam0.empty()) o.cam0 = (folder / "cam0").string();
    if (o.cam1.empty() && !o.folder.empty() && fs::is_directory(folder / "cam1", ignored))
        o.cam1 = (folder / "cam1").string();
    for (const double ruler : { o.ruler_x, o.ruler_y })
        if (ruler != 0 && !(ruler >= 80.0 && ruler <= 120.0))
            throw Failure("--ruler-x, --ruler-y: the measured length of a 100 mm ruler in mm, such as 99.6");
}

/// The pitch that the printer really made: the mean of what the rulers say.
BoardFile corrected_board(const CalibrateOptions& o, const BoardFile& board)
{
    double sum = 0, count = 0;
    for (const double ruler : { o.ruler_x, o.ruler_y }) {
        if (ruler <= 0) continue;
        sum += ruler / 100.0;
        ++count;
    }
    BoardFile corrected = board;
    if (count > 0) corrected.layout.pitch_mm *= sum / count;
    return corrected;
}

void add_drawings(OutputFolder& out, const BoardViews& views)
{
    for (const auto& pictures : views.cameras)
        for (const BoardPicture& picture : pictures)
            out.add(
                "drawings/cam" + std::to_string(picture.camera) + "_" + fs::path(picture.name).stem().string() + ".jpg",
                picture.drawing);
}

void add_file(OutputFolder& out, const TemporaryFolder& temporary, const std::string& name)
{
    constexpr std::size_t limit = std::size_t { 1 } << 31;
    const std::string bytes = read_bytes(temporary / name, limit);
    out.add(name, bytes);
}

/// Rectified pair, tables, hmat set and the board's pose in the first pair used.
double save_stereo(iStereoCalibrator& calibrator, CalibrateOptions& o, const TemporaryFolder& t, OutputFolder& out,
    const GlobalOptions& options)
{
    const double baseline = calibrator.create_stereo_camera(o.rectify, nullptr, nullptr);
    if (!(baseline > 0) || !calibrator.save_stereofile(t / "stereo.yaml", t / "map0.bin", t / "map1.bin")
        || !calibrator.save_boardRT(t / "boardRT.yaml"))
        throw Failure("the pair cannot be rectified; do both cameras see the same board, side by side?");
    for (const char* name : { "cameras.yaml", "stereo.yaml", "map0.bin", "map1.bin", "boardRT.yaml" })
        add_file(out, t, name);
    if (calibrator.save_stereohmat(t / "hmat0.bin", t / "hmat1.bin", t / "hmat_tables.bin", false)) {
        for (const char* name : { "hmat0.bin", "hmat1.bin", "hmat_tables.bin" })
            add_file(out, t, name);
    } else {
        say(options, "no hmat set: it cannot express a rectified size that differs from the pictures'");
    }
    return baseline;
}

/// What became of every picture, and how well it fits when that is known.
void say_views(const GlobalOptions& options, const Calibration& c)
{
    const std::vector<std::size_t> out = c.fits.empty() ? std::vector<std::size_t> {} : outlying_views(c);
    for (std::size_t k = 0; k < c.views.cameras.size(); ++k) {
        for (std::size_t v = 0; v < c.views.count(); ++v) {
            const BoardPicture& picture = c.views.cameras[k][v];
            std::string line = "cam" + std::to_string(k) + " " + picture.name + ": " + outcome(picture, c.board);
            if (!c.fits.empty() && c.used[v]) line += ", rms " + number(c.fits[k].view_rms[v], 3) + " px";
            if (!c.used[v] && picture.recognised()) line += ", not used: the other camera's picture was not recognised";
            if (std::find(out.begin(), out.end(), v) != out.end()) line += "  <- stands out";
            say(options, line);
        }
    }
}

void say_checks(const GlobalOptions& options, const std::vector<Check>& checks)
{
    const char* const words[] = { "good   ", "fair   ", "BAD    ", "unknown" };
    for (const Check& check : checks) {
        say(options, std::string("  ") + words[check.level] + "  " + check.question + " " + check.answer);
        if (!check.advice.empty()) say(options, "           -> " + check.advice);
    }
}

/// Recognises the board everywhere and decides which views can be used.
Calibration prepare(const CalibrateOptions& o, const GlobalOptions& options, Progress& progress)
{
    Calibration c;
    const BoardFile board = load_board(o.board);
    c.printed_pitch = board.layout.pitch_mm;
    c.board = corrected_board(o, board);
    c.ruler_x = o.ruler_x;
    c.ruler_y = o.ruler_y;
    c.dropped = o.dropped;
    c.views = find_views(o.cam0, o.cam1, o.dropped);
    recognise(c.views, c.board, [&progress](const std::string& name) { progress.step(name); });
    for (std::size_t v = 0; v < c.views.count(); ++v)
        c.used.push_back(c.views.good(v));
    if (c.used_count() == 0) {
        progress.finish();
        say_views(options, c);
        throw Failure(o.cam0
            + ": the board was recognised in no view; the first picture: " + outcome(c.views.cameras[0][0], c.board));
    }
    for (std::size_t v = 0; v < c.views.count(); ++v)
        if (c.used[v] && c.size.empty()) c.size = c.views.cameras[0][v].size;
    return c;
}

/// Whether the pair fits far worse than each camera by itself did.
bool pair_is_spoilt(const Calibration& c)
{
    constexpr double times = 2.0;
    return c.is_pair() && c.rms > times * std::max(median(c.view_rms[0]), median(c.view_rms[1]));
}

/// Both cameras calibrated one by one.
std::vector<CalibratedCamera> cameras_alone(const CalibrateOptions& o, const Calibration& c, const std::string& file)
{
    std::vector<CalibratedCamera> cameras;
    for (const auto& pictures : c.views.cameras) {
        const CameraCalibratorPtr calibrator(CreateCameraCalibrator());
        const Found found = calibrate_one(calibrator.get(), o, c.board, { { pictures } }, c.used, file);
        cameras.push_back(found.cameras.front());
    }
    return cameras;
}

void measure(const CalibrateOptions& o, Calibration& c, const TemporaryFolder& temporary)
{
    const std::vector<Fold> all { { c.cameras, c.used } };
    for (std::size_t k = 0; k < c.cameras.size(); ++k)
        c.fits.push_back(fit_camera(all, k, c.views, c.board));
    if (c.is_pair()) c.pair = fit_pair(all, c.views, c.board);
    if (pair_is_spoilt(c))
        c.agreement = pair_agreement(cameras_alone(o, c, temporary / "alone.yaml"), c.views, c.used, c.board);
    if (o.hold_out) c.hold_out = hold_out(o, c, temporary / "half.yaml");
}

void calibrate(CalibrateOptions o, const GlobalOptions& options)
{
    complete(o);
    OutputFolder out(o.out);
    const std::size_t pictures = find_frames(o.cam0).size() + (o.cam1.empty() ? 0 : find_frames(o.cam1).size());
    Progress progress(options, static_cast<int>(pictures) + 2);
    Calibration c = prepare(o, options, progress);
    progress.step("calibrating");
    const TemporaryFolder temporary;
    Found found;
    if (c.views.pair()) {
        const StereoCalibratorPtr calibrator(CreateStereoCalibrator());
        found = calibrate_pair(calibrator.get(), o, c.board, c.views, c.used, temporary / "cameras.yaml");
        c.baseline = save_stereo(*calibrator, o, temporary, out, options);
    } else {
        const CameraCalibratorPtr calibrator(CreateCameraCalibrator());
        found = calibrate_one(calibrator.get(), o, c.board, c.views, c.used, temporary / "cameras.yaml");
        add_file(out, temporary, "cameras.yaml");
    }
    c.cameras = found.cameras;
    c.view_rms = found.view_rms;
    c.rms = found.rms;
    progress.step("hold-out check");
    measure(o, c, temporary);

    const std::vector<Check> checks = check_calibration(c);
    const Json json = calibration_json(c, checks);
    out.add("board.yaml", board_yaml(c.board));
    out.add("report.json", json_text(json));
    out.add("report.html", calibration_html(c, checks));
    add_drawings(out, c.views);
    out.commit();
    progress.finish();

    say_views(options, c);
    say_checks(options, checks);
    say(options,
        o.out + ": cameras.yaml" + (c.is_pair() ? ", stereo.yaml, map*.bin, hmat*.bin, boardRT.yaml" : "")
            + ", board.yaml, drawings/, report.json; look at report.html");
    say(options, "calibration: " + verdict(checks));
    put_json(options, json);
}

} // namespace

void add_calibrate(CLI::App& app, GlobalOptions& options)
{
    auto o = std::make_shared<CalibrateOptions>();
    CLI::App* command
        = app.add_subcommand("calibrate", "photos of the board -> calibrated camera or pair, and how good it is");
    command->add_option("folder", o->folder, "folder with cam0/ and cam1/ (one camera: cam0/ alone)");
    command->add_option("--cam0", o->cam0, "pictures of camera 0: a folder, or a pattern in quotes");
    command->add_option("--cam1", o->cam1, "pictures of camera 1; they pair by the numbers in their names");
    command->add_option("--board", o->board, "board.yaml of vexo board")->required();
    command->add_option("--out", o->out, "folder for the calibration files and the report")->required();
    command->add_option("--ruler-x", o->ruler_x, "length of the printed 100 mm ruler x as measured, mm");
    command->add_option("--ruler-y", o->ruler_y, "the same of ruler y");
    command->add_option("--drop-view", o->dropped, "numbers of views to leave out")->delimiter(',');
    command->add_option("--focal", o->focal, "focal length to start from, px (default: none)")
        ->check(CLI::NonNegativeNumber);
    command->add_option("--flags", o->flags, "CALIB_* flags of OpenCV, as a number")->capture_default_str();
    command->add_option("--alpha", o->rectify.alpha, "rectified images: 0 only valid pixels, 1 all, -1 in between")
        ->check(CLI::Range(-1.0, 1.0))
        ->capture_default_str();
    command->add_flag("!--no-hold-out", o->hold_out, "skip the hold-out check, which calibrates twice more");
    finish_command(*command, options,
        "vexo calibrate photos --board board.yaml --ruler-x 99.6 --ruler-y 99.8 --out calib\n  tells for every picture "
        "what "
        "was recognised and writes calib/cameras.yaml for vexo measure --calib, and calib/report.html",
        [o, &options] { calibrate(*o, options); });
}

} // namespace vexo::app
