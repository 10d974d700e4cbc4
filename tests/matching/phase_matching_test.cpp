#include "decode/GrayPhaseDecoder.h"
#include "matching/gyps.h"
#include "matching/mlps.h"
#include "support/bits.h"
#include "support/folder.h"
#include "support/plane_rig.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include <algorithm>
#include <climits>
#include <optional>

using namespace vexo;

namespace {

GrayPhaseMatchingParam gray_record()
{
    GrayPhaseMatchingParam record;
    record.max_phase_diff = 0.15;
    record.anchor_length = 2;
    record.reject_length = 1;
    return record;
}

MultiPhaseMatchingParam multi_record()
{
    MultiPhaseMatchingParam record;
    record.fit_points = 5;
    return record;
}

template <class Matcher, class Record> rig::Owned<Matcher> make(StereoCamera* camera, Record record)
{
    rig::Owned<Matcher> matcher(new Matcher);
    matcher->init(camera);
    EXPECT_TRUE(matcher->setparams(&record));
    return matcher;
}

/// A gray code + phase matcher that has all frames.
rig::Owned<GyPsMatching> loaded_gyps(StereoCamera* camera, GrayPhaseMatchingParam record = gray_record())
{
    auto matcher = make<GyPsMatching>(camera, record);
    EXPECT_TRUE(rig::put_frames(*matcher, rig::gray_phase_frames));
    return matcher;
}

template <class Matcher> rig::Cloud measured(Matcher& matcher, bool interpolate = false)
{
    EXPECT_TRUE(matcher.exec());
    matcher.genPC(iPointCloudGenerator::MethodQ, interpolate);
    return rig::cloud_of(matcher);
}

void expect_plane(const rig::Cloud& cloud, const char* what)
{
    EXPECT_EQ(cv::Size(cloud.width, cloud.height), cv::Size(rig::width, rig::height)) << what;
    std::vector<double> errors; // of depth, mm
    for (const auto& p : cloud.points)
        if (p.z == p.z) errors.push_back(std::abs(static_cast<double>(p.z) - 500.0 - 0.2 * static_cast<double>(p.x)));
    std::sort(errors.begin(), errors.end());
    ASSERT_EQ(static_cast<int>(errors.size()), cloud.count) << what;
    // Disparity is 20 px, so that many columns of 160 have no partner; edges and period borders lose some more.
    EXPECT_GT(cloud.count, rig::width * rig::height * 3 / 4) << what;
    // Rounding to 8 bits gives a phase error of 0.29 / (80 sqrt 2) rad, 0.0033 px of a pattern whose period is
    // 8 px; fits and both cameras make 0.01 px of it. Z^2 / (f b) = 25 mm per px.
    EXPECT_LT(errors[errors.size() / 2], 0.25) << what;
    EXPECT_LT(errors[errors.size() * 95 / 100], 1.0) << what;
}

} // namespace

TEST(PhaseMatching, BothMethodsMeasureAPlane)
{
    const rig::Camera camera = rig::make_camera();
    for (const int fit_points : { 3, 5 })
        for (const bool interpolate : { false, true }) {
            GrayPhaseMatchingParam record = gray_record();
            record.fit_points = fit_points;
            const rig::Cloud cloud = measured(*loaded_gyps(camera.get(), record), interpolate);
            expect_plane(cloud, interpolate ? "interpolated" : "plain");
            // The texture is the rectified lit frame; this rig's rectification is the identity.
            EXPECT_TRUE(same_bits(rig::inner(cloud.texture), rig::inner(rig::gray_phase_frames(0)[1])));
        }
    const auto multi = make<MlPsMatching>(camera.get(), multi_record());
    ASSERT_TRUE(rig::put_frames(*multi, rig::multi_phase_frames));
    expect_plane(measured(*multi), "multi-phase");
}

TEST(PhaseMatching, OneObjectMeasuresAgainAndAgainWithTheSameResult)
{
    const rig::Camera camera = rig::make_camera(0, 0.05, { 200, 90 });
    const auto matcher = loaded_gyps(camera.get());
    const rig::Cloud first = measured(*matcher);
    EXPECT_EQ(cv::Size(first.width, first.height), cv::Size(200, 90));
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(same_bits(first.points, measured(*matcher).points));
    matcher->genPC(iPointCloudGenerator::MethodP, false); // by way of a map of disparities, of the same pixels
    EXPECT_EQ(matcher->get_pointcloud(nullptr), first.count);
}

