#include "sim/capture.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "base/plain_yaml.h"
#include "sim/scenes.h"

namespace vexo {
namespace sim {

cv::Matx44d cam0_from_scene(const Rig& rig)
{
    const Camera& camera = rig.cameras[0];
    cv::Matx44d cam0_from_rig = cv::Matx44d::eye();
    for (int row = 0; row < 3; ++row) {
        for (int column = 0; column < 3; ++column)
            cam0_from_rig(row, column) = camera.R(row, column);
        cam0_from_rig(row, 3) = camera.T[row];
    }
    return cam0_from_rig * turned(rig.options);
}

namespace {
Json balls_json(const Rig& rig)
{
    const Balls balls = make_balls(rig.options);
    Json centres = Json::array();
    for (const cv::Vec3d& centre : balls.centres)
        centres.push_back(to_json(rig.cameras[0].to_camera(centre)));
    return { { "centres_cam0_mm", centres }, { "diameter_mm", balls.diameter },
        { "distance_mm", cv::norm(balls.centres[1] - balls.centres[0]) } };
}

Json options_json(const RigOptions& o)
{
    Json json;
    json["image_size"] = to_json(o.image_size);
    json["projector_size"] = to_json(o.projector_size);
    json["distance_mm"] = o.distance_mm;
    json["baseline_mm"] = o.baseline_mm;
    if (o.toe_in_deg >= 0) json["toe_in_deg"] = o.toe_in_deg; // else both cameras look at the middle
    json["exposure"] = o.exposure;
    json["ambient"] = o.ambient;
    json["noise"] = o.noise;
    json["gamma"] = o.gamma;
    json["defocus"] = o.defocus;
    json["tilt_deg"] = o.tilt_deg;
    if (o.swapped[0] != o.swapped[1]) json["swapped"] = o.swapped;
    if (o.move_mm > 0) json["move_mm"] = o.move_mm;
    if (o.turned_deg != 0) json["turned_deg"] = o.turned_deg;
    json["seed"] = o.seed;
    return json;
}

std::string scene_text(const std::string& scene, const Rig& rig, const Pattern& pattern, const Truth& truth)
{
    Json json;
    json["scene"] = scene;
    json["method"] = name_of(pattern.method);
    json["frames"] = pattern.frames.size();
    json["projector_size"] = to_json(rig.options.projector_size);
    if (pattern.periods.size() == 1) json["fringe_period"] = pattern.periods[0];
    if (pattern.periods.size() > 1) json["periods"] = pattern.periods;
    if (!pattern.periods.empty()) {
        json["steps"] = 4;
        json["lit_columns"] = pattern.lit_columns();
    }
    json["options"] = options_json(rig.options);
    json["sensor"] = to_json(rig.sensor);
    const Camera& camera0 = rig.cameras[0];
    json["projector_centre_cam0_mm"] = to_json(camera0.to_camera(rig.projector.centre()));
    json["camera1_centre_cam0_mm"] = to_json(camera0.to_camera(rig.cameras[1].centre()));
    json["surface_pixels"] = cv::countNonZero(truth.depth == truth.depth);
    json["visible_pixels"] = cv::countNonZero(truth.visible);
    if (scene == "spheres") json["balls"] = balls_json(rig);
    if (rig.options.turned_deg != 0) json["cam0_from_scene"] = to_json(cam0_from_scene(rig).get_minor<3, 4>(0, 0));
    return json.dump(2) + "\n";
}
} // namespace

std::string manifest_text(const Pattern& pattern, double exposure_ms)
{
    Json json { { "schema", 1 }, { "method", name_of(pattern.method) } };
    if (pattern.periods.size() > 1) json["periods"] = pattern.periods;
    json["unit"] = "mm";
    if (exposure_ms > 0) json["exposure_ms"] = exposure_ms;
    return json.dump(2) + "\n";
}

std::string cameras_yaml(const Rig& rig)
{
    cv::FileStorage storage = memory_yaml();
    for (int i = 0; i < 2; ++i) {
        const Camera& camera = rig.cameras[static_cast<std::size_t>(i)];
        const cv::Matx34d pose = pose_in_camera0(rig, i);
        const std::string name = "cam" + std::to_string(i);
        storage << name + "_size"
                << "[:" << camera.size.width << camera.size.height << "]";
        cv::write(storage, name + "_K", cv::Mat(camera.K));
        cv::write(storage, name + "_R", cv::Mat(pose.get_minor<3, 3>(0, 0)));
        cv::write(storage, name + "_T", cv::Mat(pose.col(3)));
        cv::write(storage, name + "_P", cv::Mat(camera.K * pose));
        cv::write(storage, name + "_D", cv::Mat(camera.D, true).reshape(1, 1));
    }
    return storage.releaseAndGetString() + "unit: mm\n"; // last, since the first key names a nameless camera
}

int capture_steps(const Pattern& pattern)
{
    return 1 + static_cast<int>(pattern.frames.size());
}

namespace {
std::array<View, 2> cast_rays(const Scene& scene, const Rig& rig)
{
    return { View(scene, rig, 0), View(scene, rig, 1) };
}

/// Where the scene moves to: sideways, and towards the cameras.
Scene moved_scene(const std::string& name, const RigOptions& options)
{
    Scene scene = make_scene(name, options);
    scene.move(options.move_mm * cv::Vec3d(0.6, 0, -0.8));
    return scene;
}

void check(const std::string& scene, const RigOptions& options, const Pattern& pattern)
{
    if (const char* fault = why_invalid(options)) throw std::invalid_argument(fault);
    const auto& names = scene_names();
    if (std::find(names.begin(), names.end(), scene) == names.end())
        throw std::invalid_argument(scene + ": no such scene");
    if (pattern.method != options.method || pattern.frames.empty())
        throw std::invalid_argument("the pattern does not belong to the method");
    for (const std::vector<double>& row : pattern.frames)
        if (row.size() != static_cast<std::size_t>(options.projector_size.width))
            throw std::invalid_argument("the pattern does not have the projector's columns");
    for (const int frame : options.swapped)
        if (frame < 0 || static_cast<std::size_t>(frame) >= pattern.frames.size())
            throw std::invalid_argument("the method has no frame " + std::to_string(frame));
}
} // namespace

Capture make_capture(const std::string& scene, const RigOptions& options, const OnStep& on_step)
{
    return make_capture(scene, options, pattern_of(options), on_step);
}

Capture make_capture(
    const std::string& scene_name, const RigOptions& options, const Pattern& pattern, const OnStep& on_step)
{
    check(scene_name, options, pattern);
    const auto step = [&on_step](const std::string& what) { next_step(on_step, what); };
    Pattern order = pattern;
    std::swap(order.frames[static_cast<std::size_t>(options.swapped[0])],
        order.frames[static_cast<std::size_t>(options.swapped[1])]);

    const Rig rig = make_rig(options);
    const std::vector<ProjectedRow> rows = project(order, options);
    step("casting rays");
    std::array<View, 2> views = cast_rays(make_scene(scene_name, options), rig);

    Capture capture;
    capture.truth = make_truth(views[0], pattern.lit_columns());
    const cv::Mat_<uchar> visible1 = make_truth(views[1], pattern.lit_columns()).visible;
    for (std::size_t k = 0; k < rows.size(); ++k) {
        const auto frame = static_cast<int>(k);
        step("frame " + std::to_string(frame));
        if (options.move_mm > 0 && k + 2 == rows.size()) views = cast_rays(moved_scene(scene_name, options), rig);
        add_images({ { picture_name(0, "frame", frame), views[0].picture(rows[k], frame) },
                       { picture_name(1, "frame", frame), views[1].picture(rows[k], frame) } },
            capture.files);
    }
    capture.scene_json = scene_text(scene_name, rig, pattern, capture.truth);
    add_text("cameras.yaml", cameras_yaml(rig), capture.files);
    add_images({ { "truth.tiff", capture.truth.depth }, { "visible.png", capture.truth.visible },
                   { "visible1.png", visible1 } },
        capture.files);
    add_text("capture.json", manifest_text(pattern, options.exposure_ms), capture.files);
    add_text("scene.json", capture.scene_json, capture.files);
    return capture;
}

} // namespace sim
} // namespace vexo
