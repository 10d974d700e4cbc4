#include "host/calibration/board_sheet.h"

#include "base/failure.h"
#include "base/pictures.h"
#include "base/text.h"
#include "patterns/board.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <memory>

#include <hpdf.h>

namespace vexo {

namespace {

// Lengths of the page, mm.
constexpr double unprintable = 5.0; ///< along the edges of the paper, for most printers

constexpr double strip = 8.0; ///< below the board: the ruler along x and its figures

constexpr double side = 44.0; ///< right of the board: the ruler along y, and the words

constexpr double ruler_length = 100.0;

constexpr double line_width = 0.2;

constexpr double typeface = 2.6;

constexpr double line_distance = 4.1;

constexpr double points_per_mm = 72.0 / 25.4;

constexpr double greatest_picture = 2.5e8; ///< px

/// Where the board's paper with its margin lies on the page; its top left corner.
cv::Point2d place(const cv::Rect2d& paper, double margin_mm, cv::Size2d page)
{
    const double least = std::max(0.0, unprintable - margin_mm);
    const double width = least + paper.width + side + unprintable, height = least + paper.height + strip + unprintable;
    const double least_side = ruler_length + 2 * unprintable;
    if (page.width < width || page.height < height || page.width < least_side || page.height < least_side)
        throw Failure("the board does not fit: with margins, rulers and words it needs a page of "
            + short_number(std::max(width, least_side)) + " x " + short_number(std::max(height, least_side))
            + " mm, the page has " + short_number(page.width) + " x " + short_number(page.height)
            + " mm; use fewer or smaller markers, or a larger page");
    return { least + 0.5 * (page.width - width), least + 0.5 * (page.height - height) };
}

/// A ruler whose ticks 0 and 100 are 100 mm apart from middle to middle.
/// The ticks of a vertical ruler go to the right, those of a horizontal one down.
void add_ruler(Sheet& sheet, cv::Point2d start, bool vertical)
{
    const auto bar = [&](double from, double length, double away, double reach) {
        if (vertical)
            sheet.bars.emplace_back(start.x + away, start.y + from, reach, length);
        else
            sheet.bars.emplace_back(start.x + from, start.y + away, length, reach);
    };
    bar(-0.5 * line_width, ruler_length + line_width, 0.0, line_width);
    for (int mm = 0; mm <= static_cast<int>(ruler_length); ++mm)
        bar(mm - 0.5 * line_width, line_width, 0.0, mm % 10 == 0 ? 4.2 : mm % 5 == 0 ? 2.8 : 1.6);
    const double size = 0.7 * typeface;
    for (int mm = 0; mm <= static_cast<int>(ruler_length); mm += 10) {
        const std::string figure = std::to_string(mm);
        const double half = 0.28 * size * static_cast<double>(figure.size()); // of the figure's width
        const cv::Point2d at = vertical ? cv::Point2d(4.6, mm + 0.35 * size) : cv::Point2d(mm - half, 4.6 + 0.7 * size);
        sheet.texts.push_back({ start + at, size, figure });
    }
}

/// The letters of the three rings, in the margin: O and X below their columns, O and Y left of their rows. Inside the
/// board they would touch the discs.
void name_rings(Sheet& sheet, const BoardFile& board, cv::Size2d page)
{
    const BoardLayout& b = board.layout;
    const cv::Rect2d paper = board_paper(b);
    const double size = std::min(typeface, 0.6 * b.margin_mm);
    const auto below = [&](cv::Point2d ring) {
        return on_page(board, page, { ring.x, paper.y }) + cv::Point2d(-0.38 * size, -0.3);
    };
    const auto beside = [&](cv::Point2d ring) {
        return on_page(board, page, { paper.x, ring.y }) + cv::Point2d(0.3, 0.36 * size);
    };
    sheet.texts.push_back({ below({ 0.0, 0.0 }), size, "O" });
    sheet.texts.push_back({ below({ 2.0 * b.pitch_mm, 0.0 }), size, "X" });
    sheet.texts.push_back({ beside({ 0.0, 0.0 }), size, "O" });
    sheet.texts.push_back({ beside({ 0.0, b.pitch_mm }), size, "Y" });
}

void add_words(Sheet& sheet, const BoardFile& board, cv::Point2d at)
{
    const BoardLayout& b = board.layout;
    const cv::Size2d widths = fitting_widths(b);
    const std::string lines[]
        = { "vexo calibration board", std::to_string(b.columns) + " x " + std::to_string(b.rows) + " markers",
              "pitch " + short_number(b.pitch_mm) + " mm", "discs " + short_number(b.diameter_mm) + " mm",
              "holes " + short_number(b.hole_mm) + " mm",
              "origin " + std::to_string(b.origin_x) + ", " + std::to_string(b.origin_y), "", "For pictures that show",
              number(widths.width, 0) + " to " + number(widths.height, 0) + " mm of", "width (1280 px).", "",
              "Print at 100 %,", "not fitted to the page.", "Mount it on a flat,", "stiff plate.", "",
              "Measure both rulers,", "0 to 100. Not 100 mm?", "vexo calibrate", "--ruler-x --ruler-y",
              "correct for it.", "", "Parameters also in", "board.yaml" };
    for (const std::string& line : lines) {
        if (!line.empty()) sheet.texts.push_back({ at, typeface, line });
        at.y += line_distance;
    }
}

struct FreePdf {
    void operator()(HPDF_Doc document) const { HPDF_Free(document); }
};

using Pdf = std::unique_ptr<std::remove_pointer_t<HPDF_Doc>, FreePdf>;

HPDF_REAL points(double mm)
{
    return static_cast<HPDF_REAL>(mm * points_per_mm);
}

/// Draws on a page whose origin is the lower left corner, y up.
void draw(HPDF_Doc document, HPDF_Page page, const Sheet& sheet)
{
    const double height = sheet.page_mm.height;
    const auto circle = [&](cv::Point2d centre, double diameter, HPDF_REAL grey) {
        HPDF_Page_SetGrayFill(page, grey);
        HPDF_Page_Circle(page, points(centre.x), points(height - centre.y), points(0.5 * diameter));
        HPDF_Page_Fill(page);
    };
    for (const Sheet::Disc& disc : sheet.discs) {
        circle(disc.centre_mm, disc.diameter_mm, 0.0F);
        if (disc.hole_mm > 0.0) circle(disc.centre_mm, disc.hole_mm, 1.0F);
    }
    HPDF_Page_SetGrayFill(page, 0.0F);
    for (const Sheet::Bar& bar : sheet.bars) {
        HPDF_Page_Rectangle(
            page, points(bar.x), points(height - bar.y - bar.height), points(bar.width), points(bar.height));
        HPDF_Page_Fill(page);
    }
    const HPDF_Font font = HPDF_GetFont(document, "Helvetica", nullptr);
    HPDF_Page_BeginText(page);
    for (const Sheet::Text& text : sheet.texts) {
        HPDF_Page_SetFontAndSize(page, font, points(text.size_mm));
        HPDF_Page_TextOut(page, points(text.left_mm.x), points(height - text.left_mm.y), text.text.c_str());
    }
    HPDF_Page_EndText(page);
}

std::vector<unsigned char> bytes_of(HPDF_Doc document)
{
    HPDF_SaveToStream(document);
    const HPDF_STATUS error = HPDF_GetError(document); // the first of all calls so far
    if (error != HPDF_OK) throw Failure("the PDF cannot be made: error " + std::to_string(error) + " of libhpdf");
    HPDF_UINT32 size = HPDF_GetStreamSize(document);
    std::vector<unsigned char> bytes(size);
    HPDF_ReadFromStream(document, bytes.data(), &size);
    bytes.resize(size);
    return bytes;
}

/// Share of a pixel [i, i + 1) that an interval covers.
double covered(int i, double begin, double end)
{
    return std::clamp(std::min(end, i + 1.0) - std::max(begin, static_cast<double>(i)), 0.0, 1.0);
}

/// Lays `grey` over the picture where `coverage` (0 to 1 of pixel x, y) is; within a box of the picture.
template <class Coverage> void blend(cv::Mat& picture, cv::Rect box, double grey, Coverage coverage)
{
    box &= cv::Rect(0, 0, picture.cols, picture.rows);
    for (int y = box.y; y < box.y + box.height; ++y) {
        for (int x = box.x; x < box.x + box.width; ++x) {
            auto& pixel = picture.at<uchar>(y, x);
            pixel = cv::saturate_cast<uchar>(pixel + coverage(x, y) * (grey - pixel));
        }
    }
}

/// A disc; its rim is a ramp of one pixel, so its centre of gravity is exact by symmetry.
void blend_disc(cv::Mat& picture, cv::Point2d centre, double radius, double grey)
{
    const cv::Rect box(cv::Point(static_cast<int>(centre.x - radius - 1), static_cast<int>(centre.y - radius - 1)),
        cv::Point(static_cast<int>(centre.x + radius + 2), static_cast<int>(centre.y + radius + 2)));
    blend(picture, box, grey, [&](int x, int y) {
        return std::clamp(radius - std::hypot(x + 0.5 - centre.x, y + 0.5 - centre.y) + 0.5, 0.0, 1.0);
    });
}

void draw(cv::Mat& picture, const Sheet& sheet, double px_per_mm)
{
    for (const Sheet::Disc& disc : sheet.discs) {
        blend_disc(picture, disc.centre_mm * px_per_mm, 0.5 * disc.diameter_mm * px_per_mm, 0.0);
        if (disc.hole_mm > 0.0) blend_disc(picture, disc.centre_mm * px_per_mm, 0.5 * disc.hole_mm * px_per_mm, 255.0);
    }
    for (const Sheet::Bar& bar : sheet.bars) {
        const double x0 = bar.x * px_per_mm, x1 = (bar.x + bar.width) * px_per_mm;
        const double y0 = bar.y * px_per_mm, y1 = (bar.y + bar.height) * px_per_mm;
        const cv::Rect box(cv::Point(static_cast<int>(x0), static_cast<int>(y0)),
            cv::Point(static_cast<int>(x1) + 1, static_cast<int>(y1) + 1));
        blend(picture, box, 0.0, [&](int x, int y) { return covered(x, x0, x1) * covered(y, y0, y1); });
    }
    constexpr double capital_px = 21.0; // of OpenCV's typeface at scale 1
    for (const Sheet::Text& text : sheet.texts) {
        const double scale = 0.7 * text.size_mm * px_per_mm / capital_px;
        const cv::Point at(static_cast<int>(std::lround(text.left_mm.x * px_per_mm)),
            static_cast<int>(std::lround(text.left_mm.y * px_per_mm)));
        cv::putText(picture, text.text, at, cv::FONT_HERSHEY_SIMPLEX, scale, cv::Scalar(0),
            std::max(1, static_cast<int>(std::lround(2 * scale))), cv::LINE_AA);
    }
}

void append(std::vector<unsigned char>& bytes, std::uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<unsigned char>(value >> shift & 0xFFU));
}

/// Cyclic redundancy code of a PNG chunk. Source: ISO/IEC 15948, annex D.
std::uint32_t png_crc(const unsigned char* bytes, std::size_t size)
{
    std::uint32_t crc = 0xFFFFFFFFU;
    for (std::size_t i = 0; i < size; ++i) {
        crc ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1U) != 0 ? 0xEDB88320U ^ (crc >> 1) : crc >> 1;
    }
    return ~crc;
}

