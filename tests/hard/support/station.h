#pragma once

#include "support/calibration_views.h"
#include "support/plane_rig.h"
#include "vexo/vexo.h"

/// What a host measures with, ready made. To be used in children alone: see child.h.
namespace hard {

using vexo::Owned;
using Frames = std::vector<cv::Mat>;

/// Good records, by the selector of the generator.
struct Records {
    vexo::SGBMatchingParam sgbm;
    vexo::GrayPhaseMatchingParam gray;
    vexo::MultiPhaseMatchingParam multi;

    Records()
    {
        sgbm.numDisparities = 32;
        gray.max_phase_diff = 0.15;
        gray.anchor_length = 2;
    }
    void* operator[](int g) { return g == 0 ? static_cast<void*>(&sgbm) : g == 1 ? static_cast<void*>(&gray) : &multi; }
};

/// Frames of a plane as a generator takes them; for block matching a picture of fringes.
inline const Frames& plane_frames(int g, int cam)
{
    static const Frames gray[] = { rig::gray_phase_frames(0), rig::gray_phase_frames(1) };
    static const Frames multi[] = { rig::multi_phase_frames(0), rig::multi_phase_frames(1) };
    static const Frames one[] = { { gray[0][3] }, { gray[1][3] } };
    return (g == 0 ? one : g == 1 ? gray : multi)[cam];
}

/// A generator with a good record on a camera; null when it could not be made.
inline Owned<vexo::iPointCloudGenerator> made_generator(int g, vexo::iStereoCamera* camera)
{
    Records records;
    Owned<vexo::iPointCloudGenerator> generator(vexo::CreatePointCloudGenerator(g));
    if (generator) generator->init(camera);
    if (generator && !generator->setparams(records[g])) generator.reset();
    return generator;
}

inline int measured_points(vexo::iPointCloudGenerator& generator)
{
    if (!generator.exec()) return -1;
    generator.genPC(vexo::iPointCloudGenerator::MethodQ, true);
    return generator.get_pointcloud(nullptr);
}

} // namespace hard
