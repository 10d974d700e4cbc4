#pragma once

#include "patterns/method.h"

#include <opencv2/core.hpp>

#include <string>
#include <vector>

/// Frames that a capture lacks, made from those that it has.
namespace vexo {

/// Makes the frames that are empty: the dark and the lit one of the least and the most light of each pixel in the
/// others; planes of the gray code, from the coarsest on, dark, as planes without use are. Turns the others of a gray
/// code that is bright where it says 0.
/// @param frames  of one camera, as many as the method has, 8 bit
/// @return in words, what was made; empty: nothing
/// Throws Failure naming `where` for frames that nothing can stand for.
std::string add_missing_frames(
    std::vector<cv::Mat>& frames, Method method, const std::string& where, bool inverted_code);

} // namespace vexo
