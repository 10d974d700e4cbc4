#pragma once

#include <opencv2/core.hpp>

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// How many exposures can be merged.
constexpr std::size_t least_exposures = 2, most_exposures = 8;

/// One of several exposures of a scene.
struct Exposure {
    std::string folder;                             ///< as it was named
    std::optional<double> ms;                       ///< as its capture.json says
    double factor = 1.0;                            ///< its light over that of the longest
    std::array<double, 2> share {};                 ///< of each camera's lit pixels that are taken from it
    std::array<std::vector<std::string>, 2> paths;  ///< [camera][frame]: its files; "": not recorded
    std::array<std::vector<std::string>, 2> hashes; ///< [camera][frame]: SHA-256 of these files
    std::string manifest;                           ///< path of its capture.json; empty: it has none
};

/// What a capture was merged from.
struct Exposures {
    std::vector<Exposure> sets;   ///< the longest first
    bool ordered_by_time = false; ///< as all of them say their exposure_ms; false: by the light of their frames
    std::array<cv::Mat, 2> taken; ///< [camera]: CV_8U, index into `sets` of each raw pixel
    /// [camera]: the lit frame as one picture, 8 bit: the logarithm of the light, so that one step of grey is the same
    /// contrast everywhere and no border between exposures shows.
    std::array<cv::Mat, 2> lit;

    /// Grey levels of a camera's merged frames brought to the light of the longest exposure, CV_32F.
    cv::Mat to_light(const cv::Mat& greys, std::size_t camera) const;
};

} // namespace vexo
