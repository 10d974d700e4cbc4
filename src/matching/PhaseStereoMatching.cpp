#include "matching/PhaseStereoMatching.h"

#include "camera/image_file.h"
#include "camera/stereo_camera.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>

#include <omp.h>

namespace vexo {

void PhaseStereoMatching::init(iStereoCamera* new_camera)
{
    _have_next_texture = false;
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
    _have_next_texture = false;
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
void PhaseStereoMatching::_rectify(int cam)
{
    ProjectorPositions& decoder = *decoders[static_cast<std::size_t>(cam)];
    const UndistortCamera& rectifier = cam == 0 ? camera->cam0 : camera->cam1;
    const cv::Size raw(input_width, input_height), rectified(output_width, output_height);
    if (decoder.unwrapped.size() != raw || decoder.vmask.size() != raw || rectifier.map1.size() != rectified)
        CV_Error(cv::Error::StsUnmatchedSizes, "decoder, generator and tables differ");

    const bool by_rows = rectifier.has_row_form(raw);
    _scratch_map.create(rectified, CV_32F);
    _scratch_mask.create(rectified, CV_8U);
    if (!by_rows
        && !(rectifier.remap(decoder.unwrapped, _scratch_map, cv::Scalar::all(0))
            && rectifier.remap(decoder.vmask, _scratch_mask, cv::Scalar::all(0))))
        CV_Error(cv::Error::StsBadArg, "the camera cannot rectify");
    if (cam == 0) _next_texture.create(rectified, CV_8U);
    decoder.valid.resize(static_cast<std::size_t>(output_height));
    for (std::vector<int>& columns : decoder.valid)
        columns.reserve(static_cast<std::size_t>(output_width));

#pragma omp parallel for schedule(dynamic, 32) // each row has its own pixels of the scratch images and its own list
    for (int row = 0; row < output_height; ++row)
        _rectify_row(rectifier, decoder, row, by_rows);
    cv::swap(static_cast<cv::Mat&>(decoder.unwrapped), _scratch_map);
    cv::swap(static_cast<cv::Mat&>(decoder.vmask), _scratch_mask);
    if (cam == 0) _have_next_texture = by_rows;
}

/// Map, mask and, of camera 0, the texture for the next cloud: their pixels have the same sources.
void PhaseStereoMatching::_rectify_row(
    const UndistortCamera& rectifier, ProjectorPositions& decoder, int row, bool by_rows) noexcept
{
    const cv::Mat &map = decoder.unwrapped, &mask = decoder.vmask;
    if (by_rows) {
        RemapImages images { { mask.ptr(), mask.step[0], _scratch_mask.ptr(row), 0 },
            { map.ptr<float>(), map.step[0], _scratch_map.ptr<float>(row), 0.0F }, {} };
        if (&decoder == decoders[0].get()) images.more_bytes = _texture_images(_next_texture, row).bytes;
        rectifier.remap_row(row, map.size(), images);
    }
    std::vector<int>& columns = decoder.valid[static_cast<std::size_t>(row)];
    columns.resize(static_cast<std::size_t>(output_width));
    columns.resize(static_cast<std::size_t>(list_valid_columns(_scratch_mask.ptr(row), output_width, columns.data())));
}

RemapImages PhaseStereoMatching::_texture_images(cv::Mat& rectified, int row) const noexcept
{
    const cv::Mat& lit = decoders[0]->white;
    RemapImages images;
    images.bytes = { lit.ptr(), lit.step[0], rectified.ptr(row), cv::saturate_cast<uchar>(camera->cam0.fill[0]) };
    return images;
}

bool PhaseStereoMatching::exec()
{
    executed = false;
    if (!_frames_complete()) return false;
    try {
        for (auto& decoder : decoders)
            decoder->decode();
        _rectify(0);
        _rectify(1);
        executed = true;
    } catch (...) {
        return false;
    }
    return true;
}

// --- matching ----------------------------------------------------------------------------------------

void PhaseStereoMatching::genPC(Method3D method, bool interpolate)
{
    if (!executed) return _drop_cloud();
    try {
        if (!_make_texture()) return _drop_cloud();
        if (method == MethodV || method == MethodP) {
            _make_disparity_data(interpolate);
            return generate_pointcloud(method);
        }
        _begin_cloud();
        const cv::Matx44d H = _reprojection();
        _make_disparity_data(
            interpolate, [&](int row) { _row_counts[static_cast<std::size_t>(row)] = _reproject(H, row); });
        valid_count = std::accumulate(_row_counts.begin(), _row_counts.end(), 0);
    } catch (...) {
        _drop_cloud();
    }
}

/// exec() has it ready, in a picture of its own: `texture` is still in the host's hands then. After a new lit frame,
/// or a second cloud from the same frames, it is made here.
bool PhaseStereoMatching::_make_texture()
{
    if (!_have_next_texture) return camera->cam0.remap(decoders[0]->white, texture);
    cv::swap(texture, _next_texture);
    _have_next_texture = false;
    return true;
}

void PhaseStereoMatching::_make_disparity_data(bool interpolate, const std::function<void(int)>& after_row)
{
    _read_limits();
    disparity.create(output_height, output_width, CV_64F);
    _matchers.resize(static_cast<std::size_t>(omp_get_max_threads()));
    for (RowMatcher& matcher : _matchers)
        matcher.reserve(output_width);
    const int rows = disparity.rows;
    // Each row writes its own disparities, each thread has its own matcher; the decoders are only read.
#pragma omp parallel for schedule(dynamic, 16)
    for (int row = 0; row < rows; ++row)
        _make_row(row, interpolate, after_row);
}

void PhaseStereoMatching::_make_row(int row, bool interpolate, const std::function<void(int)>& after_row) noexcept
{
    const ProjectorPositions &left = *decoders[0], &right = *decoders[1];
    const auto at = static_cast<std::size_t>(row);
    double* out = disparity.ptr<double>(row);
    std::fill(out, out + disparity.cols, invalid_disparity);
    const MatchLimits match_limits { limits.max_phase_diff, limits.min_disparity, limits.max_disparity,
        invalid_disparity, limits.fit_points };
    RowMatcher& matcher = _matchers[static_cast<std::size_t>(omp_get_thread_num())];
    if (!matcher.match({ &left.valid[at], left.unwrapped[row] }, { &right.valid[at], right.unwrapped[row] },
            match_limits, interpolate, out))
        _match_plainly(row, interpolate);
    if (after_row) after_row(row);
}

void PhaseStereoMatching::_match_plainly(int row, bool interpolate) noexcept
{
    if (limits.fit_points == 3)
        _match_row<LeastSquares3<float>>(row, interpolate);
    else
        _match_row<LeastSquares5<float>>(row, interpolate);
}

template <class Fit> void PhaseStereoMatching::_match_row(int row, bool interpolate) noexcept
{
    const ProjectorPositions &left = *decoders[0], &right = *decoders[1];
    const std::vector<int>& leftlist = left.valid[static_cast<std::size_t>(row)];
    const std::vector<int>& rightlist = right.valid[static_cast<std::size_t>(row)];
    double* out = disparity.ptr<double>(row);
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
