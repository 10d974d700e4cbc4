#include "host/reports/verify_report.h"

#include "base/text.h"

namespace vexo {

std::vector<std::string> verified_lines(const Verified& v, const BoardFile& board)
{
    std::vector<std::string> lines;
    for (std::size_t k = 0; k < v.fits.size(); ++k)
        for (std::size_t view = 0; view < v.views.count(); ++view) {
            const BoardPicture& picture = v.views.cameras[k][view];
            lines.push_back("cam" + std::to_string(k) + " " + picture.name + ": " + outcome(picture, board)
                + (v.used[view] ? ", rms " + number(v.fits[k].view_rms[view], 3) + " px" : ""));
        }
    if (v.refinement.pictures_kept > 0)
        lines.push_back(std::to_string(v.refinement.pictures_kept)
            + " pictures keep their markers as recognised: too few are where these cameras expect them");
    for (const Finding& finding : v.findings) {
        std::string word = word_of(finding.weight);
        word.resize(7, ' ');
        lines.push_back("  " + word + "  " + sentence(finding));
    }
    return lines;
}

Json verified_json(const Verified& v, const BoardFile& board)
{
    Json json { { "verdict", word_of(heaviest(v.findings)) }, { "findings", Json::array() },
        { "cameras", Json::array() } };
    for (const Finding& finding : v.findings)
        json["findings"].push_back(to_json(finding));
    for (const CameraFit& fit : v.fits)
        json["cameras"].push_back({ { "rms_px", fit.rms } });
    if (v.is_pair())
        json["pair"] = { { "row_median_px", v.row_median }, { "row_rms_px", v.pair.row_rms },
            { "distances_along_x", { { "bias_mm", v.pair.along_x.bias }, { "length_mm", v.pair.along_x.length } } },
            { "distances_along_y", { { "bias_mm", v.pair.along_y.bias }, { "length_mm", v.pair.along_y.length } } } };
    json["refinement"] = { { "markers", v.refinement.markers }, { "pictures_kept", v.refinement.pictures_kept } };
    for (const auto& pictures : v.views.cameras)
        for (const BoardPicture& picture : pictures)
            json["pictures"].push_back({ { "file", picture.path }, { "outcome", outcome(picture, board) } });
    return json;
}

} // namespace vexo
