#include "host/captures/exposures.h"

#include "base/failure.h"
#include "base/parallel.h"
#include "base/text.h"
#include "host/captures/exposure_agreement.h"
#include "host/captures/noise.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace vexo {

namespace {

/// A pixel with less light says nothing of an exposure's share; grey levels.
constexpr int least_lit = 8;

void refuse(const Capture& odd, const std::string& why)
{
    throw Failure(odd.files.folder + ": " + why);
}

std::string text_of(const std::vector<int>& periods)
{
    std::string list;
    for (const int period : periods)
        list += (list.empty() ? "" : ",") + std::to_string(period);
    return list;
}

/// Throws where a capture is not of the first one's kind.
void check_kinds(const std::vector<Capture>& captures)
{
    const Capture& first = captures.at(0);
    if (first.method() == Method::sgbm)
        refuse(first, "block matching compares grey values; exposures are merged of captures with fringes only");
    const std::string than = ", but " + first.files.folder + " ";
    for (const Capture& c : captures) {
        if (c.frames.size != first.frames.size)
            refuse(c,
                "its frames are " + size_text(c.frames.size.width, c.frames.size.height) + than + "has "
                    + size_text(first.frames.size.width, first.frames.size.height));
        if (!c.periods.empty() && !first.periods.empty() && c.periods != first.periods)
            refuse(c, "its fringes have the periods " + text_of(c.periods) + than + text_of(first.periods));
    }
}

/// Lit minus dark.
cv::Mat contrast_in(const std::vector<cv::Mat>& frames)
{
    cv::Mat contrast;
    cv::subtract(frames[1], frames[0], contrast);
    return contrast;
}

/// CV_8U, 255: no frame is clipped.
cv::Mat unclipped(const std::vector<cv::Mat>& frames)
{
    cv::Mat most = frames[0].clone();
    for (const cv::Mat& frame : frames)
        cv::max(most, frame, most);
    return most < clipped_grey;
}

double brightness(const Capture& capture)
{
    return cv::mean(capture.frames.frames[0][1])[0] + cv::mean(capture.frames.frames[1][1])[0];
}

bool all_say_their_time(const std::vector<Capture>& captures)
{
    return std::all_of(captures.begin(), captures.end(),
        [](const Capture& c) { return c.manifest && c.manifest->exposure_ms.has_value(); });
}

/// The longest first.
void sort(std::vector<Capture>& captures, bool by_time)
{
    std::stable_sort(captures.begin(), captures.end(), [by_time](const Capture& a, const Capture& b) {
        if (by_time && *a.manifest->exposure_ms != *b.manifest->exposure_ms)
            return *a.manifest->exposure_ms > *b.manifest->exposure_ms;
        return brightness(a) > brightness(b);
    });
}

/// Light of the second over that of the first: the sums of lit - dark, over the pixels that are bright in one and
/// clipped in neither, so that rounding averages out; NaN: there are too few.
double ratio_of(const Capture& longer, const Capture& shorter)
{
    constexpr double enough = 200.0;
    for (const int bright : { 64, 16 }) {
        double light = 0.0, other = 0.0, count = 0.0;
        for (std::size_t c = 0; c < 2; ++c) {
            const std::vector<cv::Mat>&a = longer.frames.frames[c], &b = shorter.frames.frames[c];
            cv::Mat more, less, brighter;
            cv::subtract(a[1], a[0], more, {}, CV_16S);
            cv::subtract(b[1], b[0], less, {}, CV_16S);
            cv::max(more, less, brighter);
            const cv::Mat seen = unclipped(a) & unclipped(b) & (brighter >= bright);
            light += cv::mean(more, seen)[0] * cv::countNonZero(seen);
            other += cv::mean(less, seen)[0] * cv::countNonZero(seen);
            count += cv::countNonZero(seen);
        }
        if (count >= enough) return other / light;
    }
    return std::nan("");
}

/// Factor of `shorter` over `longer`, by their frames or, where these share no pixel, by their times.
double checked_ratio(const Capture& longer, const Capture& shorter, bool by_time, std::vector<Finding>& found)
{
    constexpr double brighter = 1.1, off = 1.25;
    const double ratio = ratio_of(longer, shorter);
    const double said = by_time ? *shorter.manifest->exposure_ms / *longer.manifest->exposure_ms : std::nan("");
    if (!(ratio > 0.0) && !by_time)
        refuse(shorter,
            "shares no pixel with " + longer.files.folder
                + " that is lit and unclipped in both, so nothing says how their light compares; record an exposure "
                  "between them, or let capture.json say exposure_ms");
    if (!(ratio > 0.0)) return said;
    if (by_time && ratio > brighter)
        refuse(shorter,
            "exposure_ms " + number(*shorter.manifest->exposure_ms, 3) + " is shorter than that of "
                + longer.files.folder + ", but its frames are " + number(ratio, 2)
                + " times as bright; correct exposure_ms in capture.json");
    if (by_time && (ratio > off * said || said > off * ratio))
        found.push_back({ "exposure-times", Weight::worse, shorter.files.folder,
            "by exposure_ms it has " + number(said, 3) + " of the light of " + longer.files.folder + ", by its frames "
                + number(ratio, 3) + ", which is believed",
            "correct exposure_ms, and switch automatic gain off" });
    return ratio;
}

/// Index of the exposure that each pixel of a camera is taken from.
cv::Mat taken_of(const std::vector<Capture>& captures, std::size_t camera)
{
    const auto last = static_cast<int>(captures.size()) - 1;
    cv::Mat taken(captures[0].frames.size, CV_8U, cv::Scalar(last));
    for (int i = last - 1; i >= 0; --i)
        taken.setTo(i, unclipped(captures[static_cast<std::size_t>(i)].frames.frames[camera]));
    return taken;
}

std::vector<cv::Mat> merge_frames(const std::vector<Capture>& captures, const cv::Mat& taken, std::size_t camera)
{
    std::vector<cv::Mat> merged;
    for (const cv::Mat& frame : captures[0].frames.frames[camera])
        merged.push_back(frame.clone());
    for (std::size_t i = 1; i < captures.size(); ++i) {
        const cv::Mat own = taken == static_cast<int>(i);
        for (std::size_t k = 0; k < merged.size(); ++k)
            captures[i].frames.frames[camera][k].copyTo(merged[k], own);
    }
    return merged;
}

/// The logarithm of the lit frame's light.
cv::Mat picture_of(const Exposures& exposures, const cv::Mat& lit, std::size_t camera)
{
    constexpr double start = 64.0; // grey levels from which on it is a logarithm: noise shows alike in dark and light
    cv::Mat light = exposures.to_light(lit, camera) / start + 1.0, picture;
    cv::log(light, light);
    double most = 0.0;
    cv::minMaxLoc(light, nullptr, &most);
    light.convertTo(picture, CV_8U, 255.0 / std::max(most, 1.0));
    return picture;
}

/// Each exposure's share of a camera's lit pixels.
void count_shares(Exposures& exposures, const std::vector<cv::Mat>& merged, std::size_t camera)
{
    const cv::Mat lit = contrast_in(merged) >= least_lit;
    const double all = std::max(cv::countNonZero(lit), 1);
    for (std::size_t i = 0; i < exposures.sets.size(); ++i) {
        const cv::Mat own = (exposures.taken[camera] == static_cast<int>(i)) & lit;
        exposures.sets[i].share[camera] = cv::countNonZero(own) / all;
    }
}

/// @param found  gets notes; what was to be said against an exposure that adds nothing goes
void note_shares(const Exposures& exposures, std::vector<Finding>& found)
{
    constexpr double least_share = 0.001;
    std::string list;
    for (const Exposure& e : exposures.sets) {
        list += (list.empty() ? "" : ", ") + percent(e.share[0], 1.0) + " from " + e.folder;
        if (std::max(e.share[0], e.share[1]) >= least_share) continue;
        found.erase(std::remove_if(found.begin(), found.end(),
                        [&e](const Finding& f) { return f.weight >= Weight::worse && f.where == e.folder; }),
            found.end());
        found.push_back({ "exposure-unused", Weight::note, e.folder,
            "adds nothing: " + percent(std::max(e.share[0], e.share[1]), 1.0) + " of the lit pixels are taken from it",
            "leave it out, or choose one farther from the others" });
    }
    found.push_back({ "exposures", Weight::note, "",
        "of camera 0's lit pixels " + list + "; ordered by "
            + (exposures.ordered_by_time ? "exposure_ms" : "the light of their frames"),
        "" });
}

Exposure description_of(const Capture& c)
{
    Exposure e;
    e.folder = c.files.folder;
    if (c.manifest) {
        e.ms = c.manifest->exposure_ms;
        e.manifest = c.manifest->path;
    }
    e.paths = c.frames.paths;
    e.hashes = c.frames.hashes;
    return e;
}

/// Grey values of all of them are scaled by the same bits.
void read_alike(std::vector<Capture>& captures)
{
    int bits = 0;
    std::string by;
    for (const Capture& c : captures) {
        if (c.frames.bits <= bits) continue;
        bits = c.frames.bits;
        by = c.files.folder;
    }
    for (Capture& c : captures) {
        if (c.frames.bits == bits) continue;
        const auto& notes = c.frames.notes;
        const bool deep = std::any_of(notes.begin(), notes.end(), [](const Finding& f) { return f.name == "bits"; });
        if (!deep || (c.manifest && c.manifest->bits))
            refuse(c,
                "its grey values have " + std::to_string(c.frames.bits) + " bits, those of " + by + " "
                    + std::to_string(bits) + "; record all exposures alike");
        CaptureFiles files = c.files;
        files.bits = bits;
        c.frames = read_capture(files, c.choice).frames;
    }
}

} // namespace

