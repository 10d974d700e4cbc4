#include "matching/sgbm.h"
#include "support/bits.h"
#include "support/folder.h"
#include "support/plane_rig.h"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgcodecs.hpp>

#include <climits>
#include <cmath>

using namespace vexo;

namespace {

/// Random texture, seen 16 px farther left by camera 1.
cv::Mat textured(int cam)
{
    cv::Mat_<uchar> wide(rig::height, rig::width + 16), image;
    cv::RNG rng(5);
    rng.fill(wide, cv::RNG::UNIFORM, 0, 256);
    wide.colRange(16 * cam, 16 * cam + rig::width).copyTo(image);
    return image;
}

SGBMatchingParam small_record()
{
    SGBMatchingParam record;
    record.numDisparities = 32;
    return record;
}

rig::Owned<SGBMatching> make(StereoCamera* camera, SGBMatchingParam record = small_record())
{
    rig::Owned<SGBMatching> matcher(new SGBMatching);
    matcher->init(camera);
    EXPECT_TRUE(matcher->setparams(&record));
    for (int cam = 0; cam < 2; ++cam) {
        cv::Mat image = textured(cam);
        EXPECT_TRUE(matcher->setpict(image.data, image.step[0], cam, 0));
    }
    return matcher;
}

rig::Cloud measured(SGBMatching& matcher)
{
    EXPECT_TRUE(matcher.exec());
    matcher.genPC(iPointCloudGenerator::MethodQ, false);
    return rig::cloud_of(matcher);
}

} // namespace

TEST(SGBMatching, EqualsOpenCVOnTheRectifiedPairPixelForPixel)
{
    for (const int min_disparity : { 0, -16, 4 })
        for (const int mode : { 0, 1, 2, 3 }) {
            const rig::Camera camera = rig::make_camera(30, 0.02);
            SGBMatchingParam record = small_record();
            record.minDisparity = min_disparity;
            record.mode = mode;
            const auto matcher = make(camera.get(), record);
            const rig::Cloud cloud = measured(*matcher);

            cv::Mat rectified[2], fixed_point;
            ASSERT_TRUE(camera->cam0.remap(textured(0), rectified[0]) && camera->cam1.remap(textured(1), rectified[1]));
            cv::StereoSGBM::create(min_disparity, 32, 5, 200, 800, 0, 0, 20, 100, 1, mode)
                ->compute(rectified[0], rectified[1], fixed_point);
            int count = 0;
            for (int r = 0; r < rig::height; ++r)
                for (int c = 0; c < rig::width; ++c) {
                    const double d = fixed_point.at<short>(r, c) / 16.0;
                    const cv::Point3f& p = cloud.points[static_cast<std::size_t>(r * rig::width + c)];
                    const cv::Vec4d h = cv::Matx44d(camera->Q) * cv::Vec4d(c, r, d, 1);
                    const bool expected = d != min_disparity - 1.0 && h[3] != 0.0;
                    ASSERT_EQ(p.z == p.z, expected);
                    ASSERT_TRUE(!expected || std::abs(p.z - h[2] / h[3]) <= 1e-6 * std::abs(p.z)); // a float
                    count += expected ? 1 : 0;
                }
            EXPECT_EQ(cloud.count, count);
            EXPECT_EQ(cv::norm(cloud.texture, rectified[0], cv::NORM_INF), 0.0);
        }
}

TEST(SGBMatching, WorksOnTheDefaultRecordWithoutSetparams)
{
    const rig::Camera camera = rig::make_camera(0, 0, {}, { 400, 60 });
    const rig::Owned<SGBMatching> matcher(new SGBMatching);
    matcher->init(camera.get());
    cv::Mat_<uchar> both(60, 800);
    cv::RNG rng(5);
    rng.fill(both, cv::RNG::UNIFORM, 0, 256);
    both.colRange(20, 400).copyTo(both.colRange(400, 780));
    EXPECT_EQ(matcher->requiredframes(), 1);
    EXPECT_FALSE(matcher->exec());
    ASSERT_TRUE(matcher->setpict(both.data, 0, 2, -7)); // the frame index is not used
    EXPECT_TRUE(matcher->exec());
    matcher->genPC(iPointCloudGenerator::MethodQ, true);
    EXPECT_GT(matcher->get_pointcloud(nullptr), 50 * 100);
}

TEST(SGBMatching, RecordsAreCheckedAfterTheyAreStored)
{
    const rig::Camera camera = rig::make_camera();
    const auto matcher = make(camera.get());
    using Record = SGBMatchingParam;
    testing::internal::CaptureStderr();
    for (const auto& [change, good] :
        std::initializer_list<std::pair<void (*)(Record&), bool>> { { [](Record& r) { r.mode = 3; }, true },
            { [](Record& r) { r.blockSize = 4; }, false }, { [](Record& r) { r.blockSize = -3; }, false },
            { [](Record& r) { r.uniquenessRatio = -1; }, false }, { [](Record& r) { r.uniquenessRatio = 101; }, false },
            { [](Record& r) { r.mode = 4; }, false }, { [](Record& r) { r.mode = -1; }, false },
            { [](Record& r) { r.numDisparities = 250; }, false }, { [](Record&) {}, true } }) {
        Record record = small_record();
        change(record);
        EXPECT_EQ(matcher->setparams(&record), good);
        EXPECT_EQ(matcher->exec(), record.numDisparities != 250 && record.blockSize > 0) << "it is in force";
    }
    EXPECT_EQ(
        testing::internal::GetCapturedStderr().substr(0, 50), "SGBMatching::setparams()\nSGBMatching::setparams()\n");
    EXPECT_FALSE(matcher->setparams(nullptr));
}

