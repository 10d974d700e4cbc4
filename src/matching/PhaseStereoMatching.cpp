#include "matching/PhaseStereoMatching.h"

#include "camera/image_file.h"
#include "camera/stereo_camera.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vexo {

void PhaseStereoMatching::init(iStereoCamera* new_camera)
{
    if (!_bind(new_camera)) return;
    for (auto& decoder : decoders)
        if (decoder != nullptr) decoder->clear();
}

bool PhaseStereoMatching::setparams(void* p)
{
    if (p == nullptr) return false;
    params = p;
    _read_limits();
    invalid_disparity = limits.min_disparity - 1.0;
    return true;
}

/// The record is of another type that only begins alike, so its head is copied, not looked at in place.
void PhaseStereoMatching::_read_limits() noexcept
{
    constexpr std::size_t head_bytes
        = offsetof(PhaseMatchingParam, fit_points) + sizeof(PhaseMatchingParam::fit_points);
    std::memcpy(static_cast<void*>(&limits), params, head_bytes);
}

// --- frames ------------------------------------------------------------------------------------------

bool PhaseStereoMatching::_set_frame(int cam, unsigned char* data, unsigned long step, int frame)
{
    return decoders[static_cast<std::size_t>(cam)]->set_input(data, input_width, input_height, step, frame) != 0;
}

bool PhaseStereoMatching::setpict(void* data, unsigned long step, int cam, int frame)
{
    if (frame < 0 || decoders[0] == nullptr || decoders[1] == nullptr) return false;
    const unsigned long row_step = _checked_step(data, step, cam, frame >= first_float_frame ? 4 : 1);
    if (row_step == 0) return false;
    auto* first = static_cast<unsigned char*>(data);
    try {
        if (cam != 2) return _set_frame(cam, first, row_step, frame);
        return _set_frame(0, first, row_step, frame) && _set_frame(1, first + row_step / 2, row_step, frame);
    } catch (...) {
        return false;
    }
}

bool PhaseStereoMatching::loadpict(std::string file, int cam, int frame)
{
    if (cam < 0 || (get_datatype() != 0 && frame >= requiredframes())) return false;
    cv::Mat image = read_grey_image(file);
    if (image.empty() || !_is_input_size(cam, image.cols, image.rows)) return false;
    return setpict(image.data, image.step[0], cam, frame);
}

bool PhaseStereoMatching::getpict(
    unsigned char** data, int* width, int* height, unsigned long* step, int cam, int index)
{
    if (cam < 0 || cam > 2 || decoders[0] == nullptr || decoders[1] == nullptr) return false;
    if (index < 0 || index >= decoders[cam == 1 ? 1 : 0]->inputs()) return false;
    const cv::Mat& first = decoders[cam == 1 ? 1 : 0]->input(index);
    const cv::Mat* second = cam == 2 ? &decoders[1]->input(index) : nullptr;
    return _hand_out(first, second, data, width, height, step);
}

// --- decoding and rectification ----------------------------------------------------------------------

bool PhaseStereoMatching::_frames_complete() const noexcept
{
    if (camera == nullptr) return false;
    const cv::Size size(input_width, input_height);
    return std::all_of(decoders.begin(), decoders.end(), [&](const auto& decoder) {
        return decoder != nullptr && decoder->complete() && decoder->input_size() == size;
    });
}

/// Outside the camera's image map and mask are 0, whatever colour the camera fills its pictures with: a bright
/// one would make the outside valid.
bool PhaseStereoMatching::_rectify(int cam) noexcept
{
    try {
        ProjectorPositions& decoder = *decoders[static_cast<std::size_t>(cam)];
        const UndistortCamera& rectifier = cam == 0 ? camera->cam0 : camera->cam1;
        const cv::Size raw(input_width, input_height), rectified(output_width, output_height);
        if (decoder.unwrapped.size() != raw || decoder.vmask.size() != raw) return false;

        cv::Mat &map = _rectified_map[cam], &mask = _rectified_mask[cam];
        if (!rectifier.remap(decoder.unwrapped, map, cv::Scalar::all(0))) return false;
        if (!rectifier.remap(decoder.vmask, mask, cv::Scalar::all(0))) return false;
        if (map.size() != rectified || mask.size() != rectified) return false;
        cv::swap(static_cast<cv::Mat&>(decoder.unwrapped), map);
        cv::swap(static_cast<cv::Mat&>(decoder.vmask), mask);
        decoder.vmask2valid();
        return decoder.valid.size() == static_cast<std::size_t>(output_height);
    } catch (...) { // may not leave the parallel region
        return false;
    }
}

bool PhaseStereoMatching::exec()
{
    executed = false;
    if (!_frames_complete()) return false;
    try {
        for (auto& decoder : decoders)
            decoder->decode();
    } catch (...) {
        return false;
    }
    bool rectified[2] = { false, false };
    // One thread per camera, each writing its own decoder; a team of one does both.
#pragma omp parallel for num_threads(2) schedule(static, 1)
    for (int cam = 0; cam < 2; ++cam)
        rectified[cam] = _rectify(cam);
    executed = rectified[0] && rectified[1];
    return executed;
}

