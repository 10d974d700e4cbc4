#pragma once

#include "patterns/method.h"

#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// A method, and in words what it was recognised by.
struct Choice {
    Method method = Method::gray_phase;
    std::string reason;
};

/// Where a capture lies, as its user names it.
struct CaptureFiles {
    std::string folder;         ///< may be empty when the others are given
    std::string cam0, cam1;     ///< pictures of each camera: a folder, or a pattern such as "left_*.png"
    std::string method;         ///< a method's name; empty: it is recognised
    bool decoded = false;       ///< the folders hold maps of another decoder
    std::vector<int> order {};  ///< for each frame of the method the recorded one, -1: was not; empty: by the names
    std::optional<int> bits {}; ///< of the grey values; nothing: found out
};

/// The method that is named, or else the one by which a capture was made: capture.json, scene.json or patterns.json in
/// its folder says, or the number of pictures of camera 0 (decoded: the names of the maps there). Throws Failure when
/// nothing does.
/// @param nearest  for a capture that may lack frames: a number of pictures that fits no method counts as that of
///                 the fringe method it is nearest to
Choice choose_method(const CaptureFiles& files, bool nearest = false);

/// Fringe periods in projector px that capture.json, scene.json or patterns.json in `folder` says; empty: none does.
std::vector<int> periods_said_in(const std::string& folder);

} // namespace vexo
