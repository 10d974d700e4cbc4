#include "host/calibration/board_file.h"

#include "base/failure.h"
#include "base/plain_yaml.h"
#include "base/text.h"
#include "base/whole_file.h"

#include <opencv2/core.hpp>

#include <charconv>
#include <cmath>
#include <functional>
#include <limits>
#include <vector>

namespace vexo {

namespace {

// Measured on photos of the virtual rig, and derived from how the recogniser links markers.
constexpr double least_spacing = 1.2; ///< pitch / diameter: with less, blur and ink gain join neighbouring discs

/// The recogniser links centres up to neighbour_limit + 0.1 diameters apart, after rounding to tenths.
constexpr double link_slack = 0.1;

/// Diagonal neighbours must not be linked: sqrt(2) * 1.2 diameters are 1.70, links end below 1.65 at this limit.
constexpr double greatest_neighbour_limit = 1.5;

/// Below, the hole of a distant ring is lost; above, the ring is so thin that it breaks.
constexpr double least_hole = 0.5, greatest_hole = 0.65;

constexpr double least_margin = 0.75; ///< pitches: a dark table must not join the outermost discs

constexpr int most_markers = 4096; ///< the recogniser's own limit

/// A number in the fewest digits that read back to the same bits, whatever the locale.
std::string exact(double value)
{
    char digits[32];
    return std::string(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

/// One entry of the file: how it is read from a node, and its value as text.
struct Entry {
    const char* name;
    bool needed;
    std::function<bool(const cv::FileNode&)> read;
    std::function<std::string()> text;
};

Entry real(const char* name, bool needed, double& value)
{
    const auto read = [&value](const cv::FileNode& node) {
        if (!node.isReal() && !node.isInt()) return false;
        value = static_cast<double>(node);
        return std::isfinite(value);
    };
    return { name, needed, read, [&value] { return exact(value); } };
}

Entry whole(const char* name, bool needed, int& value)
{
    const auto read = [&value](const cv::FileNode& node) {
        if (!node.isInt()) return false;
        value = static_cast<int>(node);
        return true;
    };
    return { name, needed, read, [&value] { return std::to_string(value); } };
}

Entry flag(const char* name, bool& value)
{
    const auto read = [&value](const cv::FileNode& node) {
        if (!node.isInt() || static_cast<int>(node) < 0 || static_cast<int>(node) > 1) return false;
        value = static_cast<int>(node) == 1;
        return true;
    };
    return { name, false, read, [&value] { return std::string(value ? "1" : "0"); } };
}

/// The board's shape, which most files do not say.
std::vector<Entry> shape_entries(BoardShape& s)
{
    return { real("bow_xx", false, s.bow_xx), real("bow_xy", false, s.bow_xy), real("bow_yy", false, s.bow_yy),
        real("stretch_y", false, s.stretch_y), real("shear", false, s.shear) };
}

/// All other entries of the file, in its order.
std::vector<Entry> entries(BoardFile& b)
{
    return { real("pitch", true, b.layout.pitch_mm), whole("columns", true, b.layout.columns),
        whole("rows", true, b.layout.rows), whole("origin_x", true, b.layout.origin_x),
        whole("origin_y", true, b.layout.origin_y), real("diameter", true, b.layout.diameter_mm),
        real("hole", true, b.layout.hole_mm), real("margin", false, b.layout.margin_mm),
        real("neighbour_limit", false, b.neighbour_limit), real("min_fit_score", false, b.circle.min_fit_score),
        whole("min_markers", false, b.circle.min_markers), real("min_radius", false, b.circle.min_radius),
        real("max_radius", false, b.circle.max_radius), flag("invert", b.pre.invert), flag("median", b.pre.median),
        flag("equalize", b.pre.equalize), real("gamma", false, b.pre.gamma),
        whole("binarize_mode", false, b.pre.binarize_mode), whole("threshold", false, b.pre.threshold),
        whole("C", false, b.pre.C) };
}

std::string fault_of_sizes(const BoardLayout& b)
{
    const double lengths[] = { b.pitch_mm, b.diameter_mm, b.hole_mm, b.margin_mm };
    for (const double length : lengths)
        if (!(length > 0.0) || length > 1e4) return "pitch, diameter, hole and margin must be lengths in mm";
    if (b.columns < 1 || b.rows < 1 || b.columns > most_markers || b.rows > most_markers
        || b.columns * b.rows > most_markers)
        return "columns x rows must be 1 to " + std::to_string(most_markers) + " markers";
    if (b.hole_mm < least_hole * b.diameter_mm || b.hole_mm > greatest_hole * b.diameter_mm)
        return "a hole of " + short_number(b.hole_mm) + " mm in discs of " + short_number(b.diameter_mm)
            + " mm cannot be told from disc or paper; make it " + number(least_hole, 2) + " to "
            + number(greatest_hole, 2) + " of the diameter, best 0.6";
    if (b.margin_mm < least_margin * b.pitch_mm)
        return "a margin of " + short_number(b.margin_mm) + " mm is too narrow; leave "
            + short_number(least_margin * b.pitch_mm) + " mm, 0.75 of the pitch";
    return "";
}

std::string fault_of_shape(const BoardShape& s)
{
    constexpr double most_bow_mm = 20.0, most_share = 0.1; // beyond, it is no board whose markers are nearly in a plane
    for (const double bow : { s.bow_xx, s.bow_xy, s.bow_yy })
        if (std::abs(bow) > most_bow_mm) return "bow_xx, bow_xy and bow_yy must be -20 to 20 mm";
    if (std::abs(s.stretch_y) > most_share || std::abs(s.shear) > most_share)
        return "stretch_y and shear must be -0.1 to 0.1";
    return "";
}

/// The rings and the marker between O and X need neighbours on all four sides, as every marker between has.
std::string fault_of_origin(const BoardLayout& b)
{
    const int right = b.origin_x, left = b.columns - 1 - b.origin_x; // columns beside O
    const int above = b.origin_y, below = b.rows - 1 - b.origin_y;
    if (right >= 3 && left >= 1 && above >= 2 && below >= 1) return "";
    return "with the origin at " + std::to_string(b.origin_x) + ", " + std::to_string(b.origin_y)
        + " the rings O, X, Y do not lie inside the " + std::to_string(b.columns) + " x " + std::to_string(b.rows)
        + " grid; origin x must be 3 to columns - 2, origin y 2 to rows - 2, best near the middle";
}

std::string fault_of_settings(const BoardFile& b)
{
    if (b.neighbour_limit < 1.1 || b.neighbour_limit > greatest_neighbour_limit)
        return "neighbour_limit must be 1.1 to " + number(greatest_neighbour_limit, 1);
    if (!(b.circle.min_fit_score > 0.0) || b.circle.min_fit_score > 1.0)
        return "min_fit_score must be above 0, at most 1";
    if (b.circle.min_markers < 4) return "min_markers must be 4 or more"; // three rings and the one between
    if (!(b.circle.min_radius > 0.0) || b.circle.max_radius < b.circle.min_radius)
        return "min_radius must be above 0, max_radius not below it";
    if (b.pre.binarize_mode < 0 || b.pre.binarize_mode > 2)
        return "binarize_mode must be 0 (fixed threshold), 1 (Otsu) or 2 (adaptive)";
    if (b.pre.binarize_mode == 2 && (b.pre.threshold < 3 || b.pre.threshold % 2 == 0 || b.pre.threshold > 16383))
        return "with binarize_mode 2 threshold is a block size in px: an odd number from 3 to 16383, larger than three "
               "marker diameters";
    if (b.pre.binarize_mode == 0 && (b.pre.threshold < 0 || b.pre.threshold > 254)) return "threshold must be 0 to 254";
    if (!(b.pre.gamma > 0.0) || b.pre.gamma > 100.0) return "gamma must be above 0, at most 100";
    return "";
}

} // namespace

CalibBoardParam BoardFile::geometry() const
{
    return { layout.pitch_mm, layout.columns, layout.rows, layout.origin_x, layout.origin_y, neighbour_limit };
}

std::string why_unreadable(const BoardFile& board)
{
    const BoardLayout& b = board.layout;
    for (const std::string& fault :
        { fault_of_sizes(b), fault_of_origin(b), fault_of_shape(board.shape), fault_of_settings(board) })
        if (!fault.empty()) return fault;
    const double spacing = b.pitch_mm / b.diameter_mm, farthest = board.neighbour_limit + link_slack;
    if (spacing < least_spacing || spacing > farthest)
        return "discs of " + short_number(b.diameter_mm) + " mm at a pitch of " + short_number(b.pitch_mm)
            + " mm cannot be read; pitch / diameter must be " + number(least_spacing, 2) + " to " + number(farthest, 2)
            + ", best 1.25";
    return "";
}

BoardFile load_board(const std::string& path)
{
    read_bytes(path, max_yaml_bytes); // its messages name what is wrong with the file itself
    cv::FileStorage file;
    if (!open_yaml(path, file) || !file.root().isMap())
        throw Failure(path + ": is not a board file; vexo board writes one");

    BoardFile board;
    board.layout.margin_mm = std::numeric_limits<double>::quiet_NaN();
    std::vector<Entry> known = entries(board);
    for (const Entry& entry : shape_entries(board.shape))
        known.push_back(entry);
    for (const Entry& entry : known) {
        const cv::FileNode node = file[entry.name];
        if (node.empty() && entry.needed)
            throw Failure(path + ": has no " + std::string(entry.name) + "; vexo board writes a complete file");
        if (!node.empty() && !entry.read(node))
            throw Failure(path + ": " + entry.name + " is not a number of its kind");
    }
    for (const std::string& key : file.root().keys()) {
        bool found = false;
        for (const Entry& entry : known)
            found = found || key == entry.name;
        if (!found) throw Failure(path + ": \"" + key + "\" is no entry of a board file");
    }
    if (std::isnan(board.layout.margin_mm)) board.layout.margin_mm = least_margin * board.layout.pitch_mm;
    const std::string fault = why_unreadable(board);
    if (!fault.empty()) throw Failure(path + ": " + fault);
    return board;
}

std::string board_yaml(const BoardFile& board)
{
    BoardFile copy = board;
    std::string text
        = "%YAML:1.0\n---\n# calibration board: lengths in mm on paper, then the settings of recognition\n";
    for (const Entry& entry : entries(copy))
        text.append(entry.name).append(": ").append(entry.text()).append("\n");
    if (board.shape.plain()) return text;
    text += "# how the markers really lie, found by calibration: mm at 100 mm from the origin, shares\n";
    for (const Entry& entry : shape_entries(copy.shape))
        text.append(entry.name).append(": ").append(entry.text()).append("\n");
    return text;
}

std::string describe(const BoardFile& board)
{
    const BoardLayout& b = board.layout;
    return std::to_string(b.columns) + " x " + std::to_string(b.rows) + " markers, pitch " + short_number(b.pitch_mm)
        + " mm, discs " + short_number(b.diameter_mm) + " mm, holes " + short_number(b.hole_mm) + " mm";
}

std::string short_number(double value)
{
    std::string text = number(value, 4);
    if (text.find('.') == std::string::npos) return text;
    while (text.back() == '0')
        text.pop_back();
    if (text.back() == '.') text.pop_back();
    return text;
}

cv::Point3d BoardShape::at(cv::Point2d p) const
{
    constexpr double bow_at = 100.0; // mm
    const cv::Point2d q = p / bow_at;
    return { p.x + shear * p.y, p.y + stretch_y * p.y, bow_xx * q.x * q.x + bow_xy * q.x * q.y + bow_yy * q.y * q.y };
}

cv::Point2d printed_point(const BoardFile& board, std::size_t index)
{
    const int column = static_cast<int>(index) / board.layout.rows, row = static_cast<int>(index) % board.layout.rows;
    return { (board.layout.origin_x - column) * board.layout.pitch_mm,
        (board.layout.origin_y - row) * board.layout.pitch_mm };
}

cv::Point3f board_point(const BoardFile& board, std::size_t index)
{
    return cv::Point3f(board.shape.at(printed_point(board, index)));
}

} // namespace vexo
