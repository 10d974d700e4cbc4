#include "base/failure.h"
#include "host/captures/depth.h"
#include "host/captures/gamma.h"
#include "host/captures/names.h"
#include "host/captures/noise.h"
#include "host/captures/odd_frames.h"
#include "host/captures/order.h"
#include "host/captures/positions.h"
#include "patterns/fringes.h"
#include "support/folder.h"
#include "support/refusal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace {

using namespace vexo;
using Frames = std::vector<cv::Mat>;

const FringeMethod gray { Method::gray_phase, {} }, multi { Method::multi_phase, { 27, 29, 31 } };
constexpr int period = 8, columns = 1024, rows = 48;

/// What a camera sees that looks at every projector column with one of its own.
Frames seen(const FringeMethod& method, double light = 0.7, double room = 20)
{
    Frames frames;
    for (const PatternFrame& f :
        method.multi() ? multi_phase_frames(columns, method.periods) : gray_phase_frames(columns, period)) {
        cv::Mat frame;
        cv::repeat(f.row, rows, 1, frame);
        frame.convertTo(frame, CV_8U, light, room);
        frames.push_back(frame);
    }
    return frames;
}

/// No camera sees one grey all over.
Frames with_noise(Frames frames)
{
    cv::RNG random(5);
    for (cv::Mat& frame : frames) {
        cv::Mat noise(frame.size(), CV_16S), sum;
        random.fill(noise, cv::RNG::NORMAL, 0, 1.5);
        cv::add(frame, noise, sum, cv::noArray(), CV_8U);
        frame = sum;
    }
    return frames;
}

TEST(ProjectorPositions, AreTheColumnsThatWereProjectedWithinTheRoundingOfTheGreys)
{
    // Two roundings to grey levels over an amplitude of 89: 0.016 rad, of a period of 8 or 27 px 0.02 and 0.07 px.
    for (const FringeMethod& method : { gray, multi }) {
        const cv::Mat positions = projector_positions(seen(method), method);
        const double unit = method.multi() ? 1 : period, tolerance = method.multi() ? 0.07 : 0.02;
        int found = 0;
        for (int x = 0; x < columns; ++x) {
            const double at = unit * static_cast<double>(positions.at<float>(2, x));
            if (!(at == at)) continue;
            ++found;
            const double middle
                = method.multi() ? x : x + 0.5; // columns count from their middle, fringes from their edge
            EXPECT_NEAR(at, middle, tolerance) << x << (method.multi() ? " of several periods" : "");
        }
        const int known
            = method.multi() ? multi_phase_columns : columns * 6 / period; // without a fringe's first and last
        EXPECT_GT(found, 0.99 * known);
        EXPECT_LE(found, known);
    }
}

TEST(ProjectorPositions, AreUnknownWhereTheLightOrOneOfTheFringesIsMissing)
{
    for (const FringeMethod& method : { gray, multi }) {
        Frames frames = seen(method);
        frames[0].colRange(0, 200).copyTo(frames[1].colRange(0, 200));
        const std::size_t fringes = frames.size() - 4;
        for (std::size_t k = fringes; k < frames.size(); ++k)
            frames[k].colRange(400, 600).setTo(90);
        const cv::Mat positions = projector_positions(frames, method);
        for (const cv::Range& range : { cv::Range(0, 200), cv::Range(400, 600) }) {
            const cv::Mat part = positions.colRange(range);
            EXPECT_EQ(cv::countNonZero(part == part), 0) << range.start;
        }
        EXPECT_GT(cv::countNonZero(positions == positions), 0);
    }
}

TEST(ProjectorPositions, OfEveryThirdColumnAreThoseOfAll)
{
    const Frames frames = seen(gray);
    const cv::Mat all = projector_positions(frames, gray), some = projector_positions(frames, gray, 3);
    for (int x = 0; x < columns; ++x) {
        const float one = some.at<float>(0, x), same = all.at<float>(0, x);
        EXPECT_TRUE(x % 3 != 0 ? std::isnan(one) : (one == same || std::isnan(same))) << x;
    }
}

