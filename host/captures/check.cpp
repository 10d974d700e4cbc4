#include "host/captures/check.h"

#include "base/failure.h"
#include "base/pictures.h"
#include "host/captures/agreement.h"
#include "host/captures/frames.h"
#include "host/captures/judge.h"
#include "host/captures/names.h"
#include "host/captures/order.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace vexo {

namespace {

/// One camera's frames, and what is wrong with them.
struct LoadedCamera {
    std::string where;
    std::vector<std::string> names;
    std::vector<cv::Mat> frames; ///< empty when files are missing or their sizes differ
    std::vector<Finding> faults;
};

FringeMethod find_method(const CheckRequest& request)
{
    const Choice choice = choose_method(request.files, true);
    FringeMethod found { choice.method, {} };
    if (found.method == Method::sgbm)
        throw Failure(request.files.folder + ": was recorded for sgbm, which has no fringes to check");
    if (!found.multi()) return found;
    found.periods = request.periods.empty() ? periods_said_in(request.files.folder) : request.periods;
    if (found.periods.empty()) found.periods = default_periods(found.method);
    constexpr int longest = 4096;
    const auto possible = [](int period) { return period >= 2 && period <= longest; };
    if (found.periods.size() != 3 || !std::all_of(found.periods.begin(), found.periods.end(), possible))
        throw UsageFailure("--periods: give three, each 2 to 4096 projector px");
    return found;
}

std::string name_of_camera(std::size_t camera)
{
    return "camera " + std::to_string(camera);
}

std::string listed(const std::vector<std::string>& names)
{
    std::string text;
    for (std::size_t i = 0; i < names.size() && i < 6; ++i)
        text += (i == 0 ? "" : ", ") + names[i];
    return names.size() > 6 ? text + ", ..." : text;
}

/// Numbers that a set of names lacks, as such names.
std::vector<std::string> missing_numbers(const std::vector<std::string>& names, std::size_t count)
{
    std::map<int, std::string> present;
    for (const std::string& name : names)
        if (const auto n = number_in_name(name)) present[*n] = name;
    std::vector<std::string> missing;
    if (present.empty()) return missing;
    const int first = present.count(0) > 0 || present.rbegin()->first < static_cast<int>(count) ? 0 : 1;
    for (int n = first; n < first + static_cast<int>(count); ++n)
        if (present.count(n) == 0) missing.push_back("number " + std::to_string(n));
    return missing;
}

void find_missing(LoadedCamera& c, std::size_t count, std::size_t camera)
{
    if (c.names.size() == count) return;
    std::string text
        = c.where + " has " + std::to_string(c.names.size()) + " pictures, the method has " + std::to_string(count);
    const std::vector<std::string> missing = missing_numbers(c.names, count);
    if (c.names.size() < count && !missing.empty() && missing.size() + c.names.size() == count)
        text += "; " + listed(missing) + (missing.size() == 1 ? " is" : " are") + " missing";
    c.faults.push_back({ "frames-missing", Weight::spoils, name_of_camera(camera), text, {} });
}

/// Reads the frames; those of another size than most have are named.
void read_all(LoadedCamera& c, const std::vector<std::string>& paths, std::size_t camera)
{
    std::map<std::pair<int, int>, int> sizes;
    for (const std::string& path : paths) {
        c.frames.push_back(path.empty() ? cv::Mat() : read_deep_grey(path));
        if (!path.empty()) ++sizes[{ c.frames.back().cols, c.frames.back().rows }];
    }
    if (sizes.size() <= 1) return;
    const auto most = std::max_element(
        sizes.begin(), sizes.end(), [](const auto& a, const auto& b) { return a.second < b.second; });
    std::vector<std::string> odd;
    for (std::size_t i = 0; i < c.frames.size(); ++i)
        if (!c.frames[i].empty() && (c.frames[i].cols != most->first.first || c.frames[i].rows != most->first.second))
            odd.push_back(
                c.names[i] + " is " + std::to_string(c.frames[i].cols) + " x " + std::to_string(c.frames[i].rows));
    c.faults.push_back({ "mixed-size", Weight::spoils, name_of_camera(camera),
        listed(odd) + ", the others are " + std::to_string(most->first.first) + " x "
            + std::to_string(most->first.second),
        {} });
    c.frames.clear();
}

LoadedCamera load_camera(
    const std::string& where, const std::vector<std::string>& paths, std::size_t count, std::size_t camera)
{
    LoadedCamera c;
    c.where = where;
    for (std::size_t k = 0; k < paths.size(); ++k)
        c.names.push_back(name_of_frame(paths[k], k));
    find_missing(c, count, camera);
    if (c.faults.empty()) read_all(c, paths, camera);
    return c;
}

/// How frames are turned whose fringes do not agree as they are; "": not at all. Fringes cannot tell a mirrored picture
/// from one upside down.
std::string turned(const std::vector<cv::Mat>& frames, const FringeMethod& method)
{
    constexpr double agrees = 0.8, least_fitting = 0.5;
    if (agreement(frames, method).share() > least_fitting) return "";
    const auto agree = [&](const auto& turn) {
        std::vector<cv::Mat> other(frames.size());
        for (std::size_t k = 0; k < frames.size(); ++k)
            turn(frames[k], other[k]);
        return agreement(other, method).share() > agrees;
    };
    if (agree([](const cv::Mat& from, cv::Mat& to) { cv::flip(from, to, 1); })) return "mirrored, or upside down";
    if (agree([](const cv::Mat& from, cv::Mat& to) { cv::transpose(from, to); })) return "turned by 90 degrees";
    if (agree([](const cv::Mat& from, cv::Mat& to) { cv::rotate(from, to, cv::ROTATE_90_COUNTERCLOCKWISE); }))
        return "turned by 90 degrees";
    return "";
}

/// @param other  the other camera's frames; null: not known
std::vector<Finding> judge_figures(const std::vector<cv::Mat>& frames, const CameraFigures& figures,
    const FringeMethod& method, int camera, const std::vector<std::string>& names,
    const std::vector<cv::Mat>* other = nullptr)
{
    const std::string how = turned(frames, method);
    if (!how.empty())
        return { { "turned-frames", Weight::spoils, name_of_camera(static_cast<std::size_t>(camera)),
            "the pictures are " + how + ": the fringes' numbers do not rise from left to right",
            "switch off what turns the picture in camera or projector, and record again" } };
    return judge(figures, method, camera, find_exchange(frames, method, other), names);
}

/// One row of several, without copying: fringes are compared along rows, and some dozens say what all do.
std::vector<cv::Mat> some_rows(const std::vector<cv::Mat>& frames)
{
    constexpr int enough = 40;
    std::vector<cv::Mat> thinned;
    for (const cv::Mat& frame : frames) {
        const int every = std::max(1, frame.rows / enough);
        thinned.emplace_back(
            frame.rows / every, frame.cols, frame.type(), frame.data, frame.step * static_cast<std::size_t>(every));
    }
    return thinned;
}

/// Both cameras' frames, of 8 bits and complete, where they can be judged at all.
std::array<LoadedCamera, 2> load_cameras(const CaptureFiles& files, Checked& checked)
{
    const Method method = checked.method.method;
    const FrameFiles found = find_frame_files(files, method);
    if (!found.order_by.empty()) check_count(files, found, frame_count(method));
    for (std::size_t c = 0; c < 2; ++c)
        if (found.paths[c].empty()) throw Failure((c == 0 ? files.cam0 : files.cam1) + ": no pictures found");
    std::array<LoadedCamera, 2> loaded;
    std::array<std::vector<cv::Mat>, 2> frames;
    for (std::size_t c = 0; c < 2; ++c) {
        loaded[c] = load_camera(c == 0 ? files.cam0 : files.cam1, found.paths[c], frame_count(method), c);
        frames[c] = std::move(loaded[c].frames);
    }
    checked.findings = scale_to_common_bits(frames, found, checked.bits);
    for (const Finding& note : complete_frames(frames, found, method))
        checked.findings.push_back(note);
    for (std::size_t c = 0; c < 2; ++c)
        loaded[c].frames = std::move(frames[c]);
    return loaded;
}

CheckedCamera check_camera(
    const LoadedCamera& c, const std::vector<cv::Mat>* other, std::size_t camera, Checked& checked)
{
    checked.findings.insert(checked.findings.end(), c.faults.begin(), c.faults.end());
    CheckedCamera result { c.names, {} };
    if (!c.faults.empty()) return result;
    result.figures = measure_capture(c.frames, checked.method);
    for (const Finding& finding :
        judge_figures(c.frames, *result.figures, checked.method, static_cast<int>(camera), c.names, other))
        checked.findings.push_back(finding);
    return result;
}

bool same_frames(const std::vector<cv::Mat>& a, const std::vector<cv::Mat>& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), same_picture);
}

