#include "matching/PointCloudGenerator.h"
#include "matching/rig.h"

#include <Eigen/Core>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <limits>
#include <random>

using namespace vexo;

namespace {

/// The base with its disparity map in the test's hands.
struct Generator final : PointCloudGenerator {
    void destroy() override { }
    bool setparams(void*) override { return true; }
    bool setpict(void*, unsigned long, int, int) override { return true; }
    bool loadpict(std::string, int, int) override { return true; }
    bool getpict(unsigned char**, int*, int*, unsigned long*, int, int) override { return true; }
    bool exec() override { return true; }
    void genPC(Method3D, bool) override { }
    using PointCloudGenerator::disparity;
    using PointCloudGenerator::invalid_disparity;
    using PointCloudGenerator::points;
    using PointCloudGenerator::transform;
    using PointCloudGenerator::valid_count;
};

constexpr double invalid = -301.0;

/// A generator on the ideal rig with random disparities, every tenth invalid.
struct Measured {
    rig::Camera camera = rig::make_camera();
    Generator generator;

    Measured()
    {
        generator.init(camera.get());
        generator.invalid_disparity = invalid;
        std::mt19937 rng(3);
        std::uniform_real_distribution<double> disparity(-5.0, 60.0);
        generator.disparity.create(rig::height, rig::width, CV_64F);
        for (int i = 0; i < rig::height * rig::width; ++i)
            generator.disparity.ptr<double>()[i] = rng() % 10 == 0 ? invalid : disparity(rng);
    }
};

bool is_nan_point(const cv::Point3f& p)
{
    uint32_t bits[3];
    std::memcpy(bits, &p, sizeof bits);
    return bits[0] == 0x7FC00000U && bits[1] == 0x7FC00000U && bits[2] == 0x7FC00000U;
}

/// The whole image as one matrix product, (M Q) X with X one column (c, r, d, 1) per pixel.
std::vector<cv::Point3f> bulk_product(const Generator& generator, const cv::Mat_<double>& Q)
{
    using Matrix = Eigen::Matrix<double, 4, 4, Eigen::RowMajor>;
    const int cols = generator.disparity.cols, total = static_cast<int>(generator.disparity.total());
    const double* d = generator.disparity.ptr<double>();
    Eigen::MatrixXd X(4, total);
    for (int i = 0; i < total; ++i)
        X.col(i) << i % cols, i / cols, d[i], 1.0;
    const Matrix M = Eigen::Map<const Matrix>(generator.transform.val);
    const Eigen::MatrixXd H = (M * Eigen::Map<const Matrix>(Q.ptr<double>())) * X;

    const float nan = std::numeric_limits<float>::quiet_NaN();
    std::vector<cv::Point3f> points(static_cast<std::size_t>(total), cv::Point3f(nan, nan, nan));
    for (int i = 0; i < total; ++i) {
        if (d[i] == generator.invalid_disparity || H(3, i) == 0.0) continue;
        const double s = 1.0 / H(3, i);
        points[static_cast<std::size_t>(i)]
            = { static_cast<float>(H(0, i) * s), static_cast<float>(H(1, i) * s), static_cast<float>(H(2, i) * s) };
    }
    return points;
}

std::string write_text(const std::string& name, const std::string& text)
{
    const std::string path = testing::TempDir() + "vexo_matching_" + name;
    std::ofstream(path) << text;
    return path;
}

std::string yaml_matrix(int rows, int cols, const std::string& type, const std::string& data)
{
    return "%YAML:1.0\n---\nRT: !!opencv-matrix\n   rows: " + std::to_string(rows)
        + "\n   cols: " + std::to_string(cols) + "\n   dt: " + type + "\n   data: [ " + data + " ]\n";
}

} // namespace

TEST(PointCloud, QEqualsTheBulkProductBitForBit)
{
    Measured s;
    std::vector<double> general { 0.8, -0.6, 0.1, 12.5, 0.6, 0.8, -0.2, -3.25, 0.01, 0.02, 1.0, 400.0, 0, 0, 0, 1 };
    std::vector<double> projective { 1, 2, 3, 4, 0, 1, 5, 6, 0, 0, 1, 7, 0.001, 0.002, 0.003, 1 };
    for (std::vector<double>* rt : { static_cast<std::vector<double>*>(nullptr), &general, &projective }) {
        ASSERT_TRUE(rt == nullptr || s.generator.convert_coordinate(*rt));
        s.generator.generate_pointcloud(iPointCloudGenerator::MethodQ);
        EXPECT_TRUE(rig::same_bits(s.generator.points, bulk_product(s.generator, s.camera->Q)));
    }
}

