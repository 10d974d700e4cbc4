#pragma once

#include "host/captures/fringe_method.h"
#include "host/captures/plane_order.h"

#include <opencv2/core.hpp>

#include <array>
#include <cstddef>
#include <string>
#include <vector>

/// Whether the frames of a camera stand in this order.
namespace vexo {

/// What is wrong with the order of a camera's frames.
struct FrameOrder {
    enum Kind { right, exchanged, planes, fringes, late, early };

    Kind kind = right;
    std::array<std::size_t, 2> pair { 0, 0 };       ///< exchanged: these two
    std::array<std::size_t, 4> four { 0, 1, 2, 3 }; ///< fringes: the frame, from the first fringe frame on, for each

    PlaneOrder seven = planes_as_given; ///< planes: the frame, from the first plane on, for each
    bool certain = false;               ///< in this order all frames agree

    explicit operator bool() const { return kind != right; }
};

/// The order that makes many more pixels agree than the order given: with two frames exchanged, dark and lit frame
/// included; gray-phase: the four fringe frames or the seven of the code in any other order; all frames one place too
/// late or too early.
/// @param other  frames of the other camera, which count as well when they do not agree either; may be null
FrameOrder find_exchange(
    const std::vector<cv::Mat>& frames, const FringeMethod& method, const std::vector<cv::Mat>* other = nullptr);

/// In words, with what is to be done.
std::array<std::string, 2> words_of(const FrameOrder& order, const std::vector<std::string>& names);

} // namespace vexo
