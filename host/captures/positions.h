#pragma once

#include "host/captures/fringe_method.h"

#include <opencv2/core.hpp>

#include <vector>

/// Where the projector lights a pixel, by its own frames alone: no neighbour is asked. Quick, and right but for the
/// few pixels whose number is off by one; for checks that look at the many.
namespace vexo {

/// Smallest lit - dark, and smallest modulation, of the pixels that are measured; grey levels.
constexpr int least_contrast = 16;
constexpr double least_modulation = 6.0;

/// Gray-phase: whether the code says 1 at a pixel of plane `k`.
inline bool code_bit(const std::vector<cv::Mat>& frames, std::size_t k, int y, int x)
{
    return 2 * frames[k].at<uchar>(y, x) > frames[0].at<uchar>(y, x) + frames[1].at<uchar>(y, x);
}

/// Gray-phase: the code's number at a pixel.
int gray_code(const std::vector<cv::Mat>& frames, int y, int x);

/// Multi-period: the projector column by trying all fringes of the first period; -1 when the three periods disagree.
double multi_position(const std::vector<cv::Mat>& frames, const std::vector<int>& periods, int y, int x);

/// CV_32F, in fringes (gray-phase) or projector px (multi-phase); NaN where no fringes are seen, and, gray-phase, near
/// the start of a fringe, where code and phase may disagree. Other columns than each `every`-th are NaN, too.
cv::Mat projector_positions(const std::vector<cv::Mat>& frames, const FringeMethod& method, int every = 1);

} // namespace vexo
