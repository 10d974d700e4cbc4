#include "calib/StereoCalibrator.h"

#include "base/boundary.h"
#include "base/plain_yaml.h"
#include "base/whole_file.h"
#include "board/CalibBoardRecognizer.h"
#include "board/result_picture.h"
#include "calib/board_pose.h"
#include "camera/image_file.h"
#include "camera/stereo_construction.h"

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

/// Halves of a picture that shows both cameras, camera 0 on the left. False when it cannot be halved.
bool split(const cv::Mat& both, cv::Mat& image0, cv::Mat& image1)
{
    if (both.cols < 2 || both.cols % 2 != 0) return false;
    const int half = both.cols / 2;
    image0 = both.colRange(0, half);
    image1 = both.colRange(half, both.cols);
    return true;
}

void copy_rect(const cv::Rect& rect, int* numbers)
{
    if (numbers == nullptr) return;
    const int values[] = { rect.x, rect.y, rect.width, rect.height };
    std::copy(std::begin(values), std::end(values), numbers);
}

} // namespace

StereoCalibrator::StereoCalibrator()
    : _cameras { { { cv::Size(0, 0), "" }, { cv::Size(0, 0), "" } } }
    , _stereo_cameras(_cameras)
{
}

void StereoCalibrator::destroy()
{
    delete this;
}

bool StereoCalibrator::set_parameters(PreProcParam& pre, CircleMarkerParam& circle, CalibBoardParam& board)
{
    return set_board_parameters(_recognizer, pre, circle, board);
}

// --- pictures ------------------------------------------------------------------------------------------

int StereoCalibrator::put_image(
    int cam, unsigned char* data, int width, int height, unsigned long step, bool show, std::string save)
{
    cv::Mat image = wrap_picture(data, width, height, step);
    return _put_and_present(cam, image, show, save);
}

int StereoCalibrator::put_image(int cam, std::string file, bool show, std::string save)
{
    if (!_recognizer || cam < 0 || cam > 1) return -1;
    cv::Mat image = read_grey_image(file);
    return _put_and_present(cam, image, show, save);
}

int StereoCalibrator::put_image(std::string file, bool show, std::string save)
{
    if (!_recognizer) return -1;
    cv::Mat image0, image1;
    if (!split(read_grey_image(file), image0, image1)) return kFewContours;
    if (!room_for_one_more(_views[0]) || !room_for_one_more(_views[1])) return kFewContours; // both or neither
    _views[1].emplace_back(); // a bad adaptive block throws, and the next pictures must still be partners then
    const int code0 = _put(0, image0);
    _views[1].pop_back();
    const cv::Mat result0 = show || !save.empty() ? result_picture(*_recognizer, image0) : cv::Mat();
    const int code1 = _put(1, image1);
    if (!result0.empty())
        false_if_it_throws([&] { // no memory for a picture of the result does not change the result
            cv::Mat both;
            cv::hconcat(result0, result_picture(*_recognizer, image1), both);
            if (!save.empty()) write_picture(save, both);
            if (show) show_picture("result", both, moment_ms);
        });
    return code0 != kSuccess ? code0 : code1;
}

int StereoCalibrator::_put_and_present(int cam, cv::Mat& image, bool show, const std::string& save)
{
    const int code = _put(cam, image);
    if (code != -1 && !image.empty()) present_result(*_recognizer, show, save);
    return code;
}

/// Recognises a picture and appends its view; one that fails leaves an empty view, so that the pictures of the
/// other camera keep their partners.
int StereoCalibrator::_put(int cam, cv::Mat& image)
{
    if (!_recognizer || cam < 0 || cam > 1) return -1;
    std::vector<View>& views = _views[static_cast<size_t>(cam)];
    if (!room_for_one_more(views)) return kFewContours;
    const bool first = std::all_of(views.begin(), views.end(), [](const View& v) { return v.empty(); });
    views.emplace_back(); // before recognition, which throws for a bad adaptive block
    View points;
    const int code = image.empty() ? int { kFewContours } : _recognizer->recognize(image, points);
    if (code == kSuccess || (first && !image.empty())) _cameras[static_cast<size_t>(cam)].size = image.size();
    if (code == kSuccess) views.back() = std::move(points);
    return code;
}

// --- calibration ---------------------------------------------------------------------------------------

bool StereoCalibrator::do_calibrate(CameraCalibParam& param, std::vector<std::vector<double>>* per_view, double* rms)
{
    return false_if_it_throws([&] { return _calibrate(param, per_view, rms); });
}

bool StereoCalibrator::_calibrate(CameraCalibParam& param, std::vector<std::vector<double>>* per_view, double* rms)
{
    std::vector<bool> pair_used;
    std::array<DistortCamera, 2> cameras = _cameras; // all or nothing
    if (per_view != nullptr) per_view->resize(std::max<size_t>(per_view->size(), 2));
    for (size_t c = 0; c < 2; ++c) {
        std::vector<double>* errors = per_view != nullptr ? &(*per_view)[c] : nullptr;
        if (!calib_intrinsic(cameras[c], param, _recognizer.get(), _views[c], errors, nullptr)) return false;
    }
    if (!calib_extrinsic(cameras, _recognizer.get(), _views, param.flags, pair_used, rms)) return false;
    _cameras = std::move(cameras);
    _pair_used = std::move(pair_used);
    _calibrated = true;
    return true;
}

