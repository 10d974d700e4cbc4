#pragma once

#include "decode/ProjectorPositions.h"
#include "decode/sections.h"
#include "vexo/records.h"

namespace vexo {

/// Unwrapping of gray code + phase: period number and wrapped phase of a pixel become one coordinate.
///
///     coordinate = period number + phase         in fringe periods
///
/// At a period's edge the code and the phase do not jump at exactly the same camera pixel, so a pixel's own
/// number may be off by one there. Row by row, therefore: the row is cut into sections of rising phase (a
/// section lies within one period); long sections whose pixels agree become anchors; anchors out of order
/// are voted off by length; the pixels between are filled from the next anchor, strictly rising. A pixel
/// without a coordinate leaves `valid`.
///
/// `params` belongs to the owner and may change at any time, to any values.
class GrayPhaseHolder : public ProjectorPositions {
public:
    void unwrap() override;

    /// Appends the sections of one row. `sections` and `cols` as above; rows are full image rows.
    static void _split_phase(std::vector<PhaseSection>& sections, std::vector<int>& cols, float const* phase_row,
        unsigned char const* gray_row);
    /// Chooses the anchors (longer than `anchor_length`, at most `code_spread` codes, in order) and assigns
    /// their pixels. @return the number of pixels assigned
    static int _unwrap_positive(std::vector<PhaseSection>& sections, std::vector<int>& done, std::vector<int>& cols,
        float const* phase_row, float* out_row, int anchor_length, int code_spread);
    /// Fills the open sections between the anchors, and after the last.
    static void _unwrap_negative(std::vector<PhaseSection>& sections, std::vector<int>& done, std::vector<int>& cols,
        float const* phase_row, float* out_row, unsigned char const* gray_row);

    const GrayPhaseMatchingParam* params; ///< limits; not owned, may be null (then nothing is valid)
    cv::Mat_<uchar> gray;                 ///< period number; 0 to 127 when decoded, 0 to 255 when loaded
    cv::Mat_<float> phase;                ///< wrapped phase, fraction of a period, 0 to 1

protected:
    GrayPhaseHolder(int camera_id, int frame_count, const GrayPhaseMatchingParam* params);
};

} // namespace vexo