/// Puts the chunk pHYs after a PNG's header, so that programs print the picture at its true size.
void state_resolution(std::vector<unsigned char>& png, double px_per_mm)
{
    constexpr std::ptrdiff_t behind_header = 8 + 25; // signature, IHDR
    const auto per_metre = static_cast<std::uint32_t>(std::lround(1000.0 * px_per_mm));
    std::vector<unsigned char> chunk;
    append(chunk, 9);
    for (const char c : { 'p', 'H', 'Y', 's' })
        chunk.push_back(static_cast<unsigned char>(c));
    append(chunk, per_metre);
    append(chunk, per_metre);
    chunk.push_back(1); // per metre
    append(chunk, png_crc(chunk.data() + 4, chunk.size() - 4));
    png.insert(png.begin() + behind_header, chunk.begin(), chunk.end());
}

} // namespace

cv::Point2d on_page(const BoardFile& board, cv::Size2d page_mm, cv::Point2d point)
{
    const cv::Rect2d paper = board_paper(board.layout);
    const cv::Point2d corner = place(paper, board.layout.margin_mm, page_mm);
    return { corner.x + point.x - paper.x, corner.y + paper.y + paper.height - point.y };
}

cv::Size2d fitting_widths(const BoardLayout& board)
{
    constexpr double least_disc_px = 16.0, picture_px = 1280.0;
    return { board_paper(board).width, board.diameter_mm * picture_px / least_disc_px };
}

