#pragma once

#include "support/board_photos.h"
#include "vexo/vexo.h"

/// Four views of the coarse board that calibrate a camera, or two 40 mm apart, for tests that need a calibration rather
/// than a good one.
namespace board_photos {

/// A recogniser or calibrator is told of the coarse board. Needs no memory itself, but the first time.
template <class Object> bool know_board(Object& object, vexo::PreProcParam pre = {})
{
    vexo::CircleMarkerParam circle = marker_settings();
    static const vexo::CalibBoardParam coarse = coarse_board().param();
    vexo::CalibBoardParam board = coarse;
    return object.set_parameters(pre, circle, board);
}

/// Photo of the coarse board, 400 x 320 px, as one of four views that calibrate two cameras 40 mm apart. The first call
/// takes them all.
inline cv::Mat board_photo(int cam, int number)
{
    static const std::vector<cv::Mat> photos = [] {
        Photographer camera { { 400, 320 }, 440 };
        const Board board = coarse_board();
        std::vector<cv::Mat> all;
        for (int i = 0; i < 8; ++i) {
            const cv::Vec3d middle(i < 4 ? 20 : -20, 0, 340);
            all.push_back(camera.photo(board, view(board, 0.25 + 0.05 * (i % 4), 1.6 * (i % 4), 0.1, middle), {}, i));
        }
        return all;
    }();
    return photos[static_cast<std::size_t>(4 * cam + number)];
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

} // namespace board_photos
