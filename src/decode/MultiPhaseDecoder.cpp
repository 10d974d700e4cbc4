#include "decode/MultiPhaseDecoder.h"

#include "base/index.h"
#include "decode/AngleTable.h"
#include "decode/pixel_formulas.h"

#include <algorithm>
#include <array>
#include <omp.h>
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

/// What decode_row() needs of the table and the record. Phases are offset by the record's periods and resolved by the
/// table's, as in preproc() and unwrap(), should the two ever differ.
MultiRow::Periods row_periods(const FringePairTable& table, const MultiPhaseMatchingParam& params) noexcept
{
    MultiRow::Periods p {};
    for (std::size_t f = 0; f < 3; ++f) {
        p.period[f] = table.periods[f];
        p.offset[f] = phase_offset(params.periods[f]);
    }
    p.slots = { table.resolved.data(), { table.lower[0], table.lower[1] }, { table.range[0], table.range[1] },
        table.tmax, table.scale, MultiPhaseHolder::max_coordinate };
    return p;
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
    AngleTable::instance(); // built now, not in the first measurement
}

int MultiPhaseDecoder::set_input(void* data, int width, int height, unsigned long step, int index)
{
    return _copy_input(data, width, height, step, index);
}

bool MultiPhaseDecoder::_decodable() const noexcept
{
    const std::size_t frames_needed = (steps == 3 ? 3 : 4) * phases.size();
    return params != nullptr && complete() && frames.size() >= frames_needed;
}

void MultiPhaseDecoder::preproc()
{
    if (!_decodable()) {
        _drop_results();
        return;
    }
    set_valid(params->min_contrast, params->max_white, params->min_white);
    if (steps == 3)
        _decode_phase3();
    else
        _decode_phase4();
}

/// With a common multiple of at most 912 an unresolved pixel counts as resolved; decode_row() knows no such thing.
bool MultiPhaseDecoder::_decodable_by_rows() const noexcept
{
    return _decodable() && steps != 3 && phases.size() >= 3 && pair_table != nullptr && pair_table->ok
        && static_cast<float>(pair_table->maxp) > max_coordinate;
}

bool MultiPhaseDecoder::begin_decode()
{
    if (!_decodable_by_rows()) return false;
    _prepare_decode();
    for (cv::Mat_<float>& phase : phases)
        phase.release(); // what an earlier preproc() has made belongs to other frames
    _workers.resize(at(omp_get_max_threads()));
    for (MultiRow& worker : _workers)
        worker.resize(white.cols);
    return true;
}

void MultiPhaseDecoder::decode_row(int y, int thread) noexcept
{
    const auto& f = frames;
    _workers[at(thread)].decode(row_kernels(), AngleTable::instance().data(),
        { black[y], white[y],
            { { { f[0][y], f[1][y], f[2][y], f[3][y] }, { f[4][y], f[5][y], f[6][y], f[7][y] },
                { f[8][y], f[9][y], f[10][y], f[11][y] } } } },
        byte_limits(params->min_contrast, params->max_white, params->min_white), row_periods(*pair_table, *params),
        unwrapped[y], vmask[y]);
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
            phase3_row({ I[0][y], I[1][y], I[2][y] }, offsets[period], columns_of(valid[at(y)]), phases[period][y]);
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
            phase4_row(
                { I[0][y], I[1][y], I[2][y], I[3][y] }, offsets[period], columns_of(valid[at(y)]), phases[period][y]);
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
