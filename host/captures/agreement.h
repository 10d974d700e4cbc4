#pragma once

#include "host/captures/fringe_method.h"
#include "host/captures/positions.h"

#include <opencv2/core.hpp>

#include <limits>
#include <vector>

/// Whether the frames of a camera say the same.
namespace vexo {

/// Pixels on some rows that show the fringes.
struct Agreement {
    double all = 0;      ///< that can be judged
    double agreeing = 0; ///< whose frames agree with one another
    double exact = 0;    ///< gray-phase: of these, whose own code is that of their fringe; multi-phase: the same number

    /// NaN when there is too little to judge by.
    double share() const { return all >= 100 ? agreeing / all : std::numeric_limits<double>::quiet_NaN(); }
};

/// Gray-phase: a fringe agrees when its phase rises, most of its pixels have one code, and a neighbour has the next
/// one; that is how the decoder numbers fringes. Multi-phase: a pixel agrees when the periods name one position, which
/// rises along the row.
Agreement agreement(const std::vector<cv::Mat>& frames, const FringeMethod& method);

/// Gray-phase: numbers, by the code, of two fringes that touch in a row.
struct CodeLink {
    int left = 0, right = 0;
};

std::vector<CodeLink> code_links(const std::vector<cv::Mat>& frames);

/// Gray-phase: where in the phase the code changes its number.
struct CodeSlip {
    double middle = 0; ///< circular mean, -0.5 to 0.5 of a fringe; 0: at the start of the phase
    double spread = 0; ///< 0: everywhere the same; 1: anywhere
};

CodeSlip code_slip(const std::vector<cv::Mat>& frames);

} // namespace vexo
