#include "host/captures/manifest.h"

#include "base/failure.h"
#include "host/captures/exposure_set.h"
#include "host/files/json_file.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>
#include <map>
#include <set>

namespace vexo {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t longest_name = 255, most_periods = 8;

/// Reads one manifest, key by key.
class ManifestReader {
public:
    ManifestReader(const fs::path& folder, const std::string& path)
        : _folder(folder)
    {
        _manifest.path = path;
    }

    Manifest read(const Json& json)
    {
        const std::map<std::string, std::function<void(const Json&)>> keys {
            { "schema", [this](const Json& v) { _refuse_unless(v == 1, "schema", "is not 1"); } },
            { "method", [this](const Json& v) { _method(v); } },
            { "periods", [this](const Json& v) { _periods(v); } },
            { "bits", [this](const Json& v) { _manifest.bits = static_cast<int>(_number(v, "bits", 8, 16, true)); } },
            { "exposure_ms",
                [this](const Json& v) { _manifest.exposure_ms = _number(v, "exposure_ms", 1e-6, 1e9, false); } },
            { "exposures", [this](const Json& v) { _exposures(v); } },
            { "unit", [this](const Json& v) { _unit(v); } },
            { "inverted_code", [this](const Json& v) { _inverted(v); } },
            { "frames", [this](const Json& v) { _frames(v); } },
        };
        for (const auto& [key, value] : json.items()) {
            const auto known = keys.find(key);
            if (known == keys.end()) throw Failure(_unknown(key, keys));
            known->second(value);
        }
        for (const auto& [key, value] : json.items())
            _refuse_unless(_manifest.exposures.empty() || key == "exposures" || key == "schema", "exposures",
                "stands alone; write " + key + " into the capture.json of each folder");
        return std::move(_manifest);
    }

private:
    [[noreturn]] void _refuse(const std::string& key, const std::string& why) const
    {
        throw Failure(_manifest.path + ": " + key + " " + why);
    }

    void _refuse_unless(bool good, const std::string& key, const std::string& why) const
    {
        if (!good) _refuse(key, why);
    }

    template <class Keys> std::string _unknown(const std::string& key, const Keys& keys) const
    {
        std::string list;
        for (const auto& entry : keys)
            list += (list.empty() ? "" : ", ") + entry.first;
        return _manifest.path + ": unknown key \"" + key.substr(0, longest_name) + "\"; there are " + list;
    }

    double _number(const Json& v, const std::string& key, double least, double most, bool whole) const
    {
        const bool fits = whole ? v.is_number_integer() : v.is_number();
        const double value = fits ? v.get<double>() : 0;
        if (!fits || !(value >= least && value <= most))
            _refuse(key,
                whole ? "must be a whole number from " + std::to_string(static_cast<int>(least)) + " to "
                        + std::to_string(static_cast<int>(most))
                      : "must be a positive number");
        return value;
    }

    void _method(const Json& v)
    {
        if (v.is_string()) _manifest.method = method_named(v.get<std::string>());
        _refuse_unless(_manifest.method.has_value(), "method", "must be gray-phase, multi-phase or sgbm");
    }

    void _periods(const Json& v)
    {
        _refuse_unless(
            v.is_array() && !v.empty() && v.size() <= most_periods, "periods", "must be a list of whole numbers");
        for (const Json& period : v)
            _manifest.periods.push_back(static_cast<int>(_number(period, "periods", 2, 100000, true)));
    }

    void _unit(const Json& v)
    {
        const std::array<const char*, 5> units { "um", "mm", "cm", "m", "in" };
        if (v.is_string()) _manifest.unit = v.get<std::string>();
        _refuse_unless(std::find(units.begin(), units.end(), _manifest.unit) != units.end(), "unit",
            "must be um, mm, cm, m or in");
    }

    void _inverted(const Json& v)
    {
        _refuse_unless(v.is_boolean(), "inverted_code", "must be true or false");
        _manifest.inverted_code = v.get<bool>();
    }

    void _frames(const Json& v)
    {
        const bool both = v.is_object() && v.size() == 2 && v.contains("cam0") && v.contains("cam1");
        _refuse_unless(both, "frames", "must hold two lists of file names, cam0 and cam1");
        std::set<fs::path> seen;
        for (std::size_t c = 0; c < 2; ++c) {
            const std::string key = "frames.cam" + std::to_string(c);
            const Json& names = v[c == 0 ? "cam0" : "cam1"];
            _refuse_unless(names.is_array() && !names.empty() && names.size() <= frame_count(Method::multi_phase), key,
                "must be a list of as many file names as the method has frames");
            for (const Json& name : names)
                _manifest.frames[c].push_back(_path(name, key, seen));
        }
        _refuse_unless(_manifest.frames[0].size() == _manifest.frames[1].size(), "frames",
            "must name as many files for cam0 as for cam1");
    }

    void _exposures(const Json& v)
    {
        _refuse_unless(v.is_array() && v.size() >= least_exposures && v.size() <= most_exposures, "exposures",
            "must be a list of 2 to 8 folders");
        std::set<fs::path> seen;
        for (const Json& name : v) {
            _refuse_unless(name.is_string() && !name.get<std::string>().empty(), "exposures", "must hold folders");
            const fs::path inside = _inside(name.get<std::string>(), "exposures", seen);
            std::error_code ignored;
            _refuse_unless(
                fs::is_directory(_folder / inside, ignored), "exposures: " + inside.string(), "is no folder");
            _manifest.exposures.push_back((_folder / inside).string());
        }
    }

    /// A path inside of the capture's folder that was not named yet.
    fs::path _inside(const std::string& name, const std::string& key, std::set<fs::path>& seen) const
    {
        _refuse_unless(name.size() <= longest_name, key, "holds a name of more than 255 bytes");
        fs::path inside = fs::path(name).lexically_normal();
        _refuse_unless(name.find('\0') == std::string::npos && inside.is_relative() && *inside.begin() != "..",
            key + ": " + name.c_str(), "leaves the folder of the capture");
        _refuse_unless(seen.insert(inside).second, key + ": " + name, "is named twice");
        return inside;
    }

    /// Path of a frame, "" for null.
    std::string _path(const Json& v, const std::string& key, std::set<fs::path>& seen) const
    {
        if (v.is_null()) return "";
        _refuse_unless(v.is_string() && !v.get<std::string>().empty(), key,
            "must hold file names, and null for a frame that was not recorded");
        const std::string name = v.get<std::string>();
        const fs::path inside = _inside(name, key, seen);
        std::error_code ignored;
        std::string path = (_folder / inside).string();
        _refuse_unless(fs::is_regular_file(path, ignored), key + ": " + name, "does not exist");
        return path;
    }

    fs::path _folder;
    Manifest _manifest;
};

} // namespace

std::optional<Manifest> read_manifest(const std::string& folder)
{
    if (folder.empty()) return std::nullopt;
    const std::string path = (fs::path(folder) / manifest_name).string();
    std::error_code error;
    if (fs::symlink_status(path, error).type() == fs::file_type::not_found) return std::nullopt;
    return ManifestReader(folder, path).read(read_json(path));
}

std::optional<Manifest> manifest_of_capture(const std::string& folder)
{
    std::optional<Manifest> manifest = read_manifest(folder);
    if (manifest && !manifest->exposures.empty())
        throw Failure(manifest->path + ": lists exposures, which vexo measure merges; name one of their folders");
    return manifest;
}

} // namespace vexo
