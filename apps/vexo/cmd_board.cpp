#include "base/failure.h"
#include "base/text.h"
#include "commands.h"
#include "host/calibration/board_preset.h"
#include "host/calibration/board_sheet.h"
#include "host/files/output_folder.h"
#include "options.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <memory>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

struct BoardOptions {
    std::string out, page, origin;
    BoardRequest request;
    double dpi = 300.0;
};

std::string lower(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

cv::Size2d page_of(const std::string& text)
{
    if (const auto known = page_named(text)) return *known;
    const auto [width, height] = parse_pair(lower(text), 'x', "--page");
    if (width < 50.0 || height < 50.0 || width > 5000.0 || height > 5000.0)
        throw UsageFailure("--page " + text + ": a page is 50 to 5000 mm wide and high");
    return { width, height };
}

cv::Point origin_of(const std::string& text)
{
    const auto [x, y] = parse_pair(text, ',', "--origin");
    if (x != std::floor(x) || y != std::floor(y) || std::abs(x) > 1e6 || std::abs(y) > 1e6)
        throw UsageFailure("--origin " + text + ": write two whole numbers, such as --origin 10,7");
    return { static_cast<int>(x), static_cast<int>(y) };
}

std::vector<unsigned char> drawn(const Sheet& sheet, const std::string& extension, double dpi)
{
    if (extension == ".pdf") return sheet_as_pdf(sheet);
    if (extension == ".png") return sheet_as_png(sheet, dpi);
    const std::string svg = sheet_as_svg(sheet);
    return { svg.begin(), svg.end() };
}

void run(BoardOptions o, const GlobalOptions& options)
{
    const fs::path out(o.out);
    const std::string extension = lower(out.extension().string());
    if (extension != ".pdf" && extension != ".svg" && extension != ".png")
        throw UsageFailure("--out " + o.out + ": name a file that ends with .pdf, .svg or .png");
    if (!o.page.empty()) o.request.page_mm = page_of(o.page);
    if (!o.origin.empty()) o.request.origin = origin_of(o.origin);
    const auto [board, page] = design_board(o.request);
    const Sheet sheet = make_sheet(board, page);

    const std::string name = out.filename().string();
    OutputFolder folder(out.has_parent_path() ? out.parent_path().string() : ".",
        { "board " + name, { "board.yaml" }, {}, true, options.force });
    folder.add(name, drawn(sheet, extension, o.dpi));
    folder.add("board.yaml", board_yaml(board));
    folder.commit();

    const std::string yaml = (fs::path(folder.path()) / "board.yaml").lexically_normal().string();
    say(options,
        o.out + ": " + describe(board) + ", on a page of " + short_number(page.width) + " x "
            + short_number(page.height) + " mm");
    const cv::Size2d widths = fitting_widths(board.layout);
    say(options,
        "It is for pictures that show " + number(widths.width, 0) + " to " + number(widths.height, 0)
            + " mm of width (1280 px); --preset A3 is larger, coarse has larger discs.");
    say(options, yaml + ": its parameters, for --board of the other commands");
    say(options, "Print it at 100 %, then measure both rulers: 0 to 100 must be 100 mm apart.");
    const BoardLayout& b = board.layout;
    put_json(options,
        { { "sheet", o.out }, { "board", yaml }, { "page_mm", { page.width, page.height } }, { "columns", b.columns },
            { "rows", b.rows }, { "pitch_mm", b.pitch_mm }, { "diameter_mm", b.diameter_mm }, { "hole_mm", b.hole_mm },
            { "margin_mm", b.margin_mm }, { "origin", { b.origin_x, b.origin_y } } });
}

} // namespace

void add_board(CLI::App& app, GlobalOptions& options)
{
    auto o = std::make_shared<BoardOptions>();
    CLI::App* command = app.add_subcommand("board", "print a calibration board: PDF, SVG or PNG, and board.yaml");
    command->add_option("--out", o->out, "file to write: .pdf, .svg or .png; board.yaml goes beside it")->required();
    command->add_option("--preset", o->request.preset, "A4, A3 (pitch 12 mm), coarse (A3, pitch 20 mm) or custom")
        ->check(CLI::IsMember({ "A4", "A3", "coarse", "custom" }, CLI::ignore_case))
        ->capture_default_str();
    command->add_option("--page", o->page, "paper: A4, A3, or WIDTHxHEIGHT in mm");
    command->add_option("--columns", o->request.columns, "markers along x");
    command->add_option("--rows", o->request.rows, "markers along y");
    command->add_option("--pitch", o->request.pitch, "distance of marker centres, mm; small markers measure best");
    command->add_option("--diameter", o->request.diameter, "of the discs, mm (default: pitch / 1.25)");
    command->add_option(
        "--hole", o->request.hole, "diameter of the holes of the three rings, mm (default: 0.6 diameters)");
    command->add_option("--margin", o->request.margin, "white paper around the discs, mm (default: 0.75 pitches)");
    command->add_option("--origin", o->origin, "X,Y: columns right of the O ring, rows above it (default: middle)");
    command->add_option("--dpi", o->dpi, "resolution of a PNG")->check(CLI::Range(50.0, 2400.0))->capture_default_str();
    add_force(*command, options);
    finish_command(*command, options,
        "vexo board --out board.pdf\n  prints 19 x 15 markers on A4 and writes board.yaml, which calibrate and pose "
        "take as --board",
        [o, &options] { run(*o, options); });
}

} // namespace vexo::app
