#include "measure_options.h"

#include "base/failure.h"
#include "host/cameras/calibration_files.h"
#include "host/captures/exposures.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <map>
#include <optional>
#include <set>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

void add_range_options(CLI::App& cmd, MeasureOptions& o)
{
    cmd.add_option("--disparity", o.disparity, "accepted disparities MIN:MAX in px (default: found in the data)");
    cmd.add_option("--depth", o.depth, "accepted depths NEAR:FAR, instead of --disparity");
    o.sgbm = {
        cmd.add_option("--block", o.request.block, "sgbm: side of the compared blocks, px, odd")
            ->capture_default_str()
            ->check(CLI::Range(1, 255)),
        cmd.add_option("--num-disparities", o.request.num_disparities,
               "sgbm: disparities from the smallest on, a multiple of 16 (default: the range)")
            ->check(CLI::Range(16, 4064)),
    };
}

void add_light_options(CLI::App& cmd, MeasureOptions& o)
{
    const auto grey = [&](const char* name, int& value, const char* what, int limit) {
        return cmd.add_option(name, value, what)->capture_default_str()->check(CLI::Range(1, limit));
    };
    o.phases.push_back(cmd.add_option("--min-contrast", o.request.min_contrast,
                              "smallest lit - dark, grey levels (default: what the noise allows, 8 to 16)")
                           ->check(CLI::Range(1, 255)));
    o.phases.push_back(grey("--min-white", o.request.min_white, "smallest lit grey level", 255));
    o.phases.push_back(grey("--max-white", o.request.max_white, "largest lit grey level; 256 accepts all", 256));
    o.phases.push_back(cmd.add_option("--min-modulation", o.request.min_modulation,
                              "smallest fringe amplitude, grey levels (default: what the noise allows, 3 to 6)")
                           ->check(CLI::Range(0.0, 255.0)));
}

void add_phase_options(CLI::App& cmd, MeasureOptions& o)
{
    o.phases.push_back(cmd.add_option("--max-phase-diff", o.request.max_phase_diff,
                              "largest phase difference of a match: gray-phase fringe periods, multi-phase projector "
                              "px (default: 1.5 px of camera 1 and four standard deviations of the noise)")
                           ->check(CLI::PositiveNumber));
    o.phases.push_back(cmd.add_option("--fit-points", o.request.fit_points,
                              "samples of the sub-pixel fit, 3 or 5 (default: by the noise)")
                           ->check(CLI::IsMember({ 3, 5 })));
    o.phases.push_back(
        cmd.add_flag("--interpolate", o.request.interpolate, "also fill columns between measured ones, by line fits"));
    o.phases.push_back(cmd.add_flag("!--no-refine", o.request.refine,
        "keep the points as they are matched: do not look once more at the fringes around each; with --decoded and "
        "--interpolate always so"));
    o.phases.push_back(cmd.add_flag("--smooth", o.request.smooth,
        "put each point on the surface around it, quadratics over 7 x 7 px: less noise, but smaller detail goes"));
    o.phases.push_back(cmd.add_flag("--decoded", o.files.decoded,
        "cam0 and cam1 hold maps of another decoder instead of pictures: black.png, white.png and, gray-phase, "
        "period.png or period.tiff (0 to 255) and phase.tiff, or, multi-phase, phase0.tiff to phase2.tiff; "
        "phases are float TIFF, fractions of a period"));
    o.gray = {
        cmd.add_option("--anchor", o.request.anchor,
               "gray-phase: runs of rising phase longer than this number the fringes, px (default: chosen)")
            ->check(CLI::Range(0, 100000)),
        cmd.add_option("--reject", o.request.reject,
               "gray-phase: runs of rising phase up to this long are dropped, px (default: chosen)")
            ->check(CLI::Range(0, 100000)),
        cmd.add_option("--code-spread", o.request.code_spread, "gray-phase: most different gray codes in a trusted run")
            ->capture_default_str()
            ->check(CLI::Range(1, 256)),
    };
    o.multi = {
        cmd.add_option("--periods", o.request.periods,
               "multi-phase: three fringe periods, projector px (default: as scene.json or patterns.json "
               "says, else 9,10,11)")
            ->delimiter(',')
            ->expected(3)
            ->allow_extra_args(false),
        cmd.add_option("--steps", o.steps, "multi-phase: shifts a period: 4")->capture_default_str(),
    };
}

} // namespace

void declare(CLI::App& command, MeasureOptions& o)
{
    command.add_option("folder", o.folders, "folder with cam0/ and cam1/ and cameras.yaml; with --exposures several");
    command.add_flag("--exposures", o.exposures,
        "merge captures of one scene at several exposures: the folders of each, or one whose capture.json lists them; "
        "each pixel is taken from the longest exposure that does not clip it");
    command.add_option("--out", o.out, "folder for the results")->required();
    command
        .add_option("--method", o.files.method,
            "gray-phase (13 pictures of each camera), multi-phase (14) or sgbm (1); default: as capture.json, "
            "scene.json "
            "or patterns.json says, else by the number of pictures")
        ->check(CLI::IsMember({ "gray-phase", "multi-phase", "sgbm" }));
    add_calibration(command, o.calib, "calibration");
    command.add_option("--cam0", o.files.cam0, "pictures of camera 0: a folder, or a pattern such as 'left_*.png'");
    command.add_option("--cam1", o.files.cam1, "pictures of camera 1");
    add_frame_options(command, o.frames);
    command.add_option("--alpha", o.camera.alpha, "rectification: 0 only valid pixels, 1 all, -1 OpenCV's default")
        ->capture_default_str()
        ->check(CLI::Range(-1.0, 1.0));
    command.add_option("--flags", o.camera.flags, "rectification flags; 1024: same principal point in both pictures")
        ->capture_default_str();
    const std::map<std::string, Cleaning> levels { { "off", Cleaning::off }, { "default", Cleaning::standard },
        { "strict", Cleaning::strict } };
    command
        .add_option("--clean", o.request.cleaning,
            "off, default or strict: takes out points that do not belong to the surface around them")
        ->transform(CLI::CheckedTransformer(levels).description("{off,default,strict}"))
        ->default_str("default");
    command.add_flag("!--no-pictures", o.pictures,
        "write only what other commands read: cloud.ply, depth.tiff, texture.png and report.json");
    command.add_flag("--accept-verdict", o.accept_verdict, "exit code 0 also where a finding spoils the result");
    add_range_options(command, o);
    add_phase_options(command, o);
    add_light_options(command, o);
}

