#pragma once

#include "causes.h"
#include "fringes.h"
#include "matching.h"
#include "rig.h"

#include "vexo/records.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

/// report.json: everything that a measurement was made from and what came out. compare reads it back.
namespace vexo::app {

using Json = nlohmann::ordered_json;

/// 1, 50 and 99 % quantiles.
Json quantiles(const std::vector<float>& values);

Json describe(const MatchingRecord& record);
Json describe(const FringeFigures& figures);
Json describe(const CauseMap& causes, Method method);
Json describe(const StageTimes& times);
Json describe(const StereoCameraParam& param, const iStereoCamera& camera, const Geometry& geometry);

Json to_json(const cv::Matx33d& matrix);

/// Parses a JSON file; throws Failure that names it.
Json read_json(const std::string& path);
/// A number of a file that was read, by its path in it ("/camera/f"); throws Failure that names the file.
double number_in(const Json& json, const std::string& pointer, const std::string& path);

/// A text of a file that was read; `otherwise` when it has none of that key.
std::string text_in(const Json& json, const char* key, const std::string& otherwise);

} // namespace vexo::app
