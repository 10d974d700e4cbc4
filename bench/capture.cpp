#include "capture.h"

#include "base/whole_file.h"
#include "camera/stereo_construction.h"
#include "matching/gyps.h"
#include "matching/mlps.h"
#include "matching/sgbm.h"
#include "sim/render.h"
#include "sim/scenes.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace bench {
namespace {

using namespace vexo;

constexpr double max_disparity = 10000; // px: the rig's cameras are turned inwards, so it has no usual range

sim::RigOptions options_of(cv::Size size)
{
    sim::RigOptions options;
    options.image_size = size;
    return options;
}

sim::Pattern pattern_of(Method method, sim::RigOptions options)
{
    if (method == Method::multi_phase) options.method = method;
    sim::Pattern pattern = sim::pattern_of(options);
    if (method == Method::sgbm) pattern.frames = { pattern.frames[8] }; // the finest stripes: texture enough
    return pattern;
}

Camera camera_of(const sim::Rig& rig)
{
    const sim::Camera &a = rig.cameras[0], &b = rig.cameras[1];
    const cv::Matx33d R = b.R * a.R.t();
    const cv::Vec3d T = b.T - R * a.T;
    StereoCameraParam param;
    param.inp_width = rig.options.image_size.width;
    param.inp_height = rig.options.image_size.height;
    param.flags = 1024; // equal principal points
    return Camera(create_StereoCamera_from_raw(a.K.val, a.D.data(), b.K.val, b.D.data(), R.val, T.val, &param));
}

void render(Capture& capture, const sim::Rig& rig)
{
    const sim::Scene scene = sim::make_scene("sphere", rig.options);
    const std::vector<sim::ProjectedRow> rows = sim::project(pattern_of(capture.method, rig.options), rig.options);
    for (int cam = 0; cam < 2; ++cam) {
        const sim::View view(scene, rig, cam);
        for (std::size_t k = 0; k < rows.size(); ++k)
            capture.frames[static_cast<std::size_t>(cam)].push_back(view.picture(rows[k], static_cast<int>(k)));
    }
}

/// All frames one after another without headers; empty when there is no such file.
bool read_cache(const std::string& file, std::size_t count, Capture& capture)
{
    const auto pixels = static_cast<std::size_t>(capture.size.area());
    std::string bytes;
    if (!read_file(file, 2 * count * pixels, bytes) || bytes.size() != 2 * count * pixels) return false;
    for (std::size_t i = 0; i < 2 * count; ++i)
        capture.frames[i / count].push_back(
            cv::Mat(capture.size, CV_8U, const_cast<char*>(bytes.data()) + i * pixels).clone());
    return true;
}

void write_cache(const std::string& file, const Capture& capture)
{
    std::string bytes;
    for (const auto& frames : capture.frames)
        for (const cv::Mat& frame : frames)
            bytes.append(frame.ptr<char>(), frame.total());
    write_file(file, bytes);
}

} // namespace

Capture make_capture(Method method, cv::Size size)
{
    const sim::RigOptions options = options_of(size);
    const sim::Rig rig = sim::make_rig(options);
    Capture capture { method, size, {}, camera_of(rig) };
    if (capture.camera == nullptr) throw std::runtime_error("the rig makes no stereo camera");
    const std::string file = (std::filesystem::temp_directory_path()
        / ("vexo_bench_" + std::string(name_of(method)) + "_" + std::to_string(size.width) + ".raw"))
                                 .string();
    if (!read_cache(file, pattern_of(method, options).frames.size(), capture)) {
        render(capture, rig);
        write_cache(file, capture);
    }
    return capture;
}

Owned<iPointCloudGenerator> make_generator(const Capture& capture)
{
    Owned<iPointCloudGenerator> generator;
    bool accepted = true;
    if (capture.method == Method::gray_phase) {
        GrayPhaseMatchingParam record;
        record.max_phase_diff = 0.15;
        record.min_disparity = -max_disparity;
        record.max_disparity = max_disparity;
        record.fit_points = 5;
        record.anchor_length = 4;
        record.reject_length = 1;
        generator.reset(new GyPsMatching);
        accepted = generator->setparams(&record);
    } else if (capture.method == Method::multi_phase) {
        MultiPhaseMatchingParam record;
        record.min_disparity = -max_disparity;
        record.max_disparity = max_disparity;
        record.fit_points = 5;
        generator.reset(new MlPsMatching);
        accepted = generator->setparams(&record);
    } else {
        generator.reset(new SGBMatching);
    }
    if (!accepted) throw std::runtime_error("a record is refused");
    generator->init(capture.camera.get());
    return generator;
}

bool put_frames(iPointCloudGenerator& generator, const Capture& capture)
{
    bool taken = true;
    for (int cam = 0; cam < 2; ++cam)
        for (int k = 0; k < capture.frames_per_camera(); ++k) {
            const cv::Mat& frame = capture.frames[static_cast<std::size_t>(cam)][static_cast<std::size_t>(k)];
            taken = generator.setpict(frame.data, frame.step[0], cam, k) && taken;
        }
    return taken;
}

int run_chain(iPointCloudGenerator& generator, const Capture& capture)
{
    if (!put_frames(generator, capture) || !generator.exec()) throw std::runtime_error("the chain fails");
    generator.genPC(iPointCloudGenerator::MethodQ, false);
    return generator.get_pointcloud(nullptr);
}

} // namespace bench
