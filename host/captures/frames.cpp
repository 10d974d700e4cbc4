#include "host/captures/frames.h"

#include "base/failure.h"
#include "base/parallel.h"
#include "base/picture_header.h"
#include "base/pictures.h"
#include "base/text.h"
#include "base/whole_file.h"
#include "host/captures/depth.h"
#include "host/captures/derived_frames.h"
#include "host/files/hash.h"

#include <algorithm>
#include <filesystem>

namespace vexo {

namespace {

/// Frames as files of 8 or 16 bits have them; empty where there is no file.
void read_raw(FrameSet& set)
{
    const std::size_t count = set.paths[0].size();
    for (std::vector<cv::Mat>& frames : set.frames)
        frames.resize(count);
    for (std::vector<std::string>& hashes : set.hashes)
        hashes.resize(count);
    in_parallel(2 * count, [&](std::size_t i) {
        const std::string& path = set.paths[i / count][i % count];
        if (path.empty()) return;
        const std::string bytes = read_bytes(path, picture_file::max_bytes);
        set.frames[i / count][i % count] = deep_grey_of(bytes, path);
        set.hashes[i / count][i % count] = sha256(bytes);
    });
}

/// Whether the files are of 16 bits, all of them.
bool check_depths(const std::array<std::vector<cv::Mat>, 2>& frames, const FrameFiles& files)
{
    std::array<std::string, 2> example; // of 8 and 16 bits
    for (std::size_t c = 0; c < 2; ++c)
        for (std::size_t k = 0; k < frames[c].size(); ++k)
            if (!frames[c][k].empty()) example[frames[c][k].depth() == CV_16U ? 1 : 0] = files.paths[c][k];
    if (!example[0].empty() && !example[1].empty())
        throw Failure(example[0] + " has 8 bits, but " + example[1] + " has 16; record all frames alike");
    if (!example[0].empty() && files.bits && *files.bits > common_bits)
        throw Failure(files.bits_by + ": the frames are said to have " + std::to_string(*files.bits) + " bits, but "
            + example[0] + " has 8");
    return !example[1].empty();
}

} // namespace

std::string name_of_frame(const std::string& path, std::size_t index)
{
    return path.empty() ? "frame " + std::to_string(index) + " (not recorded)"
                        : std::filesystem::path(path).filename().string();
}

void check_size(const FrameSet& set, const std::string& path, const cv::Mat& frame)
{
    if (frame.size() == set.size) return;
    const auto first
        = std::find_if(set.paths[0].begin(), set.paths[0].end(), [](const std::string& name) { return !name.empty(); });
    throw Failure(path + ": " + size_text(frame.cols, frame.rows) + ", but " + *first + " is "
        + size_text(set.size.width, set.size.height) + "; record all frames at one size");
}

std::vector<Finding> scale_to_common_bits(
    std::array<std::vector<cv::Mat>, 2>& frames, const FrameFiles& files, int& bits)
{
    bits = common_bits;
    if (!check_depths(frames, files)) return {};
    std::vector<cv::Mat*> all;
    int largest = 0;
    for (std::vector<cv::Mat>& of_camera : frames)
        for (cv::Mat& frame : of_camera) {
            all.push_back(&frame);
            largest = std::max(largest, largest_grey(frame));
        }
    bits = files.bits.value_or(bits_of(largest));
    if (largest >= 1 << bits)
        throw Failure(files.bits_by + ": the frames are said to have " + std::to_string(bits)
            + " bits, but one holds the grey value " + std::to_string(largest));
    in_parallel(all.size(), [&](std::size_t i) { *all[i] = to_common_bits(*all[i], bits); });
    return { { "bits", Weight::note, "",
        "grey values of " + std::to_string(bits) + " bits, "
            + (files.bits ? "as " + files.bits_by + " says" : "by the largest, " + std::to_string(largest))
            + ", are scaled to 8 and rounded",
        "" } };
}

std::vector<Finding> complete_frames(
    std::array<std::vector<cv::Mat>, 2>& frames, const FrameFiles& files, Method method)
{
    std::vector<Finding> notes;
    const std::string turned = files.inverted_code ? "; the gray code's planes are turned" : "";
    if (!files.order_by.empty() || files.inverted_code)
        notes.push_back({ "frame-order", Weight::note, "",
            "frames in the order of " + (files.order_by.empty() ? "their names" : files.order_by) + turned, "" });
    for (std::size_t c = 0; c < 2; ++c) {
        if (frames[c].empty()) continue;
        const std::string where = "camera " + std::to_string(c);
        const std::string made = add_missing_frames(frames[c], method, where, files.inverted_code);
        if (!made.empty()) notes.push_back({ "derived-frame", Weight::note, where, made, "" });
    }
    return notes;
}

FrameSet read_frames(const FrameFiles& files, Method method)
{
    FrameSet set;
    set.paths = files.paths;
    read_raw(set);
    const std::size_t count = set.paths[0].size();
    for (std::size_t i = 0; i < 2 * count; ++i) {
        const cv::Mat& frame = set.frames[i / count][i % count];
        if (frame.empty()) continue;
        if (set.size.empty()) set.size = frame.size();
        check_size(set, set.paths[i / count][i % count], frame);
    }
    set.notes = scale_to_common_bits(set.frames, files, set.bits);
    for (const Finding& note : complete_frames(set.frames, files, method))
        set.notes.push_back(note);
    return set;
}

} // namespace vexo
