#pragma once

#include "host/captures/gamma.h"
#include "host/files/json_file.h"
#include "patterns/fringes.h"
#include "patterns/method.h"

#include <opencv2/core.hpp>

#include <string>
#include <vector>

namespace vexo {

/// What is to be projected, and by what projector.
struct PatternRequest {
    Method method = Method::gray_phase;     ///< not sgbm
    cv::Size projector { 1024, 768 };       ///< columns and rows
    int period = 8;                         ///< gray-phase: projector px a fringe
    std::vector<int> periods { 9, 10, 11 }; ///< multi-phase: projector px
    GammaTable gamma = undo_gamma(1.0);
};

/// The frames, corrected for the projector's gamma. Throws Failure for fringes that cannot be decoded.
std::vector<PatternFrame> make_patterns(const PatternRequest& request);

/// patterns.json: what each of the frames is.
Json patterns_json(const PatternRequest& request, const std::vector<PatternFrame>& frames);

/// Frames that were written as pictures, read back: every row of a picture must be the same. Sets what patterns.json
/// in the folder says of them. Throws Failure.
std::vector<PatternFrame> read_patterns(const std::string& folder, PatternRequest& request);

/// All frames on one sheet, fringes enlarged, each with its number and name.
cv::Mat contact_sheet(const std::vector<PatternFrame>& frames, int rows);

/// "frame07.png".
std::string frame_name(std::size_t index);

} // namespace vexo
