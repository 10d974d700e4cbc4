#pragma once

#include "host/captures/capture.h"

#include <string>
#include <vector>

/// Captures of one scene at several exposures, merged into one.
namespace vexo {

/// Reads and merges captures of one scene. All grey values are scaled to 8 bits alike: by the bits that one of them
/// says, or else by the largest value of all. Throws as merge_exposures() and read_capture() do.
Capture read_exposures(const std::vector<CaptureFiles>& sets, const Choice& choice);

/// Takes from each pixel of each camera all frames of the longest exposure in which none of its frames reaches
/// clipped_grey, or else of the shortest: so all frames of a pixel have one noise model and one phase, while grey
/// levels of neighbouring pixels may belong to different exposures. Source: Zhang, Yau, High dynamic range scanning
/// technique, Optical Engineering 48 (2009) 033604.
///
/// The longest is the one with the largest exposure_ms where all of them say it, else that with the brightest frames.
/// Throws Failure that names the folder for one that is not of the others' size, method or periods, whose exposure_ms
/// its frames belie, or whose phases or codes are not those of the others (exposure_agreement.h).
/// @param captures  2 to 8, of fringes
Capture merge_exposures(std::vector<Capture> captures);

/// Grey levels between lit and dark frame of each pixel, on one scale for all of them: CV_8U, or CV_32F of merged
/// exposures.
cv::Mat contrast_of(const Capture& capture, std::size_t camera);

/// What to do about too much and too little light in all exposures is to add one.
void advise_exposures(std::vector<Finding>& findings);

/// The lit frame of a camera as a picture, 8 bit; of block matching the only one.
const cv::Mat& lit_picture(const Capture& capture, std::size_t camera);

} // namespace vexo
