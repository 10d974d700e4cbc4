#pragma once

#include "calib/board_input.h"
#include "calib/Calibrator.h"
#include "camera/stereo_camera.h"
#include "vexo/calibration.h"

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace vexo {

/// Calibrates a camera pair; see iStereoCalibrator.
///
/// The stereo camera stays in rectified camera 0's frame; what is written in the board's frame is converted from
/// it each time, so that boards do not pile up.
class StereoCalibrator : public iStereoCalibrator {
public:
    StereoCalibrator();
    ~StereoCalibrator() override = default;

    void destroy() override;
    bool set_parameters(PreProcParam& pre, CircleMarkerParam& circle, CalibBoardParam& board) override;
    int put_image(
        int cam, unsigned char* data, int width, int height, unsigned long step, bool show, std::string save) override;
    int put_image(int cam, std::string file, bool show, std::string save) override;
    int put_image(std::string file, bool show, std::string save) override;
    bool do_calibrate(CameraCalibParam& param, std::vector<std::vector<double>>* per_view, double* rms) override;
    bool save_calibfile(std::string file0, std::string file1) override;
    double create_stereo_camera(RectifyParam& param, int* roi0, int* roi1) override;
    bool create_stereo_brdcrd(
        unsigned char* data0, unsigned long step0, unsigned char* data1, unsigned long step1) override;
    bool create_stereo_brdcrd(std::string file0, std::string file1) override;
    bool create_stereo_brdcrd(std::string file) override;
    bool save_stereofile(std::string file, std::string map_file0, std::string map_file1) override;
    bool save_stereohmat(std::string file0, std::string file1, std::string tables, bool board_frame) override;
    bool save_boardRT(std::string file) override; // NOLINT(readability-identifier-naming)

private:
    int _put(int cam, cv::Mat& image);
    int _put_and_present(int cam, cv::Mat& image, bool show, const std::string& save);
    bool _calibrate(CameraCalibParam& param, std::vector<std::vector<double>>* per_view, double* rms);
    bool _set_board_frame(cv::Mat& image0, cv::Mat& image1);
    bool _first_pair_pose(cv::Mat_<double>& rect0_from_board) const;
    bool _output_camera(bool board_frame, std::unique_ptr<StereoCamera>& camera) const;

    RecognizerPtr _recognizer;               // null until the first set_parameters()
    std::array<std::vector<View>, 2> _views; // one entry a picture put
    std::array<DistortCamera, 2> _cameras;
    std::unique_ptr<StereoCamera> _stereo;        // null until create_stereo_camera()
    std::array<DistortCamera, 2> _stereo_cameras; // what _stereo was made of; a later calibration leaves both
    cv::Mat_<double> _rect0_from_board;           // 4x4; empty until create_stereo_brdcrd()
    std::vector<bool> _pair_used;                 // by the last calibration
    bool _calibrated = false;
};

} // namespace vexo
