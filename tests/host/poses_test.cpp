#include "host/calibration/poses.h"
#include "host/calibration/verify.h"
#include "support/board_photos.h"
#include "support/folder.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

namespace {

using namespace vexo;
using namespace board_photos;

constexpr double focal = 701;

CalibratedCamera camera_of(double k1 = -0.08)
{
    CalibratedCamera camera;
    camera.size = { 640, 512 };
    camera.K = { focal, 0, 323, 0, focal, 253, 0, 0, 1 };
    camera.D = (cv::Mat_<double>(1, 5) << k1, 0.05, 0.0004, -0.0003, 0.0);
    return camera;
}

/// Photos of tilted boards in a folder, with their true poses.
struct Photos {
    explicit Photos(int count)
    {
        file.layout = coarse_board().layout;
        Photographer photographer(camera_of().size, focal);
        for (int i = 0; i < count; ++i) {
            poses.push_back(view(coarse_board(), 0.6, 1.3 * i, 0.2 * i, { 4, 3, 420.0 + 20.0 * i }));
            paths.push_back(folder / (std::to_string(i) + ".png"));
            cv::imwrite(paths.back(), photographer.photo(coarse_board(), poses.back(), { 0.7, 1.6, 1.5 }, i));
        }
    }

    Folder folder;
    BoardFile file;
    std::vector<std::string> paths;
    std::vector<Pose> poses;
};

TEST(Poses, AreFiveTimesNearerToTheTruthThanThoseOfRecognisedMarkersAndWithinTheirOwnSigma)
{
    const Photos photos(6);
    const std::vector<PosedPicture> all = find_poses(photos.paths, camera_of(), photos.file);
    double refined = 0, recognised = 0, sigmas = 0;
    for (std::size_t i = 0; i < all.size(); ++i) {
        ASSERT_TRUE(all[i].pose && all[i].position_sigma_mm) << all[i].reason;
        BoardPicture plain;
        plain.markers = BoardSearch(photos.file).find(cv::imread(photos.paths[i], cv::IMREAD_GRAYSCALE)).markers;
        const cv::Vec3d rough = solve_board_pose(seen_markers(plain, photos.file), camera_of())->tvec;
        const cv::Vec3d off = all[i].pose->tvec - photos.poses[i].T, rough_off = rough - photos.poses[i].T;
        refined += off.dot(off);
        recognised += rough_off.dot(rough_off);
        for (int axis = 0; axis < 3; ++axis)
            sigmas += std::pow(off[axis] / (*all[i].position_sigma_mm)[axis], 2);
        EXPECT_TRUE(to_json(all[i])["refined"]);
    }
    EXPECT_LT(5 * std::sqrt(refined), std::sqrt(recognised));
    // 18 errors in their own sigmas: below 1.7 with a chance of 0.9999, above 0.4 with one of 0.9999.
    EXPECT_LT(std::sqrt(sigmas / 18), 1.7);
    EXPECT_GT(std::sqrt(sigmas / 18), 0.4);
}

TEST(Poses, KeepRecognisedMarkersWhereALensThatChangedShowsTooFewWhereItShould)
{
    const Photos photos(3);
    const BoardViews views = find_views(photos.folder / "", "", {});
    const Verified right = verify_calibration({ camera_of() }, views, photos.file);
    EXPECT_EQ(right.refinement.pictures_kept, 0);
    EXPECT_LT(right.fits[0].rms, 0.03); // 0.13 of markers as they were recognised
    CalibratedCamera bent = camera_of(-0.6), narrow = camera_of();
    narrow.K(0, 0) = 900;
    for (const CalibratedCamera& changed : { bent, narrow }) {
        const Verified wrong = verify_calibration({ changed }, views, photos.file);
        EXPECT_EQ(heaviest(wrong.findings), Weight::spoils) << changed.K(0, 0);
        EXPECT_EQ(wrong.refinement.pictures_kept, changed.K(0, 0) > 800 ? 3 : 0);
    }
}

} // namespace
