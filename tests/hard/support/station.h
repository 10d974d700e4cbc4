#pragma once

#include "support/board_photos.h"
#include "support/plane_rig.h"
#include "vexo/vexo.h"

/// What a host measures and calibrates with, ready made. To be used in children alone: see child.h.
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

/// A recogniser or calibrator is told of the coarse board. Needs no memory itself, but the first time.
template <class Object> bool know_board(Object& object, vexo::PreProcParam pre = {})
{
    vexo::CircleMarkerParam circle = board_photos::marker_settings();
    static const vexo::CalibBoardParam coarse = board_photos::coarse_board().param();
    vexo::CalibBoardParam board = coarse;
    return object.set_parameters(pre, circle, board);
}

/// Photo of the coarse board, 400 x 320 px, as one of four views that calibrate two cameras 40 mm apart.
inline cv::Mat board_photo(int cam, int view)
{
    static board_photos::Photographer camera { { 400, 320 }, 440 };
    const board_photos::Board board = board_photos::coarse_board();
    const double tilt = 0.25 + 0.05 * view;
    return camera.photo(board, board_photos::view(board, tilt, 1.6 * view, 0.1, { 20.0 - 40 * cam, 0, 340 }), {}, view);
}

/// Hands both calibrators all four views. @return whether each was accepted
inline bool give_views(vexo::iCameraCalibrator& one, vexo::iStereoCalibrator& pair)
{
    bool good = true;
    for (int view = 0; view < 4; ++view)
        for (int cam = 0; cam < 2; ++cam) {
            cv::Mat p = board_photo(cam, view);
            good = good && pair.put_image(cam, p.data, p.cols, p.rows, p.step[0], false, "") == 0;
            good = good && (cam == 1 || one.put_image(p.data, p.cols, p.rows, p.step[0], false, "") == 0);
        }
    return good;
}

/// For four views of a small picture: k3 is fixed at 0.
inline vexo::CameraCalibParam calibration_param()
{
    vexo::CameraCalibParam param;
    param.flags = 128;
    return param;
}

} // namespace hard
