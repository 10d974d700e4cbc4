#pragma once

#include "host/captures/fringe_method.h"

#include <opencv2/core.hpp>

#include <array>
#include <cstddef>
#include <vector>

/// Whether the frames of a camera belong together, and in this order.
namespace vexo {

/// Share of the fringes (multi-phase: of the pixels) whose frames agree with one another; NaN: too few to judge by.
double fitting_share(const std::vector<cv::Mat>& frames, const FringeMethod& method);

/// Gray-phase: how far from the start of the phase the gray code changes its number, in fringes, the median.
double code_slip(const std::vector<cv::Mat>& frames);

/// The exchange of two frames that makes many more fringes fit than the order given; {0, 0} when there is none.
/// Dark and lit frame exchanged count, too.
std::array<std::size_t, 2> find_exchange(const std::vector<cv::Mat>& frames, const FringeMethod& method);

} // namespace vexo
