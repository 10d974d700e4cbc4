#include "host/measurement/candidates.h"

#include "base/cpu.h"
#include "host/measurement/plain_decoding.h"
#include "support/measuring.h"

#include <cmath>
#include <limits>

namespace {

using namespace vexo;

constexpr float none = std::numeric_limits<float>::quiet_NaN();
constexpr float fringe = 11.0F, shift = 20.0F; ///< px

/// Fringes of 11 px on a wall at a disparity of 20 px, seen by cameras that need no rectifying.
struct Wall {
    static constexpr int width = 160, height = 32;

    Wall()
        : library(height, width, CV_32F, cv::Scalar(static_cast<double>(shift)))
    {
        for (RectifyingTable& table : tables)
            table = { library.clone(), library.clone() };
        for (cv::Mat& coordinate : coordinates)
            coordinate = library.clone();
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const auto column = static_cast<float>(x);
                for (RectifyingTable& table : tables) {
                    table.x.at<float>(y, x) = column;
                    table.y.at<float>(y, x) = static_cast<float>(y);
                }
                coordinates[0].at<float>(y, x) = column / fringe;
                coordinates[1].at<float>(y, x) = (column + shift) / fringe;
                if (column < shift) library.at<float>(y, x) = none;
            }
    }

    Candidates chosen() const
    {
        const CandidateLimits limits { 11.0, 1.0, 0.15, 5.0, 60.0 };
        return choose_candidates(library, plain_matches(coordinates, tables, library, limits), limits);
    }

    cv::Mat library;
    std::array<cv::Mat, 2> coordinates;
    RectifyingTables tables;
};

const cv::Rect run(60, 10, 40, 1); ///< pixels of one row

TEST(Candidates, PutAWrongFringeNumberOfARunRightAndFillWhatTheLibraryLacks)
{
    for (const bool lacks : { false, true }) {
        Wall wall;
        wall.library(run).setTo(lacks ? none : shift + fringe);
        const Candidates c = wall.chosen();
        EXPECT_LE(cv::norm(c.disparity(run), cv::Mat(run.size(), CV_32F, cv::Scalar(20.0)), cv::NORM_INF), 1.0);
        EXPECT_EQ(c.counts.exchanged, lacks ? 0 : run.area());
        EXPECT_EQ(c.counts.added, lacks ? run.area() : 0);
        EXPECT_EQ(c.counts.dropped, 0);
    }
}

TEST(Candidates, KeepTheLibrarysMatchWhereTheSecondDecodingErrsOrHasNone)
{
    for (const float wrong : { 1.0F, none }) { // a period, or no number
        Wall wall;
        wall.coordinates[0](run) += cv::Scalar(static_cast<double>(wrong));
        const Candidates c = wall.chosen();
        EXPECT_EQ(c.counts.exchanged + c.counts.added + c.counts.dropped, 0) << wrong;
        EXPECT_EQ(c.disparity.at<float>(run.tl()), shift);
    }
}

TEST(Candidates, LeaveOutWhatNothingAroundSupports)
{
    Wall wall;
    for (cv::Mat* map : { &wall.library, &wall.coordinates[0] }) // a hole with one match, or one more coordinate
        (*map)(cv::Rect(60, 4, 12, 12)).setTo(none);
    wall.library.at<float>(10, 66) = 41.0F;
    wall.coordinates[0].at<float>(7, 63) = 65.0F / fringe;
    const Candidates c = wall.chosen();
    EXPECT_TRUE(std::isnan(c.disparity.at<float>(10, 66)));
    EXPECT_TRUE(std::isnan(c.disparity.at<float>(7, 63)));
    EXPECT_EQ(c.counts.dropped, 1);
    EXPECT_EQ(c.counts.added, 0);
}

using SecondDecoding = Measuring;

/// Raw phases of camera 0 of a capture.
RawPhases phases_of(const Capture& scan, const Measured& m)
{
    std::vector<FringeSet> sets;
    for (std::size_t f = 0; f < phase_sets(m.method()).size(); ++f)
        sets.push_back({ phase_sets(m.method())[f], 1.0F });
    return raw_phases(scan.frames.frames[0], sets, m.precision.noise[0], m.masks[0].modulation);
}

TEST_F(SecondDecoding, NumbersAlmostAllFringesAsTheyRiseAlongTheRow)
{
    for (const Method method : { Method::gray_phase, Method::multi_phase }) {
        rig.noise = 2.4;
        const Capture scan = capture(method, "plane");
        const Measured m = measure(scan, stereo(scan), {});
        const cv::Mat at = plain_coordinates(scan.frames.frames[0], phases_of(scan, m), m.record);
        const double step = method == Method::gray_phase ? 0.5 : 4.0; // half a period
        long long all = 0, rising = 0;
        for (int y = 0; y < at.rows; ++y)
            for (int x = 4; x < at.cols; ++x) {
                const auto rise = static_cast<double>(at.at<float>(y, x) - at.at<float>(y, x - 4));
                if (std::isnan(rise)) continue;
                ++all;
                rising += rise > -step && rise < 3.0 * step + 4.0 ? 1 : 0; // at this size a px is 3 projector px
            }
        EXPECT_GT(all, width * height / 2) << name_of(method);
        EXPECT_GT(static_cast<double>(rising), 0.999 * static_cast<double>(all)) << name_of(method);
    }
}

TEST_F(SecondDecoding, MendsCodesThatSinglePixelsGetWrong)
{
    rig.fringe_period = 32; // 11 px, as fringes of 8 are in a picture of 1280
    const Capture scan = capture(Method::gray_phase, "plane");
    const Measured m = measure(scan, stereo(scan), {});
    std::vector<cv::Mat> frames = scan.frames.frames[0];
    const RawPhases phases = phases_of(scan, m);
    const cv::Mat right = plain_coordinates(frames, phases, m.record);
    frames[4] = frames[4].clone();
    for (int y = 3; y < height; y += 7)
        for (int x = 3; x < width; x += 7)
            frames[4].at<uchar>(y, x) = static_cast<uchar>(255 - frames[4].at<uchar>(y, x));
    const cv::Mat mended = plain_coordinates(frames, phases, m.record);
    cv::Mat apart;
    cv::absdiff(right, mended, apart);
    EXPECT_EQ(cv::countNonZero(apart > 1e-3), 0);
}

TEST_F(SecondDecoding, MeasuresWhatTheLibraryLeavesOutOfNoisyFringesOfSeveralPeriods)
{
    rig.noise = 4.0;
    const Capture scan = capture(Method::multi_phase);
    MeasureRequest library;
    library.refine = false;
    const Measured without = measure(scan, stereo(scan), library), with = measure(scan, stereo(scan), {});
    EXPECT_GT(with.cloud.count, 1.02 * without.cloud.count);
    EXPECT_EQ(without.precision.candidates.added, 0);
    long long sum = 0;
    for (const long long count : with.causes.counts)
        sum += count;
    EXPECT_EQ(sum, width * height);
    EXPECT_EQ(with.causes[Cause::none], with.cloud.count);
    Cpu::allow_avx2(false);
    const Measured plain = measure(scan, stereo(scan), {});
    Cpu::allow_avx2(true);
    EXPECT_TRUE(bytes_of(plain) == bytes_of(with));
}

} // namespace
