#pragma once

#include "decode/GrayPhaseHolder.h"
#include "decode/rows/gray_row.h"

namespace vexo {

/// Decoder of one camera's gray code + phase frames, 8-bit grey:
///
///     0           projector dark
///     1           projector fully lit
///     2 to 8      bit planes of the period number in gray code, most significant first
///     9 to 12     four sinusoidal fringe frames, a quarter period apart
///
/// A bit is set where its plane is brighter than the mean of lit and dark frame.
class GrayPhaseDecoder : public GrayPhaseHolder {
public:
    static constexpr int bit_planes = 7;  ///< 128 periods
    static constexpr int phase_steps = 4; ///< fringe frames

    /// @param frame_count  13
    /// @param params       limits; not owned, must outlive the object
    GrayPhaseDecoder(int camera_id, int frame_count, const GrayPhaseMatchingParam* params);

    int set_input(void* data, int width, int height, unsigned long step, int index) override;
    void preproc() override;
    bool begin_decode() override;
    void decode_row(int y, int thread) noexcept override;

    /// Grey level between dark and lit, (white + black) / 2, of every pixel.
    cv::Mat_<float> _threshold() const;
    /// Fills `gray`.
    void _graycode(cv::Mat_<float> const& threshold);
    /// Fills `phase`.
    void _phasecode();
    /// Debug dump into the current directory: "phase<camera_id>.raw" and "vmask<camera_id>.pgm".
    void _save_decode();

    std::vector<cv::Mat_<uchar>> frames; ///< inputs 2 and up; keeps its length

private:
    bool _decodable() const noexcept;
    std::vector<GrayRow> _workers; ///< for decode_row(), one a thread
};

} // namespace vexo
