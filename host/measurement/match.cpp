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

/// Hands on the points that the library hands out.
template <class Take> class Receiver : public PointCloudCallback {
public:
    explicit Receiver(const Take& take)
        : _take(take)
    {
    }
    void receive(unsigned char*, std::size_t, int width, int height, cv::Point3_<float>* points, int count) override
    {
        _take(cv::Size { width, height }, points, count);
    }

private:
    const Take& _take;
};

cv::Mat mask_of(cv::Size size, const cv::Point3f* points)
{
    cv::Mat mask(size, CV_8U);
    uchar* const measured = mask.data;
    const auto count = static_cast<std::ptrdiff_t>(mask.total());
    for (std::ptrdiff_t i = 0; i < count; ++i)
        measured[i] = points[i].z == points[i].z ? 255 : 0;
    return mask;
}

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

/// Measures, and hands the points to `take`.
template <class Take>
StageTimes run(
    iStereoCamera& camera, const PairFrames& frames, MatchingRecord& record, bool interpolate, const Take& take)
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

    Receiver<Take> receiver(take);
    generator->get_pointcloud(&receiver);
    return own;
}

} // namespace

Cloud match(iStereoCamera& camera, const PairFrames& frames, MatchingRecord record, bool interpolate, StageTimes* times)
{
    Cloud cloud;
    const StageTimes own
        = run(camera, frames, record, interpolate, [&](cv::Size size, const cv::Point3f* points, int count) {
              cloud.size = size;
              cloud.points.assign(points, points + size.area());
              cloud.count = count;
          });
    if (times) *times = own;
    return cloud;
}

cv::Mat match_mask(iStereoCamera& camera, const PairFrames& frames, MatchingRecord record, bool interpolate)
{
    cv::Mat mask;
    run(camera, frames, record, interpolate,
        [&](cv::Size size, const cv::Point3f* points, int) { mask = mask_of(size, points); });
    return mask;
}

cv::Mat mask_of(const Cloud& cloud)
{
    return mask_of(cloud.size, cloud.points.data());
}

bool keep_within_limits(Cloud& matched, const MatchingRecord& record, const Geometry& geometry)
{
    constexpr double near_px = 1e-3, near_share = 1e-6; // a depth of 24 bits says its disparity to 1e-7 of its way
    const auto [low, high] = disparity_limits(record);
    const double at_infinity = -geometry.offset / geometry.slope;
    std::vector<std::size_t> beyond;
    for (std::size_t i = 0; i < matched.points.size(); ++i) {
        const float z = matched.points[i].z;
        if (z != z) continue;
        const double d = geometry.disparity(static_cast<double>(z));
        const double near = near_px + near_share * std::abs(d - at_infinity);
        if (!(std::abs(d - low) > near && std::abs(d - high) > near)) return false;
        if (d < low || d > high) beyond.push_back(i);
    }
    const float nan = std::nanf("");
    for (const std::size_t i : beyond)
        matched.points[i] = { nan, nan, nan };
    matched.count -= static_cast<int>(beyond.size());
    return true;
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