TEST(PointCloud, QEqualsTheSinglePointAndAnyUnknownMethodIsQ)
{
    Measured s;
    for (const int method : { 0, 3, -1, 77 }) {
        s.generator.generate_pointcloud(static_cast<iPointCloudGenerator::Method3D>(method));
        int count = 0;
        for (int r = 0; r < rig::height; ++r)
            for (int c = 0; c < rig::width; ++c) {
                const double d = s.generator.disparity.at<double>(r, c);
                const cv::Point3f& p = s.generator.points[static_cast<std::size_t>(r * rig::width + c)];
                if (d == invalid) {
                    ASSERT_TRUE(is_nan_point(p));
                    continue;
                }
                ++count;
                const cv::Vec3f one = s.camera->get3dposition_Q(c, r, d);
                ASSERT_FLOAT_EQ(p.x, one[0]); // the same double up to its last bits, rounded to float
                ASSERT_FLOAT_EQ(p.y, one[1]);
                ASSERT_FLOAT_EQ(p.z, one[2]);
            }
        EXPECT_EQ(s.generator.valid_count, count);
        EXPECT_EQ(s.generator.get_pointcloud(nullptr), count);
    }
}

TEST(PointCloud, InfinitelyFarPixelsAndInvalidPixelsAreNaNAndNotCounted)
{
    Measured s;
    s.generator.disparity.setTo(invalid);
    s.generator.disparity.at<double>(3, 4) = 0.0;                                      // W = 0: equal principal points
    s.generator.disparity.at<double>(3, 5) = 20.0;                                     // 500 mm
    s.generator.disparity.at<double>(3, 6) = std::numeric_limits<double>::quiet_NaN(); // not the marker: counted
    s.generator.generate_pointcloud(iPointCloudGenerator::MethodQ);
    EXPECT_EQ(s.generator.valid_count, 2);
    EXPECT_TRUE(is_nan_point(s.generator.points[3 * rig::width + 4]));
    EXPECT_NEAR(s.generator.points[3 * rig::width + 5].z, 500.0, 1e-3);

    s.generator.disparity.setTo(invalid);
    for (const auto method :
        { iPointCloudGenerator::MethodQ, iPointCloudGenerator::MethodP, iPointCloudGenerator::MethodV }) {
        s.generator.generate_pointcloud(method);
        EXPECT_EQ(s.generator.valid_count, 0);
        EXPECT_TRUE(std::all_of(s.generator.points.begin(), s.generator.points.end(), is_nan_point));
    }
}

TEST(PointCloud, PAndVTakeTheMapValueAsColumnOfCamera1AndIgnoreTheTransform)
{
    Measured s;
    std::vector<double> rt { 1, 0, 0, 100, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1 };
    ASSERT_TRUE(s.generator.convert_coordinate(rt));
    // A point at depth f b / Z = 25 px: column 90 of camera 0 is column 65 of camera 1.
    s.generator.disparity.setTo(invalid);
    s.generator.disparity.at<double>(50, 90) = 65.0;
    const cv::Vec3d expected = s.camera->get3dposition_Q(90, 50, 25.0);
    for (const auto method : { iPointCloudGenerator::MethodP, iPointCloudGenerator::MethodV }) {
        s.generator.generate_pointcloud(method);
        ASSERT_EQ(s.generator.valid_count, 1);
        const cv::Point3f& p = s.generator.points[50 * rig::width + 90];
        EXPECT_NEAR(p.x, expected[0], 1e-4); // float at 400 mm
        EXPECT_NEAR(p.y, expected[1], 1e-4);
        EXPECT_NEAR(p.z, expected[2], 1e-4);
    }
}

TEST(PointCloud, VDropsRaysThatDoNotMeet)
{
    Measured s;
    cv::Mat_<double> P = s.camera->cam1.P(cv::Rect(0, 0, 4, 3)).clone();
    P(1, 3) += rig::focal_px * 1e-3; // the camera a micrometre off the epipolar plane
    s.camera->cam1.setPPM(P);
    s.generator.disparity.setTo(invalid);
    s.generator.disparity.at<double>(50, 90) = 65.0;
    s.generator.generate_pointcloud(iPointCloudGenerator::MethodV);
    EXPECT_EQ(s.generator.valid_count, 0);
}

