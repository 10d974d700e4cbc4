#pragma once

#include "host/captures/choose_method.h"

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace vexo {

/// Which file is which frame of a capture.
struct FrameFiles {
    std::array<std::vector<std::string>, 2> paths; ///< [camera][frame of the method]; "": was not recorded
    std::string order_by; ///< "--order" or "capture.json"; empty: the files' names are in the order of projection
    bool inverted_code = false;
    std::optional<int> bits; ///< of the grey values, and what said so
    std::string bits_by;
};

/// The frames as --order, capture.json or their names say, whether or not they are as many as the method has. Throws
/// Failure for an order that the files do not have.
FrameFiles find_frame_files(const CaptureFiles& files, Method method);

/// Throws Failure, with the name of one that is missing, when a camera has not as many frames as the method.
void check_count(const CaptureFiles& files, const FrameFiles& found, std::size_t count);

/// All pictures of a capture, wherever they lie.
std::vector<std::string> all_pictures(const CaptureFiles& files);

} // namespace vexo