Sheet make_sheet(const BoardFile& board, cv::Size2d page_mm)
{
    Sheet sheet { page_mm, {}, {}, {} };
    for (const BoardMarker& marker : board_markers(board.layout))
        sheet.discs.push_back({ on_page(board, page_mm, marker.centre_mm), board.layout.diameter_mm,
            marker.ring ? board.layout.hole_mm : 0.0 });

    const cv::Rect2d paper = board_paper(board.layout);
    const cv::Point2d corner = place(paper, board.layout.margin_mm, page_mm);
    const cv::Point2d below(std::max(corner.x, unprintable) + 1.0, corner.y + paper.height + 0.5);
    add_ruler(sheet, below, false);
    sheet.texts.push_back({ below + cv::Point2d(ruler_length + 5.0, 3.2), typeface, "100 mm, ruler x" });
    const cv::Point2d beside(corner.x + paper.width + 1.5, std::max(corner.y, unprintable) + 5.0);
    add_ruler(sheet, beside, true);
    sheet.texts.push_back({ beside + cv::Point2d(0.0, -2.0), typeface, "100 mm, ruler y" });
    add_words(sheet, board, beside + cv::Point2d(9.0, 5.0));
    name_rings(sheet, board, page_mm);
    return sheet;
}

std::vector<unsigned char> sheet_as_pdf(const Sheet& sheet)
{
    const Pdf document(HPDF_New(nullptr, nullptr));
    if (!document) throw Failure("not enough memory for the PDF");
    HPDF_SetCompressionMode(document.get(), HPDF_COMP_ALL);
    HPDF_SetInfoAttr(document.get(), HPDF_INFO_TITLE, "vexo calibration board");
    const HPDF_Page page = HPDF_AddPage(document.get());
    HPDF_Page_SetWidth(page, points(sheet.page_mm.width));
    HPDF_Page_SetHeight(page, points(sheet.page_mm.height));
    draw(document.get(), page, sheet);
    return bytes_of(document.get());
}

