#include "host/results/result_maps.h"

#include "base/failure.h"
#include "base/pictures.h"

#include <cmath>
#include <filesystem>
#include <limits>

namespace vexo {

namespace {

cv::Mat read_map(const std::string& folder, const char* name, int type, cv::Size size)
{
    const std::string path = (std::filesystem::path(folder) / name).string();
    cv::Mat map = read_picture(path, PictureAs::stored);
    if (map.type() != type || map.size() != size)
        throw Failure(path + ": is not the map that vexo measure wrote; run it again");
    return map;
}

} // namespace

ResultMaps read_maps(const std::string& folder, const Result& r)
{
    constexpr float nan = std::numeric_limits<float>::quiet_NaN();
    const cv::Mat depth = read_map(folder, "depth.tiff", CV_32FC1, r.size);
    ResultMaps maps { cv::Mat_<cv::Vec3f>(r.size, cv::Vec3f::all(nan)), {},
        read_map(folder, "texture.png", CV_8UC1, r.size) };
    if (!r.sigma.empty()) maps.sigma = cv::Mat_<float>(r.size, nan);
    const Failure foreign(
        folder + ": report.json, depth.tiff and cloud.ply are not of one measurement; run vexo measure again");
    const auto seen_at = [&r](const cv::Point3f& p, int x, int y) {
        constexpr double rounding = 0.01; // px
        return std::abs(r.f * p.x / p.z + r.cx - x) <= rounding && std::abs(r.f * p.y / p.z + r.cy - y) <= rounding;
    };
    std::size_t i = 0; // points lie row after row
    for (int y = 0; y < depth.rows; ++y)
        for (int x = 0; x < depth.cols; ++x) {
            const float z = depth.at<float>(y, x);
            if (std::isnan(z)) continue;
            if (!(z > 0.0F) || std::isinf(z) || i == r.cloud.size() || r.cloud[i].z != z) throw foreign;
            if (!seen_at(r.cloud[i], x, y)) throw foreign;
            maps.points(y, x) = cv::Vec3f(r.cloud[i]);
            if (!r.sigma.empty()) maps.sigma(y, x) = r.sigma[i];
            ++i;
        }
    if (i != r.cloud.size()) throw foreign;
    return maps;
}

} // namespace vexo
