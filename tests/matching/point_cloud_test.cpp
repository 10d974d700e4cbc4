#include "matching/PointCloudGenerator.h"
#include "support/folder.h"
#include "support/plane_rig.h"

#include <gtest/gtest.h>
#include <opencv2/core/affine.hpp>

#include <cstring>
#include <limits>
#include <random>

using namespace vexo;

namespace {

/// The base with its disparity map in the test's hands.
struct Generator final : PointCloudGenerator {
    void destroy() override { valid_count = -7; } // its memory belongs to somebody else afterwards
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

std::string write_text(const std::string& text)
{
    static const Folder folder;
    put(folder / "rt.yaml", text);
    return folder / "rt.yaml";
}

std::string yaml_matrix(int rows, int cols, const std::string& type, const std::string& data)
{
    return "%YAML:1.0\n---\nRT: !!opencv-matrix\n   rows: " + std::to_string(rows)
        + "\n   cols: " + std::to_string(cols) + "\n   dt: " + type + "\n   data: [ " + data + " ]\n";
}

} // namespace

TEST(PointCloud, QEqualsTheSinglePointInTheFrameAskedForAndAnyUnknownMethodIsQ)
{
    Measured s;
    std::vector<double> moved { 0.8, -0.6, 0, 12.5, 0.6, 0.8, 0, -3.25, 0, 0, 1, 400.0, 0, 0, 0, 1 };
    cv::Affine3d frame = cv::Affine3d::Identity(); // rectified camera 0 from the points' frame
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
                const cv::Vec3d one = s.camera->get3dposition_Q(c, r, d);
                // Points are single precision, and so is the sum that takes them back.
                ASSERT_LT(cv::norm(cv::Vec3d(frame * cv::Point3d(p)) - one), 2e-7 * (cv::norm(one) + 800));
            }
        EXPECT_EQ(s.generator.valid_count, count);
        EXPECT_EQ(s.generator.get_pointcloud(nullptr), count);
        ASSERT_TRUE(s.generator.convert_coordinate(moved));
        frame = cv::Affine3d(cv::Matx44d(moved.data()));
    }
}

TEST(PointCloud, TheCountReturnedIsTheOneHandedOutWhateverTheCallbackDoes)
{
    struct Callback : PointCloudCallback {
        Measured* host = nullptr;
        bool ends = false;
        int count = -1;
        void receive(unsigned char*, std::size_t, int, int, cv::Point3_<float>*, int n) override
        {
            count = n;
            host->generator.disparity.setTo(invalid);
            host->generator.generate_pointcloud(iPointCloudGenerator::MethodQ);
            if (ends) host->generator.destroy();
        }
    };
    for (const bool ends : { false, true }) {
        Measured s;
        s.generator.generate_pointcloud(iPointCloudGenerator::MethodQ);
        Callback callback;
        callback.host = &s;
        callback.ends = ends;
        EXPECT_GT(s.generator.get_pointcloud(&callback), 1000);
        s.generator.generate_pointcloud(iPointCloudGenerator::MethodQ);
        EXPECT_EQ(s.generator.get_pointcloud(nullptr), 0);
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

TEST(PointCloud, AFileGivesTheTransformOfItsNumbers)
{
    Generator from_file, from_numbers;
    const std::string text = "0., -1., 0., 10., 1., 0., 0., 20., 0., 0., 1., 30., 0., 0., 0., 1.";
    std::vector<double> numbers { 0, -1, 0, 10, 1, 0, 0, 20, 0, 0, 1, 30, 0, 0, 0, 1 };
    ASSERT_TRUE(from_numbers.convert_coordinate(numbers));
    for (const char* type : { "d", "f" }) {
        ASSERT_TRUE(from_file.convert_coordinate(write_text(yaml_matrix(4, 4, type, text))));
        EXPECT_EQ(from_file.transform, from_numbers.transform) << type;
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
    const std::string head = "%YAML:1.0\n---\n";
    for (const std::string& text :
        { std::string(), head, std::string("RT: 1\n"), head + "RT: 7\n", head + "RT: \"4x4\"\n",
            head + "RT: { rows: 4, cols: 4 }\n", yaml_matrix(3, 4, "d", "1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 1, 2"),
            yaml_matrix(2, 8, "d", sixteen), yaml_matrix(4, 4, "d", "1, 2, 3"), yaml_matrix(4, 4, "2d", sixteen),
            yaml_matrix(4, 4, "d", "1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1"),
            yaml_matrix(4, 4, "d", ".Nan, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1"),
            yaml_matrix(2000000000, 2000000000, "d", sixteen) })
        EXPECT_FALSE(generator.convert_coordinate(write_text(text))) << text;
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
