// StereoCamera: rectification, triangulation, world frames.
#include "camera/toed_in_pair.h"

#include <cfloat>
#include <opencv2/imgproc.hpp>

using rig::max_difference;
using rig::Pair;
using rig::points;
using rig::rectify;
using rig::Stereo;
using vexo::StereoCamera;

namespace {

constexpr int zero_disparity = cv::CALIB_ZERO_DISPARITY;

struct Match {
    cv::Point2d p0, p1;
    double disparity;
};

/// Noise-free pixels of a point in the pair's frame.
Match match(const StereoCamera& stereo, const cv::Vec3d& X)
{
    Match m { stereo.cam0.project_forw(cv::Point3d(X)), stereo.cam1.project_forw(cv::Point3d(X)), 0 };
    m.disparity = stereo.is_horizontal_stereo() ? m.p0.x - m.p1.x : m.p0.y - m.p1.y;
    return m;
}

/// All three methods give a point of the pair's frame back.
void expect_triangulated(const StereoCamera& stereo, const cv::Vec3d& X)
{
    // Rounding of pixels (1e-13 relative) times Z / disparity (about 6), through squared condition in P.
    constexpr double tolerance = 1e-6;
    const Match m = match(stereo, X);
    bool valid = false;
    double dist = -1;
    EXPECT_LT(cv::norm(stereo.get3dposition_Q(m.p0.x, m.p0.y, m.disparity) - X), tolerance) << X;
    EXPECT_LT(cv::norm(stereo.get3dposition_P(m.p0, m.p1, &valid) - X), tolerance) << X;
    EXPECT_LT(cv::norm(stereo.get3dposition_V(m.p0, m.p1, dist) - X), tolerance) << X;
    EXPECT_TRUE(valid);
    EXPECT_LT(dist, tolerance);
}

class Rigs : public testing::TestWithParam<std::tuple<bool, int>> {
protected:
    bool vertical() const { return std::get<0>(GetParam()); }
    int flags() const { return std::get<1>(GetParam()); }
};

/// Raw position of a rectified pixel, from the tables, by bilinear interpolation.
cv::Point2d through_tables(const vexo::UndistortCamera& cam, const cv::Point2d& p)
{
    const auto x = static_cast<int>(std::floor(p.x));
    const auto y = static_cast<int>(std::floor(p.y));
    const double u = p.x - x;
    const double v = p.y - y;
    auto at = [&](const cv::Mat& m) {
        return (1 - v) * ((1 - u) * m.at<float>(y, x) + u * m.at<float>(y, x + 1))
            + v * ((1 - u) * m.at<float>(y + 1, x) + u * m.at<float>(y + 1, x + 1));
    };
    return { at(cam.map1), at(cam.map2) };
}

} // namespace

TEST_P(Rigs, EpipolarLinesAreRowsAndTablesLeadToTheRealPixel)
{
    const Pair cams = rig::pair(vertical());
    const Stereo stereo = rectify(cams, flags());
    ASSERT_TRUE(stereo);
    EXPECT_EQ(stereo->is_horizontal_stereo(), !vertical());
    for (const cv::Vec3d& shifted : points(200)) {
        const cv::Vec3d X = vertical() ? cv::Vec3d(shifted[1], shifted[0], shifted[2]) : shifted;
        const Match m = match(*stereo, X);
        EXPECT_NEAR(vertical() ? m.p0.x : m.p0.y, vertical() ? m.p1.x : m.p1.y, 1e-9);

        const cv::Vec3d raw = rig::moved(rig::pose(cv::Mat_<double>(stereo->cam0_R2.t()), { 0, 0, 0 }), X);
        for (int i = 0; i < 2; ++i) {
            const cv::Point2d p = i == 0 ? m.p0 : m.p1;
            if (!cv::Rect2d(1, 1, 317, 253).contains(p)) continue;
            const cv::Point2d seen = cams[static_cast<std::size_t>(i)].project_forw(cv::Point3d(raw));
            // Curvature of the distortion within one cell of the table, and single floats.
            EXPECT_LT(cv::norm(through_tables(i == 0 ? stereo->cam0 : stereo->cam1, p) - seen), 1e-3) << X;
        }
    }
}

TEST_P(Rigs, QAndPAndVAgreeOnNoiseFreePixels)
{
    const Stereo stereo = rectify(rig::pair(vertical()), flags());
    ASSERT_TRUE(stereo);
    for (const cv::Vec3d& X : points(50))
        expect_triangulated(*stereo, X);
    const double Z = 612.5;
    EXPECT_NEAR(stereo->convert_distance_to_disparity(Z), match(*stereo, { 3, 4, Z }).disparity, 1e-9);
}

