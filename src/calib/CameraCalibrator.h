#pragma once

#include "calib/board_input.h"
#include "calib/Calibrator.h"
#include "camera/camera_distort.h"
#include "vexo/calibration.h"

#include <string>
#include <vector>

namespace vexo {

/// Calibrates one camera; see iCameraCalibrator.
class CameraCalibrator : public iCameraCalibrator {
public:
    CameraCalibrator();
    ~CameraCalibrator() override = default;

    void destroy() override;
    bool set_parameters(PreProcParam& pre, CircleMarkerParam& circle, CalibBoardParam& board) override;
    int put_image(unsigned char* data, int width, int height, unsigned long step, bool show, std::string save) override;
    int put_image(std::string file, bool show, std::string save) override;
    bool do_calibrate(CameraCalibParam& param, std::vector<double>* per_view, double* rms) override;
    bool save_calibfile(std::string file, std::string name) override;

    /// As the virtual ones; they end here. The camera gets the picture's size, unless the recognition fails and
    /// earlier views have another.
    int put_image(cv::Mat& image, bool show, std::string save);

private:
    RecognizerPtr _recognizer; // null until the first set_parameters()
    std::vector<View> _views;
    DistortCamera _camera;
};

} // namespace vexo
