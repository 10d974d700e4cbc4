#include "base/failure.h"
#include "host/files/byte_file.h"
#include "host/files/json_file.h"
#include "host/files/shape.h"

#include <limits>

namespace vexo {

namespace {

// Numbers of the format.
constexpr int of_floats = 5126, of_bytes = 5121, of_words = 5125;
constexpr int vertex_data = 34962, index_data = 34963;
constexpr int mode_points = 0, mode_triangles = 4;

/// The binary part, and what the JSON part says of it.
class Buffers {
public:
    explicit Buffers(std::size_t expected)
        : _data(expected)
    {
    }

    /// The number of the accessor, of which more may be said.
    template <typename Item>
    std::size_t add(const std::vector<Item>& items, const char* type, int component, int target)
    {
        const std::size_t begin = _data.size();
        for (const Item& item : items)
            _data.put(item);
        _views.push_back(
            { { "buffer", 0 }, { "byteOffset", begin }, { "byteLength", _data.size() - begin }, { "target", target } });
        _accessors.push_back({ { "bufferView", _views.size() - 1 }, { "componentType", component },
            { "count", items.size() }, { "type", type } });
        return _accessors.size() - 1;
    }
    Json& accessor(std::size_t number) { return _accessors[number]; }

    void say(Json& gltf) const
    {
        gltf["buffers"] = Json::array({ { { "byteLength", _data.size() } } });
        gltf["bufferViews"] = _views;
        gltf["accessors"] = _accessors;
    }
    std::vector<unsigned char> take() { return _data.take(); }

private:
    ByteFile _data;
    Json _views = Json::array(), _accessors = Json::array();
};

Json numbers_of(const cv::Vec3f& v)
{
    return { v[0], v[1], v[2] };
}

Json primitive_of(const Shape& shape, Buffers& buffers)
{
    const std::vector<cv::Point3f> points = in_metres_y_up(shape);
    std::vector<cv::Vec3f> normals;
    for (const cv::Vec3f& normal : shape.normals)
        normals.push_back(y_up(normal));
    std::vector<cv::Vec4b> colours;
    for (const unsigned char grey : shape.grey)
        colours.emplace_back(grey, grey, grey, 255);
    std::vector<float> sigma;
    for (const float s : shape.sigma)
        sigma.push_back(s >= 0.0F ? static_cast<float>(static_cast<double>(s) * shape.in_mm / 1000.0) : -1.0F);

    const std::size_t position = buffers.add(points, "VEC3", of_floats, vertex_data);
    const Bounds bounds = bounds_of(points);
    buffers.accessor(position).update({ { "min", numbers_of(bounds.low) }, { "max", numbers_of(bounds.high) } });
    const std::size_t colour = buffers.add(colours, "VEC4", of_bytes, vertex_data);
    buffers.accessor(colour)["normalized"] = true;
    Json primitive { { "attributes",
                         { { "POSITION", position }, { "NORMAL", buffers.add(normals, "VEC3", of_floats, vertex_data) },
                             { "COLOR_0", colour } } },
        { "material", 0 }, { "mode", shape.is_mesh() ? mode_triangles : mode_points } };
    if (!sigma.empty()) primitive["attributes"]["_SIGMA"] = buffers.add(sigma, "SCALAR", of_floats, vertex_data);
    if (!shape.is_mesh()) return primitive;
    const std::size_t indices = buffers.add(shape.triangles, "SCALAR", of_words, index_data);
    buffers.accessor(indices)["count"] = 3 * shape.triangles.size();
    primitive["indices"] = indices;
    return primitive;
}

/// A part of the file, filled up to whole words.
void put_chunk(ByteFile& file, const char (&type)[5], const std::vector<unsigned char>& bytes, char filling)
{
    const std::size_t padding = (4 - bytes.size() % 4) % 4;
    file.put(static_cast<std::uint32_t>(bytes.size() + padding));
    file.text({ type, 4 });
    file.text({ reinterpret_cast<const char*>(bytes.data()), bytes.size() });
    file.text(std::string(padding, filling));
}

} // namespace

std::vector<unsigned char> make_glb(const Shape& shape)
{
    Buffers buffers(shape.points.size() * 32 + shape.triangles.size() * 12);
    const Json primitive = primitive_of(shape, buffers);
    const Json dull { { "metallicFactor", 0.0 }, { "roughnessFactor", 1.0 } };
    Json gltf { { "asset",
                    { { "version", "2.0" }, { "generator", "vexo" }, { "extras", { { "notes", shape.notes } } } } },
        { "scene", 0 }, { "scenes", Json::array({ { { "nodes", Json::array({ 0 }) } } }) },
        { "nodes", Json::array({ { { "mesh", 0 } } }) },
        { "meshes", Json::array({ { { "primitives", Json::array({ primitive }) } } }) },
        { "materials", Json::array({ { { "pbrMetallicRoughness", dull }, { "doubleSided", true } } }) } };
    buffers.say(gltf);
    const std::string json = gltf.dump(-1, ' ', false, Json::error_handler_t::replace);
    const std::vector<unsigned char> data = buffers.take();
    ByteFile file(json.size() + data.size() + 64);
    file.text("glTF");
    file.put(std::uint32_t { 2 });
    const auto padded = [](std::size_t bytes) { return (bytes + 3) / 4 * 4; };
    constexpr std::size_t headers = 12 + 8 + 8;
    const std::size_t total = headers + padded(json.size()) + padded(data.size());
    if (total > std::numeric_limits<std::uint32_t>::max())
        throw Failure("a GLB holds 4 GB at most, and this would be more; write a PLY");
    file.put(static_cast<std::uint32_t>(total));
    put_chunk(file, "JSON", { json.begin(), json.end() }, ' ');
    put_chunk(file, { 'B', 'I', 'N', '\0', '\0' }, data, '\0');
    return file.take();
}

} // namespace vexo
