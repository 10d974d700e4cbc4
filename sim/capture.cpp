#include "sim/capture.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <stdexcept>

#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "sim/scenes.h"
#include "vexo/file_io.h"

namespace vexo {
namespace sim {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace {
std::string frame_name(int camera, int frame)
{
    const std::string digits = (frame < 10 ? "0" : "") + std::to_string(frame);
    return "cam" + std::to_string(camera) + "/frame" + digits + ".png";
}

std::vector<unsigned char> encode(const std::string& name, const cv::Mat& image)
{
    std::vector<unsigned char> bytes;
    const std::vector<int> quick { cv::IMWRITE_PNG_COMPRESSION, 1 }; // noise does not compress anyway
    if (!cv::imencode(fs::path(name).extension().string(), image, bytes, quick))
        throw std::runtime_error(name + ": the image cannot be encoded");
    return bytes;
}

/// Encodes images in parallel: it takes as long as rendering them.
void encode_all(const std::vector<std::pair<std::string, cv::Mat>>& images, Capture& capture)
{
    const std::size_t first = capture.files.size();
    const auto count = static_cast<int>(images.size());
    capture.files.resize(first + images.size());
    std::atomic<bool> failed { false };
    const auto encode_one = [&](std::size_t i) noexcept {
        try {
            capture.files[first + i] = { images[i].first, encode(images[i].first, images[i].second) };
        } catch (...) {
            failed = true;
        }
    };
#pragma omp parallel for schedule(dynamic) // each thread writes its own entries of `files`
    for (int i = 0; i < count; ++i)
        encode_one(static_cast<std::size_t>(i));
    if (failed) throw std::runtime_error("the images cannot be encoded; is there enough memory?");
}

/// Pose of a camera in raw camera-0 axes, which are the world of all files: [R | T], 3 x 4.
cv::Matx34d pose_in_camera0(const Rig& rig, int camera)
{
    if (camera == 0) return cv::Matx34d::eye(); // exactly
    const Camera& c = rig.cameras[1];
    const cv::Matx33d R = c.R * rig.cameras[0].R.t();
    const cv::Vec3d T = c.T - R * rig.cameras[0].T;
    return { R(0, 0), R(0, 1), R(0, 2), T[0], R(1, 0), R(1, 1), R(1, 2), T[1], R(2, 0), R(2, 1), R(2, 2), T[2] };
}

Json to_json(const cv::Vec3d& v)
{
    return Json::array({ v[0], v[1], v[2] });
}
Json to_json(const cv::Size& s)
{
    return Json::array({ s.width, s.height });
}

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
    json["fringe_period"] = o.fringe_period;
    json["distance_mm"] = o.distance_mm;
    json["baseline_mm"] = o.baseline_mm;
    if (o.toe_in_deg >= 0) json["toe_in_deg"] = o.toe_in_deg; // else both cameras look at the middle
    json["exposure"] = o.exposure;
    json["ambient"] = o.ambient;
    json["noise"] = o.noise;
    json["gamma"] = o.gamma;
    json["defocus"] = o.defocus;
    json["tilt_deg"] = o.tilt_deg;
    json["seed"] = o.seed;
    return json;
}

std::string scene_text(const std::string& scene, const Rig& rig, const Pattern& pattern, const Truth& truth)
{
    Json json;
    json["scene"] = scene;
    json["method"] = pattern.method;
    json["frames"] = pattern.frames.size();
    json["fringe_period"] = rig.options.fringe_period;
    json["projector_size"] = to_json(rig.options.projector_size);
    json["options"] = options_json(rig.options);
    json["sensor"] = { { "black", rig.sensor.black }, { "read", rig.sensor.read }, { "shot", rig.sensor.shot } };
    const Camera& camera0 = rig.cameras[0];
    json["projector_centre_cam0_mm"] = to_json(camera0.to_camera(rig.projector.centre()));
    json["camera1_centre_cam0_mm"] = to_json(camera0.to_camera(rig.cameras[1].centre()));
    json["surface_pixels"] = cv::countNonZero(truth.depth == truth.depth);
    json["visible_pixels"] = cv::countNonZero(truth.visible);
    if (scene == "spheres") json["balls"] = balls_json(rig);
    return json.dump(2) + "\n";
}

void remove_files(const std::string& folder, const std::vector<std::string>& names)
{
    std::error_code ignored;
    for (const std::string& name : names)
        fs::remove(fs::path(folder) / name, ignored);
}
} // namespace

std::string cameras_yaml(const Rig& rig)
{
    cv::FileStorage storage = file_io::memory_yaml();
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
    return storage.releaseAndGetString();
}

int capture_steps()
{
    return 2 + 13;
}

Capture make_capture(const std::string& scene_name, const RigOptions& options, const OnStep& on_step)
{
    const auto step = [&on_step](const std::string& what) {
        if (on_step) on_step(what);
    };
    if (const char* fault = why_invalid(options)) throw std::invalid_argument(fault);
    const auto& names = scene_names();
    if (std::find(names.begin(), names.end(), scene_name) == names.end())
        throw std::invalid_argument(scene_name + ": no such scene");

    const Rig rig = make_rig(options);
    const Scene scene = make_scene(scene_name, options);
    const Pattern pattern = gray_phase_pattern(options.projector_size.width, options.fringe_period);
    const std::vector<ProjectedRow> rows = project(pattern, options);
    step("casting rays of camera 0");
    const View view0(scene, rig, 0);
    step("casting rays of camera 1");
    const View view1(scene, rig, 1);

    Capture capture;
    for (std::size_t k = 0; k < rows.size(); ++k) {
        const auto frame = static_cast<int>(k);
        step("frame " + std::to_string(frame));
        encode_all({ { frame_name(0, frame), view0.picture(rows[k], frame) },
                       { frame_name(1, frame), view1.picture(rows[k], frame) } },
            capture);
    }
    capture.truth = make_truth(view0);
    capture.scene_json = scene_text(scene_name, rig, pattern, capture.truth);
    const std::string yaml = cameras_yaml(rig);
    capture.files.emplace_back("cameras.yaml", std::vector<unsigned char>(yaml.begin(), yaml.end()));
    encode_all({ { "truth.tiff", capture.truth.depth }, { "visible.png", capture.truth.visible } }, capture);
    capture.files.emplace_back(
        "scene.json", std::vector<unsigned char>(capture.scene_json.begin(), capture.scene_json.end()));
    return capture;
}

void write_capture(const Capture& capture, const std::string& folder)
{
    std::vector<std::string> written;
    for (const auto& [name, bytes] : capture.files) {
        const fs::path path = fs::path(folder) / name;
        std::error_code error;
        fs::create_directories(path.parent_path(), error);
        if (error || !file_io::write_file(path.string(), bytes)) {
            remove_files(folder, written);
            throw std::runtime_error(path.string() + ": cannot be written; is the disk full, or the folder read-only?");
        }
        written.push_back(name);
    }
    for (int camera = 0; camera < 2; ++camera)
        for (int k = 0; k < 100; ++k) {
            const std::string name = frame_name(camera, k);
            if (std::find(written.begin(), written.end(), name) == written.end()) remove_files(folder, { name });
        }
}

} // namespace sim
} // namespace vexo
