#include "host/calibration/bundle.h"
#include "host/calibration/solve.h"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include <cmath>
#include <random>
#include <vector>

namespace {

using namespace vexo;

CalibratedCamera camera(double focal, double turn, const cv::Vec3d& place)
{
    CalibratedCamera c;
    c.size = { 1280, 1024 };
    c.K = { focal, 0, 640, 0, focal + 1, 510, 0, 0, 1 };
    c.D = (cv::Mat_<double>(1, 5) << -0.09, 0.06, 4e-4, -3e-4, 0.01);
    cv::Rodrigues(cv::Vec3d(0.003, turn, 0.005), c.R);
    c.T = place;
    return c;
}

/// A pair, and views of a board of which every marker is seen with an error of `noise` px along both axes.
struct Seen {
    Seen(const BoardShape& shape, double noise, unsigned seed)
        : cameras { camera(1402, 0, {}), camera(1398, 0.27, { -160, 0.5, 20 }) }
    {
        cameras[0].R = cv::Matx33d::eye();
        BoardFile real = board;
        real.shape = shape;
        std::mt19937 random(seed);
        std::normal_distribution<double> error(0.0, noise);
        views.cameras.resize(2);
        for (int v = 0; v < 10; ++v) {
            const double a = 2.4 * v;
            const cv::Vec3d rvec
                = cv::Vec3d(CV_PI, 0, 0) + 0.5 * cv::Vec3d(std::cos(a), std::sin(a), 0.6 * std::sin(2 * a));
            const cv::Vec3d tvec(60 * std::sin(a) + 70, 40 * std::cos(a), 560 + 15.0 * v);
            std::vector<cv::Point3d> points;
            for (int i = 0; i < real.markers(); ++i)
                points.push_back(real.shape.at(printed_point(real, static_cast<std::size_t>(i))));
            for (std::size_t k = 0; k < 2; ++k) {
                cv::Vec3d turn, r, t;
                cv::Rodrigues(cameras[k].R, turn);
                cv::composeRT(rvec, tvec, turn, cameras[k].T, r, t);
                std::vector<cv::Point2d> seen;
                cv::projectPoints(points, r, t, cameras[k].K, cameras[k].D, seen);
                BoardPicture picture;
                picture.code = 0;
                for (const cv::Point2d& p : seen)
                    picture.markers.emplace_back(p + cv::Point2d(error(random), error(random)));
                views.cameras[k].push_back(picture);
            }
            used.push_back(true);
        }
    }

    Bundle adjust(bool shape) const { return adjust_bundle(views, board, used, cameras, { 1, shape }).value(); }

