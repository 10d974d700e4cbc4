#pragma once

#include "base/failure.h"

#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>

#include <optional>
#include <string>
#include <vector>

/// Figures in JSON files: written so that any reader accepts them, read so that none can hurt.
namespace vexo {

using Json = nlohmann::ordered_json;

/// Indented, ended by a new line. File names need not be UTF-8, JSON must: a byte that is not becomes U+FFFD.
std::string json_text(const Json& json);

/// An object from the text of a JSON file; nothing when it is none, or nests deeper than ours do.
std::optional<Json> parse_json(const std::string& text);

/// Parses a JSON file; throws Failure that names it.
Json read_json(const std::string& path);

/// A number of a file that was read, by its path in it ("/camera/f"); throws Failure that names the file.
double number_in(const Json& json, const std::string& pointer, const std::string& path);

/// A text of a file that was read; `otherwise` when it has none of that key.
std::string text_in(const Json& json, const char* key, const std::string& otherwise);

/// The nine numbers, row by row.
Json to_json(const cv::Matx33d& matrix);

/// 1, 50 and 99 % quantiles, as "q01", "q50" and "q99".
Json quantiles_json(const std::vector<float>& values);

} // namespace vexo
