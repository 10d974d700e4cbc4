#include "sim/turntable.h"

#include <iomanip>
#include <locale>
#include <sstream>

namespace vexo {
namespace sim {

RigOptions on_turntable(RigOptions options, std::size_t index, std::size_t views)
{
    options.turned_deg = 360.0 * static_cast<double>(index) / static_cast<double>(views);
    return with_own_noise(options, index);
}

std::string turntable_yaml(const Rig& rig, double step_deg)
{
    const Camera& camera = rig.cameras[0];
    const auto list = [](const cv::Vec3d& v) {
        std::ostringstream text;
        text.imbue(std::locale::classic());
        text << std::setprecision(17) << "[ " << v[0] << ", " << v[1] << ", " << v[2] << " ]";
        return text.str();
    };
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << "%YAML:1.0\n---\nunit: mm\n"
         << "axis_point: " << list(camera.to_camera({ 0, 0, rig.options.distance_mm })) << '\n'
         << "axis_direction: " << list(camera.R * cv::Vec3d(0, 1, 0)) << '\n'
         << "step_deg: " << std::setprecision(17) << step_deg << '\n';
    return text.str();
}

} // namespace sim
} // namespace vexo
