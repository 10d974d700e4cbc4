#pragma once

#include "base/on_step.h"
#include "host/captures/choose_method.h"
#include "host/captures/quality.h"
#include "host/verdict/finding.h"

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace vexo {

struct CheckRequest {
    CaptureFiles files;
    std::vector<int> periods; ///< multi-phase, projector px; empty: as the capture's folder says, else the default
};

/// One camera's frames as they lie in the folder.
struct CheckedCamera {
    std::vector<std::string> names;       ///< file names, in capture order
    std::optional<CameraFigures> figures; ///< nothing when files are missing or their sizes differ
};

struct Checked {
    FringeMethod method;
    std::array<CheckedCamera, 2> cameras;
    std::vector<Finding> findings;
    int bits = 8; ///< of the grey values as recorded

    /// Gamma of all cameras that could be measured; NaN: none.
    double gamma() const;
};

/// Looks at the frames of a capture with fringes. What is wrong with them is a finding: beside those of judge()
/// "frames-missing" and "mixed-size". Throws Failure where there are no pictures, a file is no picture, or the
/// capture has no fringes.
Checked check_capture(const CheckRequest& request, const OnStep& on_step = {});

/// What the frames of one camera, as many as the method has, say of themselves; by judge(). Looks at some rows only:
/// quick enough to be asked with each measurement.
/// @param names  of the frames' files
std::vector<Finding> judge_frames_of(
    const std::vector<cv::Mat>& frames, const FringeMethod& method, int camera, const std::vector<std::string>& names);

} // namespace vexo
