#include "base/failure.h"
#include "base/whole_file.h"
#include "host/calibration/share_check.h"
#include "host/cameras/covariance_share.h"
#include "host/cameras/pair_points.h"
#include "host/cameras/stereo.h"
#include "sim/capture.h"
#include "support/folder.h"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include <cmath>
#include <random>

namespace {

using namespace vexo;

/// A small rig of the simulator, and a covariance of its cameras that was made up.
class Share : public testing::Test {
protected:
    Share()
    {
        sim::RigOptions rig;
        rig.image_size = { 320, 256 };
        text = sim::cameras_yaml(sim::make_rig(rig));
        put("cameras.yaml", text);
        const auto read = read_cameras(std::vector<std::string> { folder / "cameras.yaml" });
        cameras = { read[0], read[1] };
        c.parameters = covariance_parameters(cameras);
        c.covariance = made_up();
        c.residual_px = 0.011;
        c.marker_sigma_px = 0.01;
        c.distance_mm = { 500, 600, 800 };
    }
    /// Every parameter depends on the others.
    cv::Mat_<double> made_up()
    {
        const int n = static_cast<int>(c.parameters.size());
        cv::Mat_<double> factor(n, n);
        for (int i = 0; i < n; ++i) {
            const std::string& name = c.parameters[static_cast<std::size_t>(i)];
            const double deviation = name.find('.') != 4 ? (name[0] == 'r' ? 1e-5 : 0.004)
                : name[5] == 'k'                         ? 2e-4
                : name[5] == 'p'                         ? 2e-5
                                                         : 0.02;
            for (int j = 0; j < n; ++j)
                factor(i, j) = deviation * normal(random) / std::sqrt(n);
        }
        return cv::Mat_<double>(factor * factor.t());
    }
    void put(const std::string& name, const std::string& bytes) const { ASSERT_TRUE(write_file(folder / name, bytes)); }
    Stereo opened() const
    {
        StereoCameraParam p;
        p.inp_width = 320;
        p.inp_height = 256;
        return open_stereo({ folder / "cameras.yaml" }, p);
    }
    std::string why_refused() const
    {
        try {
            opened();
        } catch (const Failure& failure) {
            return failure.what();
        }
        return "";
    }

