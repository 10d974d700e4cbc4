#include "host/calibration/marker_edges.h"
#include "host/calibration/marker_fit.h"
#include "support/board_photos.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <utility>
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

    /// Root mean square distance of the centres from the truth, and of the same in their own sigmas.
    std::pair<double, double> errors(int& found)
    {
        MarkerFitter fitter(photo, file);
        double sum = 0.0, normal = 0.0;
        found = 0;
        const std::vector<BoardMarker> markers = board_markers(file.layout);
        for (std::size_t i = 0; i < models.size(); ++i) {
            const auto fit = fitter.fit(models[i], markers[i].ring);
            if (!fit) continue;
            ++found;
            const cv::Vec2d off(fit->centre.x - truth[i].x, fit->centre.y - truth[i].y);
            sum += off.dot(off);
            const auto edges = centre_by_edges(photo, file, models[i], *fit, markers[i].ring);
            if (edges) {
                const cv::Vec2d oe(edges->x - truth[i].x, edges->y - truth[i].y);
                esum += oe.dot(oe);
                ++ne;
            }
            normal += off.dot(fit->covariance.inv() * off) / 2.0;
        }
        return { std::sqrt(sum / found), std::sqrt(normal / found) };
    }

    double esum = 0;
    int ne = 0;
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
        double tilt, blur, noise, gradient, limit_px;
    };
    for (const Case& c :
        { Case { 0.0, 0.6, 1.6, 1.0, 0.010 }, Case { 0.7, 0.6, 1.6, 1.0, 0.012 }, Case { 0.7, 0.6, 4.0, 3.0, 0.040 },
            Case { 0.5, 1.5, 1.6, 1.5, 0.016 }, Case { 0.7, 0.3, 0.5, 1.0, 0.008 } }) {
        Shot shot(c.tilt, { c.blur, c.noise, c.gradient }, 0.13);
        int found = 0;
        const auto [px, sigmas] = shot.errors(found);
        EXPECT_EQ(found, static_cast<int>(shot.truth.size()));
        EXPECT_LT(px, c.limit_px) << c.tilt << ' ' << c.blur << ' ' << c.noise;
        EXPECT_GT(sigmas, 0.8) << c.tilt << ' ' << c.blur << ' ' << c.noise;
        EXPECT_LT(sigmas, 1.4) << c.tilt << ' ' << c.blur << ' ' << c.noise;
    }
}

} // namespace