std::string sheet_as_svg(const Sheet& sheet)
{
    const auto mm = [](double value) { return short_number(value); };
    const std::string size = mm(sheet.page_mm.width) + " " + mm(sheet.page_mm.height);
    std::string svg = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\" width=\""
        + mm(sheet.page_mm.width) + "mm\" height=\"" + mm(sheet.page_mm.height) + "mm\" viewBox=\"0 0 " + size
        + "\">\n<title>vexo calibration board</title>\n<rect width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n";
    const auto circle = [&](cv::Point2d centre, double diameter, const char* colour) {
        svg += "<circle cx=\"" + mm(centre.x) + "\" cy=\"" + mm(centre.y) + "\" r=\"" + mm(0.5 * diameter)
            + "\" fill=\"" + colour + "\"/>\n";
    };
    for (const Sheet::Disc& disc : sheet.discs) {
        circle(disc.centre_mm, disc.diameter_mm, "#000");
        if (disc.hole_mm > 0.0) circle(disc.centre_mm, disc.hole_mm, "#fff");
    }
    for (const Sheet::Bar& bar : sheet.bars)
        svg += "<rect x=\"" + mm(bar.x) + "\" y=\"" + mm(bar.y) + "\" width=\"" + mm(bar.width) + "\" height=\""
            + mm(bar.height) + "\"/>\n";
    for (const Sheet::Text& text : sheet.texts)
        svg += "<text x=\"" + mm(text.left_mm.x) + "\" y=\"" + mm(text.left_mm.y) + "\" font-size=\"" + mm(text.size_mm)
            + "\" font-family=\"Helvetica, Arial, sans-serif\">" + text.text + "</text>\n";
    return svg + "</svg>\n";
}

std::vector<unsigned char> sheet_as_png(const Sheet& sheet, double dpi)
{
    const double px_per_mm = dpi / 25.4;
    const double columns = std::round(sheet.page_mm.width * px_per_mm);
    const double rows = std::round(sheet.page_mm.height * px_per_mm);
    if (columns * rows > greatest_picture)
        throw Failure("the picture would have " + number(columns, 0) + " x " + number(rows, 0)
            + " px; choose a smaller --dpi, or a PDF");
    cv::Mat picture(static_cast<int>(rows), static_cast<int>(columns), CV_8U, cv::Scalar(255));
    draw(picture, sheet, px_per_mm);
    std::vector<unsigned char> png = encode(".png", picture);
    state_resolution(png, px_per_mm);
    return png;
}

} // namespace vexo
