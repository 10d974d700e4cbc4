#pragma once

#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>

#include "sim/rig.h"

namespace vexo {
namespace sim {

/// Files of a folder: path inside it, and bytes.
using Files = std::vector<std::pair<std::string, std::vector<unsigned char>>>;

using Json = nlohmann::ordered_json;

/// "cam0/frame07.png".
std::string picture_name(int camera, const std::string& what, int number);

/// Appends images as files, in the format of their names; in parallel, since it takes as long as rendering them.
/// Throws std::runtime_error when an image cannot be encoded.
void add_images(const std::vector<std::pair<std::string, cv::Mat>>& images, Files& files);

void add_text(const std::string& name, const std::string& text, Files& files);

Json to_json(const cv::Vec3d& v);
Json to_json(const cv::Size& s);
/// Rows of the matrix.
Json to_json(const cv::Matx33d& m);
Json to_json(const cv::Matx34d& m);
Json to_json(const Sensor& s);

/// Pose of a camera in raw camera-0 axes, which are the world of all files: [R | T].
cv::Matx34d pose_in_camera0(const Rig& rig, int camera);

} // namespace sim
} // namespace vexo
