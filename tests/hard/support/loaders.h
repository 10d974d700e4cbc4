#pragma once

#include "base/plain_yaml.h"
#include "guarded_buffer.h"
#include "samples.h"

#include "camera/stereo_camera.h"
#include "matching/PhaseStereoMatching.h"

#include <cmath>

/// The loaders of the library, one damaged file at a time; what they take is used. For tests/hard and fuzz/.
namespace hard {

using namespace vexo;

/// Where each sample lies; a damaged one lies elsewhere.
class Paths {
public:
    Paths(const Folder& folder, std::string victim, std::string at)
        : _folder(folder)
        , _victim(std::move(victim))
        , _at(std::move(at))
    {
    }
    std::string operator()(const std::string& name) const { return name == _victim ? _at : _folder / name; }
    const std::string& victim() const { return _victim; }

private:
    const Folder& _folder;
    std::string _victim, _at;
};

/// What a loader did with a file.
struct Outcome {
    bool taken;
    const char* fault; ///< null: none
};

// --- what was loaded is used -----------------------------------------------------------------------------

inline bool is_good_size(int w, int h)
{
    return w >= 1 && h >= 1 && w <= 32766 && h <= 32766 && std::int64_t { w } * h <= 1 << 26;
}

inline const char* drive(iStereoCamera* camera)
{
    int in_w = 0, in_h = 0, out_w = 0, out_h = 0;
    camera->get_inpimage_size(&in_w, &in_h);
    camera->get_outimage_size(&out_w, &out_h);
    if (!is_good_size(in_w, in_h) || !is_good_size(out_w, out_h)) return "a size out of range was handed out";
    if (!(camera->get_baseline_length() > 0.0) || !std::isfinite(camera->get_baseline_length()))
        return "a camera without a baseline was handed out";
    double xyz[3];
    const double pixel0[] = { 3, 4 }, pixel1[] = { 2, 4 };
    camera->get3dposition(xyz, 0, out_h - 1, 1.5);
    camera->get3dposition(xyz, pixel0, pixel1);
    camera->get3dposition(xyz, 10.0, pixel0, pixel1);

    if (in_w * in_h > 1 << 18 || out_w * out_h > 1 << 18) return nullptr; // large ones only cost time
    const auto bytes = [](int w, int h) { return static_cast<std::size_t>(w) * static_cast<std::size_t>(h); };
    const GuardedBuffer from(bytes(in_w, in_h)), to(bytes(out_w, out_h));
    for (int which = 0; which < 2; ++which)
        camera->remap(
            from.data(), static_cast<unsigned long>(in_w), to.data(), static_cast<unsigned long>(out_w), which);
    const Owned<iPointCloudGenerator> generator(CreatePointCloudGenerator(0));
    generator->init(camera);
    generator->setpict(from.data(), 0, 0, 0);
    return nullptr;
}

inline Outcome load_pair(const Paths& path)
{
    const std::vector<std::string> files { path("cams.yaml") };
    const StereoCameraParam param = sample_param();
    const Owned<iStereoCamera> camera(CreateStereoCamera(2, &files, &param));
    return { camera != nullptr, camera ? drive(camera.get()) : nullptr };
}

inline Outcome load_hmat_set(const Paths& path)
{
    const std::vector<std::string> files { path("p0.hmat"), path("p1.hmat"), path("tables.bin") };
    const StereoCameraParam param = sample_param();
    const Owned<iStereoCamera> camera(CreateStereoCamera(1, &files, &param));
    return { camera != nullptr, camera ? drive(camera.get()) : nullptr };
}

/// Everything that a stereo camera holds, as bytes.
inline std::string state_of(StereoCamera& camera)
{
    StereoCamera copy(camera);
    copy.cam0.map_file.clear();
    copy.cam1.map_file.clear();
    cv::FileStorage yaml = memory_yaml();
    copy.save(&yaml);
    std::string state = yaml.releaseAndGetString();
    for (const cv::Mat* map : { &camera.cam0.map1, &camera.cam0.map2, &camera.cam1.map1, &camera.cam1.map2 })
        state.append(map->ptr<char>(), map->total() * map->elemSize());
    return state;
}

inline Outcome load_stereo(const Paths& path)
{
    const rig::Camera camera = sample_camera();
    camera->cam0.map_file = path("map0.bin");
    camera->cam1.map_file = path("map1.bin");
    const std::string before = state_of(*camera);
    cv::FileStorage yaml;
    const bool loaded = open_yaml(path("stereo.yaml"), yaml) && camera->load(&yaml);
    if (!loaded) return { false, state_of(*camera) == before ? nullptr : "a refused stereo file changed the camera" };
    return { true, drive(camera.get()) };
}

struct Probe : PhaseStereoMatching {
    using PointCloudGenerator::transform;
    void destroy() override { delete this; }
    int get_datatype() const override { return 0; }
};

inline Outcome load_transform(const Paths& path)
{
    const Owned<Probe> generator(new Probe);
    const cv::Matx44d before = generator->transform;
    const bool loaded = generator->convert_coordinate(path("rt.yaml"));
    if (loaded) return { true, cv::checkRange(generator->transform) ? nullptr : "a transform that is not finite" };
    return { false, generator->transform == before ? nullptr : "a refused transform was taken" };
}

inline Outcome load_picture(const Paths& path)
{
    const rig::Camera camera = sample_camera();
    const Owned<iPointCloudGenerator> generator(CreatePointCloudGenerator(1));
    GrayPhaseMatchingParam record;
    generator->init(camera.get());
    generator->setparams(&record);
    cv::Mat frame = sample_picture();
    generator->setpict(frame.data, frame.step[0], 0, 0);
    const bool loaded = generator->loadpict(path(path.victim()), 0, 0);
    unsigned char* data = nullptr;
    int w = 0, h = 0;
    unsigned long step = 0;
    if (!generator->getpict(&data, &w, &h, &step, 0, 0) || w != width || h != height)
        return { loaded, "the frame was lost" };
    const bool same = cv::norm(cv::Mat(h, w, CV_8U, data, step), frame, cv::NORM_INF) == 0;
    if (!loaded && !same) return { loaded, "a refused picture changed the frame" };

    const Owned<iCameraCalibrator> calibrator(CreateCameraCalibrator());
    PreProcParam pre;
    CircleMarkerParam circle;
    CalibBoardParam board { 12.0, 19, 15, 10, 7, 1.2 };
    calibrator->set_parameters(pre, circle, board);
    const int code = calibrator->put_image(path(path.victim()), false, "");
    return { loaded, code == 0 ? "a board was seen where there is none" : nullptr };
}

} // namespace hard
