#include "base/cpu.h"
#include "base/failure.h"
#include "base/statistics.h"
#include "host/captures/fringe_steps.h"
#include "host/measurement/causes.h"
#include "host/measurement/cleaning.h"
#include "host/measurement/gap_points.h"
#include "reference/plain_refinement.h"
#include "support/bits.h"
#include "support/measuring.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace {

using namespace vexo;

using Refining = Measuring;

TEST_F(Refining, RefinesToTheBitAsThePlainFormDoesWithAndWithoutAvx2)
{
    for (const Method method : { Method::gray_phase, Method::multi_phase }) {
        const Capture scan = capture(method);
        const Stereo pair = stereo(scan);
        MeasureRequest request;
        request.refine = false;
        request.cleaning = Cleaning::off;
        const Measured m = measure(scan, pair, request);
        std::vector<FringeSet> sets;
        for (const std::size_t first : phase_sets(method))
            sets.push_back({ first, method == Method::gray_phase ? -1.0F : 3.3F });
        cv::Mat wrong = m.disparity.clone(); // by up to 4 px, so that other columns and windows are tried
        std::mt19937 random(1);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                if (random() % 8 == 0) wrong.at<float>(y, x) += static_cast<float>(random() % 800) * 0.01F - 4.0F;
        std::array<RawPhases, 2> raw, other;
        for (const bool fast : { true, false }) {
            Cpu::allow_avx2(fast);
            std::swap(raw, other);
            for (std::size_t c = 0; c < 2; ++c)
                raw[c] = raw_phases(scan.frames.frames[c], sets, m.precision.noise[c], m.masks[c].modulation);
            const Refined rows = refine(raw, pair.tables, wrong), points = plain::refine(raw, pair.tables, wrong);
            Cpu::allow_avx2(true);
            EXPECT_TRUE(fast || same_bits(raw[0].variance, other[0].variance));
            for (std::size_t f = 0; !fast && f < sets.size(); ++f)
                EXPECT_TRUE(same_bits(raw[1].phases[f], other[1].phases[f])) << f;
            EXPECT_TRUE(same_bits(rows.disparity, points.disparity) && same_bits(rows.sigma, points.sigma)) << fast;
            EXPECT_EQ(cv::norm(rows.samples, points.samples, cv::NORM_INF), 0.0) << fast;
            for (const int samples : { 5, 3, 2 })
                EXPECT_GT(cv::countNonZero(rows.samples == samples), 20) << samples;
        }
    }
}

TEST(FringePhase, DiffersFromTheAngleOfTwoGreyDifferencesByAtMostFourPartsInAHundredMillion)
{
    constexpr double pi = 3.14159265358979323846;
    double worst = 0.0;
    for (int s = -255; s <= 255; ++s)
        for (int c = -255; c <= 255; ++c) {
            const double exact = s == 0 && c == 0 ? 0.0 : std::atan2(s, c) / (2.0 * pi);
            const double off = static_cast<double>(turns(static_cast<float>(s), static_cast<float>(c))) - exact;
            worst = std::max(worst, std::abs(off - std::round(off)));
        }
    EXPECT_LE(worst, 4e-8);
}

TEST_F(Refining, GivesTheLibrarysOwnPointsWhenItShallNotRefine)
{
    const Capture scan = capture(Method::multi_phase);
    const Stereo pair = stereo(scan);
    MeasureRequest request;
    request.refine = false;
    request.cleaning = Cleaning::off;
    const Measured m = measure(scan, pair, request);
    PairFrames frames = scan.frames.frames;
    for (std::size_t c = 0; c < 2; ++c) {
        frames[c][1] = frames[c][1].clone();
        frames[c][1].setTo(0, m.masks[c].modulation == 0);
    }
    const Cloud cloud = match(*pair.camera, frames, m.record, false);
    EXPECT_EQ(std::memcmp(cloud.points.data(), m.cloud.points.data(), m.cloud.points.size() * sizeof(cv::Point3f)), 0);
    EXPECT_EQ(cv::countNonZero((m.precision.sigma == m.precision.sigma) & ~(m.depth == m.depth)), 0);
    request.interpolate = true;
    EXPECT_TRUE(measure(scan, pair, request).precision.sigma.empty());
}

