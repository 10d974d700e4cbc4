#include "decode/GrayPhaseDecoder.h"

#include "base/index.h"
#include "decode/AngleTable.h"
#include "decode/pixel_formulas.h"

#include <algorithm>
#include <omp.h>
#include <string>

namespace vexo {
namespace {
constexpr std::size_t first_step = GrayPhaseDecoder::bit_planes; // index of the first fringe frame in `frames`
constexpr std::size_t frames_needed = GrayPhaseDecoder::bit_planes + GrayPhaseDecoder::phase_steps;
} // namespace

GrayPhaseDecoder::GrayPhaseDecoder(int camera_id, int frame_count, const GrayPhaseMatchingParam* params)
    : GrayPhaseHolder(camera_id, frame_count, params)
    , frames(static_cast<std::size_t>(std::max(frame_count - 2, 0)))
{
    for (cv::Mat_<uchar>& frame : frames)
        _add_input(frame, CV_8U);
    _add_result(gray);
    _add_result(phase);
    AngleTable::instance(); // built now, not in the first measurement
}

int GrayPhaseDecoder::set_input(void* data, int width, int height, unsigned long step, int index)
{
    return index < frame_count ? _copy_input(data, width, height, step, index) : 0;
}

bool GrayPhaseDecoder::_decodable() const noexcept
{
    return params != nullptr && complete() && frames.size() >= frames_needed;
}

void GrayPhaseDecoder::preproc()
{
    if (!_decodable()) {
        _drop_results();
        return;
    }
    set_valid(params->min_contrast, params->max_white, params->min_white);
    _graycode(_threshold());
    _phasecode();
}

bool GrayPhaseDecoder::begin_decode()
{
    if (!_decodable()) return false;
    _prepare_decode();
    gray.release(); // what an earlier preproc() has made belongs to other frames
    phase.release();
    _workers.resize(at(omp_get_max_threads()));
    for (GrayRow& worker : _workers)
        worker.resize(white.cols);
    return true;
}

void GrayPhaseDecoder::decode_row(int y, int thread) noexcept
{
    const GrayRow::Limits limits { byte_limits(params->min_contrast, params->max_white, params->min_white),
        params->anchor_length, params->reject_length, params->code_spread };
    const auto& f = frames;
    _workers[at(thread)].decode(row_kernels(), AngleTable::instance().data(),
        { black[y], white[y], { f[0][y], f[1][y], f[2][y], f[3][y], f[4][y], f[5][y], f[6][y] },
            { f[7][y], f[8][y], f[9][y], f[10][y] } },
        limits, unwrapped[y], vmask[y]);
}

cv::Mat_<float> GrayPhaseDecoder::_threshold() const
{
    cv::Mat_<float> threshold(black.size()); // allocate here: below, nothing may throw
    const int rows = threshold.rows;
#pragma omp parallel for schedule(static) // each thread writes its own rows of `threshold`
    for (int y = 0; y < rows; ++y)
        threshold_row(white[y], black[y], threshold.cols, threshold[y]);
    return threshold;
}

void GrayPhaseDecoder::_graycode(cv::Mat_<float> const& threshold)
{
    gray.create(frames[0].size());
    gray.setTo(0);
    const auto& f = frames;
    const int rows = gray.rows;
#pragma omp parallel for schedule(static) // each thread writes its own rows of `gray`
    for (int y = 0; y < rows; ++y)
        code_row({ f[0][y], f[1][y], f[2][y], f[3][y], f[4][y], f[5][y], f[6][y] }, threshold[y],
            columns_of(valid[at(y)]), gray[y]);
}

void GrayPhaseDecoder::_phasecode()
{
    phase.create(frames[0].size());
    phase.setTo(0);
    const auto* step = &frames[first_step];
    const int rows = phase.rows;
#pragma omp parallel for schedule(static) // each thread writes its own rows of `phase`
    for (int y = 0; y < rows; ++y)
        phase_row({ step[0][y], step[1][y], step[2][y], step[3][y] }, columns_of(valid[at(y)]), phase[y]);
}

void GrayPhaseDecoder::_save_decode()
{
    _save_raw(phase, "phase" + std::to_string(camera_id) + ".raw");
    valid2vmask();
    _save_mask("vmask" + std::to_string(camera_id) + ".pgm");
}

} // namespace vexo