TEST(PhaseMatching, ABrightFillColourDoesNotMakeTheOutsideValid)
{
    const rig::Camera dark = rig::make_camera(0, 0.3), bright = rig::make_camera(255, 0.3);
    const rig::Cloud a = measured(*loaded_gyps(dark.get())), b = measured(*loaded_gyps(bright.get()));
    EXPECT_GT(a.count, 0);
    EXPECT_TRUE(same_bits(a.points, b.points));
    EXPECT_GT(cv::countNonZero(a.texture == 0), 100); // the rig has an outside, or this proves nothing
    EXPECT_GT(cv::countNonZero(b.texture == 255), 100);
}

TEST(PhaseMatching, CallsOutOfOrderAnswerFalseAndGiveNoPoints)
{
    const rig::Camera camera = rig::make_camera();
    cv::Mat frame(rig::height, rig::width, CV_8U, cv::Scalar(9));
    const rig::Owned<GyPsMatching> matcher(new GyPsMatching);
    const auto expect_nothing = [&](const char* when) {
        EXPECT_FALSE(matcher->exec()) << when;
        matcher->genPC(iPointCloudGenerator::MethodQ, false);
        const rig::Cloud cloud = rig::cloud_of(*matcher);
        EXPECT_EQ(cloud.calls, 1) << when;
        EXPECT_TRUE(cloud.count == 0 && cloud.width * cloud.height == 0 && cloud.texture.empty()) << when;
    };
    expect_nothing("at birth");
    EXPECT_FALSE(matcher->setpict(frame.data, 0, 0, 0));
    matcher->init(camera.get());
    expect_nothing("without setparams");
    EXPECT_FALSE(matcher->setpict(frame.data, 0, 0, 0));
    EXPECT_FALSE(rig::Picture(*matcher, 0, 0).given);
    EXPECT_FALSE(matcher->loadpict("/nonexistent.png", 0, 0));
    EXPECT_FALSE(matcher->setparams(nullptr));

    GrayPhaseMatchingParam record = gray_record();
    ASSERT_TRUE(matcher->setparams(&record));
    expect_nothing("without frames");
    for (const bool again : { false, true }) {
        ASSERT_TRUE(rig::put_frames(*matcher, rig::gray_phase_frames));
        matcher->genPC(iPointCloudGenerator::MethodQ, false);
        EXPECT_EQ(matcher->get_pointcloud(nullptr), 0) << "before exec";
        EXPECT_GT(measured(*matcher).count, 0);
        if (again) break;
        ASSERT_TRUE(matcher->setparams(&record));
        expect_nothing("after setparams, which drops the frames");
    }
    matcher->init(camera.get());
    matcher->genPC(iPointCloudGenerator::MethodQ, false);
    EXPECT_EQ(matcher->get_pointcloud(nullptr), 0) << "init asks for another exec";
    EXPECT_GT(measured(*matcher).count, 0) << "but the same camera keeps the frames";
    matcher->init(nullptr);
    expect_nothing("without camera");
    EXPECT_FALSE(matcher->setpict(frame.data, 0, 0, 0));
}

TEST(PhaseMatching, AnotherCameraDropsEverythingAndNothingStaleIsHandedOut)
{
    const rig::Camera camera = rig::make_camera(), small = rig::make_camera(0, 0, { 40, 30 }),
                      other = rig::make_camera(0, 0, {}, { 80, 60 });
    const auto matcher = loaded_gyps(camera.get());
    ASSERT_GT(measured(*matcher).count, 0);
    for (StereoCamera* next : { small.get(), other.get() }) {
        matcher->init(next);
        const rig::Cloud cloud = rig::cloud_of(*matcher);
        EXPECT_TRUE(cloud.width * cloud.height == 0 && cloud.count == 0);
        EXPECT_FALSE(matcher->exec());
    }
    cv::Mat frame(60, 80, CV_8U, cv::Scalar(9));
    EXPECT_TRUE(matcher->setpict(frame.data, frame.step[0], 0, 0));

    std::optional<StereoCamera> place(*camera);
    const auto kept = loaded_gyps(&*place);
    place.emplace(*camera);
    kept->init(&*place);
    EXPECT_FALSE(kept->exec()) << "another one at the address of the first";
}