TEST_F(Refining, PointsBeyondTheLimitsAreThoseThatTheLibraryDropsOrNoneIsTakenOut)
{
    for (const Method method : { Method::gray_phase, Method::multi_phase }) {
        const Capture scan = capture(method);
        const Stereo pair = stereo(scan);
        Measured m = measure(scan, pair, {});
        const Cloud all = match(*pair.camera, scan.frames.frames, lift_disparity(m.record), false);
        std::vector<float> sorted = disparities_of(all, pair.geometry);
        std::sort(sorted.begin(), sorted.end());
        const auto middle_of_widest_gap = [&sorted](std::size_t begin, std::size_t end) {
            std::size_t widest = begin;
            for (std::size_t i = begin; i + 1 < end; ++i)
                if (sorted[i + 1] - sorted[i] > sorted[widest + 1] - sorted[widest]) widest = i;
            return 0.5 * (static_cast<double>(sorted[widest]) + static_cast<double>(sorted[widest + 1]));
        };
        const std::size_t few = sorted.size() / 20;
        set_disparity_limits(
            m.record, middle_of_widest_gap(1, few), middle_of_widest_gap(sorted.size() - few, sorted.size() - 1));
        Cloud kept = all;
        ASSERT_TRUE(keep_within_limits(kept, m.record, pair.geometry));
        const Cloud own = match(*pair.camera, scan.frames.frames, m.record, false);
        EXPECT_EQ(kept.count, own.count);
        EXPECT_LT(kept.count, all.count);
        EXPECT_EQ(std::memcmp(kept.points.data(), own.points.data(), own.points.size() * sizeof(cv::Point3f)), 0);

        set_disparity_limits(m.record, static_cast<double>(sorted[few]), 1e9); // at a point: its depth cannot tell
        kept = all;
        EXPECT_FALSE(keep_within_limits(kept, m.record, pair.geometry));
        EXPECT_EQ(kept.count, all.count);
    }
}

TEST(FringeSteps, HaveTheAngleAndTheLengthOfTheirTwoDifferences)
{
    constexpr double pi = 3.14159265358979323846;
    std::vector<cv::Mat> frames(4, cv::Mat(1, 1, CV_8U));
    for (cv::Mat& frame : frames)
        frame = cv::Mat(1, 1, CV_8U);
    for (int s = -255; s <= 255; ++s)
        for (int c = -255; c <= 255; ++c) {
            frames[0].at<uchar>(0, 0) = static_cast<uchar>(std::max(-c, 0));
            frames[2].at<uchar>(0, 0) = static_cast<uchar>(std::max(c, 0));
            frames[1].at<uchar>(0, 0) = static_cast<uchar>(std::max(s, 0));
            frames[3].at<uchar>(0, 0) = static_cast<uchar>(std::max(-s, 0));
            const FringeSteps steps(frames, 0, 0, 0);
            ASSERT_EQ(steps.phase(), (pi - std::atan2(s, c)) / (2.0 * pi)) << s << ' ' << c;
            ASSERT_DOUBLE_EQ(steps.modulation(), 0.5 * std::hypot(s, c)) << s << ' ' << c;
        }
}

