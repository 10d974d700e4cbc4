#include "host/cameras/calibration_notes.h"

#include "base/failure.h"
#include "base/plain_yaml.h"

#include <opencv2/core.hpp>

#include <algorithm>

namespace vexo {

namespace {

constexpr const char *unit_key = "unit", *verdict_key = "verdict";

/// Nothing for a key that is not there. Throws Failure for one that holds no text.
std::string text_of(const cv::FileStorage& yaml, const std::string& key, const std::string& file)
{
    const cv::FileNode node = yaml[key];
    if (node.empty()) return {};
    const std::vector<cv::String> keys = yaml.root().keys();
    if (std::count(keys.begin(), keys.end(), key) > 1)
        throw Failure(file + ": has the key " + key + " twice; keep one of them");
    if (!node.isString()) throw Failure(file + ": the key " + key + " holds no text; write " + key + ": WORD");
    return node.string();
}

CalibrationNotes notes_in(const std::string& file)
{
    cv::FileStorage yaml;
    CalibrationNotes notes;
    if (!open_yaml(file, yaml) || !yaml.root().isMap()) return notes;
    notes.verdict = text_of(yaml, verdict_key, file);
    if (!notes.verdict.empty() && notes.verdict != good_calibration && notes.verdict != usable_calibration
        && notes.verdict != bad_calibration)
        throw Failure(file + ": the key verdict says \"" + notes.verdict + "\"; it can be \"" + good_calibration
            + "\", \"" + usable_calibration + "\" or \"" + bad_calibration + "\"");
    const std::string unit = text_of(yaml, unit_key, file);
    if (!unit.empty()) notes.unit = unit_named(unit, file + ": the key unit");
    return notes;
}

} // namespace

CalibrationNotes read_notes(const std::vector<std::string>& files)
{
    CalibrationNotes all;
    for (const std::string& file : files) {
        const CalibrationNotes own = notes_in(file);
        if (own.unit.stated && all.unit.stated && own.unit.name != all.unit.name)
            throw Failure(file + ": says unit: " + own.unit.name + ", but " + files.front() + " says " + all.unit.name
                + "; calibrate both cameras together");
        if (own.unit.stated) all.unit = own.unit;
        if (all.verdict.empty() || own.verdict == bad_calibration) all.verdict = own.verdict;
    }
    return all;
}

std::string with_notes(const std::string& camera_yaml, const CalibrationNotes& notes)
{
    std::string text = camera_yaml;
    if (!text.empty() && text.back() != '\n') text += '\n';
    text += std::string(unit_key) + ": " + notes.unit.name + "\n";
    if (!notes.verdict.empty()) text += std::string(verdict_key) + ": \"" + notes.verdict + "\"\n";
    return text;
}

} // namespace vexo