/// Periods that were asked for, against those that the capture's folder says: when the fringes do not agree it is
/// these, and no motion.
void judge_periods(const CheckRequest& request, Checked& checked)
{
    const std::vector<int> said = periods_said_in(request.files.folder);
    if (!checked.method.multi() || request.periods.empty() || said.empty() || request.periods == said) return;
    const Weight weight = heaviest(checked.findings) == Weight::spoils ? Weight::spoils : Weight::note;
    const auto text = [](const std::vector<int>& periods) {
        std::string list;
        for (const int period : periods)
            list += (list.empty() ? "" : ",") + std::to_string(period);
        return list;
    };
    checked.findings.insert(checked.findings.begin(),
        { "wrong-periods", weight, "",
            "--periods " + text(request.periods) + " are not those that the capture was made with, " + text(said),
            "leave --periods out" });
}

} // namespace

std::vector<Finding> judge_frames_of(
    const std::vector<cv::Mat>& frames, const FringeMethod& method, int camera, const std::vector<std::string>& names)
{
    const std::vector<cv::Mat> rows = some_rows(frames);
    const CameraFigures figures = measure_capture(rows, method);
    return judge_figures(rows, figures, method, camera, names);
}

double Checked::gamma() const
{
    double sum = 0, count = 0;
    for (const CheckedCamera& camera : cameras) {
        if (!camera.figures) continue;
        sum += camera.figures->gamma;
        ++count;
    }
    return count > 0 ? sum / count : std::nan("");
}

Checked check_capture(const CheckRequest& request, const OnStep& on_step)
{
    Checked checked;
    checked.method = find_method(request);
    std::array<LoadedCamera, 2> loaded = load_cameras(request.files, checked);
    const bool both = !loaded[0].frames.empty() && !loaded[1].frames.empty();
    if (both && loaded[0].frames[0].size() != loaded[1].frames[0].size())
        checked.findings.push_back(
            { "mixed-size", Weight::spoils, "", "the two cameras' frames have different sizes", {} });
    if (both && same_frames(loaded[0].frames, loaded[1].frames))
        checked.findings.push_back({ "equal-frames", Weight::spoils, "", "both cameras' frames are the same pictures",
            "give the other camera's" });
    for (std::size_t c = 0; c < 2; ++c) {
        next_step(on_step, name_of_camera(c));
        checked.cameras[c] = check_camera(loaded[c], both ? &loaded[1 - c].frames : nullptr, c, checked);
    }
    judge_periods(request, checked);
    return checked;
}

} // namespace vexo
