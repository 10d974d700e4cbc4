#include "host/reports/calibration_text.h"

#include "base/text.h"

#include <algorithm>
#include <cstddef>

namespace vexo {

namespace {

std::string view_line(const BoardViews& views, const BoardFile& board, std::size_t camera, std::size_t view)
{
    const BoardPicture& picture = views.cameras[camera][view];
    return "cam" + std::to_string(camera) + " " + picture.name + ": " + outcome(picture, board);
}

std::string unused_note(const BoardViews& views, std::size_t camera, std::size_t view)
{
    const bool alone = views.cameras[camera][view].recognised() && !views.good(view);
    return alone ? ", not used: the other camera's picture was not recognised" : "";
}

} // namespace

std::vector<std::string> view_lines(const BoardViews& views, const BoardFile& board)
{
    std::vector<std::string> lines;
    for (std::size_t k = 0; k < views.cameras.size(); ++k)
        for (std::size_t v = 0; v < views.count(); ++v)
            lines.push_back(view_line(views, board, k, v) + unused_note(views, k, v));
    return lines;
}

std::vector<std::string> view_lines(const Calibrated& c)
{
    const std::vector<std::size_t> out = outlying_views(c);
    std::vector<std::string> lines;
    for (std::size_t k = 0; k < c.views.cameras.size(); ++k) {
        for (std::size_t v = 0; v < c.views.count(); ++v) {
            std::string line = view_line(c.views, c.board, k, v);
            if (c.used[v]) line += ", rms " + number(c.fits[k].view_rms[v], 3) + " px";
            line += unused_note(c.views, k, v);
            if (std::find(out.begin(), out.end(), v) != out.end()) line += "  <- stands out";
            lines.push_back(line);
        }
    }
    return lines;
}

std::string refinement_line(const Refinement& r)
{
    if (!r.made) return "markers as they were recognised, not measured by their grey values";
    const auto part = [](int count, const char* why) { return count == 0 ? "" : ", " + std::to_string(count) + why; };
    const std::string left_out = part(r.not_fitted, " hidden, outside or too faint")
        + part(r.far_off, " far from where they were recognised") + part(r.doubtful, " with something on them");
    return std::to_string(r.markers) + " markers measured by their grey values, to " + number(r.sigma, 4)
        + " px a coordinate; left out: " + (left_out.empty() ? "none" : left_out.substr(2))
        + (r.views_added == 0 ? "" : "; views that the other camera's pose added: " + std::to_string(r.views_added))
        + (r.pictures_kept == 0 ? ""
                                : "; pictures that keep their markers as recognised, since too few could be measured: "
                    + std::to_string(r.pictures_kept))
        + "; " + number(r.seconds, 1) + " s";
}

std::vector<std::string> finding_lines(const std::vector<Finding>& findings)
{
    std::vector<std::string> lines;
    for (const Finding& finding : findings) {
        std::string word = word_of(finding.weight);
        word.resize(7, ' ');
        lines.push_back("  " + word + "  " + question_of(finding) + " " + finding.text);
        if (!finding.advice.empty()) lines.push_back("           -> " + finding.advice);
    }
    return lines;
}

} // namespace vexo