TEST(SGBMatching, ExecRefusesWhatWouldEndTheProcessInsideOpenCV)
{
    const rig::Camera camera = rig::make_camera();
    const auto matcher = make(camera.get());
    const auto runs = [&](int first, int count, int block, int mode = 0) {
        SGBMatchingParam record;
        record.mode = mode;
        record.minDisparity = first;
        record.numDisparities = count;
        record.blockSize = block;
        matcher->setparams(&record);
        return matcher->exec();
    };
    EXPECT_TRUE(runs(0, 32, 5));
    EXPECT_TRUE(runs(-2047, 16, 5));
    EXPECT_TRUE(runs(2031, 16, 5));
    for (const int mode : { 0, 1, 2, 3 }) {
        for (const int count : { 160, 176, 256 }) {
            EXPECT_TRUE(runs(0, count, 5, mode)) << "as many disparities as columns, or more: nothing is found";
            matcher->genPC(iPointCloudGenerator::MethodQ, false);
            EXPECT_EQ(rig::cloud_of(*matcher).count, 0) << mode << ' ' << count;
        }
        EXPECT_TRUE(runs(0, 144, 5, mode)) << mode;
    }
    for (const int count : { 0, -16, 8, 4112, INT_MIN, 2147483632 })
        EXPECT_FALSE(runs(0, count, 5)) << count;
    for (const int first : { -2048, 2032, INT_MIN, INT_MAX })
        EXPECT_FALSE(runs(first, 16, 5)) << first;
    for (const int block : { 0, -1, 257, INT_MAX, INT_MIN + 1 })
        EXPECT_FALSE(runs(0, 32, block)) << block;
    EXPECT_FALSE(runs(0, 112, 97)) << "48 columns are left to match";
    EXPECT_TRUE(runs(0, 112, 95));
}

TEST(SGBMatching, ARefusedRecordMakesNoPointsOfPixelsWithoutAMatch)
{
    const rig::Camera camera = rig::make_camera();
    const auto matcher = make(camera.get());
    SGBMatchingParam record = small_record();
    record.minDisparity = -16;
    record.numDisparities = 48;
    record.mode = 4;
    EXPECT_FALSE(matcher->setparams(&record));
    const int count = measured(*matcher).count;
    EXPECT_GT(count, rig::width * rig::height / 2);
    // 32 columns on the left and 16 on the right can have no match in this range.
    EXPECT_LE(count, (rig::width - 48) * rig::height);
}

TEST(SGBMatching, CallsOutOfOrderAnswerFalse)
{
    const rig::Camera camera = rig::make_camera();
    cv::Mat image = textured(0);
    const rig::Owned<SGBMatching> matcher(new SGBMatching);
    EXPECT_FALSE(matcher->setpict(image.data, 0, 0, 0));
    EXPECT_FALSE(matcher->exec());
    matcher->genPC(iPointCloudGenerator::MethodQ, false);
    EXPECT_EQ(rig::cloud_of(*matcher).count, 0);
    matcher->init(camera.get());
    ASSERT_TRUE(matcher->setpict(image.data, 0, 0, 0));
    EXPECT_FALSE(matcher->exec()) << "camera 1 is missing";

    const rig::Picture left(*matcher, 0, -5);
    ASSERT_TRUE(left.given);
    const cv::Mat shown(left.height, left.width, CV_8U, left.data, left.step);
    EXPECT_TRUE(same_bits(rig::inner(shown), rig::inner(image)));
    for (const int cam : { 1, 2, 3, -1 })
        EXPECT_FALSE(rig::Picture(*matcher, cam, 0).given) << cam;
    for (const int cam : { -1, 3 })
        EXPECT_FALSE(matcher->setpict(image.data, 0, cam, 0));
    EXPECT_FALSE(matcher->setpict(nullptr, 0, 0, 0));
    EXPECT_FALSE(matcher->setpict(image.data, rig::width - 1, 0, 0));

    const Folder folder;
    cv::imwrite(folder / "a.png", image);
    EXPECT_TRUE(matcher->loadpict(folder / "a.png", 1, 0));
    EXPECT_FALSE(matcher->loadpict(folder / "a.png", 2, 0));
    EXPECT_FALSE(matcher->loadpict(folder / "none", 1, 0));
    EXPECT_EQ(rig::Picture(*matcher, 2, 0).width, 2 * rig::width);
    matcher->genPC(iPointCloudGenerator::MethodQ, false);
    EXPECT_EQ(matcher->get_pointcloud(nullptr), 0) << "no exec yet";
    const rig::Camera other = rig::make_camera();
    matcher->init(other.get());
    EXPECT_FALSE(matcher->exec()) << "another camera drops the images";
}
