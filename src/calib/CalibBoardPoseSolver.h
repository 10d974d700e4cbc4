#pragma once

#include "calib/board_input.h"
#include "camera/camera_distort.h"
#include "vexo/pose.h"

#include <string>
#include <vector>

namespace vexo {

/// Pose of the board with three rings in one calibrated camera; see iCalibBoardPoseSolver.
class CalibBoardPoseSolver : public iCalibBoardPoseSolver {
public:
    CalibBoardPoseSolver();

    void destroy() override;
    bool init_camera(const std::vector<std::string>& files, int selector, int width, int height) override;
    bool set_parameters(PreProcParam& pre, CircleMarkerParam& circle, CalibBoardParam& board) override;
    int solve_pose(unsigned char* data, int width, int height, unsigned long step, double* pose) override;
    int solve_pose(std::string file, bool debug, double* pose) override;
    void save_debug_image(std::string file) override;
    void show_debug_image() override;
    unsigned char* ptr_debug_image() override;
    void get_size(int* width, int* height) override;
    ~CalibBoardPoseSolver() override = default;

private:
    int _solve(cv::Mat& image, bool draw_axes, double* pose);
    int _solve_checked(cv::Mat& image, bool draw_axes, double* pose);
    void _draw_axes(const cv::Mat& rvec, const cv::Mat& tvec);

    RecognizerPtr _recognizer; // null until the first set_parameters()
    DistortCamera _camera;
    double _pitch = 0;
    bool _camera_read = false;
    cv::Mat _drawing; // BGR, packed; empty: none
};

} // namespace vexo
