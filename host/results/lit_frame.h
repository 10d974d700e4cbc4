#pragma once

#include "host/cameras/camera_file.h"
#include "host/results/read_result.h"

#include <string>

namespace vexo {

/// What camera 0 photographed in full light when a result was measured, and that camera.
struct LitFrame {
    std::string path;
    CalibratedCamera camera;
};

/// Finds both by the result's report. Throws Failure where they are not there any more, were changed, or where the
/// result was measured from frames without a lit one.
LitFrame lit_frame_of(const std::string& result_folder);

} // namespace vexo
