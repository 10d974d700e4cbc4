#include "host/captures/pattern_files.h"

#include "base/failure.h"
#include "base/pictures.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <filesystem>

namespace vexo {

namespace fs = std::filesystem;

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

Json describe(const PatternFrame& frame, std::size_t index)
{
    Json json { { "index", index }, { "file", frame_name(index) }, { "what", frame.what } };
    if (frame.bit >= 0) json["bit"] = frame.bit;
    if (frame.period > 0) {
        json["period"] = frame.period;
        json["shift"] = frame.shift;
        json["shift_deg"] = 90 * frame.shift;
    }
    return json;
}

/// Grey levels of a pattern's picture, whose rows must all be the same.
cv::Mat projected_row(const std::string& path)
{
    const cv::Mat picture = read_grey(path);
    for (int y = 1; y < picture.rows; ++y)
        if (cv::norm(picture.row(y), picture.row(0), cv::NORM_INF) > 0)
            throw Failure(path + ": its rows differ; only upright stripes can be projected");
    return picture.row(0).clone();
}

} // namespace

std::vector<PatternFrame> make_patterns(const PatternRequest& request)
{
    const bool multi = request.method == Method::multi_phase;
    const int columns = request.projector.width;
    if (multi)
        check_periods(request.periods);
    else
        check_period(columns, request.period);
    std::vector<PatternFrame> frames
        = multi ? multi_phase_frames(columns, request.periods) : gray_phase_frames(columns, request.period);
    const cv::Mat look_up(1, 256, CV_8U, const_cast<unsigned char*>(request.gamma.grey.data()));
    for (PatternFrame& frame : frames)
        cv::LUT(frame.row, look_up, frame.row);
    return frames;
}

Json patterns_json(const PatternRequest& request, const std::vector<PatternFrame>& frames)
{
    const bool multi = request.method == Method::multi_phase;
    const cv::Size size = request.projector;
    Json json { { "method", name_of(request.method) }, { "projector", { size.width, size.height } } };
    if (multi)
        json["periods"] = request.periods;
    else
        json["period"] = request.period;
    json["steps"] = 4;
    json["lit_columns"] = multi ? std::min(size.width, multi_phase_columns) : size.width;
    json["gamma_corrected"] = request.gamma.gamma;
    for (std::size_t i = 0; i < frames.size(); ++i)
        json["frames"].push_back(describe(frames[i], i));
    return json;
}

std::vector<PatternFrame> read_patterns(const std::string& folder, PatternRequest& request)
{
    const std::string path = (fs::path(folder) / "patterns.json").string();
    const Json json = read_json(path);
    const auto method = method_named(text_in(json, "method", ""));
    if (!method || *method == Method::sgbm)
        throw Failure(path + ": names no method whose patterns can be projected; vexo patterns writes such a file");
    request.method = *method;
    const bool multi = request.method == Method::multi_phase;
    const auto period
        = [&](const std::string& key) { return static_cast<int>(std::clamp(number_in(json, key, path), 0.0, 1e4)); };
    if (multi)
        request.periods = { period("/periods/0"), period("/periods/1"), period("/periods/2") };
    else
        request.period = period("/period");
    std::vector<PatternFrame> frames(frame_count(request.method));
    for (std::size_t i = 0; i < frames.size(); ++i)
        frames[i].row = projected_row((fs::path(folder) / frame_name(i)).string());
    request.projector.width = frames[0].row.cols;
    request.projector.height = static_cast<int>(std::clamp(number_in(json, "/projector/1", path), 0.0, 1e5));
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

} // namespace vexo
