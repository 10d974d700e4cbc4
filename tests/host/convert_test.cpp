#include "host/results/convert.h"

#include "base/pictures.h"
#include "host/cameras/pair_files.h"
#include "host/cameras/rectification.h"
#include "host/files/marker.h"
#include "host/files/ply.h"
#include "host/files/shape_format.h"
#include "host/results/provenance.h"
#include "support/folder.h"

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <limits>
#include <sstream>

namespace {

using namespace vexo;

constexpr int width = 64, height = 48;
constexpr double f = 80, cx = 30, cy = 25;

/// What a text says of why it failed; empty: it did not.
std::string why_refused(const std::function<void()>& work)
{
    try {
        work();
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "";
}

/// The folder of a result in cm: a hill, and a hole in it.
class Convert : public testing::Test {
protected:
    Convert()
    {
        cv::Mat texture(height, width, CV_8U), sigma(height, width, CV_32F, cv::Scalar(0.01));
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const float z = 60.0F - 0.004F * static_cast<float>((x - 30) * (x - 30) + (y - 20) * (y - 20));
                const bool hole = x > 40 && x < 50 && y > 10 && y < 30;
                depth.at<float>(y, x) = hole ? std::numeric_limits<float>::quiet_NaN() : z;
                points.emplace_back((x - cx) / f * z, (y - cy) / f * z, depth.at<float>(y, x));
                texture.at<uchar>(y, x) = static_cast<uchar>(x + y);
            }
        sigma.at<float>(0, 0) = std::numeric_limits<float>::quiet_NaN(); // of one point nobody knows it
        report
            = { { "method", "sgbm" }, { "unit", "cm" }, { "input", { { "calib", { folder / "calib/cameras.yaml" } } } },
                  { "camera",
                      { { "f", f }, { "cx", cx }, { "cy", cy }, { "baseline", 16 }, { "disparity_at_infinity", 0 },
                          { "input_size", { width, height } }, { "output_size", { width, height } }, { "alpha", -1 },
                          { "flags", 0 } } },
                  { "seconds", { { "decode_and_rectify", 0 }, { "match_and_triangulate", 0 } } } };
        put_bytes("cloud.ply", make_ply(points, texture, "test", sigma));
        put_bytes("depth.tiff", encode(".tiff", depth));
        put_bytes("texture.png", encode(".png", texture));
        put(folder / "report.json", json_text(report));
    }

    void put_bytes(const std::string& name, const std::vector<unsigned char>& bytes) const
    {
        put(folder / name, { bytes.begin(), bytes.end() });
    }

    static ConvertRequest to(const std::string& name)
    {
        ConvertRequest request;
        request.file = name;
        request.mesh = holds_mesh(name, false, false);
        return request;
    }

    /// Writes the file, and says what was told of it.
    Json made(const ConvertRequest& request) const
    {
        const Converted converted = convert(folder / "", request, nullptr);
        put_bytes(request.file, converted.bytes);
        return converted.figures;
    }

    std::string refusal(const ConvertRequest& request) const
    {
        return why_refused([&] { convert(folder / "", request, nullptr); });
    }

    Folder folder;
    cv::Mat depth = cv::Mat(height, width, CV_32F);
    std::vector<cv::Point3f> points;
    Json report;
};

/// What assimp says after a word in its list of a file.
double said(const std::string& info, const std::string& word, int number = 0)
{
    const std::size_t at = info.find(word);
    if (at == std::string::npos) return NAN;
    std::string rest = info.substr(at + word.size(), 200);
    std::replace(rest.begin(), rest.end(), '(', ' ');
    std::istringstream numbers(rest);
    double value = NAN;
    for (int i = 0; i <= number; ++i)
        numbers >> value;
    return value;
}

/// Corners of a text OBJ's faces whose normal, or whose turn, points away from a camera at the origin.
int turned_away(const std::string& obj)
{
    std::vector<cv::Vec3d> v, vn;
    std::istringstream lines(obj);
    int away = 0, faces = 0;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string word;
        words >> word;
        if (word == "v" || word == "vn") {
            cv::Vec3d& to = (word == "v" ? v : vn).emplace_back();
            words >> to[0] >> to[1] >> to[2];
        }
        if (word != "f") continue;
        std::size_t at[3], normal[3];
        for (int k = 0; k < 3; ++k) {
            words >> word;
            at[k] = std::stoul(word) - 1;
            normal[k] = std::stoul(word.substr(word.rfind('/') + 1)) - 1;
            away += vn.at(normal[k]).dot(v.at(at[k])) >= 0;
        }
        away += (v[at[1]] - v[at[0]]).cross(v[at[2]] - v[at[0]]).dot(v[at[0]]) >= 0;
        ++faces;
    }
    return faces == 0 ? -1 : away;
}