    Folder folder;
    std::mt19937 random { 3 };
    std::normal_distribution<double> normal;
    std::string text;
    std::vector<CalibratedCamera> cameras;
    CameraCovariance c;
};

TEST_F(Share, IsUnknownWithoutTheCovarianceOfTheseVeryCamerasAndADamagedFileIsRefusedByName)
{
    EXPECT_FALSE(opened().share.share);
    EXPECT_NE(opened().share.why_unknown.find("there is no covariance.yaml"), std::string::npos);
    const std::string bytes = covariance_yaml(c, text);
    put("covariance.yaml", bytes);
    const StatedShare known = opened().share;
    ASSERT_TRUE(known.share) << known.why_unknown;
    EXPECT_EQ(known.share->depth_mm, share_of(cameras, c).share->depth_mm) << "all digits are kept";
    Json report;
    add_share(report, known);
    EXPECT_EQ(read_share(report, "report.json").share->bend_mm, known.share->bend_mm);
    put("cameras.yaml", text + "# edited\n");
    EXPECT_FALSE(opened().share.share);
    EXPECT_NE(opened().share.why_unknown.find("belongs to another cameras.yaml"), std::string::npos);
    add_share(report, opened().share);
    EXPECT_EQ(report["calibration_share_mm"], "unknown");
    EXPECT_EQ(read_share(report, "report.json").why_unknown, opened().share.why_unknown);
    const std::pair<std::string, std::string> damages[]
        = { { "cam0.fx", "cam0.fz" }, { "cam0.fx", "fx" }, { "rows: ", "rows: 100000000" },
              { "residual_px: ", "residual_px: -" }, { "marker_sigma_px: ", "marker_sigma_px: .Inf #" },
              { "distance_mm: [ 500.", "distance_mm: [ 700." }, { "data: [ ", "data: [ -" },
              { "data: [ ", "data: [ 7, " }, { "data: [ ", "data: [ .Nan, " }, { "cameras_sha256", "sha" } };
    for (const auto& [good, bad] : damages) {
        std::string damaged = bytes;
        ASSERT_NE(damaged.find(good), std::string::npos) << good;
        damaged.replace(damaged.find(good), good.size(), bad);
        put("covariance.yaml", damaged);
        EXPECT_NE(why_refused().find("covariance.yaml: is damaged"), std::string::npos) << bad;
    }
}

/// Errors of depth of cameras drawn from the covariance, by OpenCV's own triangulation.
TEST_F(Share, IsTheSpreadOfCamerasDrawnFromTheCovariance)
{
    const StatedShare stated = share_of(cameras, c);
    ASSERT_TRUE(stated.share) << stated.why_unknown;
    const auto changes = independent_changes(c.covariance);
    const CommonPixels pixels = in_common(cameras, evenly_over({ 320, 256 }, { 10, 8 }), 600);
    const auto points = [&](const std::vector<CalibratedCamera>& pair) {
        std::array<std::vector<cv::Point2d>, 2> rays;
        for (std::size_t k = 0; k < 2; ++k)
            cv::undistortPoints(pixels.of[k], rays[k], pair[k].K, pair[k].D);
        const cv::Matx33d R = pair[1].R * pair[0].R.t();
        cv::Matx34d P1;
        cv::hconcat(R, pair[1].T - R * pair[0].T, P1);
        cv::Mat h;
        cv::triangulatePoints(cv::Matx34d::eye(), P1, rays[0], rays[1], h);
        std::vector<cv::Vec3d> found;
        for (int i = 0; i < h.cols; ++i)
            found.emplace_back(
                cv::Vec3d(h.at<double>(0, i), h.at<double>(1, i), h.at<double>(2, i)) / h.at<double>(3, i));
        return found;
    };
    const std::vector<cv::Vec3d> right = points(cameras);
    cv::Mat R0, R1, P0, P1, Q;
    cv::stereoRectify(cameras[0].K, cameras[0].D, cameras[1].K, cameras[1].D, cameras[0].size,
        cameras[1].R * cameras[0].R.t(), cameras[1].T - cameras[1].R * cameras[0].R.t() * cameras[0].T, R0, R1, P0, P1,
        Q);
    const cv::Matx33d to_raw = cv::Matx33d(R0).t();
    const double slope = std::tan(10 * CV_PI / 180);
    double squares = 0.0;
    constexpr int draws = 1500; // their mean square is known to 4 % where a single change makes most of it
    for (int i = 0; i < draws; ++i) {
        cv::Mat_<double> change(c.covariance.rows, 1, 0.0);
        for (const auto& one : changes)
            change += normal(random) * one;
        const std::vector<cv::Vec3d> drawn = points(changed_by(cameras, change));
        for (const auto& [x, y] :
            { std::pair(slope, 0.0), std::pair(-slope, 0.0), std::pair(0.0, slope), std::pair(0.0, -slope) })
            for (std::size_t k = 0; k < right.size(); ++k) {
                const cv::Vec3d normal = to_raw * cv::Vec3d(x, y, 1);
                const double depth = normal.dot(right[k]) / normal.dot(drawn[k] / drawn[k][2]); // of the surface there
                const double off = drawn[k][2] - depth;
                squares += off * off / (4.0 * static_cast<double>(right.size()) * draws);
            }
    }
    EXPECT_NEAR(stated.share->depth_mm[1] / std::sqrt(squares), 1.0, 0.1);
    const cv::Mat map = share_map(cameras, c);
    double least = 0, most = 0;
    cv::minMaxLoc(map, &least, &most, nullptr, nullptr, map == map);
    EXPECT_LT(least, stated.share->depth_mm[1]);
    EXPECT_GT(most, stated.share->depth_mm[1]);
}

TEST_F(Share, GrowsWithTheSquareOfTheDistanceBeyondThoseOfTheMarkers)
{
    const CalibrationShare share { { 500, 600, 800 }, { 0.02, 0.03, 0.05 }, { 0.01, 0.01, 0.02 }, { 1e-5, 2e-5, 0 },
        "" };
    EXPECT_NEAR(share.at(700).depth_mm, 0.04, 1e-12);
    EXPECT_NEAR(share.at(1600).depth_mm, 0.2, 1e-12);
    EXPECT_NEAR(share.at(250).bend_mm, 0.0025, 1e-12);
    EXPECT_THROW(read_share(Json { { "calibration_share_mm", { { "near", 1 } } } }, "report.json"), Failure);
}

TEST_F(Share, OfASingleCameraIsThatOfDirectionsWhichARotationDoesNotExplain)
{
    const CalibratedCamera& camera = cameras[0];
    CameraCovariance single = c;
    single.parameters = covariance_parameters({ camera });
    const auto px_of = [&](std::initializer_list<int> off_by_a_tenth) {
        cv::Mat_<double> change(static_cast<int>(single.parameters.size()), 1, 0.0);
        for (const int i : off_by_a_tenth)
            change(i) = 0.1;
        single.covariance = cv::Mat(change * change.t());
        return direction_share(camera, single).share->px;
    };
    EXPECT_LT(px_of({ 2 }), 0.01) << "a principal point that is 0.1 px off is a camera that is turned";
    double squares = 0.0; // a focal length that is 0.1 px off: by 0.1 / f of the distance from the middle
    const auto pixels = evenly_over(camera.size, { 20, 16 });
    for (const cv::Point2d& p : pixels)
        squares += std::pow(0.1 / camera.K(0, 0) * cv::norm(p - cv::Point2d(camera.K(0, 2), camera.K(1, 2))), 2);
    const double expected = std::sqrt(squares / static_cast<double>(pixels.size()));
    EXPECT_NEAR(px_of({ 0, 1 }), expected, 0.15 * expected) << "the picture spans 40 degrees";
}

TEST_F(Share, MakesACalibrationWorseThatIsNotWellBelowAScansNoiseOrThatCannotBeTrusted)
{
    Calibrated calibrated;
    calibrated.cameras = cameras;
    calibrated.size = cameras[0].size;
    calibrated.baseline = cv::norm(cameras[1].T - cameras[1].R * cameras[0].R.t() * cameras[0].T);
    calibrated.fits.resize(2);
    calibrated.views.cameras = { {}, {} };
    const auto judged = [&](double depth_over_noise, double residual, double sigma, double halves) {
        calibrated.covariance = c;
        calibrated.covariance->residual_px = residual;
        calibrated.covariance->marker_sigma_px = sigma;
        calibrated.covariance->halves_ratio = halves;
        calibrated.share = share_of(cameras, *calibrated.covariance);
        for (std::size_t i = 0; i < 3; ++i) // rectifying hardly changes the focal length
            calibrated.share.share->depth_mm[i]
                = depth_over_noise * usual_noise(cameras[0].K(0, 0), calibrated.baseline, c.distance_mm[i]);
        return check_share(calibrated);
    };
    const struct {
        double depth_over_noise, residual, sigma, halves;
        Weight weight;
        const char* says;
    } cases[] = { { 0.3, 0.01, 0.01, 1.5, Weight::good, "" }, { 1.0, 0.01, 0.01, 0, Weight::worse, "views" },
        { 7.0, 0.01, 0.01, 0, Weight::spoils, "views" }, { 0.3, 0.031, 0.01, 1, Weight::worse, "3.1 times" },
        { 7.0, 0.031, 0.01, 1, Weight::spoils, "3.1 times" }, { 0.3, 0.08, 0.0, 1, Weight::worse, "--no-refine" },
        { 0.3, 0.01, 0.01, 3.4, Weight::worse, "3.4 times as far apart" } };
    for (const auto& k : cases) {
        const Finding finding = judged(k.depth_over_noise, k.residual, k.sigma, k.halves);
        EXPECT_EQ(finding.weight, k.weight) << finding.text;
        EXPECT_NE((finding.text + finding.advice).find(k.says), std::string::npos) << finding.text << finding.advice;
        EXPECT_NE(finding.text.find(" mm at 600 mm"), std::string::npos) << finding.text;
        EXPECT_EQ(finding.advice.empty(), k.weight == Weight::good);
    }
    CameraCovariance blurred = c;
    blurred.blur_over_gap = 0.5;
    EXPECT_NE(share_of(cameras, blurred).share->invalid.find("blurred"), std::string::npos);
    calibrated.share = { {}, "the views are too few" };
    EXPECT_EQ(check_share(calibrated).weight, Weight::worse);
    EXPECT_NE(check_share(calibrated).text.find("unknown: the views are too few"), std::string::npos);
}

} // namespace
