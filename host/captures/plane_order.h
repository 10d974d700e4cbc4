#pragma once

#include <opencv2/core.hpp>

#include <array>
#include <cstddef>
#include <vector>

/// Whether the planes of the gray code stand in this order.
namespace vexo {

constexpr std::size_t code_planes = 7;

/// For each place of a plane, from the coarsest on, the plane that is to stand there.
using PlaneOrder = std::array<std::size_t, code_planes>;

constexpr PlaneOrder planes_as_given { 0, 1, 2, 3, 4, 5, 6 };

/// The order in which fringes that follow one another have codes that follow one another; `planes_as_given` where they
/// have already, or in no order. Of orders that explain the same, the one that moves the fewest planes. Between two
/// such fringes exactly one plane changes, and a plane in a wrong place is seen at its own changes, be they few.
/// @param cameras  frames of gray code + phase, of one camera or of two with the same fault
PlaneOrder find_plane_order(const std::vector<const std::vector<cv::Mat>*>& cameras);

} // namespace vexo
