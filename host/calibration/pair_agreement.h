#pragma once

#include "host/calibration/camera_fit.h"

#include <cstddef>
#include <string>
#include <vector>

namespace vexo {

/// A photo of camera 0 and the photo of camera 1 that was really taken with it, by their views.
struct Partners {
    std::size_t cam0, cam1;
};

/// Which photos of a pair show one pose of the board.
struct PairAgreement {
    /// How well each pair of views agrees with the others about where camera 1 stands: rms in px of camera 1's markers,
    /// put where camera 0 and the relative pose of the most agreeable view expect them; NaN for views not in `use`.
    /// Views that are no pair (mixed up, or not taken together) stand out by far.
    std::vector<double> error_px;
    std::vector<Partners> moved; ///< photos that fit the photo of another view, and not that of their own
};

/// @param cameras  calibrated one by one, so that no wrong pair has bent them; their poses are not read
PairAgreement pair_agreement(const std::vector<CalibratedCamera>& cameras, const BoardViews& views,
    const std::vector<bool>& use, const BoardFile& board);

/// "view05.png and view09.png of camera 1 (or of camera 0) are exchanged"; empty when no photo was moved.
std::string exchange_in_words(const PairAgreement& agreement, const BoardViews& views);

} // namespace vexo
