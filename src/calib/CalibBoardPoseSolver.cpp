#include "calib/CalibBoardPoseSolver.h"

#include "base/boundary.h"
#include "base/plain_yaml.h"
#include "board/CalibBoardRecognizer.h"
#include "board/result_picture.h"
#include "calib/board_pose.h"
#include "camera/camera_file.h"
#include "camera/image_file.h"
#include "camera/stereo_construction.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

/// Name of the camera to read from a storage: "cam<selector>", that of a stereo file, else the only one there is.
/// Empty: none.
std::string camera_name(const cv::FileStorage& storage, int selector, bool own_file)
{
    std::vector<std::string> names { "cam" + std::to_string(selector) };
    const cv::FileNode pair = camera_file::find(storage, "StereoName");
    if (pair.isString() && selector < 2)
        for (const std::string& stereo : { pair.string(), std::string("stereo") })
            names.push_back(stereo + (selector == 0 ? "L" : "R"));
    if (own_file || selector == 0) names.push_back(DistortCamera(cv::Size(0, 0), "").get_camera_name(&storage));
    const auto held = std::find_if(names.begin(), names.end(),
        [&storage](const std::string& name) { return camera_file::has_projection(storage, name); });
    return held == names.end() ? "" : *held;
}

/// The cameras of a stereo file are rectified ones: without distortion, as the file holds none.
bool read_yaml(const std::vector<std::string>& files, int selector, DistortCamera& camera)
{
    const bool own_file = files.size() > 1; // one file a camera
    const auto index = static_cast<size_t>(own_file ? selector : 0);
    cv::FileStorage storage;
    if (index >= files.size() || !open_yaml(files[index], storage)) return false;
    DistortCamera fresh(cv::Size(0, 0), camera_name(storage, selector, own_file));
    if (fresh.name.empty() || !fresh.load(&storage)) return false;
    camera = std::move(fresh);
    return true;
}

/// One rectified camera of the files {projection of camera 0, of camera 1, tables}.
bool read_hmat_set(const std::vector<std::string>& files, int selector, cv::Size size, DistortCamera& camera)
{
    if (files.size() != 3 || selector > 1) return false;
    const Owned<StereoCamera> stereo(create_StereoCamera_from_Hmats(files[0], files[1], files[2], size, {}, {}));
    if (!stereo) return false;
    const cv::Mat_<double>& P = (selector == 0 ? stereo->cam0 : stereo->cam1).P;
    camera = DistortCamera(size, "");
    camera.setPPM(P(cv::Rect(0, 0, 4, 3)));
    return true;
}

/// P holds for any factor, but a negative one turns the axes of decompose() by half a turn about z.
void face_forward(DistortCamera& camera)
{
    if (camera.K(2, 2) < 0) camera.setPPM(cv::Mat_<double>(-camera.P(cv::Rect(0, 0, 4, 3))));
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
    if (selector < 0) return false;
    return false_if_it_throws([&] {
        const cv::Size asked(width, height);
        DistortCamera fresh(cv::Size(0, 0), "");
        if (!read_yaml(files, selector, fresh) && !read_hmat_set(files, selector, asked, fresh)) return false;
        const bool any_size = asked == cv::Size(0, 0);
        if (!camera_file::is_picture_size(fresh.size) || (!any_size && fresh.size != asked)) return false;
        face_forward(fresh);
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
