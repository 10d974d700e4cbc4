#include "pattern_files.h"

#include "common.h"
#include "report.h"

#include <nlohmann/json.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace vexo::app {

namespace {

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
