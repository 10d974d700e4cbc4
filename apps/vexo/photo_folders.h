#pragma once

#include <string>

namespace CLI {
class App;
} // namespace CLI

/// Where photos of the board are, of one camera or of a pair.
namespace vexo::app {

struct PhotoFolders {
    std::string folder, cam0, cam1;
};

void add_photos(CLI::App& command, PhotoFolders& photos);

/// Completes cam0 and cam1; cam1 stays empty for a single camera. Throws Failure.
void complete(PhotoFolders& photos);

} // namespace vexo::app
