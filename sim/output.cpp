#include "sim/output.h"

#include "base/parallel.h"
#include "base/pictures.h"

#include <filesystem>
#include <stdexcept>

namespace vexo {
namespace sim {

namespace fs = std::filesystem;

namespace {

template <int rows, int columns> Json rows_json(const cv::Matx<double, rows, columns>& m)
{
    Json json = Json::array();
    for (int i = 0; i < rows; ++i) {
        json.push_back(Json::array());
        for (int k = 0; k < columns; ++k)
            json.back().push_back(m(i, k));
    }
    return json;
}
} // namespace

std::string picture_name(int camera, const std::string& what, int number)
{
    const std::string digits = (number < 10 ? "0" : "") + std::to_string(number);
    return "cam" + std::to_string(camera) + "/" + what + digits + ".png";
}

void add_images(const std::vector<std::pair<std::string, cv::Mat>>& images, Files& files)
{
    const std::size_t first = files.size();
    files.resize(first + images.size());
    in_parallel(images.size(), [&](std::size_t i) {
        files[first + i] = { images[i].first,
            encode(fs::path(images[i].first).extension().string(), images[i].second, PngEffort::all_filters) };
    });
}

void add_text(const std::string& name, const std::string& text, Files& files)
{
    files.emplace_back(name, std::vector<unsigned char>(text.begin(), text.end()));
}

Json to_json(const cv::Vec3d& v)
{
    return Json::array({ v[0], v[1], v[2] });
}

Json to_json(const cv::Size& s)
{
    return Json::array({ s.width, s.height });
}

Json to_json(const cv::Matx33d& m)
{
    return rows_json(m);
}

Json to_json(const cv::Matx34d& m)
{
    return rows_json(m);
}

Json to_json(const Sensor& s)
{
    return { { "black", s.black }, { "read", s.read }, { "shot", s.shot } };
}

cv::Matx34d pose_in_camera0(const Rig& rig, int camera)
{
    if (camera == 0) return cv::Matx34d::eye(); // exactly
    const Camera& c = rig.cameras[1];
    const cv::Matx33d R = c.R * rig.cameras[0].R.t();
    const cv::Vec3d T = c.T - R * rig.cameras[0].T;
    return { R(0, 0), R(0, 1), R(0, 2), T[0], R(1, 0), R(1, 1), R(1, 2), T[1], R(2, 0), R(2, 1), R(2, 2), T[2] };
}

} // namespace sim
} // namespace vexo
