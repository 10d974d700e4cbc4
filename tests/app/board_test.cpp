#include "program.h"

#include "vexo/factories.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <regex>

namespace {

using Json = nlohmann::json;
using program::Folder;
using program::Outcome;

/// A board as `vexo board --json` describes it.
struct Printed {
    vexo::CalibBoardParam geometry;
    Json json;
};

Printed print(const Folder& work, const std::string& options)
{
    const Outcome outcome = program::run(work, "board --json " + options);
    EXPECT_EQ(outcome.code, 0) << options << ": " << outcome.err;
    Printed p;
    p.json = Json::parse(outcome.out);
    p.geometry
        = { p.json["pitch_mm"], p.json["columns"], p.json["rows"], p.json["origin"][0], p.json["origin"][1], 1.2 };
    return p;
}

class Sheets : public testing::TestWithParam<const char*> { };

// The sheet is seen from its front: x to the right, y up. 100 dpi puts the holes' radius at 11 px or more.
TEST_P(Sheets, AreReadByTheRecogniserWithEveryMarkerAtItsPlace)
{
    const Folder work;
    constexpr double dpi = 100, px_per_mm = dpi / 25.4;
    const Printed p = print(work, std::string(GetParam()) + " --dpi 100 --out " + work / "board.png");
    cv::Mat sheet = cv::imread(work / "board.png", cv::IMREAD_UNCHANGED);
    ASSERT_EQ(sheet.type(), CV_8UC1);
    EXPECT_EQ(sheet.cols, std::lround(p.json["page_mm"][0].get<double>() * px_per_mm));
    EXPECT_EQ(sheet.rows, std::lround(p.json["page_mm"][1].get<double>() * px_per_mm));

    auto* recogniser = vexo::CreateCalibBoardRecognizer();
    vexo::PreProcParam pre;
    vexo::CircleMarkerParam circle;
    circle.min_radius = 4;
    vexo::CalibBoardParam board = p.geometry;
    ASSERT_TRUE(recogniser->set_parameters(pre, circle, board));
    std::vector<cv::Point2f> seen;
    const int code = recogniser->recognize(sheet, seen);
    recogniser->destroy();
    ASSERT_EQ(code, 0);

    const auto origin = static_cast<std::size_t>(board.origin_x * board.rows + board.origin_y);
    for (std::size_t k = 0; k < seen.size(); ++k) {
        ASSERT_NE(seen[k].x, FLT_MAX) << "marker " << k;
        const int column = static_cast<int>(k) / board.rows, row = static_cast<int>(k) % board.rows;
        const double x = (board.origin_x - column) * board.pitch, y = (board.origin_y - row) * board.pitch;
        // Centres come from contours of whole pixels: without blur and noise they are off by up to a quarter px each.
        EXPECT_NEAR(seen[k].x - seen[origin].x, x * px_per_mm, 0.5) << "marker " << k;
        EXPECT_NEAR(seen[k].y - seen[origin].y, -y * px_per_mm, 0.5) << "marker " << k;
    }
}

INSTANTIATE_TEST_SUITE_P(Board, Sheets,
    testing::Values("", "--preset A3", "--preset coarse", "--preset A4 --pitch 10 --columns 17 --rows 13 --origin 5,9",
        "--preset custom --page 200x180 --columns 9 --rows 8 --pitch 14 --hole 6"));

/// Attributes x, y, width, height of all bars of an SVG sheet, mm.
std::vector<std::array<double, 4>> bars_of(const std::string& svg)
{
    std::vector<std::array<double, 4>> bars;
    const std::regex bar("<rect x=\"([0-9.]+)\" y=\"([0-9.]+)\" width=\"([0-9.]+)\" height=\"([0-9.]+)\"");
    for (auto i = std::sregex_iterator(svg.begin(), svg.end(), bar); i != std::sregex_iterator(); ++i)
        bars.push_back({ std::stod((*i)[1]), std::stod((*i)[2]), std::stod((*i)[3]), std::stod((*i)[4]) });
    return bars;
}

TEST(Board, RulersHaveTicksEveryMillimetreOver100InBothDirections)
{
    const Folder work;
    print(work, "--out " + work / "board.svg");
    const std::string svg = program::read(work / "board.svg");
    EXPECT_NE(svg.find("width=\"297mm\" height=\"210mm\" viewBox=\"0 0 297 210\""), std::string::npos);
    std::vector<double> along_x, along_y; // middles of the ticks
    for (const auto& [x, y, width, height] : bars_of(svg)) {
        if (std::abs(width - 0.2) < 1e-9 && height < 10) along_x.push_back(x + 0.1);
        if (std::abs(height - 0.2) < 1e-9 && width < 10) along_y.push_back(y + 0.1);
    }
    for (const auto& ticks : { along_x, along_y }) {
        ASSERT_EQ(ticks.size(), 101U);
        for (std::size_t mm = 0; mm < ticks.size(); ++mm)
            EXPECT_NEAR(ticks[mm] - ticks[0], static_cast<double>(mm), 1e-6);
    }
}

TEST(Board, PdfAndPngStateTheirSizeInMillimetres)
{
    const Folder work;
    print(work, "--out " + work / "board.pdf");
    const std::string pdf = program::read(work / "board.pdf");
    double width = 0, height = 0;
    const std::size_t box = pdf.find("/MediaBox");
    ASSERT_NE(box, std::string::npos);
    ASSERT_EQ(std::sscanf(pdf.c_str() + box, "/MediaBox [ 0 0 %lf %lf", &width, &height), 2);
    EXPECT_NEAR(width, 297 * 72 / 25.4, 1e-3);
    EXPECT_NEAR(height, 210 * 72 / 25.4, 1e-3);

    print(work, "--dpi 254 --out " + work / "board.png");
    const std::string png = program::read(work / "board.png");
    // pHYs: 10000 px a metre along x and y, unit metre
    EXPECT_NE(png.find(std::string("pHYs\x00\x00\x27\x10\x00\x00\x27\x10\x01", 13)), std::string::npos);
}

TEST(Board, BoardsThatRecognitionCannotReadAreRefusedInOneLineAndNothingIsWritten)
{
    const Folder work;
    const struct {
        const char *options, *why;
    } cases[] = { { "--hole 3", "hole" }, { "--hole 9", "hole" }, { "--pitch 10 --diameter 9", "pitch / diameter" },
        { "--pitch 10 --diameter 7", "pitch / diameter" }, { "--margin 8.9", "margin" }, { "--origin 2,7", "origin" },
        { "--origin 10,14", "origin" }, { "--origin 18,7", "origin" }, { "--columns 25", "page" },
        { "--preset custom", "--page" }, { "--page 100x100", "page" }, { "--page 1x", "--page" },
        { "--pitch nan", "no finite number" }, { "--pitch -3", "lengths" }, { "--columns 0", "columns" },
        { "--columns 99999 --rows 99999", "columns" }, { "--origin 99999999999,1", "origin" } };
    for (const auto& c : cases)
        program::expect_refused(
            work, std::string("board ") + c.options + " --out " + work / "no/board.pdf", c.why, work / "no");
}

TEST(BoardFile, IsReadBackByOtherCommandsAndRefusedWhenSpoilt)
{
    const Folder work;
    print(work, "--out " + work / "board.pdf");
    const std::string good = program::read(work / "board.yaml");
    // pose reads the board file before anything else: the board itself is accepted.
    const std::string use = "pose absent.png --calib absent.yaml --board ";
    program::expect_refused(work, use + work / "board.yaml", "absent.yaml");

    const auto with = [&good](const std::string& key, const std::string& value) {
        return std::regex_replace(good, std::regex("\n" + key + ": [^\n]*"), "\n" + key + ": " + value);
    };
    const std::string spoilt[] = { with("pitch", "0"), with("pitch", "twelve"), with("pitch", ".Nan"),
        with("pitch", ".Inf"), with("pitch", "[1, 2]"), with("columns", "19.5"), with("columns", "1000000"),
        with("rows", "-1"), with("origin_x", "1"), with("hole", "1"), with("binarize_mode", "2"),
        with("binarize_mode", "7"), with("invert", "2"), with("min_radius", "-1"), with("gamma", "0"),
        with("neighbour_limit", "3"), good + "holes: 3\n", std::regex_replace(good, std::regex("\nrows: 15"), ""), "",
        "x", "%YAML:1.0\n---\nRT: !!binary |\n", std::string(100000, '['),
        std::string("%YAML:1.0\n---\n") + std::string(5000, '{') };
    for (const std::string& text : spoilt) {
        SCOPED_TRACE(text.substr(0, 500));
        program::write(work / "some.yaml", text);
        program::expect_refused(work, use + work / "some.yaml", "some.yaml");
    }
}

} // namespace
