#include "base/failure.h"
#include "host/files/json_file.h"
#include "host/files/ply.h"
#include "host/files/shape.h"
#include "host/files/shape_format.h"
#include "support/refusal.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>

namespace {

using namespace vexo;

/// A fan of triangles about its first point; of 1 or 2 points a cloud.
Shape fan(std::size_t count, bool sigma = true)
{
    Shape shape;
    for (std::size_t i = 0; i < count; ++i) {
        const auto a = 0.3F * static_cast<float>(i);
        shape.points.emplace_back(i == 0 ? 0.0F : std::cos(a), i == 0 ? 0.0F : std::sin(a), 500.0F);
        shape.normals.emplace_back(0.0F, 0.0F, 1.0F);
        shape.grey.push_back(static_cast<unsigned char>(255 - i));
        if (sigma) shape.sigma.push_back(i % 3 == 1 ? std::nanf("") : 0.01F * static_cast<float>(i + 1));
        if (i >= 2) shape.triangles.push_back({ 0U, static_cast<std::uint32_t>(i - 1), static_cast<std::uint32_t>(i) });
    }
    shape.unit = "mm";
    shape.notes = { "made by a test", "unit mm" };
    return shape;
}

template <class Number> Number at(const std::vector<unsigned char>& bytes, std::size_t offset)
{
    Number number {};
    if (offset + sizeof number > bytes.size()) throw std::out_of_range("a number beyond the end of the file");
    std::memcpy(&number, bytes.data() + offset, sizeof number);
    return number;
}

std::string text_of(const std::vector<unsigned char>& bytes)
{
    return { bytes.begin(), bytes.end() };
}

/// A GLB taken to pieces by what its format demands.
class Glb {
public:
    explicit Glb(std::vector<unsigned char> bytes)
        : _bytes(std::move(bytes))
    {
        EXPECT_EQ(text_of(_bytes).substr(0, 4), "glTF");
        EXPECT_EQ(at<std::uint32_t>(_bytes, 4), 2U);
        EXPECT_EQ(at<std::uint32_t>(_bytes, 8), _bytes.size());
        const std::size_t first = at<std::uint32_t>(_bytes, 12), second = 20 + first;
        EXPECT_EQ(text_of(_bytes).substr(16, 4), "JSON");
        EXPECT_EQ(text_of(_bytes).substr(second + 4, 4), std::string("BIN\0", 4));
        EXPECT_EQ(first % 4, 0U) << "chunks are padded to four bytes";
        EXPECT_EQ(at<std::uint32_t>(_bytes, second) % 4, 0U);
        _binary = second + 8;
        EXPECT_EQ(_binary + at<std::uint32_t>(_bytes, second), _bytes.size());
        json = parse_json(text_of(_bytes).substr(20, first)).value();
    }

    /// Where the numbers of an accessor begin, which must lie in its view, and the view in the buffer.
    std::size_t begin_of(std::size_t accessor) const
    {
        const Json& a = json["accessors"][accessor];
        const Json& view = json["bufferViews"][a["bufferView"].get<std::size_t>()];
        const std::size_t in_view = a.value("byteOffset", std::size_t { 0 });
        const std::size_t begin = view.value("byteOffset", std::size_t { 0 }), length = view["byteLength"];
        const std::size_t stride = view.value("byteStride", element(a)), count = a["count"];
        EXPECT_EQ((begin + in_view) % component(a), 0U) << "numbers stand at multiples of their size";
        EXPECT_EQ(stride % component(a), 0U);
        EXPECT_LE(in_view + stride * (count - 1) + element(a), length);
        EXPECT_LE(begin + length, json["buffers"][0]["byteLength"].get<std::size_t>());
        EXPECT_LE(_binary + begin + length, _bytes.size());
        return _binary + begin + in_view;
    }
    static std::size_t component(const Json& accessor)
    {
        const int type = accessor["componentType"];
        return type == 5120 || type == 5121 ? 1 : type == 5122 || type == 5123 ? 2 : 4;
    }
    static std::size_t element(const Json& accessor)
    {
        const std::string type = accessor["type"];
        return component(accessor) * (type == "SCALAR" ? 1U : type == "VEC3" ? 3U : 4U);
    }
    const std::vector<unsigned char>& bytes() const { return _bytes; }

