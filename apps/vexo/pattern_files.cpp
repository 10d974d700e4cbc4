#include "pattern_files.h"

#include "common.h"
#include "report.h"
#include "sim/pattern.h"

#include <nlohmann/json.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>

namespace vexo::app {

namespace {

constexpr int gray_bits = 7;
constexpr std::size_t gray_phase_count = 13;
constexpr int shortest_period = 4, longest_period = 512; ///< projector px; shorter fringes are but two grey levels

cv::Mat as_row(const std::vector<double>& grey)
{
    cv::Mat row(1, static_cast<int>(grey.size()), CV_8U);
    for (int x = 0; x < row.cols; ++x)
        row.at<uchar>(0, x) = cv::saturate_cast<uchar>(grey[static_cast<std::size_t>(x)]);
    return row;
}

PatternFrame fringe_frame(int period, int shift, const std::vector<double>& grey)
{
    const std::string what
        = "fringes, period " + std::to_string(period) + " px, shift " + std::to_string(90 * shift) + " deg";
    return { what, -1, period, shift, as_row(grey) };
}

/// The part of a frame that is worth showing: fringes are too fine for a small picture.
cv::Mat thumbnail(const PatternFrame& frame, cv::Size size)
{
    const int shown = frame.period > 0 ? std::min(frame.row.cols, 8 * frame.period) : frame.row.cols;
    cv::Mat picture;
    cv::resize(
        frame.row.colRange(0, shown), picture, size, 0, 0, frame.period > 0 ? cv::INTER_NEAREST : cv::INTER_AREA);
    return picture;
}

} // namespace

GammaTable undo_gamma(double gamma)
{
    GammaTable table { gamma, {} };
    for (std::size_t i = 0; i < table.grey.size(); ++i)
        table.grey[i] = cv::saturate_cast<unsigned char>(255.0 * std::pow(static_cast<double>(i) / 255.0, 1.0 / gamma));
    return table;
}

std::string gamma_json(const GammaTable& table)
{
    return Json { { "gamma", table.gamma }, { "table", table.grey } }.dump() + "\n";
}

GammaTable load_gamma_table(const std::string& path)
{
    const Json json = read_json(path);
    const auto bad = [&path] { return Failure(path + ": is not a gamma table; vexo check writes gamma_table.json"); };
    if (!json.is_object() || !json.contains("table") || !json["table"].is_array()) throw bad();
    GammaTable table { number_in(json, "/gamma", path), {} };
    if (json["table"].size() != table.grey.size()) throw bad();
    int before = 0;
    for (std::size_t i = 0; i < table.grey.size(); ++i) {
        const Json& entry = json["table"][i];
        if (!entry.is_number_integer() || entry < before || entry > 255) throw bad();
        before = entry.get<int>();
        table.grey[i] = static_cast<unsigned char>(before);
    }
    return table;
}

std::vector<PatternFrame> gray_phase_frames(int columns, int period)
{
    if (period < shortest_period || period > longest_period)
        throw Failure("--period: must be " + std::to_string(shortest_period) + " to " + std::to_string(longest_period)
            + " projector px");
    if (columns > period << gray_bits)
        throw Failure("--period " + std::to_string(period) + ": seven gray code frames number 128 fringes, "
            + std::to_string(period << gray_bits) + " columns; " + std::to_string(columns)
            + " columns need a period of " + std::to_string((columns + (1 << gray_bits) - 1) >> gray_bits)
            + " or more");
    const sim::Pattern pattern = sim::gray_phase_pattern(columns, period);
    std::vector<PatternFrame> frames;
    for (std::size_t i = 0; i < gray_phase_count; ++i) {
        const int k = static_cast<int>(i);
        const int bit = gray_bits + 1 - k;
        if (k < 2)
            frames.push_back({ k == 0 ? "dark" : "lit", -1, 0, 0, as_row(pattern.frames[i]) });
        else if (bit >= 0)
            frames.push_back({ "gray code, bit " + std::to_string(bit), bit, 0, 0, as_row(pattern.frames[i]) });
        else
            frames.push_back(fringe_frame(period, k - 2 - gray_bits, pattern.frames[i]));
    }
    return frames;
}

void check_periods(const std::vector<int>& periods)
{
    if (periods.size() != 3) throw Failure("--periods: give three; only three periods can be told apart");
    std::int64_t multiple = 1;
    for (const int period : periods) {
        if (period < shortest_period || period > longest_period)
            throw Failure("--periods: a period must be " + std::to_string(shortest_period) + " to "
                + std::to_string(longest_period) + " projector px");
        multiple = std::lcm(multiple, static_cast<std::int64_t>(period));
    }
    if (multiple > sim::multi_phase_columns) return;
    throw Failure("--periods: their least common multiple is " + std::to_string(multiple)
        + ", behind which the pattern repeats; it must be above " + std::to_string(sim::multi_phase_columns)
        + ", the columns in use, or unresolved pixels count as measured; try 9,10,11 or 16,18,21");
}

std::vector<PatternFrame> multi_phase_frames(int columns, const std::vector<int>& periods)
{
    check_periods(periods);
    const sim::Pattern pattern = sim::multi_phase_pattern(columns, periods);
    std::vector<PatternFrame> frames;
    frames.push_back({ "dark", -1, 0, 0, as_row(pattern.frames[0]) });
    frames.push_back({ "lit", -1, 0, 0, as_row(pattern.frames[1]) });
    for (std::size_t i = 2; i < pattern.frames.size(); ++i)
        frames.push_back(fringe_frame(periods[(i - 2) / 4], static_cast<int>((i - 2) % 4), pattern.frames[i]));
    return frames;
}

cv::Mat contact_sheet(const std::vector<PatternFrame>& frames, int rows)
{
    constexpr int across = 4, gap = 16, caption = 40;
    const cv::Size size(256, std::clamp(256 * rows / std::max(1, frames[0].row.cols), 64, 256));
    const int down = (static_cast<int>(frames.size()) + across - 1) / across;
    cv::Mat sheet(
        down * (size.height + caption + gap) + gap, across * (size.width + gap) + gap, CV_8U, cv::Scalar(235));
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const int k = static_cast<int>(i);
        const cv::Rect box(
            { gap + k % across * (size.width + gap), gap + k / across * (size.height + caption + gap) }, size);
        thumbnail(frames[i], size).copyTo(sheet(box));
        cv::rectangle(sheet, box, cv::Scalar(120));
        const auto write = [&](const std::string& text, int line, double grey) {
            cv::putText(sheet, text, { box.x, box.y + size.height + 15 * line }, cv::FONT_HERSHEY_SIMPLEX, 0.42,
                cv::Scalar(grey), 1, cv::LINE_AA);
        };
        const std::string what = frames[i].what;
        write(frame_name(i) + "  " + what.substr(0, what.find(',')), 1, 0);
        if (what.find(',') != std::string::npos) write(what.substr(what.find(',') + 2), 2, 60);
    }
    return sheet;
}

std::string frame_name(std::size_t index)
{
    return std::string(index < 10 ? "frame0" : "frame") + std::to_string(index) + ".png";
}

} // namespace vexo::app
