#pragma once

#include "patterns/method.h"

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// What capture.json in a capture's folder says of its frames; docs/files.md explains its keys. Whatever it does not
/// say is found out in other ways.
struct Manifest {
    std::string path;
    std::optional<Method> method;
    std::vector<int> periods;          ///< of the fringes, projector px; empty: not said
    std::optional<int> bits;           ///< of the grey values
    std::optional<double> exposure_ms; ///< of each frame
    std::string unit;                  ///< of the calibration's lengths; empty: not said
    bool inverted_code = false;        ///< the planes of the gray code are bright where they say 0
    /// [camera][frame of the method]: path of the file, "" for a frame that was not recorded; empty: not said
    std::array<std::vector<std::string>, 2> frames;

    std::vector<std::string> exposures; ///< folders with a capture each, of one scene at several exposures

    bool names_frames() const { return !frames[0].empty(); }
};

/// Name of the file.
constexpr const char* manifest_name = "capture.json";

/// The manifest in `folder`; nothing when there is none. Throws Failure that names file and key for an unknown key, a
/// value that the key cannot have, a file that is named twice, does not exist or lies outside of the folder.
std::optional<Manifest> read_manifest(const std::string& folder);

/// The same of a folder that has to hold one capture: throws Failure when its manifest lists exposures.
std::optional<Manifest> manifest_of_capture(const std::string& folder);

} // namespace vexo
