#include "host/reports/calibration_files.h"

#include "host/calibration/checks.h"
#include "host/cameras/calibration_notes.h"
#include "host/files/json_file.h"
#include "host/reports/calibration_json.h"
#include "host/reports/calibration_page.h"

#include <filesystem>

namespace vexo {

namespace fs = std::filesystem;

void add_files(OutputFolder& out, const Calibrated& c, const std::vector<Finding>& findings)
{
    const CalibrationNotes notes { unit_named("mm", "board.yaml"), calibration_verdict(findings) };
    for (const auto& [name, bytes] : c.files) {
        const bool cameras = name == "cameras.yaml";
        const std::string written = cameras ? with_notes(bytes, notes) : bytes;
        out.add(name, written);
        if (cameras && c.covariance) out.add(covariance_file, covariance_yaml(*c.covariance, written));
    }
    out.add("board.yaml", board_yaml(c.board));
    out.add("report.json", json_text(calibration_json(c, findings)));
    out.add("report.html", calibration_html(c, findings));
    for (const auto& pictures : c.views.cameras)
        for (const BoardPicture& picture : pictures)
            out.add(
                "drawings/cam" + std::to_string(picture.camera) + "_" + fs::path(picture.name).stem().string() + ".jpg",
                picture.drawing);
}

} // namespace vexo
