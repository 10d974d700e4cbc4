#include "matching/sgbm.h"

#include "base/boundary.h"
#include "camera/image_file.h"
#include "camera/stereo_camera.h"

#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iostream>

namespace vexo {

SGBMatching::SGBMatching()
{
    invalid_disparity = record.minDisparity - 1.0;
}

void SGBMatching::init(iStereoCamera* new_camera)
{
    if (!_bind(new_camera)) return;
    for (cv::Mat& target : targets)
        target.release();
}

bool SGBMatching::setparams(void* p)
{
    std::cerr << "SGBMatching::setparams()\n";
    if (p == nullptr) return false;
    std::memcpy(static_cast<void*>(&record), p, sizeof record);
    if (why_invalid(record) != nullptr) return false;
    invalid_disparity = record.minDisparity - 1.0;
    executed = false;
    return true;
}

bool SGBMatching::setpict(void* data, unsigned long step, int cam, int /*frame*/)
{
    const unsigned long row_step = _checked_step(data, step, cam, 1);
    if (row_step == 0) return false;
    auto* first = static_cast<unsigned char*>(data);
    return false_if_it_throws([&] {
        const auto view
            = [&](unsigned char* pixels) { return cv::Mat(input_height, input_width, CV_8U, pixels, row_step); };
        if (cam != 2) return set_target(view(first), cam);
        return set_target(view(first), 0) && set_target(view(first + row_step / 2), 1);
    });
}

bool SGBMatching::loadpict(std::string file, int cam, int frame)
{
    cv::Mat image = read_grey_image(file);
    if (image.empty() || !_is_input_size(cam, image.cols, image.rows)) return false;
    return setpict(image.data, image.step[0], cam, frame);
}

bool SGBMatching::set_target(const cv::Mat& image, int cam)
{
    if (camera == nullptr || cam < 0 || cam > 1) return false;
    const UndistortCamera& rectifier = cam == 0 ? camera->cam0 : camera->cam1;
    return rectifier.remap(image, targets[cam]);
}

bool SGBMatching::getpict(unsigned char** data, int* width, int* height, unsigned long* step, int cam, int /*index*/)
{
    if (cam < 0 || cam > 2) return false;
    return _hand_out(targets[cam == 1 ? 1 : 0], cam == 2 ? &targets[1] : nullptr, data, width, height, step);
}

/// A refused record is in force all the same, and OpenCV ends the process on some: a count of disparities that
/// is no multiple of 16, a block wider than the columns left to match, disparities beyond its 16-bit numbers.
bool SGBMatching::_record_is_usable() const noexcept
{
    const int64_t first = record.minDisparity, count = record.numDisparities;
    if (count < 16 || count > 4096 || count % 16 != 0) return false;
    if (first - 1 < -2048 || first + count > 2047) return false;
    if (record.blockSize < 1 || record.blockSize > 255) return false;
    return _matched_columns() <= 0 || record.blockSize / 2 < _matched_columns();
}

int64_t SGBMatching::_matched_columns() const noexcept
{
    const int64_t first = record.minDisparity, end = first + record.numDisparities;
    return output_width + std::min<int64_t>(first, 0) - std::max<int64_t>(end, 0);
}

/// OpenCV 4.6 ends the process when it cannot get its buffers, so memory of their size is asked for here, where that
/// is only an exception. 16-bit costs of each column and disparity: of all rows, twice, when paths come from every side
/// (modes 1 and 3), and of some 20 rows and a block's height in each of up to four stripes.
void SGBMatching::_ask_for_buffers() const
{
    const bool whole = record.mode == cv::StereoSGBM::MODE_HH || record.mode == cv::StereoSGBM::MODE_HH4;
    const int rows = (whole ? 2 * output_height : 0) + 4 * (record.blockSize + 20);
    const int row_bytes = static_cast<int>(_matched_columns()) * record.numDisparities * 2;
    const cv::Mat refused_or_given_back(rows, row_bytes, CV_8U);
}

bool SGBMatching::exec()
{
    executed = false;
    const cv::Size size(output_width, output_height);
    if (camera == nullptr || targets[0].empty() || targets[1].empty()) return false;
    if (targets[0].size() != size || targets[1].size() != size || !_record_is_usable()) return false;
    executed = false_without_memory([this] { return _match(); });
    return executed;
}

bool SGBMatching::_match()
{
    const int area = targets[0].channels() * record.blockSize * record.blockSize;
    const int P1 = record.P1 < 0 ? 8 * area : record.P1;
    const int P2 = record.P2 < 0 ? 32 * area : record.P2;
    const auto matcher = cv::StereoSGBM::create(record.minDisparity, record.numDisparities, record.blockSize, P1, P2,
        record.disp12MaxDiff, record.preFilterCap, record.uniquenessRatio, record.speckleWindowSize,
        record.speckleRange, record.mode);
    invalid_disparity = record.minDisparity - 1.0; // belongs to the map made here, even from a refused record
    if (_matched_columns() <= 0) { // nothing to match: three-way mode ends the process, the others say the same
        disparity.create(targets[0].size(), CV_64F);
        disparity.setTo(invalid_disparity);
        return true;
    }
    _ask_for_buffers();
    matcher->compute(targets[0], targets[1], fixed_point);
    fixed_point.convertTo(disparity, CV_64F, 1.0 / 16.0);
    return true;
}

void SGBMatching::genPC(Method3D method, bool /*interpolate*/)
{
    const bool made = executed && false_if_it_throws([&] {
        targets[0].copyTo(texture); // a copy: the next setpict() must not change what the host was handed
        generate_pointcloud(method);
    });
    if (!made) _drop_cloud();
}

} // namespace vexo