TEST(PhaseMatching, ARefusedRecordIsInForceButKeepsDecodersAndFrames)
{
    const rig::Camera camera = rig::make_camera();
    const auto matcher = loaded_gyps(camera.get());
    const int all = measured(*matcher).count;
    GrayPhaseMatchingParam record = gray_record();
    record.fit_points = 4;
    record.max_disparity = 20.0; // the plane's disparities lie on both sides
    record.datatype = 2;
    EXPECT_FALSE(matcher->setparams(&record));
    EXPECT_EQ(matcher->get_datatype(), 2);
    const int limited = measured(*matcher).count;
    EXPECT_TRUE(0 < limited && limited < all) << limited;

    for (const double bad : { std::nan(""), HUGE_VAL, -HUGE_VAL })
        for (const int number : { INT_MIN, -1, 0, INT_MAX }) {
            record = gray_record();
            record.max_phase_diff = record.max_disparity = bad;
            record.fit_points = record.datatype = number;
            record.min_contrast = record.max_white = record.min_white = number;
            record.anchor_length = record.reject_length = record.code_spread = number;
            EXPECT_FALSE(matcher->setparams(&record));
            EXPECT_TRUE(matcher->exec());
            for (const bool interpolate : { false, true })
                matcher->genPC(iPointCloudGenerator::MethodQ, interpolate);
        }
    record = gray_record();
    EXPECT_TRUE(matcher->setparams(&record));
}

TEST(PhaseMatching, RecordsAreAcceptedAtTheirLimitsAndSetparamsWritesItsLineAlone)
{
    const rig::Owned<GyPsMatching> gyps(new GyPsMatching);
    const rig::Owned<MlPsMatching> mlps(new MlPsMatching);
    using Gray = GrayPhaseMatchingParam;
    using Multi = MultiPhaseMatchingParam;
    const std::pair<void (*)(Gray&), bool> gray[]
        = { { [](Gray&) {}, true }, { [](Gray& r) { r.anchor_length = r.reject_length = 0; }, true },
              { [](Gray& r) { r.min_disparity = r.max_disparity; }, true }, { [](Gray& r) { r.datatype = 1; }, true },
              { [](Gray& r) { r.fit_points = 4; }, false }, { [](Gray& r) { r.min_disparity = 401; }, false },
              { [](Gray& r) { r.datatype = -1; }, false }, { [](Gray& r) { r.anchor_length = -1; }, false },
              { [](Gray& r) { r.reject_length = -1; }, false }, { [](Gray& r) { r.code_spread = 0; }, false } };
    const std::pair<void (*)(Multi&), bool> multi[]
        = { { [](Multi&) {}, true }, { [](Multi& r) { r.nperiods = 0; }, true },
              { [](Multi& r) { r.nperiods = 4; }, true }, { [](Multi& r) { r.steps = 3; }, true },
              { [](Multi& r) { r.datatype = 1; }, true }, { [](Multi& r) { r.nperiods = 5; }, false },
              { [](Multi& r) { r.nperiods = -1; }, false }, { [](Multi& r) { r.steps = 2; }, false },
              { [](Multi& r) { r.fit_points = 4; }, false }, { [](Multi& r) { r.min_disparity = 500; }, false } };
    for (std::size_t i = 0; i < 10; ++i) {
        Gray g;
        Multi m;
        gray[i].first(g);
        multi[i].first(m);
        testing::internal::CaptureStderr();
        EXPECT_EQ(gyps->setparams(&g), gray[i].second) << i;
        EXPECT_EQ(mlps->setparams(&m), multi[i].second) << i;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "GyPsMatching::setparams()\nMlPsMatching::setparams()\n");
    }
    EXPECT_EQ(gyps->requiredframes(), 13);
    EXPECT_EQ(mlps->requiredframes(), 14);

    const Multi record;
    const std::vector<unsigned char> packed(reinterpret_cast<const unsigned char*>(&record),
        reinterpret_cast<const unsigned char*>(&record) + multi_phase_param_bytes);
    EXPECT_TRUE(mlps->setparams(const_cast<unsigned char*>(packed.data()))) << "the sanitizer watches byte 68";
}

