#pragma once

#include "host/captures/choose_method.h"
#include "host/captures/exposure_set.h"
#include "host/captures/frames.h"
#include "host/captures/manifest.h"

#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// The frames of one measurement as they were recorded, and what is known of them.
struct Capture {
    CaptureFiles files;
    Choice choice;
    std::vector<int> periods; ///< of the fringes, projector px, as the capture's folder says; empty: it does not
    FrameSet frames;
    std::optional<Manifest> manifest;      ///< capture.json in the capture's folder
    std::optional<Exposures> exposures {}; ///< that the frames were merged of; `files` are those of the longest

    Method method() const { return choice.method; }
};

/// Reads the frames (or the maps of another decoder) that `choice` has. Throws Failure that names the file.
Capture read_capture(const CaptureFiles& files, const Choice& choice);

} // namespace vexo
