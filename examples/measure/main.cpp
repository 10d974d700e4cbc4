// A whole host of libvexo.so: frames of both cameras in, a point cloud out.
//
//   measure SCAN_DIR CLOUD.ply       SCAN_DIR: cameras.yaml, cam0/frame00.png ... frame12.png, cam1/...
#include <vexo/vexo.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>

/// Receives the cloud and writes the measured points, x right, y down, z forward from rectified camera 0.
struct PlyWriter : vexo::PointCloudCallback {
    std::ofstream file;
    explicit PlyWriter(const char* path)
        : file(path)
    {
    }
    void receive(
        unsigned char* texture, std::size_t step, int width, int height, cv::Point3f* points, int valid) override
    {
        file << "ply\nformat ascii 1.0\nelement vertex " << valid
             << "\nproperty float x\nproperty float y\nproperty float z\nproperty uchar intensity\nend_header\n";
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x, ++points)
                if (!std::isnan(points->z))
                    file << points->x << ' ' << points->y << ' ' << points->z << ' '
                         << int(texture[static_cast<std::size_t>(y) * step + static_cast<std::size_t>(x)]) << '\n';
    }
};

int main(int argc, char** argv)
{
    if (argc != 3) return std::cerr << "usage: measure SCAN_DIR CLOUD.ply\n", 2;
    const std::string scan = argv[1];

    vexo::StereoCameraParam rectify; // the rectified images have the size of the frames
    rectify.inp_width = 1280;
    rectify.inp_height = 1024;
    const std::vector<std::string> files { scan + "/cameras.yaml" };
    const vexo::Owned<vexo::iStereoCamera> camera(vexo::CreateStereoCamera(2, &files, &rectify));
    if (!camera) return std::cerr << files[0] << ": not a camera pair for 1280 x 1024\n", 1;

    const vexo::Owned<vexo::iPointCloudGenerator> generator(vexo::CreatePointCloudGenerator(1));
    vexo::GrayPhaseMatchingParam param;
    param.max_phase_diff = 0.15; // fringe periods
    param.fit_points = 5;
    param.anchor_length = 4;
    param.reject_length = 1;
    generator->init(camera.get());
    if (const char* fault = vexo::why_invalid(param)) return std::cerr << fault << '\n', 1;
    generator->setparams(&param);

    for (int cam = 0; cam < 2; ++cam)
        for (int i = 0; i < generator->requiredframes(); ++i) {
            char name[32];
            std::snprintf(name, sizeof name, "/cam%d/frame%02d.png", cam, i);
            if (!generator->loadpict(scan + name, cam, i))
                return std::cerr << scan << name << ": no 1280 x 1024 frame\n", 1;
        }
    if (!generator->exec()) return std::cerr << scan << ": the frames cannot be decoded\n", 1;
    generator->genPC(vexo::iPointCloudGenerator::MethodQ, false);

    PlyWriter writer(argv[2]);
    const int points = generator->get_pointcloud(&writer);
    std::cout << points << " points, baseline " << camera->get_baseline_length() << " mm\n";
    return points > 0 && writer.file.flush() ? 0 : 1;
}