double StereoCalibrator::create_stereo_camera(RectifyParam& param, int* roi0, int* roi1)
{
    _stereo.reset();
    _rect0_from_board.release();
    const bool made = _calibrated && false_if_it_throws([&] {
        _stereo_cameras = _cameras;
        _stereo.reset(create_StereoCamera_from_pair(_stereo_cameras.data(), cv::Size(param.width, param.height),
            param.alpha, param.flags, fill_colour(param.fill0), fill_colour(param.fill1)));
        return _stereo != nullptr;
    });
    if (!made) return -1.0;
    copy_rect(_stereo->cam0.roi, roi0);
    copy_rect(_stereo->cam1.roi, roi1);
    return _stereo->get_baseline_length();
}

// --- board frame ---------------------------------------------------------------------------------------

bool StereoCalibrator::create_stereo_brdcrd(
    unsigned char* data0, unsigned long step0, unsigned char* data1, unsigned long step1)
{
    if (!_stereo) return false;
    const cv::Size size = _stereo->input_size;
    cv::Mat image0 = wrap_picture(data0, size.width, size.height, step0);
    cv::Mat image1 = wrap_picture(data1, size.width, size.height, step1);
    return _set_board_frame(image0, image1);
}

bool StereoCalibrator::create_stereo_brdcrd(std::string file0, std::string file1)
{
    if (!_stereo) return false;
    cv::Mat image0 = read_grey_image(file0);
    cv::Mat image1 = read_grey_image(file1);
    return _set_board_frame(image0, image1);
}

bool StereoCalibrator::create_stereo_brdcrd(std::string file)
{
    cv::Mat image0, image1;
    return _stereo && split(read_grey_image(file), image0, image1) && _set_board_frame(image0, image1);
}

bool StereoCalibrator::_set_board_frame(cv::Mat& image0, cv::Mat& image1)
{
    return false_if_it_throws([&] {
        if (!_recognizer || image0.size() != _stereo->input_size || image1.size() != _stereo->input_size) return false;
        std::array<View, 2> views;
        return _recognizer->recognize(image0, views[0]) == kSuccess
            && _recognizer->recognize(image1, views[1]) == kSuccess
            && board_pose_in_rectified(_stereo_cameras, *_stereo, *_recognizer, views, _rect0_from_board);
    });
}

bool StereoCalibrator::_first_pair_pose(cv::Mat_<double>& rect0_from_board) const
{
    const auto first = std::find(_pair_used.begin(), _pair_used.end(), true);
    if (!_stereo || first == _pair_used.end()) return false;
    const auto k = static_cast<size_t>(first - _pair_used.begin());
    return board_pose_in_rectified(
        _stereo_cameras, *_stereo, *_recognizer, { _views[0][k], _views[1][k] }, rect0_from_board);
}

// --- files ---------------------------------------------------------------------------------------------

bool StereoCalibrator::save_calibfile(std::string file0, std::string file1)
{
    return false_if_it_throws([&] {
        _cameras[0].name = "cam0";
        _cameras[1].name = "cam1";
        cv::FileStorage storage0 = memory_yaml();
        if (!_cameras[0].save(&storage0)) return false;
        if (file1.empty() || same_file(file0, file1)) return _cameras[1].save(&storage0) && close_yaml(storage0, file0);
        cv::FileStorage storage1 = memory_yaml();
        return _cameras[1].save(&storage1) && close_yaml(storage0, file0) && close_yaml(storage1, file1);
    });
}

/// Copy of the stereo camera in the frame asked for.
bool StereoCalibrator::_output_camera(bool board_frame, std::unique_ptr<StereoCamera>& camera) const
{
    if (!_stereo || (board_frame && _rect0_from_board.empty())) return false;
    camera = std::make_unique<StereoCamera>(*_stereo);
    return !board_frame || camera->convert_coordinate_system(_rect0_from_board);
}

bool StereoCalibrator::save_stereofile(std::string file, std::string map_file0, std::string map_file1)
{
    return false_if_it_throws([&] {
        std::unique_ptr<StereoCamera> camera;
        if (!_output_camera(!_rect0_from_board.empty(), camera)) return false;
        if (!map_file0.empty() && !map_file1.empty()) {
            if (same_file(map_file0, map_file1) || same_file(file, map_file0) || same_file(file, map_file1))
                return false;
            camera->cam0.map_file = map_file0;
            camera->cam1.map_file = map_file1;
        }
        cv::FileStorage storage = memory_yaml();
        return camera->save(&storage) && close_yaml(storage, file);
    });
}

bool StereoCalibrator::save_stereohmat(std::string file0, std::string file1, std::string tables, bool board_frame)
{
    return false_if_it_throws([&] {
        std::unique_ptr<StereoCamera> camera;
        return _output_camera(board_frame, camera) && store_StereoCamera_to_Hmats(camera.get(), file0, file1, tables);
    });
}

bool StereoCalibrator::save_boardRT(std::string file)
{
    return false_if_it_throws([&] {
        cv::Mat_<double> rect0_from_board = _rect0_from_board;
        if (rect0_from_board.empty() && !_first_pair_pose(rect0_from_board)) return false;
        cv::FileStorage storage = memory_yaml();
        cv::write(storage, "RT", rect0_from_board);
        return close_yaml(storage, file);
    });
}

} // namespace vexo
