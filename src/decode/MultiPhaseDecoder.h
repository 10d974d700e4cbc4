#pragma once

#include "decode/MultiPhaseHolder.h"
#include "decode/rows/multi_row.h"

namespace vexo {

/// Decoder of one camera's multi-period frames, 8-bit grey:
///
///     0                    projector dark
///     1                    projector fully lit
///     2 + steps f + s      fringe frame of period f, shift s
class MultiPhaseDecoder : public MultiPhaseHolder {
public:
    /// @param params    limits and periods; not owned, must outlive the object
    /// @param table     built from the same periods; not owned, must outlive the object
    /// @param steps     shifts of each period: 3, or else decoded as 4
    /// @param nperiods  0 to 4
    MultiPhaseDecoder(
        int camera_id, const MultiPhaseMatchingParam* params, const FringePairTable* table, int steps, int nperiods);

    int set_input(void* data, int width, int height, unsigned long step, int index) override;
    void preproc() override;
    /// Three shifts a period, whose differences are not whole, go the readable way.
    bool begin_decode() override;
    void decode_row(int y, int thread) noexcept override;

    /// Fill `phases` from three or four shifts a period.
    void _decode_phase3();
    void _decode_phase4();
    /// Debug dump into the current directory: "phase_<camera_id>_<period>.raw" and "vmask<camera_id>.pgm".
    void _save_decode();

    int steps;                           ///< shifts of each period
    std::vector<cv::Mat_<uchar>> frames; ///< inputs 2 and up, period by period; keeps its length

private:
    bool _decodable() const noexcept;
    /// Whether decode_row() can do these frames with this table.
    bool _decodable_by_rows() const noexcept;
    std::vector<MultiRow> _workers; ///< for decode_row(), one a thread
};

} // namespace vexo
