#include "host/results/provenance.h"

#include "base/parallel.h"
#include "base/whole_file.h"
#include "host/files/hash.h"

#include <filesystem>
#include <limits>

namespace vexo {

Json named_hash(const std::string& path, const std::string& hash)
{
    return { { "file", std::filesystem::path(path).filename().string() }, { "sha256", hash } };
}

Json hashes_of(const std::vector<std::string>& paths)
{
    std::vector<Json> files(paths.size());
    in_parallel(paths.size(), [&](std::size_t i) {
        std::string bytes;
        files[i] = { { "file", std::filesystem::path(paths[i]).filename().string() }, { "sha256", nullptr } };
        if (read_file(paths[i], std::numeric_limits<std::size_t>::max(), bytes)) files[i]["sha256"] = sha256(bytes);
    });
    return Json(files);
}

std::string hash_of(const Json& json)
{
    return sha256(json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

} // namespace vexo