    std::vector<CalibratedCamera> cameras;
    BoardFile board;
    BoardViews views;
    std::vector<bool> used;
};

/// found - true of all parameters, in the order of the covariance.
cv::Mat_<double> errors(const Bundle& bundle, const std::vector<CalibratedCamera>& truth)
{
    std::vector<double> all;
    for (std::size_t k = 0; k < 2; ++k) {
        const cv::Matx33d d = bundle.cameras[k].K - truth[k].K;
        all.insert(all.end(), { d(0, 0), d(1, 1), d(0, 2), d(1, 2) });
        for (int i = 0; i < 5; ++i)
            all.push_back(bundle.cameras[k].D.at<double>(i) - truth[k].D.at<double>(i));
    }
    cv::Vec3d found, real;
    cv::Rodrigues(bundle.cameras[1].R, found);
    cv::Rodrigues(truth[1].R, real);
    for (const cv::Vec3d& d : { found - real, bundle.cameras[1].T - truth[1].T })
        all.insert(all.end(), d.val, d.val + 3);
    return cv::Mat_<double>(all, true);
}

TEST(Bundle, IsOffByWhatItsCovarianceSaysWithTheShapeFreeOrNot)
{
    for (const bool shape : { false, true }) {
        double sum = 0.0;
        constexpr int seeds = 12;
        for (unsigned seed = 1; seed <= seeds; ++seed) {
            const Seen seen({}, 0.01, seed);
            const Bundle bundle = seen.adjust(shape);
            EXPECT_NEAR(bundle.residual_px(), 0.01, 0.0005);
            const cv::Mat_<double> e = errors(bundle, seen.cameras);
            ASSERT_EQ(bundle.covariance.rows, e.rows);
            cv::Mat_<double> scale = bundle.covariance.diag().clone(); // the units differ by many orders
            cv::sqrt(scale, scale);
            const cv::Mat unit = e / scale, correlation = bundle.covariance / (scale * scale.t());
            sum += cv::Mat(unit.t() * correlation.inv(cv::DECOMP_SVD) * unit).at<double>(0) / e.rows;
        }
        EXPECT_NEAR(sum / seeds, 1.0, 0.25); // sqrt(2 / (24 * 12)) = 0.083
    }
}

TEST(Bundle, FindsTheShapeOfABoardAndNoneOnAFlatOne)
{
    for (unsigned seed = 1; seed <= 4; ++seed) {
        const Seen flat({}, 0.01, seed);
        EXPECT_FALSE(shape_is_significant(flat.adjust(false), flat.adjust(true))) << seed;
    }
    const BoardShape shape { 0.02, -0.01, 0.03, 2e-4, -1e-4 };
    const Seen bent(shape, 0.01, 5);
    const Bundle with = bent.adjust(true);
    EXPECT_TRUE(shape_is_significant(bent.adjust(false), with));
    EXPECT_NEAR(with.shape.bow_xx, shape.bow_xx, 1e-3);
    EXPECT_NEAR(with.shape.bow_xy, shape.bow_xy, 1e-3);
    EXPECT_NEAR(with.shape.bow_yy, shape.bow_yy, 1e-3);
    EXPECT_NEAR(with.shape.stretch_y, shape.stretch_y, 2e-5);
    EXPECT_NEAR(with.shape.shear, shape.shear, 2e-5);
}

/// OpenCV finds no focal length of its own on a board that is not flat.
TEST(Bundle, AgreesWithTheSolverThatTakesABentBoardAsItLies)
{
    Seen bent({ 0.3, 0.1, 0.4, 2e-3, -1e-3 }, 0.005, 6);
    for (auto& pictures : bent.views.cameras)
        for (BoardPicture& picture : pictures)
            picture.size = bent.cameras[0].size;
    const Bundle bundle = bent.adjust(true);
    bent.board.shape = bundle.shape;
    const auto solved = solve_cameras(bent.views, bent.board, bent.used, {});
    ASSERT_TRUE(solved);
    EXPECT_NEAR(solved->rms, std::sqrt(2.0) * 0.005, 3e-4);
    for (std::size_t k = 0; k < 2; ++k)
        EXPECT_LT(cv::norm(solved->cameras[k].K - bundle.cameras[k].K), 2e-3) << "px; both minimise the same squares";
    EXPECT_LT(cv::norm(solved->cameras[1].T - bundle.cameras[1].T), 1e-3);
    bent.board.shape = {};
    EXPECT_GT(solve_cameras(bent.views, bent.board, bent.used, {})->rms, 0.05) << "taken for flat";
}

TEST(Bundle, SaysNothingOfWhatIsNotDeterminedAndNothingOfWhatIsFixed)
{
    const Seen seen({}, 0.01, 1);
    std::vector<bool> one(seen.used.size(), false);
    EXPECT_FALSE(adjust_bundle(seen.views, seen.board, one, seen.cameras, { 1, false }));
    one[0] = true;
    const auto from_one = adjust_bundle(seen.views, seen.board, one, seen.cameras, { 1, true });
    EXPECT_TRUE(!from_one || cv::checkRange(from_one->covariance));
    const auto fixed = adjust_bundle(seen.views, seen.board, seen.used, seen.cameras, { 1 | cv::CALIB_FIX_K3, false });
    ASSERT_TRUE(fixed);
    EXPECT_EQ(fixed->covariance(8, 8), 0.0);
    EXPECT_GT(fixed->covariance(7, 7), 0.0);
    EXPECT_EQ(fixed->cameras[0].D.at<double>(4), 0.01);
    EXPECT_FALSE(adjust_bundle(seen.views, seen.board, seen.used, seen.cameras, { cv::CALIB_FIX_INTRINSIC, false }));
}

} // namespace