TEST(FrameOrder, NamesTheTwoFramesThatAreExchangedAndNoneOfRightOnes)
{
    const Frames right = with_noise(seen(gray));
    EXPECT_FALSE(find_exchange(right, gray));
    EXPECT_FALSE(find_exchange(with_noise(seen(multi)), multi));
    for (const auto& [a, b] : { std::pair<std::size_t, std::size_t> { 0, 1 }, { 2, 5 }, { 6, 8 }, { 1, 4 } }) {
        Frames frames = right;
        std::swap(frames[a], frames[b]);
        const FrameOrder order = find_exchange(frames, gray);
        ASSERT_TRUE(order) << a << b;
        std::vector<std::size_t> places(frames.size());
        for (std::size_t k = 0; k < places.size(); ++k)
            places[k] = k;
        if (order.kind == FrameOrder::exchanged) std::swap(places[order.pair[0]], places[order.pair[1]]);
        if (order.kind == FrameOrder::planes)
            for (std::size_t k = 0; k < order.seven.size(); ++k)
                places[2 + k] = 2 + order.seven[k];
        for (std::size_t k = 0; k < places.size(); ++k)
            EXPECT_TRUE(same_picture(frames[places[k]], right[k])) << a << b << ": frame " << k;
    }
}

TEST(OddFrames, AreTheEmptyAndTheDoubledOnesAndNoneOfRightFrames)
{
    for (const FringeMethod& method : { gray, multi }) {
        Frames frames = seen(method);
        const OddFrames right = find_odd_frames(frames, method);
        EXPECT_TRUE(right.empty.empty() && right.equal.empty());
        frames[10] = frames[0].clone();
        const OddFrames odd = find_odd_frames(frames, method);
        EXPECT_EQ(odd.empty, std::vector<std::size_t> { 10 });
        EXPECT_EQ(odd.equal.size(), 1U);
        frames[10] = frames[11].clone();
        const OddFrames doubled = find_odd_frames(frames, method);
        ASSERT_EQ(doubled.equal.size(), 1U);
        EXPECT_EQ(doubled.equal[0], (std::array<std::size_t, 2> { 10, 11 }));
        EXPECT_TRUE(doubled.empty.empty());
    }
}

TEST(OddFrames, PicturesAreTheSameByAllTheirPixelsAndByNothingElse)
{
    const cv::Mat whole = seen(gray)[9], part = whole.colRange(100, 300);
    cv::Mat copy = part.clone();
    EXPECT_TRUE(same_picture(part, copy)) << "rows that lie apart in memory";
    copy.at<uchar>(rows - 1, 199) ^= 1;
    EXPECT_FALSE(same_picture(part, copy)) << "one bit of the last pixel";
    EXPECT_FALSE(same_picture(part, part.rowRange(0, 3)));
    EXPECT_TRUE(is_blank(cv::Mat(3, 3, CV_8U, cv::Scalar(77))));
    EXPECT_FALSE(is_blank(part));
}

TEST(CaptureNoise, IsThatOfTheCameraWhateverBendsTheFringes)
{
    constexpr double c0 = 0.8, k = 0.02;
    for (const double bend : { 0.0, 6.0 }) {
        std::mt19937 random(11);
        std::normal_distribution<double> unit;
        Frames frames(4);
        for (std::size_t s = 0; s < 4; ++s) {
            frames[s] = cv::Mat(200, 400, CV_8U);
            for (int y = 0; y < 200; ++y)
                for (int x = 0; x < 400; ++x) {
                    const double t = 0.21 * x - static_cast<double>(s) * CV_PI / 2, mean = 40 + 0.3 * x;
                    const double grey = mean + 35 * std::cos(t) + bend * std::cos(2 * t);
                    frames[s].at<uchar>(y, x)
                        = cv::saturate_cast<uchar>(grey + std::sqrt(c0 + k * grey) * unit(random));
                }
        }
        const NoiseModel model = estimate_noise(frames, { 0 }, cv::Mat(200, 400, CV_8U, cv::Scalar(255)));
        // Rounding to grey levels adds 1/12. Some 20 000 samples of a chi square scatter by a percent, a slope that is
        // seen over half of its greys by about four times that.
        for (const double grey : { 60.0, 100.0, 140.0 }) {
            const double truth = c0 + 1.0 / 12 + k * grey;
            EXPECT_NEAR(model.c0 + model.k * grey, truth, 0.06 * truth) << grey << ", bent by " << bend;
        }
        EXPECT_NEAR(model.k, k, 0.2 * k);
    }
}

