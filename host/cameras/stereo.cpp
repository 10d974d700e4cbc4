#include "host/cameras/stereo.h"

#include "base/failure.h"
#include "base/text.h"
#include "base/whole_file.h"
#include "host/cameras/camera_file.h"
#include "host/cameras/rectification.h"
#include "vexo/factories.h"

#include <algorithm>
#include <array>

namespace vexo {

namespace {

Owned<iStereoCamera> open_camera(const std::vector<std::string>& files, const StereoCameraParam& param)
{
    const int selector = files.size() >= 3 ? 1 : 2;
    Owned<iStereoCamera> camera(CreateStereoCamera(selector, &files, &param));
    if (camera) return camera;

    for (const std::string& file : files)
        read_bytes(file, std::size_t { 1 } << 31);
    if (selector == 1)
        throw Failure(files[0] + ": these three files are no hmat set for images of "
            + size_text(param.inp_width, param.inp_height));
    const std::array<CalibratedCamera, 2> cameras = read_cameras(files);
    for (std::size_t i = 0; i < 2; ++i) {
        const cv::Size frames(param.inp_width, param.inp_height);
        if (cameras[i].size != frames)
            throw Failure(files[std::min(i, files.size() - 1)] + ": cam" + std::to_string(i) + " is calibrated for "
                + size_text(cameras[i].size.width, cameras[i].size.height) + ", but the frames are "
                + size_text(frames.width, frames.height) + "; record at that size, or calibrate at this one");
    }
    throw Failure(files[0] + ": these cameras make no stereo pair; check baseline, focal lengths and sizes");
}

} // namespace

Stereo open_stereo(const std::vector<std::string>& files, const StereoCameraParam& param)
{
    Stereo stereo { files, param, open_camera(files, param), {}, {} };
    stereo.geometry = probe_geometry(*stereo.camera);
    if (files.size() >= 3) return stereo;
    int width = 0, height = 0;
    stereo.camera->get_outimage_size(&width, &height);
    const cv::Size input(param.inp_width, param.inp_height);
    stereo.rectifying_rotation
        = rectify(read_cameras(files), input, param.alpha, param.flags, { width, height }).rotation0;
    return stereo;
}

} // namespace vexo
