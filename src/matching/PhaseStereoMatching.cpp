#include "matching/PhaseStereoMatching.h"

#include "base/boundary.h"
#include "base/index.h"
#include "base/large_pages.h"
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
    return decoders[at(cam)]->set_input(data, input_width, input_height, step, frame) != 0;
}

bool PhaseStereoMatching::setpict(void* data, unsigned long step, int cam, int frame)
{
    if (frame < 0 || decoders[0] == nullptr || decoders[1] == nullptr) return false;
    const unsigned long row_step = _checked_step(data, step, cam, frame >= first_float_frame ? 4 : 1);
    if (row_step == 0) return false;
    _have_next_texture = false;
    auto* first = static_cast<unsigned char*>(data);
    return false_if_it_throws([&] {
        if (cam != 2) return _set_frame(cam, first, row_step, frame);
        return _set_frame(0, first, row_step, frame) && _set_frame(1, first + row_step / 2, row_step, frame);
    });
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

const UndistortCamera& PhaseStereoMatching::_rectifier(int cam) const noexcept
{
    return cam == 0 ? camera->cam0 : camera->cam1;
}

/// Both cameras in one loop: few parallel regions, and no thread waits for the other camera.
void PhaseStereoMatching::_decode()
{
    const bool first_by_rows = decoders[0]->begin_decode(), second_by_rows = decoders[1]->begin_decode();
    if (!first_by_rows || !second_by_rows) {
        for (auto& decoder : decoders)
            decoder->decode();
        return;
    }
    const int rows = input_height;
#pragma omp parallel for schedule(dynamic, 16) // each row of each camera has its own results
    for (int i = 0; i < 2 * rows; ++i)
        decoders[i < rows ? 0 : 1]->decode_row(i % rows, omp_get_thread_num());
}

/// Outside the camera's image map and mask are 0, whatever colour the camera fills its pictures with: a bright
/// one would make the outside valid.
void PhaseStereoMatching::_prepare_rectification(int cam)
{
    const auto at = static_cast<std::size_t>(cam);
    const ProjectorPositions& decoder = *decoders[at];
    const UndistortCamera& rectifier = _rectifier(cam);
    const cv::Size raw(input_width, input_height), rectified(output_width, output_height);
    if (decoder.unwrapped.size() != raw || decoder.vmask.size() != raw || rectifier.map1.size() != rectified)
        CV_Error(cv::Error::StsUnmatchedSizes, "decoder, generator and tables differ");

    cv::Mat &map = _rectified[at].map, &mask = _rectified[at].mask;
    create_large(rectified, { { &map, CV_32F }, { &mask, CV_8U } });
    _by_rows[at] = rectifier.has_row_form(raw);
    if (!_by_rows[at]
        && !(rectifier.remap(decoder.unwrapped, map, cv::Scalar::all(0))
            && rectifier.remap(decoder.vmask, mask, cv::Scalar::all(0))))
        CV_Error(cv::Error::StsBadArg, "the camera cannot rectify");
}

void PhaseStereoMatching::_rectify()
{
    for (const int cam : { 0, 1 })
        _prepare_rectification(cam);
    _next_texture.create(output_height, output_width, CV_8U);
    const int rows = output_height, first = _by_rows[0] ? 0 : rows, end = _by_rows[1] ? 2 * rows : rows;
#pragma omp parallel for schedule(dynamic, 16) // each row of each camera has its own pixels
    for (int i = first; i < end; ++i)
        _rectify_row(i < rows ? 0 : 1, i % rows);

    for (std::size_t cam = 0; cam < 2; ++cam) {
        cv::swap(static_cast<cv::Mat&>(decoders[cam]->unwrapped), _rectified[cam].map);
        cv::swap(static_cast<cv::Mat&>(decoders[cam]->vmask), _rectified[cam].mask);
        decoders[cam]->valid.clear(); // the raw frames' columns
    }
    _have_next_texture = _by_rows[0];
}

/// Map, mask and, of camera 0, the texture for the next cloud: their pixels have the same sources.
void PhaseStereoMatching::_rectify_row(int cam, int row) noexcept
{
    const auto at = static_cast<std::size_t>(cam);
    const ProjectorPositions& decoder = *decoders[at];
    const cv::Mat &map = decoder.unwrapped, &mask = decoder.vmask, &lit = decoder.white;
    RemapImages images { { mask.ptr(), mask.step[0], _rectified[at].mask.ptr(row), 0 },
        { map.ptr<float>(), map.step[0], _rectified[at].map.ptr<float>(row), 0.0F }, {} };
    if (cam == 0)
        images.more_bytes
            = { lit.ptr(), lit.step[0], _next_texture.ptr(row), cv::saturate_cast<uchar>(camera->cam0.fill[0]) };
    _rectifier(cam).remap_row(row, map.size(), images);
}

bool PhaseStereoMatching::exec()
{
    executed = false;
    if (!_frames_complete()) return false;
    executed = false_if_it_throws([this] {
        _decode();
        _rectify();
    });
    return executed;
}

// --- matching ----------------------------------------------------------------------------------------

void PhaseStereoMatching::genPC(Method3D method, bool interpolate)
{
    const bool made = executed && false_if_it_throws([&] {
        if (!_make_texture()) return false;
        if (method != MethodV && method != MethodP) {
            _make_points_by_rows(interpolate);
        } else {
            _make_disparity_data(interpolate);
            generate_pointcloud(method);
        }
        return true;
    });
    if (!made) _drop_cloud();
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

void PhaseStereoMatching::RowMemory::reserve(int cols)
{
    const auto size = static_cast<std::size_t>(cols);
    matcher.reserve(cols);
    left_list.reserve(size);
    right_list.reserve(size);
    disparities.resize(size);
}

void PhaseStereoMatching::_prepare_rows()
{
    _read_limits();
    _row_memory.resize(static_cast<std::size_t>(omp_get_max_threads()));
    for (RowMemory& memory : _row_memory)
        memory.reserve(output_width);
}

void PhaseStereoMatching::_make_disparity_data(bool interpolate)
{
    _prepare_rows();
    disparity.create(output_height, output_width, CV_64F);
    const int rows = output_height;
    // Each row writes its own disparities, each thread has its own memory; the decoders are only read.
#pragma omp parallel for schedule(dynamic, 16)
    for (int row = 0; row < rows; ++row)
        _match_row(
            row, interpolate, _row_memory[static_cast<std::size_t>(omp_get_thread_num())], disparity.ptr<double>(row));
}

void PhaseStereoMatching::_make_points_by_rows(bool interpolate)
{
    _prepare_rows();
    _begin_cloud();
    disparity.release();
    const cv::Matx44d H = _reprojection();
    const int rows = output_height;
#pragma omp parallel for schedule(dynamic, 16) // as _make_disparity_data(); each row writes its own points
    for (int row = 0; row < rows; ++row) {
        RowMemory& memory = _row_memory[static_cast<std::size_t>(omp_get_thread_num())];
        _match_row(row, interpolate, memory, memory.disparities.data());
        _row_counts[static_cast<std::size_t>(row)] = _reproject(H, row, memory.disparities.data());
    }
    valid_count = std::accumulate(_row_counts.begin(), _row_counts.end(), 0);
}

void PhaseStereoMatching::_match_row(int row, bool interpolate, RowMemory& memory, double* out) const noexcept
{
    const ProjectorPositions &left = *decoders[0], &right = *decoders[1];
    std::fill(out, out + output_width, invalid_disparity);
    const MatchLimits match_limits { limits.max_phase_diff, limits.min_disparity, limits.max_disparity,
        invalid_disparity, limits.fit_points };
    if (memory.matcher.match({ left.vmask[row], left.unwrapped[row] }, { right.vmask[row], right.unwrapped[row] },
            output_width, match_limits, interpolate, out))
        return;
    const auto list_columns = [&](const uchar* mask, std::vector<int>& list) {
        list.resize(static_cast<std::size_t>(output_width)); // reserved
        list.resize(static_cast<std::size_t>(list_valid_columns(mask, output_width, list.data())));
    };
    list_columns(left.vmask[row], memory.left_list);
    list_columns(right.vmask[row], memory.right_list);
    _match_plainly(out, interpolate, memory.left_list, left.unwrapped[row], memory.right_list, right.unwrapped[row]);
}

void PhaseStereoMatching::_match_plainly(double* row, bool interpolate, const std::vector<int>& leftlist,
    const float* leftphase, const std::vector<int>& rightlist, const float* rightphase) const noexcept
{
    const auto match_with = [&](auto leftfit, auto rightfit) {
        if (interpolate)
            _get_linedisparity_interpo(row, leftfit, rightfit, leftlist, leftphase, rightlist, rightphase);
        else
            _get_linedisparity(row, rightfit, leftlist, leftphase, rightlist, rightphase);
    };
    if (limits.fit_points == 3)
        match_with(LeastSquares3<float>(), LeastSquares3<float>());
    else
        match_with(LeastSquares5<float>(), LeastSquares5<float>());
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
