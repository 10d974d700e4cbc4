#include "host/calibration/camera_fit.h"
#include "host/calibration/solve.h"
#include "host/cameras/pair_files.h"
#include "support/photo_files.h"
#include "vexo/owned.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using namespace vexo;
using namespace board_photos;

/// The photos, and what both roads are told of them.
struct Photos : PhotoFiles {
    explicit Photos(double focal = 0.0)
    {
        param = calibration_param();
        param.focal_guess = focal;
        if (focal > 0.0) param.flags |= 1;
    }

    Solved solved() const { return *solve_cameras(views, board, { true, true, true, true }, options()); }
    SolveOptions options() const { return { param.focal_guess, param.flags }; }

    /// What the library's calibrator saves of the same pictures.
    NamedBytes by_library(RectifyParam rectify)
    {
        const Owned<iStereoCalibrator> calibrator(CreateStereoCalibrator());
        EXPECT_TRUE(know_board(*calibrator));
        for (int i = 0; i < 8; ++i)
            EXPECT_EQ(calibrator->put_image(i / 4, path(i / 4, i % 4), false, ""), 0);
        EXPECT_TRUE(calibrator->do_calibrate(param, nullptr, nullptr));
        EXPECT_GT(calibrator->create_stereo_camera(rectify, nullptr, nullptr), 0.0);
        EXPECT_TRUE(calibrator->save_calibfile(folder / "cameras.yaml", ""));
        EXPECT_TRUE(calibrator->save_stereofile(folder / "stereo.yaml", folder / "map0.bin", folder / "map1.bin"));
        EXPECT_TRUE(calibrator->save_boardRT(folder / "boardRT.yaml"));
        NamedBytes files;
        for (const char* name : { "cameras.yaml", "boardRT.yaml", "stereo.yaml", "map0.bin", "map1.bin" })
            files.emplace_back(name, content(folder / name));
        if (!calibrator->save_stereohmat(folder / "hmat0.bin", folder / "hmat1.bin", folder / "hmat_tables.bin", false))
            return files;
        for (const char* name : { "hmat0.bin", "hmat1.bin", "hmat_tables.bin" })
            files.emplace_back(name, content(folder / name));
        return files;
    }

    /// What the host writes from the markers that it recognised.
    NamedBytes by_host(const RectifyParam& rectify) const
    {
        const Solved found = solved();
        const std::array<CalibratedCamera, 2> pair { found.cameras[0], found.cameras[1] };
        const auto made = pair_files(pair, rectify);
        const auto pose = pose_in_rectified(
            pair, *made, { seen_markers(views.cameras[0][0], board), seen_markers(views.cameras[1][0], board) });
        NamedBytes files { { "cameras.yaml", cameras_yaml(found.cameras) },
            { "boardRT.yaml", board_pose_yaml(*pose) } };
        files.insert(files.end(), made->files.begin(), made->files.end());
        return files;
    }

    CameraCalibParam param;
};

void expect_equal(const NamedBytes& host, const NamedBytes& library)
{
    ASSERT_EQ(host.size(), library.size());
    for (std::size_t i = 0; i < host.size(); ++i) {
        EXPECT_EQ(host[i].first, library[i].first);
        EXPECT_FALSE(host[i].second.empty()) << host[i].first;
        EXPECT_TRUE(host[i].second == library[i].second) << host[i].first; // without printing megabytes
    }
}

TEST(PairFiles, AreToTheByteWhatTheLibrarysCalibratorSavesOfTheSameMarkers)
{
    Photos photos;
    expect_equal(photos.by_host({}), photos.by_library({}));
    RectifyParam larger; // no hmat set can say this size
    larger.alpha = 1.0;
    larger.width = 480;
    larger.height = 360;
    EXPECT_EQ(photos.by_host(larger).size(), 5U);
    expect_equal(photos.by_host(larger), photos.by_library(larger));
    Photos from_guess(400.0);
    expect_equal(from_guess.by_host({}), from_guess.by_library({}));
}

TEST(PairFiles, OfOneCameraAreWhatItsCalibratorSavesAndItsErrorsAreTheSame)
{
    Photos photos;
    const Owned<iCameraCalibrator> calibrator(CreateCameraCalibrator());
    ASSERT_TRUE(know_board(*calibrator));
    for (int view = 0; view < 4; ++view)
        ASSERT_EQ(calibrator->put_image(photos.path(0, view), false, ""), 0);
    std::vector<double> errors;
    double rms = 0.0;
    ASSERT_TRUE(calibrator->do_calibrate(photos.param, &errors, &rms));
    ASSERT_TRUE(calibrator->save_calibfile(photos.folder / "one.yaml", "cam0"));
    const auto found
        = solve_cameras({ { photos.views.cameras[0] } }, photos.board, { true, true, true, true }, photos.options());
    EXPECT_EQ(cameras_yaml(found->cameras), content(photos.folder / "one.yaml"));
    EXPECT_EQ(found->rms, rms);
    EXPECT_EQ(found->view_rms, std::vector<std::vector<double>> { errors });
}

TEST(PairFiles, AreLoadedByTheLibraryAsTheSamePair)
{
    Photos photos;
    for (const auto& [name, bytes] : photos.by_host({}))
        put(photos.folder / name, bytes);
    StereoCameraParam param;
    param.inp_width = param.out_width = 400;
    param.inp_height = param.out_height = 320;
    const std::vector<std::string> cameras { photos.folder / "cameras.yaml" },
        hmat { photos.folder / "hmat0.bin", photos.folder / "hmat1.bin", photos.folder / "hmat_tables.bin" };
    const Owned<iStereoCamera> a(CreateStereoCamera(2, &cameras, &param)), b(CreateStereoCamera(1, &hmat, &param));
    ASSERT_TRUE(a && b);
    const double baseline = cv::norm(photos.solved().cameras[1].T);
    EXPECT_NEAR(a->get_baseline_length(), baseline, 1e-9 * baseline);
    EXPECT_NEAR(b->get_baseline_length(), baseline, 1e-9 * baseline);
    const Owned<iPointCloudGenerator> points(CreatePointCloudGenerator(1));
    EXPECT_TRUE(points->convert_coordinate(photos.folder / "boardRT.yaml"));
}

} // namespace
