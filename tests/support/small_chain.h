#pragma once

#include "sim/render.h"
#include "sim/scenes.h"
#include "vexo/vexo.h"

#include <array>
#include <utility>
#include <vector>

namespace vexo {

/// Frames of a small capture of the virtual rig, with the noise and the lenses' distortion that it has, and a generator
/// of the installed library to measure them with.
class SmallChain {
public:
    explicit SmallChain(Method method, const char* scene_name)
    {
        sim::RigOptions options;
        options.image_size = { 320, 256 };
        options.method = method;
        const sim::Rig rig = make_rig(options);
        const std::vector<sim::ProjectedRow> rows = project(pattern_of(options), options);
        const sim::Scene scene = sim::make_scene(scene_name, options);
        for (int cam = 0; cam < 2; ++cam) {
            const sim::View view(scene, rig, cam);
            for (const sim::ProjectedRow& row : rows)
                frames[cam].push_back(view.picture(row, static_cast<int>(frames[cam].size())));
        }
        _make_camera(rig.cameras[0], rig.cameras[1]);
        _generator.reset(CreatePointCloudGenerator(selector_of(method)));
        _generator->init(_camera.get());
        is_ready = _set_record(method);
    }

    /// From the frames to the cloud, which `receiver` may be handed. @return points, -1: a call failed
    int run(PointCloudCallback* receiver)
    {
        bool taken = is_ready;
        for (int cam = 0; cam < 2; ++cam)
            for (std::size_t k = 0; k < frames[cam].size(); ++k)
                taken = taken
                    && _generator->setpict(frames[cam][k].data, frames[cam][k].step[0], cam, static_cast<int>(k));
        if (!taken || !_generator->exec()) return -1;
        _generator->genPC(iPointCloudGenerator::MethodQ, false);
        return _generator->get_pointcloud(receiver);
    }

    std::vector<cv::Mat> frames[2];
    bool is_ready = false;

private:
    static int selector_of(Method method)
    {
        return method == Method::gray_phase ? 1 : method == Method::multi_phase ? 2 : 0;
    }

    void _make_camera(const sim::Camera& a, const sim::Camera& b)
    {
        const cv::Matx33d R = b.R * a.R.t();
        const cv::Vec3d T = b.T - R * a.T;
        StereoCameraParam param;
        param.inp_width = a.size.width;
        param.inp_height = a.size.height;
        param.flags = 1024; // equal principal points
        _camera.reset(CreateStereoCameraFromRaw(a.K.val, a.D.data(), b.K.val, b.D.data(), R.val, T.val, &param));
    }

    bool _set_record(Method method)
    {
        GrayPhaseMatchingParam gray;
        MultiPhaseMatchingParam multi;
        SGBMatchingParam blocks;
        gray.max_phase_diff = 0.15;
        gray.max_disparity = multi.max_disparity = 1000; // px: the cameras are turned inwards
        gray.fit_points = multi.fit_points = 5;
        gray.anchor_length = 4;
        gray.reject_length = 1;
        blocks.minDisparity = 64;
        blocks.numDisparities = 128;
        void* const records[] = { &blocks, &gray, &multi };
        return _camera != nullptr && _generator->setparams(records[selector_of(method)]);
    }

    Owned<iStereoCamera> _camera;
    Owned<iPointCloudGenerator> _generator;
};

} // namespace vexo