// --- matching ----------------------------------------------------------------------------------------

void PhaseStereoMatching::genPC(Method3D method, bool interpolate)
{
    if (!executed) return _drop_cloud();
    try {
        _make_disparity_data(interpolate);
        if (!camera->cam0.remap(decoders[0]->white, texture)) return _drop_cloud();
        generate_pointcloud(method);
    } catch (...) {
        _drop_cloud();
    }
}

void PhaseStereoMatching::_make_disparity_data(bool interpolate)
{
    _read_limits();
    disparity.create(output_height, output_width, CV_64F);
    if (limits.fit_points == 3)
        _match_rows<LeastSquares3<float>>(interpolate);
    else
        _match_rows<LeastSquares5<float>>(interpolate);
}

template <class Fit> void PhaseStereoMatching::_match_rows(bool interpolate)
{
    const int rows = disparity.rows;
    // Each row writes its own disparities and has its own fits; the decoders are only read.
#pragma omp parallel for schedule(dynamic, 16)
    for (int row = 0; row < rows; ++row)
        _match_row<Fit>(row, interpolate);
}

template <class Fit> void PhaseStereoMatching::_match_row(int row, bool interpolate) noexcept
{
    const ProjectorPositions &left = *decoders[0], &right = *decoders[1];
    const std::vector<int>& leftlist = left.valid[static_cast<std::size_t>(row)];
    const std::vector<int>& rightlist = right.valid[static_cast<std::size_t>(row)];
    double* out = disparity.ptr<double>(row);
    std::fill(out, out + disparity.cols, invalid_disparity);
    Fit leftfit, rightfit;
    if (interpolate)
        _get_linedisparity_interpo(
            out, leftfit, rightfit, leftlist, left.unwrapped[row], rightlist, right.unwrapped[row]);
    else
        _get_linedisparity(out, rightfit, leftlist, left.unwrapped[row], rightlist, right.unwrapped[row]);
}

template <class Fit>
void PhaseStereoMatching::_get_linedisparity(double* row, Fit& rightfit, const std::vector<int>& leftlist,
    const float* leftphase, const std::vector<int>& rightlist, const float* rightphase) const noexcept
{
    if (!rightfit.check(0, rightlist)) return;
    for (const int column : leftlist)
        row[column] = _calc_disparity(leftphase[column], column, rightphase, rightlist, rightfit);
}

template <class Fit>
void PhaseStereoMatching::_get_linedisparity_interpo(double* row, Fit& leftfit, Fit& rightfit,
    const std::vector<int>& leftlist, const float* leftphase, const std::vector<int>& rightlist,
    const float* rightphase) const noexcept
{
    const auto line_at = [&](std::size_t position) {
        const int k = static_cast<int>(position);
        return leftfit.check(k, leftlist) && leftfit.solve(k, leftphase, leftlist);
    };
    if (!rightfit.check(0, rightlist) || !line_at(0)) return;

    std::size_t k = 0; // the line in force is the one around leftlist[k], until the next valid column
    for (int x = leftlist.front(); x <= leftlist.back(); ++x) {
        while (k + 1 < leftlist.size() && x >= leftlist[k + 1]) {
            ++k;
            if (line_at(k)) break;
            if (k + 1 >= leftlist.size()) return;
            x = leftlist[k + 1]; // no rising line here: go on at the next valid column
        }
        const auto phase = static_cast<float>(x * leftfit.slope + leftfit.intercept);
        row[x] = _calc_disparity(phase, x, rightphase, rightlist, rightfit);
    }
}

template <class Fit>
double PhaseStereoMatching::_calc_disparity(
    float phase, int x0, const float* rightphase, const std::vector<int>& rightlist, Fit& fit) const noexcept
{
    const int k = _nearest(phase, rightphase, rightlist);
    if (k < 0) return invalid_disparity;
    const int nearest_column = rightlist[static_cast<std::size_t>(k)];
    if (std::abs(phase - rightphase[nearest_column]) > limits.max_phase_diff) return invalid_disparity;

    double x1 = nearest_column;
    if (fit.check(k, rightlist) && fit.solve(k, rightphase, rightlist)) x1 = (phase - fit.intercept) / fit.slope;
    const double found = x0 - x1;
    return limits.min_disparity <= found && found <= limits.max_disparity ? found : invalid_disparity;
}

int PhaseStereoMatching::_nearest(float phase, const float* rowphase, const std::vector<int>& list) noexcept
{
    if (list.empty()) return -1;
    const auto phase_at = [&](int position) { return rowphase[list[static_cast<std::size_t>(position)]]; };
    int lo = 0;
    int hi = static_cast<int>(list.size()) - 1;
    if (phase_at(lo) > phase || phase > phase_at(hi)) return -1;
    while (hi - lo >= 2) {
        const int mid = lo + (hi - lo) / 2;
        const float v = phase_at(mid);
        if (v > phase)
            hi = mid;
        else if (phase > v)
            lo = mid;
        else
            return mid;
    }
    return std::abs(phase_at(hi) - phase) > std::abs(phase_at(lo) - phase) ? lo : hi;
}

} // namespace vexo
