#include "decode/MultiPhaseDecoder.h"

#include "decode/phase_kernels.h"

#include <algorithm>
#include <array>
#include <string>

namespace vexo {
namespace {

constexpr int max_steps = 64; // far above any use; keeps steps x periods small

/// Zero images for the phases, and the angle offset of each period.
std::array<float, 4> prepare(
    std::vector<cv::Mat_<float>>& phases, const cv::Size& size, const MultiPhaseMatchingParam& params)
{
    std::array<float, 4> offsets {};
    for (std::size_t f = 0; f < phases.size(); ++f) {
        phases[f].create(size);
        phases[f].setTo(0);
        offsets[f] = phase_offset(params.periods[f]);
    }
    return offsets;
}

} // namespace

MultiPhaseDecoder::MultiPhaseDecoder(
    int camera_id, const MultiPhaseMatchingParam* params, const FringePairTable* table, int steps, int nperiods)
    : MultiPhaseHolder(camera_id, 0, params, table, std::clamp(nperiods, 0, 4))
    , steps(std::clamp(steps, 0, max_steps))
    , frames(static_cast<std::size_t>(this->steps) * phases.size())
{
    frame_count = 2 + static_cast<int>(frames.size());
    for (cv::Mat_<uchar>& frame : frames)
        _add_input(frame, CV_8U);
    for (cv::Mat_<float>& phase : phases)
        _add_result(phase);
}

int MultiPhaseDecoder::set_input(void* data, int width, int height, unsigned long step, int index)
{
    return _copy_input(data, width, height, step, index);
}

void MultiPhaseDecoder::preproc()
{
    const std::size_t frames_needed = (steps == 3 ? 3 : 4) * phases.size();
    if (params == nullptr || !complete() || frames.size() < frames_needed) {
        _drop_results();
        return;
    }
    set_valid(params->min_contrast, params->max_white, params->min_white);
    if (steps == 3)
        _decode_phase3();
    else
        _decode_phase4();
}

void MultiPhaseDecoder::_decode_phase3()
{
    const std::array<float, 4> offsets = prepare(phases, white.size(), *params);
    const int nperiods = static_cast<int>(phases.size());
    const int rows = white.rows;
#pragma omp parallel for collapse(2) schedule(static) // each thread writes its own rows of `phases`
    for (int f = 0; f < nperiods; ++f)
        for (int y = 0; y < rows; ++y) {
            const auto period = static_cast<std::size_t>(f);
            const auto* I = &frames[3 * period];
            phase3_row({ I[0][y], I[1][y], I[2][y] }, offsets[period], columns_of(valid[static_cast<std::size_t>(y)]),
                phases[period][y]);
        }
}

void MultiPhaseDecoder::_decode_phase4()
{
    const std::array<float, 4> offsets = prepare(phases, white.size(), *params);
    const int nperiods = static_cast<int>(phases.size());
    const int rows = white.rows;
#pragma omp parallel for collapse(2) schedule(static) // each thread writes its own rows of `phases`
    for (int f = 0; f < nperiods; ++f)
        for (int y = 0; y < rows; ++y) {
            const auto period = static_cast<std::size_t>(f);
            const auto* I = &frames[4 * period];
            phase4_row({ I[0][y], I[1][y], I[2][y], I[3][y] }, offsets[period],
                columns_of(valid[static_cast<std::size_t>(y)]), phases[period][y]);
        }
}

void MultiPhaseDecoder::_save_decode()
{
    for (std::size_t f = 0; f < phases.size(); ++f)
        _save_raw(phases[f], "phase_" + std::to_string(camera_id) + "_" + std::to_string(f) + ".raw");
    valid2vmask();
    _save_mask("vmask" + std::to_string(camera_id) + ".pgm");
}

} // namespace vexo
