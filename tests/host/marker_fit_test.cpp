#include "host/calibration/marker_edges.h"
#include "host/calibration/marker_fit.h"
#include "support/board_photos.h"

#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <random>
#include <vector>

namespace {

using namespace vexo;
using namespace board_photos;

/// A photo with known centres, and the camera and the pose as a calibration might have them.
struct Shot {
    Shot(double tilt, const Light& light, double pose_error_px)
        : board(coarse_board())
        , photographer({ 640, 512 }, 701)
        , pose(view(board, tilt, 0.7, 0.2, { 0, 0, 480 }))
        , truth(photographer.centres(board, pose))
        , photo(photographer.photo(board, pose, light))
    {
        file.layout = board.layout;
        camera.size = photo.size();
        camera.K = { 701, 0, 323, 0, 701, 253, 0, 0, 1 };
        camera.D = (cv::Mat_<double>(1, 5) << -0.08, 0.05, 0.0004, -0.0003, 0.0);
        std::mt19937 random(1);
        std::normal_distribution<double> error(0.0, pose_error_px);
        SeenMarkers seen;
        for (std::size_t i = 0; i < truth.size(); ++i) {
            seen.board_mm.push_back(board_point(file, i));
            seen.image_px.emplace_back(truth[i] + cv::Point2d(error(random), error(random)));
        }
        models = marker_models(file, *solve_board_pose(seen, camera), camera);
    }

    /// Root mean square distances from the truth.
    struct Errors {
        double px, sigmas; ///< of the centres, and of the same in their own sigmas
        double edges_px;   ///< of the centres by the edges alone
        std::size_t found;
    };

    Errors errors()
    {
        MarkerFitter fitter(photo, file);
        Errors sum {};
        const std::vector<BoardMarker> markers = board_markers(file.layout);
        for (std::size_t i = 0; i < models.size(); ++i) {
            const auto fit = fitter.fit(models[i], markers[i].ring);
            const auto edges
                = fit ? centre_by_edges(photo, file, models[i], *fit, markers[i].ring) : std::optional<cv::Point2d>();
            if (!edges) continue;
            const cv::Vec2d off(fit->centre - truth[i]), edges_off(*edges - truth[i]);
            sum.px += off.dot(off);
            sum.sigmas += off.dot(fit->covariance.inv() * off) / 2.0;
            sum.edges_px += edges_off.dot(edges_off);
            ++sum.found;
        }
        const auto rms = [&sum](double squares) { return std::sqrt(squares / static_cast<double>(sum.found)); };
        return { rms(sum.px), rms(sum.sigmas), rms(sum.edges_px), sum.found };
    }

    Board board;
    Photographer photographer;
    Pose pose;
    std::vector<cv::Point2d> truth;
    cv::Mat photo;
    BoardFile file;
    CalibratedCamera camera;
    std::vector<MarkerModel> models;
};

TEST(MarkerFit, FindsCentresOfTiltedMarkersWithinTheirOwnSigmaWhateverNoiseBlurAndLight)
{
    struct Case {
        double tilt, blur, noise, gradient, limit_px, limit_sigmas;
    };
    // What the photos' 8 x 8 samples of a pixel leave, 0.004 px, counts as noise. A blur of 0.3 px they draw on the
    // pixels' grid, so that an edge rises in straight pieces: its error is no larger, but the noise of 0.5 levels is.
    for (const Case& c : { Case { 0.0, 0.6, 1.6, 1.0, 0.008, 1.3 }, Case { 0.7, 0.6, 1.6, 1.0, 0.010, 1.3 },
             Case { 0.7, 0.6, 4.0, 3.0, 0.040, 1.3 }, Case { 0.5, 1.5, 1.6, 1.5, 0.016, 1.3 },
             Case { 0.5, 2.0, 1.6, 1.0, 0.018, 1.3 }, // reaches from each marker over to the next, 6 px away
             Case { 0.7, 0.3, 0.5, 1.0, 0.007, 2.0 }, Case { 1.0, 0.7, 1.6, 8.0, 0.040, 1.3 } }) {
        SCOPED_TRACE(testing::Message() << c.tilt << ' ' << c.blur << ' ' << c.noise);
        Shot shot(c.tilt, { c.blur, c.noise, c.gradient }, 0.13);
        const Shot::Errors e = shot.errors();
        EXPECT_EQ(e.found, shot.truth.size());
        EXPECT_LT(e.px, c.limit_px);
        EXPECT_LT(
            e.edges_px, 1.5 * c.limit_px); // a cross-check that errs more could not tell a good fit from a bad one
        EXPECT_GT(e.sigmas, 0.8);
        EXPECT_LT(e.sigmas, c.limit_sigmas);
    }
}

} // namespace
