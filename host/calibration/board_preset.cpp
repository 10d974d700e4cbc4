#include "host/calibration/board_preset.h"

#include "base/failure.h"

#include <algorithm>
#include <cctype>

namespace vexo {

namespace {

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

Preset chosen_preset(const BoardRequest& o)
{
    for (const Preset& preset : presets)
        if (lower(preset.name) == lower(o.preset)) return preset;
    if (!o.page_mm || !o.columns || !o.rows)
        throw UsageFailure("--preset custom needs --page WIDTHxHEIGHT, --columns and --rows");
    return { "custom", {}, *o.columns, *o.rows, default_pitch };
}

BoardFile chosen_board(const BoardRequest& o, const Preset& preset)
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
    if (o.origin) {
        b.origin_x = o.origin->x;
        b.origin_y = o.origin->y;
    }
    const std::string fault = why_unreadable(board);
    if (!fault.empty()) throw UsageFailure("recognition could not read this board: " + fault);
    return board;
}

} // namespace

BoardDesign design_board(const BoardRequest& request)
{
    const Preset preset = chosen_preset(request);
    return { chosen_board(request, preset), request.page_mm.value_or(preset.page_mm) };
}

std::optional<cv::Size2d> page_named(const std::string& name)
{
    for (const Preset& known : presets)
        if (lower(known.name) == lower(name)) return known.page_mm;
    return std::nullopt;
}

} // namespace vexo
