#pragma once

#include "host/files/shape.h"

#include <string>
#include <vector>

namespace vexo {

/// A format for other programs.
struct ShapeFormat {
    const char* extension; ///< without the point
    bool meshes, points;   ///< what it has room for
    bool metres_y_up;      ///< else in the unit and axes of the shape
    std::vector<unsigned char> (*make)(const Shape&);
};

/// The format of a file by its extension, in small or capital letters. Throws UsageFailure that lists those there are.
const ShapeFormat& shape_format_of(const std::string& path);

/// Whether a file is to hold a mesh: as it is asked for, else as it is named, mesh.* or cloud.*, else triangles where
/// these are what the format is for. Throws UsageFailure where the format has no room for it.
bool holds_mesh(const std::string& path, bool mesh_asked, bool points_asked);

} // namespace vexo
