#include "host/calibration/calibrate.h"
#include "host/calibration/checks.h"
#include "host/reports/calibration_json.h"
#include "host/reports/calibration_text.h"
#include "support/photo_files.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace vexo;
using namespace board_photos;

Calibrated calibrated(const PhotoFiles& photos, bool refine = true)
{
    CalibrateRequest request;
    request.flags = calibration_param().flags;
    request.refine = refine;
    return calibrate(photos.views, photos.board, photos.board.layout.pitch_mm, request);
}

const Finding* markers_of(const std::vector<Finding>& findings)
{
    const auto found
        = std::find_if(findings.begin(), findings.end(), [](const Finding& f) { return f.name == "markers"; });
    return found == findings.end() ? nullptr : &*found;
}

/// Paper over a part of the edge of every third disc. @return how many
int bite(const BoardFile& board, const std::vector<cv::Point2f>& markers, cv::Mat& photo)
{
    int count = 0;
    for (std::size_t i = 0; i < markers.size(); i += 3) {
        if (board_markers(board.layout)[i].ring) continue;
        cv::circle(photo, cv::Point(markers[i]) + cv::Point(9, 2), 3, 190, cv::FILLED, cv::LINE_AA);
        ++count;
    }
    return count;
}

TEST(Refinement, SaysOfCleanPhotosThatEveryMarkerWasMeasuredAndOfNoneThatNoneWas)
{
    const PhotoFiles photos;
    const Calibrated c = calibrated(photos);
    const std::vector<Finding> findings = check_calibration(c);
    EXPECT_EQ(markers_of(findings), nullptr);
    const Json json = calibration_json(c, findings), &refinement = json["refinement"];
    EXPECT_EQ(refinement["markers"], 8 * photos.board.markers());
    for (const char* none : { "not_fitted", "far_off", "doubtful", "views_added" })
        EXPECT_EQ(refinement[none], 0) << none;
    // Both sides of one scatter: the markers' own, and what the cameras leave of both coordinates.
    EXPECT_LT(refinement["sigma_px"], json["rms_px"]);
    EXPECT_GT(2.5 * refinement["sigma_px"].get<double>(), json["rms_px"]);
    EXPECT_EQ(json["views"][0]["pictures"][1]["step"], "as it is");
    EXPECT_NE(refinement_line(c.refinement).find("left out: none"), std::string::npos);
    const Calibrated plain = calibrated(photos, false);
    EXPECT_FALSE(calibration_json(plain, check_calibration(plain)).contains("refinement"));
}

TEST(Refinement, LeavesOutMarkersWithABiteAndNamesThePictureThatHasThem)
{
    const PhotoFiles clean;
    int bitten = 0;
    const auto spoil = [&](int camera, int view, cv::Mat& photo) {
        if (camera == 1 && view >= 2)
            bitten += bite(clean.board, clean.views.cameras[1][static_cast<std::size_t>(view)].markers, photo);
    };
    const Calibrated good = calibrated(clean), c = calibrated(PhotoFiles(spoil));
    const std::vector<Finding> findings = check_calibration(c);
    ASSERT_NE(markers_of(findings), nullptr);
    EXPECT_NE(markers_of(findings)->text.find("cam1 2.png"), std::string::npos) << markers_of(findings)->text;
    EXPECT_EQ(c.refinement.far_off + c.refinement.doubtful, bitten);
    EXPECT_EQ(c.refinement.markers, 8 * clean.board.markers() - bitten);
    EXPECT_LT(c.rms, 1.1 * good.rms);
}

} // namespace