TEST_F(Refining, MeasuresNarrowGapsOfASurfaceAsTheyWereAndLeavesWiderOnesOpen)
{
    const Capture scan = capture(Method::multi_phase);
    const Stereo pair = stereo(scan);
    Measured m = measure(scan, pair, {});
    const PhaseData data = phase_data(
        { scan.frames.frames[0], scan.frames.frames[1], m.masks, m.record, m.disparity, m.cloud, m.causes, {} });
    const cv::Mat before = m.disparity.clone();
    cv::Mat narrow = cv::Mat::zeros(before.size(), CV_8U), wide = narrow.clone();
    for (int x = 100; x + 12 < width; x += 24) {
        narrow.colRange(x, x + 2).rowRange(100, 200).setTo(255);
        wide.colRange(x + 12, x + 15).rowRange(100, 200).setTo(255);
    }
    remove_points(m, narrow | wide, Cause::unwrapping);
    const int removed = m.cloud.count;
    measure_gaps(pair, data.raw, m);
    const cv::Mat there = before == before, filled = m.disparity == m.disparity;
    EXPECT_EQ(cv::countNonZero(wide & filled & there), 0);
    EXPECT_GT(cv::countNonZero(narrow & filled & there), 0.6 * cv::countNonZero(narrow & there)); // not at edges
    cv::Mat apart;
    cv::absdiff(before, m.disparity, apart);
    EXPECT_LT(cv::norm(apart, cv::NORM_INF, filled & there), 0.1);
    EXPECT_LT(cv::mean(apart, narrow & filled & there)[0],
        0.01); // the bend of fewer neighbours is taken off; the noise is 0.02
    EXPECT_EQ(m.cloud.count, cv::countNonZero(filled));
    EXPECT_GE(m.precision.in_gaps, m.cloud.count - removed);
}

TEST_F(Refining, RefinesWithTheTablesOfAnHmatSetAsWithItsYaml)
{
    const Capture scan = capture(Method::multi_phase);
    const Stereo yaml = stereo(scan);
    const Rectification r = rectify(read_cameras(yaml.files), { width, height }, -1.0, 0, { width, height });
    std::string tables;
    for (const cv::Mat& table : { yaml.tables[0].x, yaml.tables[0].y, yaml.tables[1].x, yaml.tables[1].y }) {
        const std::int32_t head[2] = { width * height, 0 };
        tables.append(reinterpret_cast<const char*>(head), sizeof head);
        tables.append(table.ptr<char>(), table.total() * sizeof(float));
    }
    const auto bytes
        = [](const cv::Matx34d& P) { return std::string(reinterpret_cast<const char*>(P.val), sizeof P.val); };
    ASSERT_TRUE(write_file(folder / "p0", bytes(r.P0)) && write_file(folder / "p1", bytes(r.P1)));
    ASSERT_TRUE(write_file(folder / "t", tables));
    const Stereo hmat = open_stereo({ folder / "p0", folder / "p1", folder / "t" }, yaml.param);
    const Measured a = measure(scan, yaml, {}), b = measure(scan, hmat, {});
    EXPECT_TRUE(b.precision.refined);
    EXPECT_LT(cv::norm(a.depth, b.depth, cv::NORM_INF, (a.depth == a.depth) & (b.depth == b.depth)), 1e-3); // mm
    EXPECT_LE(std::abs(a.cloud.count - b.cloud.count), a.cloud.count / 1000);
    ASSERT_TRUE(write_file(folder / "t", tables.substr(0, tables.size() - 8)));
    EXPECT_THROW(read_tables(folder / "t", { width, height }), Failure);
}

TEST_F(Refining, FindsTheNoiseInTheFramesWhateverTheProjectorsGamma)
{
    for (const double gamma : { 1.0, 2.0 }) {
        const Capture scan = capture(Method::gray_phase, "bust", 0.5, gamma);
        const std::vector<cv::Mat>& frames = scan.frames.frames[0];
        const PixelMasks masks = make_masks(frames, {}, { 9 }, 6.0);
        const NoiseModel noise = estimate_noise(frames, { 9 }, masks.modulation);
        const sim::Sensor sensor = sim::make_rig({}).sensor; // and the rounding to whole grey levels
        const double grey = 60.0,
                     expected = sensor.read * sensor.read + 1.0 / 12.0 + sensor.shot * (grey - sensor.black);
        EXPECT_NEAR(std::sqrt(noise.c0 + grey * noise.k), std::sqrt(expected), 0.08) << gamma; // 1.35, in its middle
    }
}

} // namespace
