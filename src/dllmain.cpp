#include "vexo/factories.h"

#include <new>

namespace vexo {

iStereoCamera* CreateStereoCamera(int, const std::vector<std::string>*, const StereoCameraParam*)
{
    return nullptr;
}

iStereoCamera* CreateStereoCameraFromRaw(
    const double*, const double*, const double*, const double*, const double*, const double*, const StereoCameraParam*)
{
    return nullptr;
}

iPointCloudGenerator* CreatePointCloudGenerator(int)
{
    return nullptr;
}

iCalibBoardRecognizer* CreateCalibBoardRecognizer()
{
    return nullptr;
}

iCameraCalibrator* CreateCameraCalibrator()
{
    return nullptr;
}

iStereoCalibrator* CreateStereoCalibrator()
{
    return nullptr;
}

} // namespace vexo