cv::Mat Exposures::to_light(const cv::Mat& greys, std::size_t camera) const
{
    cv::Mat light, factors(1, 256, CV_32F, cv::Scalar(1.0)), scale;
    for (std::size_t i = 0; i < sets.size(); ++i)
        factors.at<float>(static_cast<int>(i)) = static_cast<float>(1.0 / sets[i].factor);
    cv::LUT(taken[camera], factors, scale);
    greys.convertTo(light, CV_32F);
    return light.mul(scale);
}

Capture merge_exposures(std::vector<Capture> captures)
{
    check_kinds(captures);
    Exposures exposures;
    exposures.ordered_by_time = all_say_their_time(captures);
    sort(captures, exposures.ordered_by_time);
    std::vector<const FrameSet*> sets;
    std::vector<std::string> folders;
    for (const Capture& c : captures) {
        sets.push_back(&c.frames);
        folders.push_back(c.files.folder);
    }
    std::vector<Finding> found = check_exposures(sets, folders, captures[0].method());
    for (std::size_t i = 0; i < captures.size(); ++i) {
        exposures.sets.push_back(description_of(captures[i]));
        if (i == 0) continue;
        const double ratio = checked_ratio(captures[i - 1], captures[i], exposures.ordered_by_time, found);
        exposures.sets[i].factor = exposures.sets[i - 1].factor * std::min(ratio, 1.0);
    }
    std::array<std::vector<cv::Mat>, 2> merged;
    in_parallel(2, [&](std::size_t c) {
        exposures.taken[c] = taken_of(captures, c);
        merged[c] = merge_frames(captures, exposures.taken[c], c);
        exposures.lit[c] = picture_of(exposures, merged[c][1], c);
    });
    for (std::size_t c = 0; c < 2; ++c)
        count_shares(exposures, merged[c], c);
    note_shares(exposures, found);
    for (const Capture& c : captures)
        if (captures[0].periods.empty()) captures[0].periods = c.periods;
    Capture whole = std::move(captures[0]);
    whole.frames.frames = merged;
    whole.frames.notes.insert(whole.frames.notes.end(), found.begin(), found.end());
    whole.exposures = std::move(exposures);
    return whole;
}

