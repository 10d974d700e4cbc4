#include "board_sheet.h"
#include "common.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <memory>
#include <optional>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

struct BoardOptions {
    std::string out;
    std::string preset = "A4";
    std::string page, origin;
    std::optional<double> pitch, diameter, hole, margin;
    std::optional<int> columns, rows;
    double dpi = 300.0;
};

/// A page, and the grid of small markers that fills it.
struct Preset {
    const char* name;
    cv::Size2d page_mm;
    int columns, rows;
    double pitch_mm;
};
constexpr double default_pitch = 12.0;
const Preset presets[] = {
    { "A4", { 297.0, 210.0 }, 19, 15, default_pitch },
    { "A3", { 420.0, 297.0 }, 29, 21, default_pitch },
    { "coarse", { 420.0, 297.0 }, 11, 9, 20.0 },
};

std::string lower(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

/// Two numbers with a letter or comma between them, as "297x210".
std::pair<double, double> two_numbers(const std::string& text, char between, const std::string& option)
{
    std::string as_range = text;
    std::replace(as_range.begin(), as_range.end(), between, ':');
    const std::size_t colon = as_range.find(':');
    try {
        std::size_t end0 = 0, end1 = 0;
        const double a = std::stod(as_range.substr(0, colon), &end0);
        const double b = std::stod(as_range.substr(colon == std::string::npos ? as_range.size() : colon + 1), &end1);
        if (end0 == colon && end1 == as_range.size() - colon - 1 && std::isfinite(a) && std::isfinite(b))
            return { a, b };
    } catch (const std::exception&) {
        // falls through to the message below
    }
    throw Failure(option + " " + text + ": write two numbers, such as " + option + " 2" + between + "1");
}

Preset chosen_preset(const BoardOptions& o)
{
    for (const Preset& preset : presets)
        if (lower(preset.name) == lower(o.preset)) return preset;
    if (o.page.empty() || !o.columns || !o.rows)
        throw Failure("--preset custom needs --page WIDTHxHEIGHT, --columns and --rows");
    return { "custom", {}, *o.columns, *o.rows, default_pitch };
}

cv::Size2d chosen_page(const BoardOptions& o, const Preset& preset)
{
    if (o.page.empty()) return preset.page_mm;
    for (const Preset& known : presets)
        if (lower(known.name) == lower(o.page)) return known.page_mm;
    const auto [width, height] = two_numbers(lower(o.page), 'x', "--page");
    if (width < 50.0 || height < 50.0 || width > 5000.0 || height > 5000.0)
        throw Failure("--page " + o.page + ": a page is 50 to 5000 mm wide and high");
    return { width, height };
}

BoardFile chosen_board(const BoardOptions& o, const Preset& preset)
{
    BoardFile board;
    BoardLayout& b = board.layout;
    b.pitch_mm = o.pitch.value_or(preset.pitch_mm);
    b.diameter_mm = o.diameter.value_or(b.pitch_mm / 1.25);
    b.hole_mm = o.hole.value_or(0.6 * b.diameter_mm);
    b.margin_mm = o.margin.value_or(0.75 * b.pitch_mm);
    b.columns = o.columns.value_or(preset.columns);
    b.rows = o.rows.value_or(preset.rows);
    b.origin_x = (b.columns - 1) / 2 + 1; // the marker between O and X is in the middle
    b.origin_y = (b.rows - 1) / 2;
    if (!o.origin.empty()) {
        const auto [x, y] = two_numbers(o.origin, ',', "--origin");
        if (x != std::floor(x) || y != std::floor(y) || std::abs(x) > 1e6 || std::abs(y) > 1e6)
            throw Failure("--origin " + o.origin + ": write two whole numbers, such as --origin 10,7");
        b.origin_x = static_cast<int>(x);
        b.origin_y = static_cast<int>(y);
    }
    const std::string fault = why_unreadable(board);
    if (!fault.empty()) throw Failure("recognition could not read this board: " + fault);
    return board;
}

std::vector<unsigned char> drawn(const Sheet& sheet, const std::string& extension, double dpi)
{
    if (extension == ".pdf") return sheet_as_pdf(sheet);
    if (extension == ".png") return sheet_as_png(sheet, dpi);
    const std::string svg = sheet_as_svg(sheet);
    return { svg.begin(), svg.end() };
}

void print_board(const BoardOptions& o, const GlobalOptions& options)
{
    const fs::path out(o.out);
    const std::string extension = lower(out.extension().string());
    if (extension != ".pdf" && extension != ".svg" && extension != ".png")
        throw Failure("--out " + o.out + ": name a file that ends with .pdf, .svg or .png");
    const Preset preset = chosen_preset(o);
    const BoardFile board = chosen_board(o, preset);
    const cv::Size2d page = chosen_page(o, preset);
    const Sheet sheet = make_sheet(board, page);

    OutputFolder folder(out.has_parent_path() ? out.parent_path().string() : ".");
    folder.add(out.filename().string(), drawn(sheet, extension, o.dpi));
    folder.add("board.yaml", board_yaml(board));
    folder.commit();

    const std::string yaml = (fs::path(folder.path()) / "board.yaml").lexically_normal().string();
    say(options,
        o.out + ": " + describe(board) + ", on a page of " + short_number(page.width) + " x "
            + short_number(page.height) + " mm");
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
    command->add_option("--preset", o->preset, "A4, A3 (pitch 12 mm), coarse (A3, pitch 20 mm) or custom")
        ->check(CLI::IsMember({ "A4", "A3", "coarse", "custom" }, CLI::ignore_case))
        ->capture_default_str();
    command->add_option("--page", o->page, "paper: A4, A3, or WIDTHxHEIGHT in mm");
    command->add_option("--columns", o->columns, "markers along x");
    command->add_option("--rows", o->rows, "markers along y");
    command->add_option("--pitch", o->pitch, "distance of marker centres, mm; small markers measure best");
    command->add_option("--diameter", o->diameter, "of the discs, mm (default: pitch / 1.25)");
    command->add_option("--hole", o->hole, "diameter of the holes of the three rings, mm (default: 0.6 diameters)");
    command->add_option("--margin", o->margin, "white paper around the discs, mm (default: 0.75 pitches)");
    command->add_option("--origin", o->origin, "X,Y: columns right of the O ring, rows above it (default: middle)");
    command->add_option("--dpi", o->dpi, "resolution of a PNG")->check(CLI::Range(50.0, 2400.0))->capture_default_str();
    finish_command(*command, options,
        "vexo board --out board.pdf\n  prints 19 x 15 markers on A4 and writes board.yaml, which calibrate and pose "
        "take as --board",
        [o, &options] { print_board(*o, options); });
}

} // namespace vexo::app
