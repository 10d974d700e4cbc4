#include "vexo/factories.h"

#include "base/boundary.h"
#include "board/KorvaCalibBoardRecognizer.h"
#include "calib/CameraCalibrator.h"
#include "calib/StereoCalibrator.h"
#include "camera/stereo_construction.h"
#include "matching/gyps.h"
#include "matching/mlps.h"
#include "matching/sgbm.h"

#include <new>

namespace vexo {
namespace {

template <class Concrete, class Interface> Interface* make_new() noexcept
{
    return null_if_it_throws([]() -> Interface* { return new (std::nothrow) Concrete; });
}

iStereoCamera* from_hmat_set(const std::vector<std::string>& files, const StereoCameraParam& p)
{
    if (files.size() < 3) return nullptr;
    return create_StereoCamera_from_Hmats(
        files[0], files[1], files[2], cv::Size(p.inp_width, p.inp_height), fill_colour(p.fill0), fill_colour(p.fill1));
}

iStereoCamera* from_calibration(const std::vector<std::string>& files, const StereoCameraParam& p)
{
    if (why_invalid(p) != nullptr) return nullptr;
    StereoCamera* camera = create_StereoCamera(
        files, cv::Size(p.out_width, p.out_height), p.alpha, p.flags, fill_colour(p.fill0), fill_colour(p.fill1));
    if (camera == nullptr || camera->input_size == cv::Size(p.inp_width, p.inp_height)) return camera;
    camera->destroy();
    return nullptr;
}

} // namespace

iStereoCamera* CreateStereoCamera(int selector, const std::vector<std::string>* files, const StereoCameraParam* param)
{
    if ((selector != 1 && selector != 2) || files == nullptr || param == nullptr) return nullptr;
    return null_if_it_throws(
        [&] { return selector == 1 ? from_hmat_set(*files, *param) : from_calibration(*files, *param); });
}

iStereoCamera* CreateStereoCameraFromRaw(const double* K0, const double* D0, const double* K1, const double* D1,
    const double* R, const double* T, const StereoCameraParam* param)
{
    return null_if_it_throws(
        [&]() -> iStereoCamera* { return create_StereoCamera_from_raw(K0, D0, K1, D1, R, T, param); });
}

iPointCloudGenerator* CreatePointCloudGenerator(int selector)
{
    if (selector == 0) return make_new<SGBMatching, iPointCloudGenerator>();
    if (selector == 1) return make_new<GyPsMatching, iPointCloudGenerator>();
    if (selector == 2) return make_new<MlPsMatching, iPointCloudGenerator>();
    return nullptr;
}

iCalibBoardRecognizer* CreateCalibBoardRecognizer()
{
    return make_new<KORVACalibBoardRecognizer, iCalibBoardRecognizer>();
}

iCameraCalibrator* CreateCameraCalibrator()
{
    return make_new<CameraCalibrator, iCameraCalibrator>();
}

iStereoCalibrator* CreateStereoCalibrator()
{
    return make_new<StereoCalibrator, iStereoCalibrator>();
}

} // namespace vexo