Capture read_exposures(const std::vector<CaptureFiles>& sets, const Choice& choice)
{
    std::vector<Capture> captures;
    for (const CaptureFiles& files : sets) {
        const Choice own = choose_method(files);
        if (own.method != choice.method)
            throw Failure(files.folder + ": is of the method " + name_of(own.method) + ", but " + sets.at(0).folder
                + " of " + name_of(choice.method));
        captures.push_back(read_capture(files, own));
    }
    read_alike(captures);
    return merge_exposures(std::move(captures));
}

cv::Mat contrast_of(const Capture& capture, std::size_t camera)
{
    const cv::Mat contrast = contrast_in(capture.frames.frames[camera]);
    return capture.exposures ? capture.exposures->to_light(contrast, camera) : contrast;
}

void advise_exposures(std::vector<Finding>& findings)
{
    for (Finding& finding : findings) {
        if (finding.name == "over-exposed") finding.advice = "add a shorter exposure";
        if (finding.name == "under-exposed") finding.advice = "add a longer exposure";
    }
}

const cv::Mat& lit_picture(const Capture& capture, std::size_t camera)
{
    if (capture.exposures) return capture.exposures->lit[camera];
    return capture.frames.frames[camera][capture.method() == Method::sgbm ? 0 : 1];
}

} // namespace vexo
