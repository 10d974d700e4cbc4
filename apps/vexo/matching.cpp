#include "matching.h"

#include "common.h"
#include "quiet_stderr.h"

#include <chrono>

namespace vexo::app {

namespace {

/// Keeps the points that the library hands out.
class Receiver : public PointCloudCallback {
public:
    explicit Receiver(Cloud& cloud)
        : _cloud(cloud)
    {
    }
    void receive(unsigned char*, std::size_t, int width, int height, cv::Point3_<float>* points, int count) override
    {
        _cloud.size = { width, height };
        _cloud.points.assign(points, points + static_cast<std::ptrdiff_t>(width) * height);
        _cloud.count = count;
    }

private:
    Cloud& _cloud;
};

double lap(std::chrono::steady_clock::time_point& from)
{
    const auto now = std::chrono::steady_clock::now();
    const std::chrono::duration<double> passed = now - from;
    from = now;
    return passed.count();
}

void hand_over(iPointCloudGenerator& generator, const std::array<std::vector<cv::Mat>, 2>& frames)
{
    for (int camera = 0; camera < 2; ++camera) {
        const std::vector<cv::Mat>& own = frames[static_cast<std::size_t>(camera)];
        for (std::size_t i = 0; i < own.size(); ++i)
            if (!generator.setpict(own[i].data, own[i].step, camera, static_cast<int>(i)))
                throw Failure("frame " + std::to_string(i) + " of camera " + std::to_string(camera)
                    + " was refused by the library");
    }
}

} // namespace

Cloud match(iStereoCamera& camera, const std::array<std::vector<cv::Mat>, 2>& frames, GrayPhaseMatchingParam param,
    bool interpolate, StageTimes* times)
{
    const GeneratorPtr generator(CreatePointCloudGenerator(1));
    if (!generator) throw Failure("not enough memory for the point cloud generator");
    generator->init(&camera);
    if (const char* why = why_invalid(param)) throw Failure(std::string(why));
    {
        const QuietStderr quiet;
        if (!generator->setparams(&param)) throw Failure("the library refused the matching parameters");
    }
    StageTimes own;
    auto clock = std::chrono::steady_clock::now();
    hand_over(*generator, frames);
    own.frames = lap(clock);
    if (!generator->exec()) throw Failure("the library could not decode the frames");
    own.decode = lap(clock);
    generator->genPC(iPointCloudGenerator::MethodQ, interpolate);
    own.triangulate = lap(clock);

    Cloud cloud;
    Receiver receiver(cloud);
    generator->get_pointcloud(&receiver);
    if (times) *times = own;
    return cloud;
}

} // namespace vexo::app
