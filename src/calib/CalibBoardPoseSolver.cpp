#include "calib/CalibBoardPoseSolver.h"

#include "base/boundary.h"
#include "base/plain_yaml.h"
#include "board/CalibBoardRecognizer.h"
#include "board/result_picture.h"
#include "calib/board_pose.h"
#include "camera/camera_file.h"
#include "camera/image_file.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

/// Name of the camera to read from a storage: "cam<selector>", else the only one there is. Empty: none.
std::string camera_name(const cv::FileStorage& storage, int selector, bool own_file)
{
    std::string name = "cam" + std::to_string(selector);
    if (camera_file::has_projection(storage, name)) return name;
    const std::string first = DistortCamera(cv::Size(0, 0), "").get_camera_name(&storage);
    return (own_file || selector == 0) && camera_file::has_projection(storage, first) ? first : "";
}

} // namespace

CalibBoardPoseSolver::CalibBoardPoseSolver()
    : _camera(cv::Size(0, 0), "")
{
}

void CalibBoardPoseSolver::destroy()
{
    delete this;
}

bool CalibBoardPoseSolver::init_camera(const std::vector<std::string>& files, int selector, int width, int height)
{
    const bool own_file = files.size() > 1; // one file a camera
    if (selector < 0 || files.empty() || (own_file && static_cast<size_t>(selector) >= files.size())) return false;
    return false_if_it_throws([&] {
        cv::FileStorage storage;
        if (!open_yaml(files[own_file ? static_cast<size_t>(selector) : 0], storage)) return false;
        DistortCamera fresh(cv::Size(0, 0), camera_name(storage, selector, own_file));
        if (fresh.name.empty() || !fresh.load(&storage)) return false;
        const bool any_size = width == 0 && height == 0;
        if (!any_size && fresh.size != cv::Size(width, height)) return false;
        _camera = std::move(fresh);
        _camera_read = true;
        return true;
    });
}

bool CalibBoardPoseSolver::set_parameters(PreProcParam& pre, CircleMarkerParam& circle, CalibBoardParam& board)
{
    if (!set_board_parameters(_recognizer, pre, circle, board)) return false;
    _pitch = board.pitch;
    return true;
}

int CalibBoardPoseSolver::solve_pose(unsigned char* data, int width, int height, unsigned long step, double* pose)
{
    cv::Mat image = wrap_picture(data, width, height, step);
    return _solve(image, false, pose);
}

int CalibBoardPoseSolver::solve_pose(std::string file, bool debug, double* pose)
{
    cv::Mat image = read_grey_image(file);
    return _solve(image, debug, pose);
}

int CalibBoardPoseSolver::_solve(cv::Mat& image, bool draw_axes, double* pose)
{
    _drawing.release();
    if (!_recognizer || !_camera_read || pose == nullptr) return -1;
    if (image.empty()) return kFewContours;
    if (image.size() != _camera.size) return kImageSizeChanged;
    // What may throw: an adaptive block that OpenCV refuses, or lack of memory.
    return value_if_it_throws(int { kFewContours }, [&] { return _solve_checked(image, draw_axes, pose); });
}

int CalibBoardPoseSolver::_solve_checked(cv::Mat& image, bool draw_axes, double* pose)
{
    View points, in_image;
    const int code = _recognizer->recognize(image, points);
    _drawing = result_picture(*_recognizer, image);
    if (code != kSuccess) return code;

    std::vector<cv::Point3f> on_board;
    cv::Mat rvec, tvec;
    if (_recognizer->corresponding_points(points, in_image, on_board) < min_view_markers) return -1;
    if (!_camera.solvePnP(rvec, tvec, in_image, on_board)) return -1;
    const cv::Mat_<double> camera_from_board = rigid_matrix(rvec, tvec);
    if (!cv::checkRange(camera_from_board)) return -1;
    std::copy(camera_from_board.begin(), camera_from_board.end(), pose);
    if (draw_axes) _draw_axes(rvec, tvec);
    return kSuccess;
}

/// Board axes, three pitches long: x red, y green, z (away from the paper, towards the camera) blue.
void CalibBoardPoseSolver::_draw_axes(const cv::Mat& rvec, const cv::Mat& tvec)
{
    const auto length = static_cast<float>(3 * _pitch);
    const std::vector<cv::Point3f> ends = { { 0, 0, 0 }, { length, 0, 0 }, { 0, length, 0 }, { 0, 0, length } };
    const cv::Scalar colours[] = { { 0, 0, 255 }, { 0, 255, 0 }, { 255, 0, 0 } };
    std::vector<cv::Point2f> in_image;
    cv::projectPoints(ends, rvec, tvec, _camera.normalised_K(), _camera.D, in_image);
    constexpr float largest = 1e6F; // px; lines are clipped, but their coordinates are integers
    for (const cv::Point2f& p : in_image)
        if (!(std::abs(p.x) < largest && std::abs(p.y) < largest)) return;
    for (size_t axis = 0; axis < 3; ++axis)
        cv::line(_drawing, in_image[0], in_image[axis + 1], colours[axis], 3, cv::LINE_8);
}

void CalibBoardPoseSolver::save_debug_image(std::string file)
{
    write_picture(file, _drawing);
}

void CalibBoardPoseSolver::show_debug_image()
{
    show_picture("debug", _drawing, 0);
}

unsigned char* CalibBoardPoseSolver::ptr_debug_image()
{
    return _drawing.empty() ? nullptr : _drawing.data;
}

void CalibBoardPoseSolver::get_size(int* width, int* height)
{
    if (width != nullptr) *width = _drawing.cols;
    if (height != nullptr) *height = _drawing.rows;
}

} // namespace vexo
