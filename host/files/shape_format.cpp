#include "host/files/shape_format.h"

#include "base/failure.h"

#include <algorithm>
#include <filesystem>

namespace vexo {

namespace {

constexpr ShapeFormat formats[] = {
    { "ply", true, true, false, make_ply },
    { "stl", true, false, false, make_stl },
    { "glb", true, true, true, make_glb },
    { "obj", true, true, false, make_obj },
    { "pcd", false, true, false, make_pcd },
    { "xyz", false, true, false, make_xyz },
};

std::string small_letters(std::string text)
{
    for (char& c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return text;
}

} // namespace

const ShapeFormat& shape_format_of(const std::string& path)
{
    const std::string extension = small_letters(std::filesystem::path(path).extension().string());
    std::string known;
    for (const ShapeFormat& format : formats) {
        if (extension == std::string(".") + format.extension) return format;
        known += std::string(known.empty() ? "" : ", ") + "." + format.extension;
    }
    throw UsageFailure(path + ": its extension names no format; those there are: " + known);
}

bool holds_mesh(const std::string& path, bool mesh_asked, bool points_asked)
{
    const ShapeFormat& format = shape_format_of(path);
    const std::string name = small_letters(std::filesystem::path(path).stem().string());
    const bool for_meshes = std::string(format.extension) != "ply" && format.meshes;
    const bool mesh = mesh_asked || (!points_asked && (name == "mesh" || (name != "cloud" && for_meshes)));
    if (mesh && !format.meshes)
        throw UsageFailure(path + ": this format has no triangles; say --points, or write .ply, .stl, .glb or .obj");
    if (!mesh && !format.points)
        throw UsageFailure(path + ": this format has triangles alone; say --mesh, or write .ply, .pcd or .xyz");
    return mesh;
}

} // namespace vexo