TEST(PhaseMatching, ExecRefusesARecordThatItsDecodersAreNotMadeFor)
{
    const rig::Camera camera = rig::make_camera();
    const auto matcher = make<MlPsMatching>(camera.get(), multi_record());
    ASSERT_TRUE(rig::put_frames(*matcher, rig::multi_phase_frames));
    cv::Mat frame(rig::height, rig::width, CV_8U, cv::Scalar(9));
    EXPECT_FALSE(matcher->setpict(frame.data, 0, 0, 14));
    ASSERT_TRUE(matcher->exec());

    MultiPhaseMatchingParam record = multi_record();
    record.datatype = 7; // refused, but harmless
    EXPECT_FALSE(matcher->setparams(&record));
    EXPECT_TRUE(matcher->exec());
    record.steps = 3;
    EXPECT_FALSE(matcher->setparams(&record));
    EXPECT_FALSE(matcher->exec());
    record = multi_record();
    record.nperiods = INT_MIN;
    EXPECT_FALSE(matcher->setparams(&record));
    EXPECT_FALSE(matcher->exec());

    for (const int nperiods : { 0, 2, 4 }) { // accepted, but there is no table
        record = multi_record();
        record.nperiods = nperiods;
        EXPECT_TRUE(matcher->setparams(&record));
        rig::put_frames(*matcher, rig::multi_phase_frames);
        EXPECT_FALSE(matcher->exec()) << nperiods;
    }
}

TEST(PhaseMatching, FramesComeBackAsTheyWereGivenFromExactBuffers)
{
    const rig::Camera camera = rig::make_camera();
    const auto matcher = make<GyPsMatching>(camera.get(), gray_record());
    const int w = rig::width, h = rig::height;
    // Two frames side by side with an odd step: camera 1 starts at half of it, rounded down. The buffer ends with
    // the last pixel of camera 1.
    const unsigned long step = 2 * static_cast<unsigned long>(w) + 7;
    std::vector<unsigned char> both((static_cast<std::size_t>(h) - 1) * step + step / 2 + static_cast<std::size_t>(w));
    for (std::size_t i = 0; i < both.size(); ++i)
        both[i] = static_cast<unsigned char>(i * 7 + i / 251);
    ASSERT_TRUE(matcher->setpict(both.data(), step, 2, 5));
    for (const int cam : { 0, 1, 2 }) {
        const rig::Picture got(*matcher, cam, 5);
        ASSERT_TRUE(got.given);
        ASSERT_EQ(cv::Size(got.width, got.height), cv::Size(cam == 2 ? 2 * w : w, h));
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < got.width; ++x) {
                const std::size_t begin = static_cast<std::size_t>(y) * step + (cam == 1 || x >= w ? step / 2 : 0);
                ASSERT_EQ(got.at(y, x), both[begin + static_cast<std::size_t>(x % w)]);
            }
    }
    for (const auto& [cam, index] : std::vector<std::pair<int, int>> {
             { -1, 5 }, { 3, 5 }, { INT_MIN, 5 }, { 0, 4 }, { 2, 4 }, { 0, -1 }, { 0, 13 }, { 1, INT_MAX } }) {
        const rig::Picture none(*matcher, cam, index);
        EXPECT_TRUE(!none.given && none.data == nullptr && none.width == 0) << cam << " " << index;
    }
    rig::Picture sizes(*matcher, 0, 5);
    EXPECT_FALSE(matcher->getpict(nullptr, &sizes.width, &sizes.height, &sizes.step, 0, 5));
}