namespace {

/// The folders to merge: those that were typed, or those that the capture.json of a single one lists.
std::vector<std::string> folders_of_exposures(const MeasureOptions& o)
{
    if (o.folders.size() > 1 && !o.exposures)
        throw UsageFailure("several folders: --exposures merges captures of one scene at several exposures; measure "
                           "captures of different scenes one by one");
    std::vector<std::string> folders = o.folders;
    if (folders.size() == 1) {
        const std::optional<Manifest> manifest = read_manifest(folders[0]);
        folders = manifest ? manifest->exposures : std::vector<std::string>();
    }
    if (o.exposures && folders.size() < least_exposures)
        throw UsageFailure("--exposures: name the folders of two exposures or more, or one whose capture.json lists "
                           "them");
    if (folders.size() > most_exposures)
        throw UsageFailure("--exposures: at most " + std::to_string(most_exposures) + " can be merged");
    return folders;
}

/// Finds the frames of all exposures, and a calibration that belongs to them.
void complete_exposures(MeasureOptions& o, const std::vector<std::string>& folders)
{
    if (!o.files.cam0.empty() || !o.files.cam1.empty() || o.files.decoded)
        throw UsageFailure("--cam0, --cam1, --decoded: have no meaning for exposures, which are folders with cam0/ and "
                           "cam1/ each");
    std::set<fs::path> seen;
    for (const std::string& folder : folders) {
        if (const auto manifest = read_manifest(folder); manifest && !manifest->exposures.empty())
            throw UsageFailure("--exposures: " + manifest->path
                + " lists exposures itself; name that folder alone, or the folders that it lists");
        CaptureFiles files = o.files;
        files.folder = folder;
        complete_cameras(folder, files.cam0, files.cam1);
        std::error_code ignored;
        if (!seen.insert(fs::canonical(folder, ignored)).second)
            throw UsageFailure("--exposures: " + folder + " is named twice");
        o.sets.push_back(files);
    }
    std::vector<std::string> places = folders;
    places.insert(places.begin(), o.folders.begin(), o.folders.end());
    const std::string cameras = one_camera_file(places);
    if (!o.calib.given()) o.calib.files = { cameras };
    o.files = o.sets[0];
}

} // namespace

void complete(MeasureOptions& o)
{
    if (!o.disparity.empty() && !o.depth.empty())
        throw UsageFailure("--disparity and --depth: give one of them, not both");
    if (!o.disparity.empty()) o.request.disparity = parse_range(o.disparity, "--disparity");
    if (!o.depth.empty()) o.request.depth = parse_depths(o.depth, "--depth");
    if (o.steps == 3)
        throw UsageFailure(
            "--steps 3: the library's three-step formula is wrong for ordinary three-step patterns, by up to "
            "0.8 rad of phase; project four steps");
    if (o.steps != 4) throw UsageFailure("--steps " + std::to_string(o.steps) + ": fringes are measured in four steps");
    const std::vector<std::string> exposures = folders_of_exposures(o);
    if (!o.folders.empty()) o.files.folder = o.folders[0];
    complete_frames_of(o.frames, o.files);
    if (!exposures.empty()) complete_exposures(o, exposures);
    if (o.files.folder.empty() && (!o.calib.given() || o.files.cam0.empty() || o.files.cam1.empty()))
        throw UsageFailure("name a folder with cam0/, cam1/ and cameras.yaml, or give --calib, --cam0 and --cam1");
    complete_cameras(o.files.folder, o.files.cam0, o.files.cam1);
    if (o.request.smooth && (o.files.decoded || o.request.interpolate))
        throw UsageFailure(
            "--smooth weighs points by their sigma, and with --decoded or --interpolate they have no sigma");
    if (o.files.decoded && (!o.files.order.empty() || o.files.bits))
        throw UsageFailure("--decoded: maps have neither --order nor --bits");
    if (!o.calib.given()) o.calib.files = { (fs::path(o.files.folder) / "cameras.yaml").string() };
    if (o.calib.rectified.empty()) find_calibration(o.calib.files); // says at once what is missing
}

void reject_foreign(const MeasureOptions& o, Method method)
{
    const std::string why = std::string("has no meaning for the method ") + name_of(method);
    if (method == Method::sgbm) reject(o.phases, why);
    if (method != Method::gray_phase) reject(o.gray, why);
    if (method != Method::multi_phase) reject(o.multi, why);
    if (method != Method::sgbm) reject(o.sgbm, why);
}

} // namespace vexo::app
