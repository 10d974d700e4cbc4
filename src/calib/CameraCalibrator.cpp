#include "calib/CameraCalibrator.h"

#include "base/boundary.h"
#include "base/plain_yaml.h"
#include "board/CalibBoardRecognizer.h"
#include "camera/camera_file.h"
#include "camera/image_file.h"

#include <utility>

namespace vexo {

CameraCalibrator::CameraCalibrator()
    : _camera(cv::Size(0, 0), "")
{
}

void CameraCalibrator::destroy()
{
    delete this;
}

bool CameraCalibrator::set_parameters(PreProcParam& pre, CircleMarkerParam& circle, CalibBoardParam& board)
{
    return set_board_parameters(_recognizer, pre, circle, board);
}

int CameraCalibrator::put_image(
    unsigned char* data, int width, int height, unsigned long step, bool show, std::string save)
{
    cv::Mat image = wrap_picture(data, width, height, step);
    return put_image(image, show, std::move(save));
}

int CameraCalibrator::put_image(std::string file, bool show, std::string save)
{
    if (!_recognizer) return -1;
    cv::Mat image = read_grey_image(file);
    return put_image(image, show, std::move(save));
}

int CameraCalibrator::put_image(cv::Mat& image, bool show, std::string save)
{
    if (!_recognizer) return -1;
    if (image.empty() || !room_for_one_more(_views)) return kFewContours;
    View points;
    const int code = _recognizer->recognize(image, points);
    if (code == kSuccess || _views.empty()) _camera.size = image.size();
    if (code == kSuccess) _views.push_back(std::move(points));
    present_result(*_recognizer, show, save);
    return code;
}

bool CameraCalibrator::do_calibrate(CameraCalibParam& param, std::vector<double>* per_view, double* rms)
{
    return false_without_memory(
        [&] { return calib_intrinsic(_camera, param, _recognizer.get(), _views, per_view, rms); });
}

bool CameraCalibrator::save_calibfile(std::string file, std::string name)
{
    return false_if_it_throws([&] {
        if (camera_file::is_key_name(name)) _camera.name = name; // also when the file cannot be written
        DistortCamera named(_camera);
        if (!name.empty()) named.name = name;
        cv::FileStorage storage = memory_yaml();
        if (!named.save(&storage) || !close_yaml(storage, file)) return false;
        _camera.name = named.name;
        return true;
    });
}

} // namespace vexo
