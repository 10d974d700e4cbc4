#include "photo_folders.h"

#include "base/failure.h"

#include <CLI/CLI.hpp>

#include <filesystem>

namespace vexo::app {

namespace fs = std::filesystem;

void add_photos(CLI::App& command, PhotoFolders& photos)
{
    command.add_option("folder", photos.folder, "folder with cam0/ and cam1/ (one camera: cam0/ alone)");
    command.add_option("--cam0", photos.cam0, "pictures of camera 0: a folder, or a pattern in quotes");
    command.add_option("--cam1", photos.cam1, "pictures of camera 1; they pair by the numbers in their names");
}

void complete(PhotoFolders& photos)
{
    std::error_code ignored;
    if (photos.folder.empty() && photos.cam0.empty())
        throw UsageFailure("name a folder with cam0/ and cam1/, or give --cam0 and --cam1 (one camera: --cam0 alone)");
    if (!photos.folder.empty() && !fs::is_directory(photos.folder, ignored))
        throw Failure(photos.folder + ": there is no such folder");
    const fs::path folder(photos.folder);
    if (photos.cam0.empty()) photos.cam0 = (folder / "cam0").string();
    if (photos.cam1.empty() && !photos.folder.empty() && fs::is_directory(folder / "cam1", ignored))
        photos.cam1 = (folder / "cam1").string();
}

} // namespace vexo::app