TEST_P(Rigs, QFromProjectionsIsTheQOfRectification)
{
    const Stereo stereo = rectify(rig::pair(vertical()), flags());
    ASSERT_TRUE(stereo);
    const cv::Mat_<double> Q = stereo->Q.clone();
    stereo->recalculationQ();
    EXPECT_LT(max_difference(Q, stereo->Q), 1e-9); // entries to 600
    // The scale of either projection means nothing.
    for (const double scale : { 2.0, -1.0 })
        for (vexo::UndistortCamera* cam : { &stereo->cam0, &stereo->cam1 }) {
            cam->setPPM(cv::Mat_<double>(cv::Mat_<double>(cam->P(cv::Rect(0, 0, 4, 3))) * scale));
            stereo->recalculationQ();
            for (const cv::Vec3d& X : points(5))
                EXPECT_LT(cv::norm(stereo->get3dposition_Q(
                                       match(*stereo, X).p0.x, match(*stereo, X).p0.y, match(*stereo, X).disparity)
                              - X),
                    1e-6);
        }
}

TEST_P(Rigs, AfterConversionPointsComeOutInTheNewFrame)
{
    const Stereo plain = rectify(rig::pair(vertical()), flags());
    ASSERT_TRUE(plain);
    StereoCamera stereo(*plain);
    // A board turned by more than a quarter, so that the baseline leaves the x axis of its frame.
    cv::Mat_<double> cam0_from_board = rig::pose(rig::rotation(0.2, -0.3, 1.9), { 40, -30, 620 });
    cv::Mat_<double> board_from_other = rig::pose(rig::rotation(-0.1, 0.4, 0.2), { 5, 6, 7 });
    cv::Mat_<double> cam0_from_new(cam0_from_board);
    for (const cv::Mat_<double>& step : { cam0_from_board, board_from_other }) {
        ASSERT_TRUE(stereo.convert_coordinate_system(step));
        if (step.data == board_from_other.data) cam0_from_new = cv::Mat_<double>(cam0_from_board * board_from_other);
        const cv::Mat_<double> new_from_cam0(cam0_from_new.inv());
        for (const cv::Vec3d& X : points(20)) {
            const cv::Vec3d X_new = rig::moved(new_from_cam0, X);
            const Match before = match(*plain, X);
            const Match after = match(stereo, X_new);
            EXPECT_LT(cv::norm(before.p0 - after.p0) + cv::norm(before.p1 - after.p1), 1e-8);
            expect_triangulated(stereo, X_new);
        }
        EXPECT_NEAR(stereo.convert_distance_to_disparity(600), plain->convert_distance_to_disparity(600), 1e-8);
        EXPECT_NEAR(stereo.get_baseline_length(), plain->get_baseline_length(), 1e-9);
        const cv::Mat_<double> Q = stereo.Q.clone();
        stereo.recalculationQ();
        EXPECT_LT(max_difference(Q, stereo.Q), 1e-8);
    }
}

INSTANTIATE_TEST_SUITE_P(
    HorizontalAndVertical, Rigs, testing::Combine(testing::Bool(), testing::Values(0, zero_disparity)));

TEST(Stereo, OnlyTheRelativePoseOfTheCamerasMatters)
{
    const Stereo stereo = rectify(rig::pair());
    Pair cams = rig::pair();
    rig::move_world(cams, rig::pose(rig::rotation(0.5, -1.2, 2.0), { 500, -300, 100 }));
    const Stereo moved = rectify(cams);
    ASSERT_TRUE(stereo && moved);
    EXPECT_LT(max_difference(stereo->Q, moved->Q), 1e-7);
    EXPECT_LT(max_difference(stereo->cam1.P, moved->cam1.P), 1e-7);
    EXPECT_LT(max_difference(stereo->cam0.map1, moved->cam0.map1), 1e-4); // one ulp of a float below 512
    EXPECT_NEAR(stereo->get_baseline_length(), cv::norm(cams[1].get_center() - cams[0].get_center()), 1e-9);
}

TEST(Stereo, SizesAndSettingsOfARectifiedPair)
{
    const Stereo same = rectify(rig::pair()), other = rectify(rig::pair(), 0, { 200, 100 }, 0);
    ASSERT_TRUE(same && other);
    const auto output_of = [](const StereoCamera& stereo) {
        cv::Size size;
        stereo.get_outimage_size(&size.width, &size.height);
        return size;
    };
    EXPECT_EQ(output_of(*same), cv::Size(320, 256));
    EXPECT_EQ(output_of(*other), cv::Size(200, 100));
    cv::Size input;
    other->get_inpimage_size(&input.width, nullptr);
    other->get_inpimage_size(nullptr, &input.height);
    EXPECT_EQ(input, cv::Size(320, 256));
    for (const vexo::UndistortCamera* cam : { &other->cam0, &other->cam1 })
        EXPECT_TRUE(cam->size == cv::Size(200, 100) && cam->map1.size() == cam->size && cam->interpolation == 1);
    EXPECT_EQ(other->cam0.name + other->cam1.name, "stereoLstereoR");
    EXPECT_TRUE(other->cam0.fill == cv::Scalar(10) && other->cam1.fill == cv::Scalar(20));
    EXPECT_LT(max_difference(same->T, cv::Mat(same->cam1.get_center() - same->cam0.get_center())), 1e-12);
    StereoCamera copy(cv::Size(1, 1));
    copy = *same;
    EXPECT_TRUE(same_bits(copy, *same));
    copy.cam0.map1.setTo(0);
    copy.Q.setTo(0);
    EXPECT_FALSE(same_bits(copy.cam0, same->cam0) || same_bits(copy.Q, same->Q));
}