TEST(PhaseMatching, SetpictAndLoadpictRefuseWhatTheyCannotTake)
{
    const rig::Camera camera = rig::make_camera();
    const auto matcher = make<GyPsMatching>(camera.get(), gray_record());
    std::vector<unsigned char> pixels(static_cast<std::size_t>(2 * rig::width * rig::height), 9);
    constexpr unsigned long w = rig::width;
    EXPECT_TRUE(matcher->setpict(pixels.data(), 0, 0, 0));
    EXPECT_TRUE(matcher->setpict(pixels.data(), w, 1, 12));
    EXPECT_TRUE(matcher->setpict(pixels.data(), 0, 2, 0)); // packed: 2 w
    EXPECT_TRUE(matcher->setpict(pixels.data(), 2 * w, 2, 0));
    EXPECT_FALSE(matcher->setpict(nullptr, w, 0, 0));
    EXPECT_FALSE(matcher->setpict(pixels.data(), w - 1, 0, 0));
    EXPECT_FALSE(matcher->setpict(pixels.data(), 2 * w - 1, 2, 0));

    const Folder folder;
    const auto load = [&](cv::Size size, int type, int cam, int frame) {
        cv::imwrite(folder / "a.png", cv::Mat(size, type, cv::Scalar::all(77)));
        return matcher->loadpict(folder / "a.png", cam, frame);
    };
    const cv::Size one(rig::width, rig::height), two(2 * rig::width, rig::height);
    EXPECT_TRUE(load(one, CV_8U, 0, 3));
    EXPECT_TRUE(load(one, CV_8UC3, 1, 3));
    EXPECT_TRUE(load(two, CV_8U, 2, 4));
    EXPECT_FALSE(load(two, CV_8U, 0, 3));
    EXPECT_FALSE(load(one, CV_8U, 2, 3));
    EXPECT_FALSE(load({ rig::height, rig::width }, CV_8U, 0, 3));
    const rig::Picture loaded(*matcher, 1, 3);
    EXPECT_TRUE(loaded.given && loaded.at(0, 0) == 77);
    for (const int frame : { -1, INT_MIN, 13, INT_MAX })
        EXPECT_FALSE(matcher->setpict(pixels.data(), w, 0, frame) || load(one, CV_8U, 0, frame)) << frame;
    for (const int cam : { -1, 3, INT_MIN, INT_MAX })
        EXPECT_FALSE(matcher->setpict(pixels.data(), w, cam, 0) || load(one, CV_8U, cam, 3)) << cam;
}

TEST(PhaseMatching, DecodedDataGivesTheCloudOfItsFrames)
{
    const rig::Camera camera = rig::make_camera();
    const rig::Cloud expected = measured(*loaded_gyps(camera.get()));
    GrayPhaseMatchingParam record = gray_record();
    record.datatype = 1;
    const auto loader = make<GyPsMatching>(camera.get(), record);
    EXPECT_FALSE(loader->exec());
    for (int cam = 0; cam < 2; ++cam) {
        GrayPhaseDecoder decoder(cam, 13, &record);
        int index = 0;
        for (const cv::Mat& frame : rig::gray_phase_frames(cam))
            ASSERT_EQ(decoder.set_input(frame.data, frame.cols, frame.rows, frame.step[0], index++), 1);
        decoder.preproc();
        ASSERT_TRUE(loader->setpict(decoder.black.data, 0, cam, 0));
        ASSERT_TRUE(loader->setpict(decoder.white.data, 0, cam, 1));
        ASSERT_TRUE(loader->setpict(decoder.gray.data, 0, cam, 2));
        EXPECT_FALSE(loader->setpict(decoder.phase.data, rig::width, cam, 3)) << "a float row has four times the bytes";
        ASSERT_TRUE(loader->setpict(decoder.phase.data, 0, cam, 3));
        EXPECT_FALSE(loader->setpict(decoder.phase.data, 0, cam, 4));
    }
    EXPECT_TRUE(same_bits(expected.points, measured(*loader).points));
    const Folder folder;
    cv::imwrite(folder / "decoded.png", cv::Mat(rig::height, rig::width, CV_8U, cv::Scalar(1)));
    EXPECT_TRUE(loader->loadpict(folder / "decoded.png", 0, 2));
    for (const int frame : { 3, 13 })
        EXPECT_FALSE(loader->loadpict(folder / "decoded.png", 0, frame)) << "no 8-bit picture is a phase";
}