    Json json;

private:
    std::vector<unsigned char> _bytes;
    std::size_t _binary = 0;
};

TEST(ShapeFiles, EachAccessorOfAGlbLiesAlignedInItsBufferWhateverTheCounts)
{
    for (const std::size_t count : { 1, 2, 3, 4, 5, 6, 7, 255, 256, 257 })
        for (const bool sigma : { false, true }) {
            SCOPED_TRACE(std::to_string(count) + (sigma ? " with sigma" : ""));
            const Glb glb(make_glb(fan(count, sigma)));
            for (std::size_t k = 0; k < glb.json["accessors"].size(); ++k)
                glb.begin_of(k);
            const Json& attributes = glb.json["meshes"][0]["primitives"][0]["attributes"];
            EXPECT_EQ(attributes.contains("_SIGMA"), sigma);
            for (const auto& [name, accessor] : attributes.items())
                EXPECT_EQ(glb.json["accessors"][accessor.get<std::size_t>()]["count"], count) << name;
        }
}

TEST(ShapeFiles, AGlbHoldsMetresWithYUpItsBoundsAndNoNaN)
{
    const Shape shape = fan(6);
    const Glb glb(make_glb(shape));
    const Json& primitive = glb.json["meshes"][0]["primitives"][0];
    const std::size_t position = primitive["attributes"]["POSITION"], sigma = primitive["attributes"]["_SIGMA"];
    const std::size_t points = glb.begin_of(position), sigmas = glb.begin_of(sigma);
    const Json& accessor = glb.json["accessors"][position];
    for (std::size_t i = 0; i < 6; ++i) {
        for (std::size_t k = 0; k < 3; ++k) {
            const auto value = at<float>(glb.bytes(), points + 4 * (3 * i + k));
            const cv::Vec3f mm = shape.points[i];
            EXPECT_FLOAT_EQ(value, 1e-3F * (k == 0 ? mm[0] : -mm[static_cast<int>(k)]));
            EXPECT_LE(accessor["min"][k].get<float>(), value) << "a viewer culls by these";
            EXPECT_GE(accessor["max"][k].get<float>(), value);
        }
        const auto known = at<float>(glb.bytes(), sigmas + 4 * i);
        EXPECT_FLOAT_EQ(known, i % 3 == 1 ? -1.0F : 1e-3F * shape.sigma[i]);
    }
}

TEST(ShapeFiles, TrianglesOfAGlbNameItsOwnPointsInTheOrderGiven)
{
    const Shape shape = fan(257);
    const Glb glb(make_glb(shape));
    const std::size_t indices = glb.json["meshes"][0]["primitives"][0]["indices"];
    ASSERT_EQ(glb.json["accessors"][indices]["count"], 3 * shape.triangles.size());
    const std::size_t begin = glb.begin_of(indices), wide = Glb::component(glb.json["accessors"][indices]);
    for (std::size_t i = 0; i < 3 * shape.triangles.size(); ++i) {
        const std::uint32_t index
            = wide == 4 ? at<std::uint32_t>(glb.bytes(), begin + 4 * i) : at<std::uint16_t>(glb.bytes(), begin + 2 * i);
        ASSERT_EQ(index, shape.triangles[i / 3][i % 3]) << i;
    }
}

TEST(ShapeFiles, AnStlHasFiftyBytesATriangleWhoseNormalFollowsItsCorners)
{
    Shape shape = fan(9);
    shape.points[4].z += 0.5F; // so that not all normals are alike
    const auto bytes = make_stl(shape);
    ASSERT_EQ(bytes.size(), 84 + 50 * shape.triangles.size());
    EXPECT_EQ(at<std::uint32_t>(bytes, 80), shape.triangles.size());
    EXPECT_NE(text_of(bytes).substr(0, 5), "solid") << "a reader would expect text";
    for (std::size_t t = 0; t < shape.triangles.size(); ++t) {
        std::array<cv::Vec3f, 4> v; // the normal, and three corners
        for (std::size_t k = 0; k < 12; ++k)
            v[k / 3][static_cast<int>(k % 3)] = at<float>(bytes, 84 + 50 * t + 4 * k);
        const cv::Vec3f right = cv::normalize((v[2] - v[1]).cross(v[3] - v[1]));
        EXPECT_LT(cv::norm(v[0] - right), 1e-5) << t; // of floats
        EXPECT_LT(cv::norm(v[1] - cv::Vec3f(shape.points[shape.triangles[t][0]])), 1e-12);
    }
}

TEST(ShapeFiles, ThePointsOfAPlyComeBackWithTheirSigma)
{
    for (const std::size_t count : { 1, 2, 3, 8 }) {
        const Shape shape = fan(count);
        const std::string bytes = text_of(make_ply(shape));
        const PlyHeader header = parse_ply_header(bytes, "it");
        EXPECT_EQ(header.vertices, count);
        const std::size_t faces = shape.triangles.size() * (1 + 3 * sizeof(std::uint32_t));
        EXPECT_EQ(bytes.size(), header.body + count * header.stride + faces);
        for (std::size_t i = 0; i < count; ++i)
            for (const PlyHeader::Property& p : header.properties) {
                float value = 0;
                std::memcpy(&value, bytes.data() + header.body + i * header.stride + p.offset, p.bytes);
                const bool right = p.name == "z" ? value == 500.0F
                    : p.name == "nz"             ? value == 1.0F
                                                 : p.name != "sigma" || std::isnan(value) == (i % 3 == 1);
                EXPECT_TRUE(right) << p.name << " of " << i;
            }
    }
}

TEST(ShapeFiles, AnObjCountsFromOneAndNamesNoPointThatItLacks)
{
    const Shape shape = fan(7);
    std::istringstream text(text_of(make_obj(shape)));
    std::size_t points = 0, normals = 0, faces = 0, least = 99, most = 0;
    for (std::string line, word; std::getline(text, line);) {
        std::istringstream words(line);
        words >> word;
        points += word == "v" ? 1U : 0U;
        normals += word == "vn" ? 1U : 0U;
        faces += word == "f" ? 1U : 0U;
        for (std::string corner; word == "f" && words >> corner;) {
            least = std::min<std::size_t>(least, std::stoul(corner));
            most = std::max<std::size_t>(most, std::stoul(corner));
        }
    }
    EXPECT_EQ(points, 7U);
    EXPECT_EQ(normals, 7U);
    EXPECT_EQ(faces, shape.triangles.size());
    EXPECT_EQ(least, 1U);
    EXPECT_EQ(most, 7U);
}

TEST(ShapeFiles, APcdAndTheLinesOfAnXyzHoldAsManyPointsAsTheySay)
{
    Shape shape = fan(5);
    shape.triangles.clear();
    const std::string pcd = text_of(make_pcd(shape)), marker = "DATA binary\n";
    EXPECT_NE(pcd.find("\nPOINTS 5\n"), std::string::npos);
    EXPECT_EQ(pcd.size() - pcd.find(marker) - marker.size(), 5U * 8U * sizeof(float));
    std::istringstream lines(text_of(make_xyz(shape)));
    std::size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        cv::Vec3f p;
        std::istringstream(line) >> p[0] >> p[1] >> p[2];
        EXPECT_EQ(p, cv::Vec3f(shape.points[count])) << "the shortest text reads as the same float";
    }
    EXPECT_EQ(count, 5U);
}

TEST(ShapeFiles, AreChosenByTheirExtensionAndNoFormatHoldsWhatItHasNoRoomFor)
{
    EXPECT_STREQ(shape_format_of("a/B.GLB").extension, "glb");
    for (const std::string bad : { "cloud", "cloud.", "a.glb/cloud", "cloud.png", ".stl.bak", "" })
        EXPECT_TRUE(is_one_line(refusal([&] { shape_format_of(bad); }))) << bad;
    EXPECT_TRUE(is_one_line(refusal([] { holds_mesh("out.pcd", true, false); })));
    EXPECT_TRUE(is_one_line(refusal([] { holds_mesh("out.stl", false, true); })));
}

} // namespace