TEST_F(Convert, IsReadByAnotherProgramWithTheCountsBoundsAndSidesThatWereTold)
{
    if (std::system("assimp version > /dev/null 2>&1") != 0) GTEST_SKIP() << "no assimp: install assimp-utils";
    for (const char* name : { "mesh.ply", "mesh.stl", "mesh.glb", "mesh.obj", "cloud.glb", "cloud.obj" }) {
        const Json told = made(to(name));
        const std::string in = folder / name, info = folder / "info", obj = folder / "read.obj";
        const bool mesh = told["kind"] == "mesh", alone = std::string(name) == "mesh.stl"; // each triangle for itself
        const std::string joined = alone ? " -r > " : " > ";                               // by assimp, where not -r
        ASSERT_EQ(std::system(("assimp info " + in + joined + info + " 2>&1").c_str()), 0) << content(info);
        const double vertices = told["vertices"], triangles = told["triangles"];
        EXPECT_EQ(vertices, width * height - 9 * 19) << name;
        EXPECT_EQ(triangles, mesh ? 2 * (63 * 47 - 10 * 20) + 4 : 0)
            << name << ": one is left at each corner of the hole";
        EXPECT_EQ(said(content(info), "Vertices:"), alone ? 3 * triangles : vertices) << name;
        EXPECT_EQ(said(content(info), "Faces:"), mesh ? triangles : vertices) << name;
        for (int k = 0; k < 3; ++k) { // six decimals are told
            EXPECT_NEAR(said(content(info), "Minimum point", k), told["bounds"]["low"][k].get<double>(), 1e-6) << name;
            EXPECT_NEAR(said(content(info), "Maximum point", k), told["bounds"]["high"][k].get<double>(), 1e-6) << name;
        }
        if (!mesh) continue;
        ASSERT_EQ(std::system(("assimp export " + in + " " + obj + " > " + info + " 2>&1").c_str()), 0)
            << content(info);
        EXPECT_EQ(turned_away(content(obj)), 0) << name;
    }
    const Json metres = made(to("mesh.glb"));
    EXPECT_EQ(metres["unit"], "m");
    EXPECT_LT(metres["bounds"]["high"][2].get<double>(), -0.4) << "cm became metres, and z looks at the viewer";
}

TEST_F(Convert, KeepsPointsSigmaAndGreyOfEachPixelInItsOrder)
{
    made(to("a.ply"));
    const PlyCloud before = read_ply_cloud(folder / "cloud.ply"), after = read_ply_cloud(folder / "a.ply");
    EXPECT_EQ(after.points, before.points);
    ASSERT_EQ(after.sigma.size(), before.sigma.size());
    EXPECT_TRUE(std::isnan(after.sigma[0]));
    EXPECT_TRUE(std::equal(after.sigma.begin() + 1, after.sigma.end(), before.sigma.begin() + 1));
    const std::string ply = content(folder / "a.ply");
    EXPECT_NE(ply.find("comment vexo: unit cm\ncomment axes: rectified camera 0"), std::string::npos);
    const std::size_t body = ply.find("end_header\n") + 11, stride = 31;
    EXPECT_EQ(ply[body + 5 * stride + 24], 5) << "grey of the sixth pixel of the first row";
    ConvertRequest some = to("cloud.pcd");
    some.every = 7;
    EXPECT_EQ(made(some)["vertices"], (after.points.size() + 6) / 7);
    const std::string pcd = content(folder / "cloud.pcd");
    const std::size_t data = pcd.find("DATA binary\n") + 12;
    EXPECT_EQ(pcd.size() - data, 32 * ((after.points.size() + 6) / 7));
    EXPECT_EQ(std::memcmp(pcd.data() + data + 32, &before.points[7], 12), 0);
    made(to("cloud.xyz"));
    std::ifstream xyz(folder / "cloud.xyz");
    for (const cv::Point3f& point : before.points) {
        cv::Vec3f read, normal;
        xyz >> read[0] >> read[1] >> read[2] >> normal[0] >> normal[1] >> normal[2];
        ASSERT_EQ(cv::Point3f(read), point) << "the shortest text reads as the same number";
        ASSERT_NEAR(cv::norm(normal), 1, 1e-6);
    }
}

