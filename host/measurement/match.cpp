#include "host/measurement/match.h"

#include "base/failure.h"
#include "base/stopwatch.h"
#include "vexo/factories.h"
#include "vexo/owned.h"
#include "vexo/point_cloud.h"

#include <algorithm>
#include <cmath>

namespace vexo {

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

void hand_over(iPointCloudGenerator& generator, const PairFrames& frames)
{
    for (int camera = 0; camera < 2; ++camera) {
        const std::vector<cv::Mat>& own = frames[static_cast<std::size_t>(camera)];
        for (std::size_t i = 0; i < own.size(); ++i)
            if (!generator.setpict(own[i].data, own[i].step, camera, static_cast<int>(i)))
                throw Failure("frame " + std::to_string(i) + " of camera " + std::to_string(camera)
                    + " was refused by the library");
    }
}

template <class Param> void set_parameters(iPointCloudGenerator& generator, Param& param)
{
    if (const char* why = why_invalid(param)) throw Failure(std::string(why));
    if (!generator.setparams(&param)) throw Failure("the library refused the matching parameters");
}

const char* why_not_run(Method method)
{
    return method == Method::sgbm
        ? "block matching cannot run with this block and disparity range on pictures of this size; "
          "use a smaller --block, or a smaller --depth or --disparity range"
        : "the library could not decode the frames";
}

} // namespace

Cloud match(iStereoCamera& camera, const PairFrames& frames, MatchingRecord record, bool interpolate, StageTimes* times)
{
    const Owned<iPointCloudGenerator> generator(CreatePointCloudGenerator(static_cast<int>(record.index())));
    if (!generator) throw Failure("not enough memory for the point cloud generator");
    generator->init(&camera);
    std::visit([&generator](auto& param) { set_parameters(*generator, param); }, record);
    StageTimes own;
    Stopwatch clock;
    hand_over(*generator, frames);
    own.frames = clock.lap();
    if (!generator->exec()) throw Failure(why_not_run(method_of(record)));
    own.decode = clock.lap();
    generator->genPC(iPointCloudGenerator::MethodQ, interpolate);
    own.triangulate = clock.lap();

    Cloud cloud;
    Receiver receiver(cloud);
    generator->get_pointcloud(&receiver);
    if (times) *times = own;
    return cloud;
}

std::vector<float> disparities_of(const Cloud& cloud, const Geometry& geometry)
{
    std::vector<float> disparities;
    disparities.reserve(static_cast<std::size_t>(std::max(cloud.count, 0)));
    for (const cv::Point3f& point : cloud.points)
        if (!std::isnan(point.z))
            disparities.push_back(static_cast<float>(geometry.disparity(static_cast<double>(point.z))));
    return disparities;
}

} // namespace vexo
