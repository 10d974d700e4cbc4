#include "base/failure.h"
#include "base/parallel.h"
#include "base/statistics.h"
#include "base/text.h"
#include "base/whole_file.h"
#include "host/files/json_file.h"
#include "host/files/ply.h"
#include "support/folder.h"
#include "support/refusal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>

#include <sys/stat.h>

namespace {

using namespace vexo;

TEST(Statistics, QuantilesAreEntriesOfTheSortedValuesHoweverManyAreAskedFor)
{
    std::mt19937 random(4);
    for (const std::size_t size : { 1, 2, 3, 10, 101, 1000, 60000 }) { // many are counted, not sorted
        std::vector<float> values;
        for (std::size_t i = 0; i < size; ++i)
            values.push_back(i % 3 == 0 ? static_cast<float>(random() % 50) // many are equal
                                        : 1e-3F * static_cast<float>(random() % 200000) - 100.0F);
        std::vector<float> sorted = values;
        std::sort(sorted.begin(), sorted.end());
        const std::vector<double> shares { 0.0, 0.01, 0.25, 0.5, 0.5, 0.99, 1.0 }, found = quantiles(values, shares);
        for (std::size_t k = 0; k < shares.size(); ++k) {
            const auto at = static_cast<std::size_t>(shares[k] * static_cast<double>(size - 1));
            EXPECT_EQ(found[k], static_cast<double>(sorted[at])) << size << " values, " << shares[k];
            EXPECT_EQ(quantile(values, shares[k]), found[k]);
        }
    }
    EXPECT_TRUE(std::isnan(quantile({}, 0.5)));
    EXPECT_TRUE(quantiles({ 1.0F }, {}).empty());
}

TEST(Statistics, WhatIsNotFiniteMovesNoMedian)
{
    const double nan = std::nan(""), inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(median({ nan, 3, inf, 1, -inf, 2, nan }), 2);
    EXPECT_TRUE(std::isnan(median({ nan, inf })));
    EXPECT_TRUE(std::isnan(median({})));
    const cv::Mat_<float> map = (cv::Mat_<float>(2, 3) << 1, NAN, 3, INFINITY, 5, -INFINITY);
    EXPECT_EQ(finite_values(map), (std::vector<float> { 1, 3, 5 }));
    EXPECT_EQ(finite_values(map.colRange(1, 3)), (std::vector<float> { 3, 5 })) << "of a part, whose rows are apart";
    EXPECT_TRUE(finite_values(cv::Mat()).empty());
}

TEST(Text, NumbersAreAsPeopleReadThem)
{
    EXPECT_EQ(number(-0.0004, 3), "0.000") << "no sign of nothing";
    EXPECT_EQ(number(-0.0006, 3), "-0.001");
    EXPECT_EQ(number(1e20, 0), "100000000000000000000");
    EXPECT_EQ(number(std::nan(""), 2) + number(-INFINITY, 2), "nan-inf");
    EXPECT_EQ(percent(1, 3), "33.33 %");
    EXPECT_EQ(percent(0, 0) + percent(1, std::nan("")), "--");
    for (const auto& [value, text] : { std::pair<long long, const char*> { 0, "0" }, { 999, "999" }, { 1000, "1 000" },
             { -999, "-999" }, { -1000, "-1 000" }, { 1310720, "1 310 720" }, { -123456, "-123 456" },
             { LLONG_MIN, "-9 223 372 036 854 775 808" } })
        EXPECT_EQ(grouped(value), text);
}

TEST(Text, WhatIsShownOfAFileIsShortAndMovesNoCursor)
{
    EXPECT_EQ(shown("bild_\xC3\xA4.png"), "bild_\xC3\xA4.png");
    EXPECT_EQ(shown("a\x1B[2J\r\nb\x7F"), "a?[2J??b?");
    EXPECT_TRUE(is_one_line(shown(std::string(100000, '\0'))));
    EXPECT_EQ(shown(""), "");
}

TEST(Parallel, EachNumberIsWorkedOnOnceAndTheFirstFaultArrivesAfterAllWork)
{
    for (const std::size_t count : { 0, 1, 2, 1000 }) {
        std::vector<std::atomic<int>> calls(count);
        in_parallel(count, [&](std::size_t i) { ++calls[i]; });
        EXPECT_TRUE(std::all_of(calls.begin(), calls.end(), [](const std::atomic<int>& c) { return c == 1; })) << count;
    }
    std::atomic<int> done { 0 };
    const auto work = [&](std::size_t i) {
        ++done;
        if (i % 10 == 7) throw Failure("number " + std::to_string(i));
    };
    EXPECT_EQ(refusal([&] { in_parallel(100, work); }), "number 7") << "whichever thread was quicker";
    EXPECT_EQ(done, 100);
    EXPECT_THROW(in_parallel(3, [](std::size_t) { throw std::out_of_range("x"); }), std::out_of_range);
}

TEST(WholeFile, WhatIsNoRegularFileOfTheRightSizeIsRefusedAndLeavesTheBytesAlone)
{
    const Folder folder;
    const std::string fifo = folder / "fifo", file = folder / "file", loop = folder / "loop";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::filesystem::create_symlink(loop, loop);
    put(file, "12345");
    put(folder / "empty", "");
    std::string bytes = "before";
    for (const std::string& bad : { fifo, loop, folder / ".", folder / "absent", folder / "empty",
             std::string("/dev/zero"), std::string(), file + "/x" }) {
        EXPECT_FALSE(read_file(bad, 100, bytes)) << bad;
        EXPECT_TRUE(is_one_line(refusal([&] { read_bytes(bad, 100); }))) << bad;
    }
    EXPECT_FALSE(read_file(file, 4, bytes));
    EXPECT_EQ(bytes, "before");
    EXPECT_TRUE(read_file(file, 5, bytes));
    EXPECT_EQ(bytes, "12345");
}

TEST(WholeFile, AWriteFollowsALinkAndOneThatFailsLeavesTheOldFileAndNoOther)
{
    const Folder folder;
    const std::string file = folder / "file", link = folder / "link";
    put(file, "old");
    std::filesystem::create_symlink("file", link);
    EXPECT_TRUE(write_file(link, std::string("new")));
    EXPECT_EQ(content(file), "new");
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_TRUE(same_file(file, link));
    EXPECT_TRUE(same_file(folder / "later", folder / "./later")) << "also of a file still to be written";
    EXPECT_FALSE(same_file(file, folder / "later"));
    std::filesystem::create_directory(folder / "taken");
    EXPECT_FALSE(write_file(folder / "taken", std::string("new")));
    EXPECT_FALSE(write_file(folder / "absent/file", std::string("new")));
    EXPECT_FALSE(write_file(file + "/below", std::string("new")));
    const auto files = std::filesystem::directory_iterator(folder / ".");
    EXPECT_EQ(std::distance(begin(files), end(files)), 3) << "file, link and taken, and nothing temporary";
}

TEST(JsonFile, TextsThatAreNoObjectOfThisProgramAreNothing)
{
    const std::string deep(100000, '['), objects = [] {
        std::string text;
        for (int i = 0; i < 100000; ++i)
            text += "{\"a\":";
        return text;
    }();
    const auto nested
        = [](std::size_t levels) { return "{\"a\":" + std::string(levels, '[') + std::string(levels, ']') + "}"; };
    for (const std::string& text : { std::string(), std::string("null"), std::string("[1]"), std::string("{\"a\":1"),
             std::string("{\"a\":1}x"), std::string("{\"a\":1e400}"), std::string("{\"a\":NaN}"),
             std::string("{\"a\":\"\xFF\"}"), std::string("{a:1}"), std::string("{\"a\":01}"), std::string("\0", 1),
             deep, objects, nested(100000), nested(40) })
        EXPECT_FALSE(parse_json(text)) << text.substr(0, 40);
    EXPECT_TRUE(parse_json(nested(20)));
    EXPECT_TRUE(parse_json("\xEF\xBB\xBF{ }")) << "an editor may begin a file with a mark";
}

TEST(JsonFile, NumbersAndTextsOfAnotherKindAreNotTakenForThem)
{
    const Json json = *parse_json(R"({ "a": { "f": 1.5, "t": "1.5", "n": null, "l": [2] }, "s": 7 })");
    EXPECT_EQ(number_in(json, "/a/f", "r.json"), 1.5);
    for (const std::string where : { "/a/t", "/a/n", "/a/l", "/a/x", "/a/f/g", "/b", "/a" }) {
        const std::string why = refusal([&] { number_in(json, where, "r.json"); });
        EXPECT_EQ(why.rfind("r.json: ", 0), 0U) << where;
        EXPECT_NE(why.find(where.substr(1)), std::string::npos) << where;
    }
    EXPECT_EQ(text_in(json, "s", "none"), "none") << "a number is no text";
    EXPECT_EQ(text_in(json, "absent", "none"), "none");
}

TEST(JsonFile, WhateverIsWrittenReadsAgainAlsoNamesThatAreNotUtf8)
{
    const double third = 1.0 / 3.0, least = std::numeric_limits<double>::denorm_min();
    const Json json { { "name", "b\xFCste.png" }, { "third", third }, { "least", least }, { "nan", std::nan("") } };
    const auto again = parse_json(json_text(json));
    ASSERT_TRUE(again);
    EXPECT_EQ((*again)["name"], "b\xEF\xBF\xBDste.png");
    EXPECT_EQ((*again)["third"].get<double>(), third) << "to the last bit";
    EXPECT_EQ((*again)["least"].get<double>(), least);
    EXPECT_TRUE((*again)["nan"].is_null());
}

TEST(PlyFile, EveryPropertyOfEachMeasuredPointComesBack)
{
    const Folder folder;
    const cv::Mat_<uchar> grey = (cv::Mat_<uchar>(1, 3) << 7, 8, 255);
    const cv::Mat_<float> sigma = (cv::Mat_<float>(1, 3) << 0.25F, 0.5F, NAN);
    const std::vector<cv::Point3f> points { { 1, 2, 3 }, { NAN, NAN, NAN }, { -1e-30F, 3e38F, 5 } };
    const auto bytes = make_ply(points, grey, "unit mm", sigma);
    put(folder / "p.ply", { bytes.begin(), bytes.end() });
    const PlyCloud cloud = read_ply_cloud(folder / "p.ply");
    EXPECT_EQ(cloud.points, (std::vector<cv::Point3f> { points[0], points[2] }));
    ASSERT_EQ(cloud.sigma.size(), 2U);
    EXPECT_EQ(cloud.sigma[0], 0.25F);
    EXPECT_TRUE(std::isnan(cloud.sigma[1]));
    const auto without = make_ply(points, grey, "unit mm");
    put(folder / "p.ply", { without.begin(), without.end() });
    EXPECT_TRUE(read_ply_cloud(folder / "p.ply").sigma.empty());
}

TEST(PlyFile, CutAnywhereItIsRefusedInALineThatNamesIt)
{
    const Folder folder;
    const std::string path = folder / "cut.ply";
    const auto made = make_ply({ { 1, 2, 3 }, { 4, 5, 6 } }, cv::Mat::zeros(1, 2, CV_8U), "c");
    const std::string bytes(made.begin(), made.end());
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        put(path, bytes.substr(0, size));
        const std::string why = refusal([&] { read_ply_cloud(path); });
        EXPECT_TRUE(is_one_line(why) && why.rfind(path, 0) == 0) << size << " bytes: " << why;
    }
}

} // namespace