TEST_F(Convert, SmoothsPointsAlongTheirLinesOfSightOnceAndWithTheSigmaOfTheFit)
{
    ConvertRequest request = to("a.ply");
    request.smooth = true;
    cv::RNG rng(3);
    cv::Mat sigma(height, width, CV_32F, cv::Scalar(0.01));
    const std::vector<cv::Point3f> exact = points;
    for (std::size_t i = 0; i < points.size(); ++i) {
        points[i] *= (exact[i].z + rng.gaussian(0.01)) / exact[i].z;
        depth.at<float>(static_cast<int>(i)) = points[i].z;
    }
    const cv::Mat texture(height, width, CV_8U, cv::Scalar(9));
    put_bytes("depth.tiff", encode(".tiff", depth));
    put_bytes("cloud.ply", make_ply(points, texture, "test", sigma));
    EXPECT_EQ(made(request)["smoothed"], (width - 2) * (height - 2) - 4 - 9 * 19 - 2 * (3 + 13))
        << "4 x 7 px at a rim are too few, and so are 5 x 5 in a corner";
    const PlyCloud before = read_ply_cloud(folder / "cloud.ply"), after = read_ply_cloud(folder / "a.ply");
    ASSERT_EQ(after.points.size(), before.points.size());
    double was = 0, is = 0;
    for (std::size_t i = 0, k = 0; i < exact.size(); ++i) {
        if (std::isnan(exact[i].z)) continue;
        const cv::Point3f &p = after.points[k], &q = before.points[k++];
        ASSERT_LT(std::hypot(p.x / p.z - q.x / q.z, p.y / p.z - q.y / q.z), 1e-6) << "seen at its pixel";
        was += std::pow(q.z - exact[i].z, 2);
        is += std::pow(p.z - exact[i].z, 2);
    }
    EXPECT_LT(is, 0.4 * was) << "quadratics keep 0.14 of the variance, more at the rim";
    EXPECT_LT(*std::max_element(after.sigma.begin() + 500, after.sigma.end() - 500), 0.011);
    EXPECT_LT(after.sigma[10 * width + 20], 0.007);
    EXPECT_NE(content(folder / "a.ply").find("comment smoothed by quadratics"), std::string::npos);
    report["parameters"]["smooth"] = true;
    put(folder / "report.json", json_text(report));
    EXPECT_NE(refusal(request).find("smoothed already"), std::string::npos);
    report["parameters"]["smooth"] = false;
    put(folder / "report.json", json_text(report));
    put_bytes("cloud.ply", make_ply(points, texture, "test"));
    EXPECT_NE(refusal(request).find("they have none"), std::string::npos);
}

TEST_F(Convert, CutsByABoxInMillimetresBeforeItTurnsIntoAFrame)
{
    put(folder / "turned.txt", "# z to the left\n0 0 1 5\n0 1 0, 0\n-1 0 0 60\n0 0 0 1\n");
    ConvertRequest request = to("a.ply");
    request.frame = folder / "turned.txt";
    request.box = cv::Vec6d(0, -1000, 0, 1000, 1000, 1000); // the right half
    const Json told = made(request);
    const PlyCloud all = read_ply_cloud(folder / "cloud.ply"), cut = read_ply_cloud(folder / "a.ply");
    std::size_t i = 0;
    for (const cv::Point3f& p : all.points) {
        if (!(p.x >= 0)) continue;
        ASSERT_LT(i, cut.points.size());
        const cv::Point3f back(cut.points[i].z + 5, cut.points[i].y, 60 - cut.points[i].x); // RT of the file
        EXPECT_LT(cv::norm(back - p), 1e-5) << i;
        ++i;
    }
    EXPECT_EQ(i, cut.points.size());
    EXPECT_EQ(told["frame"], "turned.txt");
    request.box = cv::Vec6d(0, 0, 0, 1, 1, 1);
    EXPECT_NE(refusal(request).find("the cloud spans x "), std::string::npos);
}

TEST_F(Convert, RefusesAFrameThatIsNoRigidTransform)
{
    ConvertRequest request = to("mesh.ply");
    request.frame = folder / "frame";
    for (const auto& [text, why] : std::vector<std::pair<std::string, std::string>> { { "1 0 0", "16 numbers" },
             { "1 0 0 0 0 1 0 0 0 0 1.00001 0 0 0 0 1", "scales" }, { "1 0 0 0 0 1 0 0 0 0 -1 0 0 0 0 1", "mirrors" },
             { "1 0 0 0 0 1 0 0 0 0 1 0 5 5 5 1", "last row" }, { "1 0 0 nan 0 1 0 0 0 0 1 0 0 0 0 1", "finite" },
             { "%YAML:1.0\n---\nT: 5\n", "16 numbers" }, { "a b", "16 numbers" },
             { "1 0 0 0 0 1 0 0 0 0 1 3e4 0 0 0 1", "round points by" },
             { "%YAML:1.0\n---\nRT: !!opencv-matrix\n   rows: 4\n   cols: 4\n   dt: d\n   data: [ 1 ]\n",
                 "16 numbers" } }) {
        put(folder / "frame", text);
        EXPECT_NE(refusal(request).find(why), std::string::npos) << text << ": " << refusal(request);
    }
}

