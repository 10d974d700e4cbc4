#include "host/files/marker.h"

#include "base/failure.h"
#include "base/whole_file.h"
#include "host/files/hash.h"
#include "host/files/json_file.h"

#include <algorithm>
#include <filesystem>
#include <limits>

namespace vexo {

namespace fs = std::filesystem;

namespace {

constexpr int schema = 1;

WrittenFile written_file(const Json& json, const std::string& path)
{
    WrittenFile file { text_in(json, "command", ""), {} };
    if (json.contains("sha256") && json["sha256"].is_array())
        for (const Json& hash : json["sha256"])
            if (hash.is_string()) file.hashes.push_back(hash.get<std::string>());
    if (file.command.empty() || file.hashes.empty())
        throw Failure(path + ": is damaged; nothing here is known to be vexo's, name another folder");
    return file;
}

} // namespace

bool WrittenFile::holds(const std::string& hash) const
{
    return std::find(hashes.begin(), hashes.end(), hash) != hashes.end();
}

Marker read_marker(const std::string& folder)
{
    const std::string path = (fs::path(folder) / marker_name).string();
    std::error_code ignored;
    Marker marker;
    if (!fs::exists(fs::symlink_status(path, ignored))) return marker;
    const Json json = read_json(path);
    if (number_in(json, "/schema", path) != schema || !json.contains("files") || !json["files"].is_object())
        throw Failure(path + ": is of another version of vexo; name another folder");
    for (const auto& [name, file] : json["files"].items())
        marker[name] = written_file(file.is_object() ? file : Json::object(), path);
    return marker;
}

std::string marker_text(const Marker& marker)
{
    Json files = Json::object();
    for (const auto& [name, file] : marker)
        files[name] = { { "command", file.command }, { "sha256", file.hashes } };
    return json_text({ { "schema", schema }, { "files", files } });
}

std::string hash_of_file(const std::string& path)
{
    std::error_code error;
    const auto status = fs::symlink_status(path, error);
    if (!fs::exists(status)) return {};
    if (!fs::is_regular_file(status)) return "not a file";
    if (fs::file_size(path, error) == 0 && !error) return sha256(std::string());
    std::string bytes;
    return read_file(path, std::numeric_limits<std::size_t>::max(), bytes) ? sha256(bytes) : "cannot be read";
}

bool was_changed(const std::string& folder, const std::string& name)
{
    const Marker marker = read_marker(folder);
    const auto file = marker.find(name);
    return file != marker.end() && !file->second.holds(hash_of_file((std::filesystem::path(folder) / name).string()));
}

} // namespace vexo