TEST(Stereo, NumbersThatMakeNoPairGiveNull)
{
    auto refused = [](void (*spoil)(Pair&)) {
        Pair cams = rig::pair();
        spoil(cams);
        for (vexo::DistortCamera& cam : cams)
            cam.compose();
        return !rectify(cams);
    };
    EXPECT_FALSE(refused([](Pair&) {}));
    EXPECT_TRUE(refused([](Pair& c) { c[1].size.width = 321; }));
    EXPECT_TRUE(refused([](Pair& c) { c[0].size = c[1].size = { 0, 0 }; }));
    EXPECT_TRUE(refused([](Pair& c) { c[0].size = c[1].size = { 32767, 10 }; }));
    EXPECT_TRUE(refused([](Pair& c) { c[1].R = c[0].R.clone(), c[1].T.setTo(0); }));
    EXPECT_TRUE(refused([](Pair& c) { c[1].T.setTo(1e308); }));
    EXPECT_TRUE(refused([](Pair& c) { c[1].T(0) = NAN; }));
    EXPECT_TRUE(refused([](Pair& c) { c[0].K(0, 0) = 0; }));
    EXPECT_TRUE(refused([](Pair& c) { c[0].K(1, 1) = -430; }));
    EXPECT_TRUE(refused([](Pair& c) { c[0].D(2) = INFINITY; }));
    EXPECT_TRUE(refused([](Pair& c) { c[1].R *= 1.1; }));
    EXPECT_TRUE(refused([](Pair& c) { c[1].R *= -1.0; }));
    EXPECT_FALSE(refused([](Pair& c) { c[1].K *= 3.0; }));
    const Pair cams = rig::pair();
    for (const cv::Size size : { cv::Size(0, 5), { 5, 0 }, { -1, 5 }, { 32767, 5 }, { 32766, 32766 } })
        EXPECT_FALSE(rectify(cams, 0, size)) << size;
    EXPECT_FALSE(rectify(cams, 0, { 0, 0 }, NAN));
}

TEST(Stereo, RemapWritesTheCallersRowsAndNothingElse)
{
    const Stereo stereo = rectify(rig::pair(), 0, { 200, 100 });
    ASSERT_TRUE(stereo);
    cv::Mat raw(256, 2 * 320, CV_8UC1);
    cv::RNG(5).fill(raw, cv::RNG::UNIFORM, 1, 255);
    cv::Mat both(100, 2 * 200 + 7, CV_8UC1, cv::Scalar(99));
    ASSERT_TRUE(stereo->remap(raw.data, raw.step, both.data, both.step, 2));
    for (int which = 0; which < 2; ++which) {
        cv::Mat one(100, 200 + 3, CV_8UC1, cv::Scalar(98));
        cv::Mat half = raw.colRange(320 * which, 320 * (which + 1));
        ASSERT_TRUE(stereo->remap(half.data, raw.step, one.data, one.step, which));
        EXPECT_EQ(max_difference(one.colRange(0, 200), both.colRange(200 * which, 200 * (which + 1))), 0);
        EXPECT_EQ(cv::countNonZero(one.colRange(200, 203) != 98), 0);
        cv::Mat expected;
        ASSERT_TRUE((which == 0 ? stereo->cam0 : stereo->cam1).remap(half, expected));
        EXPECT_EQ(max_difference(one.colRange(0, 200), expected), 0);
    }
    EXPECT_EQ(cv::countNonZero(both.colRange(400, 407) != 99), 0);

    const cv::Mat before = both.clone();
    auto remap = [&](uchar* src, unsigned long src_step, uchar* dst, unsigned long dst_step, int which) {
        return stereo->remap(src, src_step, dst, dst_step, which);
    };
    EXPECT_FALSE(remap(raw.data, 640, both.data, 407, 3) || remap(raw.data, 640, both.data, 407, -1));
    EXPECT_FALSE(remap(nullptr, 640, both.data, 407, 0) || remap(raw.data, 640, nullptr, 407, 0));
    EXPECT_FALSE(remap(raw.data, 319, both.data, 407, 0) || remap(raw.data, 320, both.data, 199, 1));
    EXPECT_FALSE(remap(raw.data, 639, both.data, 407, 2) || remap(raw.data, 640, both.data, 399, 2));
    EXPECT_FALSE(StereoCamera({ 320, 256 }).remap(raw.data, 640, both.data, 407, 0));
    EXPECT_TRUE(same_bits(before, both));

    const Stereo same = rectify(rig::pair()); // one buffer for both
    cv::Mat out(256, 640, CV_8UC1);
    cv::Mat packed(256, 640, CV_8UC1);
    ASSERT_TRUE(same->remap(raw.data, 640, out.data, 640, 2) && same->remap(raw.data, 0, packed.data, 0, 2));
    EXPECT_TRUE(same_bits(packed, out)); // step 0: packed rows
    ASSERT_TRUE(same->remap(raw.data, 640, raw.data, 640, 2));
    EXPECT_TRUE(same_bits(raw, out));
    cv::Mat left(256, 320, CV_8UC1), again(256, 320, CV_8UC1);
    ASSERT_TRUE(same->remap(raw.data, 0, left.data, 0, 1) && same->remap(raw.data, 320, again.data, 320, 1));
    EXPECT_TRUE(same_bits(left, again));
}