TEST(PointCloud, PureTranslationShiftsQPointsByItsNegative)
{
    Measured s;
    s.generator.generate_pointcloud(iPointCloudGenerator::MethodQ);
    const auto before = s.generator.points;
    const std::string identity = "1., 0., 0., 0., 0., 1., 0., 0., 0., 0., 1., 0., 0., 0., 0., 1.";
    ASSERT_TRUE(s.generator.convert_coordinate(write_text("identity.yaml", yaml_matrix(4, 4, "d", identity))));
    s.generator.generate_pointcloud(iPointCloudGenerator::MethodQ);
    EXPECT_TRUE(rig::same_bits(s.generator.points, before));

    const std::string shift = "1., 0., 0., 10., 0., 1., 0., 20., 0., 0., 1., 30., 0., 0., 0., 1.";
    for (const char* type : { "d", "f" }) {
        ASSERT_TRUE(s.generator.convert_coordinate(write_text("shift.yaml", yaml_matrix(4, 4, type, shift))));
        s.generator.generate_pointcloud(iPointCloudGenerator::MethodQ);
        const auto seen = [](float z) { return std::abs(z) < 5000.0F; }; // beyond, a float has no 1e-3
        for (std::size_t i = 0; i < before.size(); ++i)
            if (seen(before[i].z)) {
                ASSERT_NEAR(s.generator.points[i].x, before[i].x - 10.0F, 1e-3);
                ASSERT_NEAR(s.generator.points[i].y, before[i].y - 20.0F, 1e-3);
                ASSERT_NEAR(s.generator.points[i].z, before[i].z - 30.0F, 1e-3);
            }
    }
}

TEST(PointCloud, RefusedTransformsLeaveTheOldOne)
{
    Generator generator;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    std::vector<double> good { 1, 0, 0, 5, 0, 1, 0, 6, 0, 0, 1, 7, 0, 0, 0, 1 };
    ASSERT_TRUE(generator.convert_coordinate(good));
    const cv::Matx44d before = generator.transform;

    std::vector<double> few(15, 1.0), singular(16, 1.0), infinite(good), none;
    infinite[3] = nan;
    for (std::vector<double>* rt : { &few, &singular, &infinite, &none })
        EXPECT_FALSE(generator.convert_coordinate(*rt));

    const std::string sixteen = "1., 0., 0., 10., 0., 1., 0., 20., 0., 0., 1., 30., 0., 0., 0., 1.";
    for (const std::string& text : { std::string(), std::string("%YAML:1.0\n---\n"), std::string("RT: 1\n"),
             std::string("%YAML:1.0\n---\nRT: 7\n"), std::string("%YAML:1.0\n---\nRT: \"4x4\"\n"),
             std::string("%YAML:1.0\n---\nRT: [ 1, 2, 3 ]\n"),
             std::string("%YAML:1.0\n---\nRT: { rows: 4, cols: 4 }\n"), std::string("%YAML:1.0\n---\nRT: !!binary |\n"),
             yaml_matrix(3, 4, "d", "1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 1, 2"), yaml_matrix(2, 8, "d", sixteen),
             yaml_matrix(4, 4, "d", "1, 2, 3"), yaml_matrix(4, 4, "2d", sixteen),
             yaml_matrix(4, 4, "d", "1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1"),
             yaml_matrix(4, 4, "d", ".Nan, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1"),
             yaml_matrix(2000000000, 2000000000, "d", sixteen), yaml_matrix(4, 4, "", sixteen) })
        EXPECT_FALSE(generator.convert_coordinate(write_text("bad.yaml", text))) << text;
    EXPECT_FALSE(generator.convert_coordinate(testing::TempDir()));
    EXPECT_FALSE(generator.convert_coordinate(std::string("/nonexistent.yaml")));
    EXPECT_EQ(std::memcmp(before.val, generator.transform.val, sizeof before.val), 0);
}

TEST(PointCloud, AMapOfAnotherSizeOrTypeGivesNoPoints)
{
    Measured s;
    for (const cv::Mat& map : { cv::Mat(), cv::Mat(1000, 1000, CV_64F), cv::Mat(rig::height, rig::width, CV_32F) }) {
        s.generator.disparity = map;
        s.generator.generate_pointcloud(iPointCloudGenerator::MethodQ);
        EXPECT_EQ(s.generator.valid_count, 0);
    }
    s.generator.init(nullptr);
    EXPECT_EQ(s.generator.points.size(), 0U);
}
