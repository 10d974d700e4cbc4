#pragma once

#include "host/cameras/stereo.h"
#include "host/captures/capture.h"
#include "host/measurement/measure.h"
#include "support/folder.h"
#include "support/rendered.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

namespace vexo {

/// A small capture of the virtual rig in a folder of its own, and what measuring it needs.
class Measuring : public testing::Test {
protected:
    static constexpr int width = 320, height = 256;

    Capture capture(Method method, const char* scene = "bust", double defocus = 0.5, double gamma = 1.0)
    {
        rig.image_size = { width, height };
        rig.method = method;
        rig.defocus = defocus;
        rig.gamma = gamma;
        const std::string scan = folder / (scene + std::string(name_of(method)));
        Rendered::write(scan, scene, rig);
        const CaptureFiles files { scan, scan + "/cam0", scan + "/cam1", "", false };
        return read_capture(files, choose_method(files));
    }

    static Stereo stereo(const Capture& capture)
    {
        StereoCameraParam param;
        param.inp_width = width;
        param.inp_height = height;
        return open_stereo({ capture.files.folder + "/cameras.yaml" }, param);
    }

    static std::vector<unsigned char> bytes_of(const Measured& m)
    {
        std::vector<unsigned char> bytes(m.cloud.points.size() * sizeof(cv::Point3f));
        std::memcpy(bytes.data(), m.cloud.points.data(), bytes.size());
        bytes.insert(bytes.end(), m.causes.causes.datastart, m.causes.causes.dataend);
        return bytes;
    }

    Folder folder;
    sim::RigOptions rig; ///< noise and exposure of the next capture
};

} // namespace vexo