TEST(Stereo, DegenerateObservations)
{
    const Stereo pair = rectify(rig::pair(), zero_disparity);
    ASSERT_TRUE(pair);
    vexo::iStereoCamera& stereo = *pair;
    double xyz[3] = { 1, 2, 3 };
    EXPECT_TRUE(stereo.get3dposition(xyz, 10, 10, 0.0)); // infinitely far
    EXPECT_FALSE(std::isfinite(xyz[2]));

    const cv::Vec3d untouched(1, 2, 3);
    std::copy(untouched.val, untouched.val + 3, xyz);
    double dist = 0;
    const cv::Vec3d ahead(0, 0, 1);
    EXPECT_EQ(pair->position_from_sv(ahead, ahead, dist, { 0, 0, 0 }, { 9, 0, 0 }), cv::Vec3d(0, 0, 0));
    EXPECT_EQ(dist, DBL_MAX);
    const double almost = 0.9999999999;
    const cv::Vec3d turned(std::sqrt(1 - almost * almost), 0, almost);
    pair->position_from_sv(ahead, turned, dist, { 0, 0, 0 }, { 9, 0, 0 });
    EXPECT_LT(dist, DBL_MAX);

    // The largest accepted distance is inclusive; a distance that is NaN passes.
    const double p0[2] = { 150, 120 };
    const double p1[2] = { 100, 125 };
    pair->get3dposition_V({ 150, 120 }, { 100, 125 }, dist);
    ASSERT_GT(dist, 0);
    EXPECT_FALSE(stereo.get3dposition(xyz, std::nextafter(dist, 0), p0, p1));
    EXPECT_EQ(cv::Vec3d(xyz), untouched);
    EXPECT_TRUE(stereo.get3dposition(xyz, dist, p0, p1));
    const double nowhere[2] = { NAN, 0 };
    EXPECT_TRUE(stereo.get3dposition(xyz, 1.0, nowhere, p1));

    StereoCamera empty({ 320, 256 });
    empty.cam0.P.setTo(0);
    empty.cam1.P.setTo(0);
    std::copy(untouched.val, untouched.val + 3, xyz);
    EXPECT_FALSE(empty.get3dposition(xyz, p0, p1));
    EXPECT_EQ(cv::Vec3d(xyz), untouched);
    EXPECT_EQ(empty.get3dposition_P({ 1, 2 }, { 3, 4 }, nullptr), cv::Vec3d(0, 0, 0));
    EXPECT_FALSE(stereo.get3dposition(nullptr, 1, 1, 1) || stereo.get3dposition(xyz, nullptr, p1));
    empty.T = (cv::Mat_<double>(3, 1) << 5, -5, 0);
    EXPECT_FALSE(empty.is_horizontal_stereo());
}

TEST(Stereo, ConversionByNoFrameChangesNothing)
{
    const Stereo stereo = rectify(rig::pair());
    const StereoCamera before = *stereo;
    cv::Mat_<double> bad(cv::Mat_<double>::eye(4, 4));
    bad(1, 3) = NAN;
    EXPECT_FALSE(stereo->convert_coordinate_system(bad));
    EXPECT_FALSE(stereo->convert_coordinate_system(cv::Mat_<double>(4, 4, 0.0)));
    EXPECT_FALSE(stereo->convert_coordinate_system(rig::rotation(0, 0, 1)));
    EXPECT_FALSE(stereo->convert_coordinate_system({}));
    EXPECT_TRUE(same_bits(before, *stereo));
}