TEST(CaptureNoise, OfFramesThatShowNothingIsTheRoundingAlone)
{
    const Frames clipped(4, cv::Mat(20, 20, CV_8U, cv::Scalar(255)));
    for (const int mask : { 0, 255 }) {
        const NoiseModel model = estimate_noise(clipped, { 0 }, cv::Mat(20, 20, CV_8U, cv::Scalar(mask)));
        EXPECT_EQ(model.c0, 1.0 / 12);
        EXPECT_EQ(model.k, 0);
    }
}

TEST(GreyDepth, ScalesWhiteToWhiteAndBlackToBlackAndNeverTurnsTheOrderOfGreys)
{
    for (const int bits : { 8, 10, 12, 14, 16 }) {
        const int most = (1 << bits) - 1;
        EXPECT_EQ(bits_of(most), bits);
        EXPECT_EQ(bits_of(most / 2 + 1), bits == 8 ? 8 : bits) << "the highest bit alone";
        cv::Mat_<std::uint16_t> greys(1, most + 1);
        for (int i = 0; i <= most; ++i)
            greys(0, i) = static_cast<std::uint16_t>(i);
        EXPECT_EQ(largest_grey(greys), most);
        const cv::Mat_<uchar> scaled = to_common_bits(greys, bits);
        EXPECT_EQ(scaled(0, 0), 0);
        EXPECT_EQ(scaled(0, most), 255);
        EXPECT_TRUE(std::is_sorted(scaled.begin(), scaled.end()));
    }
    EXPECT_EQ(bits_of(0), 8);
    EXPECT_EQ(largest_grey({}), 0);
    EXPECT_TRUE(to_common_bits({}, 12).empty());
}

TEST(FileNames, HaveTheLastNumberInThemAndNoneOfTheFoldersOrTheExtension)
{
    const std::pair<const char*, int> named[] = { { "left_07.png", 7 }, { "cam1/12.jp2", 12 }, { "a3b4c.png", 4 },
        { "2026-11-26 008.tif", 8 }, { "x12345678901234567890.png", 234567890 }, { "-5.png", 5 }, { "7", 7 } };
    for (const auto& [name, number] : named)
        EXPECT_EQ(number_in_name(name).value_or(-1), number) << name;
    for (const char* name : { "", "cam1/left.png", "1/", "left.jp2", "\xFF.png" })
        EXPECT_FALSE(number_in_name(name)) << name;
}

TEST(GammaTables, UndoTheirGammaAndComeBackFromTheirFile)
{
    const Folder folder;
    for (const double gamma : { 0.5, 1.0, 2.2 }) {
        const GammaTable table = undo_gamma(gamma);
        EXPECT_TRUE(std::is_sorted(table.grey.begin(), table.grey.end()));
        for (std::size_t i = 0; i < 256; ++i) {
            const double light = 255 * std::pow(table.grey[i] / 255.0, gamma);
            const double step = 255 * (std::pow(std::min(1.0, (table.grey[i] + 0.5) / 255), gamma)) - light;
            const double step_down = light - 255 * std::pow(std::max(0.0, (table.grey[i] - 0.5) / 255), gamma);
            EXPECT_NEAR(light, static_cast<double>(i), std::max(step, step_down) + 1e-9) << gamma << ' ' << i;
        }
        put(folder / "t.json", gamma_json(table));
        EXPECT_EQ(load_gamma_table(folder / "t.json").grey, table.grey);
        EXPECT_EQ(load_gamma_table(folder / "t.json").gamma, gamma);
    }
}

TEST(GammaTables, FilesThatHoldNoRisingTableOfGreysAreRefused)
{
    const Folder folder;
    const std::string path = folder / "t.json";
    const auto text = [](const std::string& last, int count = 255) {
        std::string list;
        for (int i = 0; i < count; ++i)
            list += std::to_string(i) + ",";
        return "{\"gamma\":1,\"table\":[" + list + last + "]}";
    };
    put(path, text("255"));
    EXPECT_EQ(refusal([&] { load_gamma_table(path); }), "");
    for (const std::string& bad :
        { text("256"), text("253"), text("255", 254), text("255", 256), text("254.5"), text("\"255\""), text("null"),
            text("1e99"), text("18446744073709551615"), text("-1"), text("[255]"), std::string("{}"), std::string("[]"),
            std::string("{\"table\":{},\"gamma\":1}"), text("255").replace(9, 1, "\"\"") }) {
        put(path, bad);
        const std::string why = refusal([&] { load_gamma_table(path); });
        EXPECT_TRUE(is_one_line(why) && why.rfind(path, 0) == 0) << bad.substr(0, 40) << ": " << why;
    }
}

} // namespace