TEST_F(Convert, TakesTheBoardsFrameOfTheVeryCalibrationThatWasMeasuredWithAndOfNoOther)
{
    const cv::Matx33d K(f, 0, cx, 0, f, cy, 0, 0, 1), turn(0.8, 0, 0.6, 0, 1, 0, -0.6, 0, 0.8);
    std::array<CalibratedCamera, 2> pair;
    for (CalibratedCamera& camera : pair) {
        camera.size = { width, height };
        camera.K = K;
        camera.D = cv::Mat::zeros(1, 5, CV_64F);
    }
    pair[1].R = turn;
    pair[1].T = { -16, 1, 0 };
    const cv::Matx44d board(0, 1, 0, 3, 1, 0, 0, -2, 0, 0, -1, 58, 0, 0, 0, 1);
    std::filesystem::create_directory(folder / "calib");
    put(folder / "calib/cameras.yaml", cameras_yaml({ pair[0], pair[1] }));
    put(folder / "calib/boardRT.yaml", board_pose_yaml(board));
    const auto say = [&](const cv::Matx33d& rotation) {
        report["made_from"]["calibration"] = hashes_of({ folder / "calib/cameras.yaml" });
        report["camera"]["rectifying_rotation"] = to_json(rotation);
        put(folder / "report.json", json_text(report));
    };
    ConvertRequest request = to("a.ply");
    request.frame = "board";
    EXPECT_NE(refusal(request).find("measure again"), std::string::npos) << "an old report says no hash";
    const cv::Matx33d rotation = rectify(pair, { width, height }, -1, 0, { width, height }).rotation0;
    say(rotation);
    EXPECT_EQ(made(request)["frame"], "calibration board, boardRT.yaml");
    const auto in_frame = read_ply(folder / "a.ply"), before = read_ply(folder / "cloud.ply");
    ASSERT_EQ(in_frame.size(), before.size());
    for (std::size_t i = 0; i < before.size(); ++i) {
        const cv::Point3f& p = in_frame[i];
        ASSERT_LT(cv::norm(cv::Point3f(p.y + 3, p.x - 2, 58 - p.z) - before[i]), 1e-5);
    }
    say(rotation * cv::Matx33d(1, 0, 0, 0, std::cos(1e-6), -std::sin(1e-6), 0, std::sin(1e-6), std::cos(1e-6)));
    EXPECT_NE(refusal(request).find("rectifies otherwise"), std::string::npos);
    say(rotation);
    std::filesystem::copy(folder / "calib", folder / "other");
    put(folder / "calib/cameras.yaml", content(folder / "calib/cameras.yaml") + "# a later one\n");
    EXPECT_NE(refusal(request).find("is another calibration"), std::string::npos);
    request.calibration = folder / "other";
    EXPECT_EQ(refusal(request), "");
    put(folder / "other/.vexo-files.json", marker_text({ { "boardRT.yaml", { "calibrate", { "another hash" } } } }));
    EXPECT_NE(refusal(request).find("boardRT.yaml: was changed"), std::string::npos);
    std::filesystem::remove(folder / "other/boardRT.yaml");
    EXPECT_NE(refusal(request).find("other/boardRT.yaml: is not there"), std::string::npos);
}

TEST_F(Convert, RefusesWhatAFormatHasNoRoomForAndFilesOfTwoMeasurements)
{
    EXPECT_NE(why_refused([] { to("mesh.xyz"); }).find("no triangles"), std::string::npos);
    EXPECT_NE(why_refused([] { to("cloud.stl"); }).find("triangles alone"), std::string::npos);
    EXPECT_NE(why_refused([] { to("a.step"); }).find(".glb"), std::string::npos);
    EXPECT_TRUE(to("part.STL").mesh && to("mesh.ply").mesh && !to("part.ply").mesh && !to("cloud.glb").mesh);
    ConvertRequest request = to("mesh.ply");
    request.every = 2;
    EXPECT_NE(why_invalid(request), nullptr);
    cv::Mat other = depth.clone();
    other.at<float>(3, 3) += 0.001F;
    put_bytes("depth.tiff", encode(".tiff", other));
    EXPECT_NE(refusal(to("mesh.ply")).find("not of one measurement"), std::string::npos);
    put_bytes("depth.tiff", encode(".tiff", depth));
    report["camera"]["cx"] = cx + 0.1;
    put(folder / "report.json", json_text(report));
    EXPECT_NE(refusal(to("mesh.ply")).find("not of one measurement"), std::string::npos);
    put_bytes("depth.tiff", encode(".tiff", depth.rowRange(0, 40)));
    EXPECT_NE(refusal(to("mesh.ply")).find("depth.tiff"), std::string::npos);
}

} // namespace
