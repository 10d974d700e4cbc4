#include "decode/ProjectorPositions.h"

#include "base/boundary.h"
#include "base/index.h"
#include "base/large_pages.h"
#include "base/pictures.h"
#include "base/whole_file.h"
#include "decode/pixel_formulas.h"
#include "decode/stream_copy.h"
#include "vexo/limits.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <omp.h>

namespace vexo {
namespace {

constexpr std::size_t stream_bytes = 1 << 17; // a dozen smaller frames stay in the second-level cache

/// Whether a buffer of the host shares memory with an image: when it hands back what it was shown.
bool overlap(const uchar* from, std::size_t bytes, const cv::Mat& image) noexcept
{
    const std::less<const uchar*> before; // a total order of all pointers
    return before(from, image.dataend) && before(image.datastart, from + bytes);
}

/// Rows of `step` bytes, of which `row_bytes` count, into an image of that size.
void copy_rows(const void* data, std::size_t step, std::size_t row_bytes, cv::Mat& image)
{
    const auto* from = static_cast<const uchar*>(data);
    const auto rows = static_cast<std::size_t>(image.rows);
    const std::size_t bytes = (rows - 1) * step + row_bytes;
    const bool stream = rows * row_bytes >= stream_bytes && !overlap(from, bytes, image);
    if (stream && step == row_bytes && image.isContinuous()) {
        stream_copy(image.data, from, bytes);
    } else {
        for (std::size_t y = 0; y < rows; ++y) {
            uchar* to = image.ptr(static_cast<int>(y));
            if (stream)
                stream_copy(to, from + y * step, row_bytes);
            else
                std::memmove(to, from + y * step, row_bytes);
        }
    }
    if (stream) stream_fence();
}

/// Room for whole rows, so that the row loops allocate nothing.
void prepare_rows(std::vector<std::vector<int>>& lists, const cv::Size& size)
{
    lists.resize(static_cast<std::size_t>(size.height));
    for (std::vector<int>& list : lists)
        list.reserve(static_cast<std::size_t>(size.width));
}

} // namespace

ProjectorPositions::ProjectorPositions(int camera_id, int frame_count)
    : camera_id(camera_id)
    , frame_count(frame_count)
{
    _add_input(black, CV_8U);
    _add_input(white, CV_8U);
    _add_result(unwrapped);
    _add_result(vmask);
}

ProjectorPositions::~ProjectorPositions() = default;

void ProjectorPositions::_add_input(cv::Mat& frame, int type)
{
    _inputs.push_back({ &frame, type });
}

void ProjectorPositions::_add_result(cv::Mat& image)
{
    _results.push_back(&image);
}

const cv::Mat& ProjectorPositions::input(int index) const noexcept
{
    static const cv::Mat none;
    return index < 0 || index >= inputs() ? none : *_inputs[static_cast<std::size_t>(index)].frame;
}

cv::Size ProjectorPositions::input_size() const noexcept
{
    for (const Input& input : _inputs)
        if (!input.frame->empty()) return { input.frame->cols, input.frame->rows };
    return {};
}

bool ProjectorPositions::complete() const noexcept
{
    const cv::Size size = input_size();
    return !size.empty() && std::all_of(_inputs.begin(), _inputs.end(), [&size](const Input& input) {
        return input.frame->cols == size.width && input.frame->rows == size.height;
    });
}

void ProjectorPositions::clear() noexcept
{
    for (const Input& input : _inputs)
        input.frame->release();
    for (cv::Mat* image : _results)
        image->release();
    _room.clear();
    valid.clear();
}

bool ProjectorPositions::_accepts(int width, int height, unsigned long step, int index) const noexcept
{
    if (index < 0 || index >= inputs()) return false;
    if (!is_picture_size(width, height)) return false;
    const auto row_bytes
        = static_cast<std::size_t>(width) * CV_ELEM_SIZE(_inputs[static_cast<std::size_t>(index)].type);
    if (step != 0 && step < row_bytes) return false;
    const cv::Size held = input_size();
    return index <= 1 || held.empty() || held == cv::Size(width, height);
}

int ProjectorPositions::_copy_input(const void* data, int width, int height, unsigned long step, int index) noexcept
{
    if (data == nullptr || !_accepts(width, height, step, index)) return 0;
    const Input& input = _inputs[static_cast<std::size_t>(index)];
    const cv::Size size(width, height);
    const std::size_t row_bytes = static_cast<std::size_t>(width) * CV_ELEM_SIZE(input.type);
    // Lack of memory shows before anything has changed.
    const bool copied = false_if_it_throws([&] {
        std::vector<cv::Mat> fresh;
        if (_room.empty() || _room[0].size() != size) fresh = large_images(size, _input_types());
        cv::Mat target = (fresh.empty() ? _room : fresh)[static_cast<std::size_t>(index)];
        copy_rows(data, step == 0 ? row_bytes : step, row_bytes, target);
        if (input_size() != size) clear();
        if (!fresh.empty()) _room.swap(fresh);
        *input.frame = target;
    });
    return copied ? 1 : 0;
}

std::vector<int> ProjectorPositions::_input_types() const
{
    std::vector<int> types;
    for (const Input& input : _inputs)
        types.push_back(input.type);
    return types;
}

void ProjectorPositions::decode()
{
    if (!begin_decode()) {
        preproc();
        unwrap();
        return;
    }
    const int rows = unwrapped.rows;
#pragma omp parallel for schedule(dynamic, 16) // each row has its own results
    for (int row = 0; row < rows; ++row)
        decode_row(row, omp_get_thread_num());
}

bool ProjectorPositions::begin_decode()
{
    return false;
}

void ProjectorPositions::decode_row(int /*row*/, int /*thread*/) noexcept { }

void ProjectorPositions::_prepare_decode()
{
    create_large(input_size(), { { &unwrapped, CV_32F }, { &vmask, CV_8U } });
    for (std::vector<int>& row : valid)
        row.clear();
}

void ProjectorPositions::_drop_results()
{
    valid.resize(static_cast<std::size_t>(input_size().height));
    for (std::vector<int>& row : valid)
        row.clear();
    unwrapped.release();
    vmask.release();
}

void ProjectorPositions::set_valid(int min_contrast, int max_white, int min_white)
{
    const ValidLimits limits { min_contrast, max_white, min_white };
    const int rows = white.size() == black.size() ? white.rows : 0;
    prepare_rows(valid, cv::Size(white.cols, rows));
#pragma omp parallel for schedule(static) // each thread writes its own rows of `valid`
    for (int y = 0; y < rows; ++y) {
        std::vector<int>& row = valid[at(y)];
        row.resize(static_cast<std::size_t>(white.cols));
        row.resize(static_cast<std::size_t>(valid_row(white[y], black[y], white.cols, limits, row.data())));
    }
}

void ProjectorPositions::valid2vmask()
{
    vmask.create(white.size());
    vmask.setTo(0);
    const int rows = std::min(vmask.rows, static_cast<int>(valid.size()));
#pragma omp parallel for schedule(static) // each thread writes its own rows of `vmask`
    for (int y = 0; y < rows; ++y)
        mask_row(columns_of(valid[at(y)]), vmask.cols, vmask[y]);
}

void ProjectorPositions::vmask2valid()
{
    prepare_rows(valid, vmask.size());
    const int rows = vmask.rows;
#pragma omp parallel for schedule(static) // each thread writes its own rows of `valid`
    for (int y = 0; y < rows; ++y) {
        std::vector<int>& row = valid[at(y)];
        row.resize(static_cast<std::size_t>(vmask.cols));
        row.resize(static_cast<std::size_t>(unmask_row(vmask[y], vmask.cols, row.data())));
    }
}

void ProjectorPositions::_save_raw(const cv::Mat_<float>& image, const std::string& name)
{
    const cv::Mat rows = image.isContinuous() ? cv::Mat(image) : image.clone();
    write_file(name, rows.data, rows.total() * sizeof(float));
}

void ProjectorPositions::_save_mask(const std::string& name) const
{
    if (!vmask.empty()) write_file(name, encoded_picture(".pgm", vmask));
}

void ProjectorPositions::save_unwrap() const
{
    _save_raw(unwrapped, "unwrap" + std::to_string(camera_id) + ".raw");
    _save_mask("vumask" + std::to_string(camera_id) + ".pgm");
}

} // namespace vexo
