#include "sim/scenes.h"

#include <cmath>
#include <limits>

#include "patterns/board.h"
#include "sim/texture.h"

namespace vexo {
namespace sim {

namespace {
constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double ball_diameter = 40, ball_distance = 150; // mm

/// Axes of a plane that faces the rig, turned by `tilt` about y and by 0.6 of it about x.
struct Axes {
    cv::Vec3d u, v, towards_rig;
};
Axes tilted_axes(double tilt_deg)
{
    const double about_y = tilt_deg * 3.14159265358979323846 / 180, about_x = 0.6 * about_y;
    const cv::Vec3d u(std::cos(about_y), 0, std::sin(about_y));
    const cv::Vec3d down(0, std::cos(about_x), std::sin(about_x));
    const cv::Vec3d v = cv::normalize(down - down.dot(u) * u);
    return { u, v, v.cross(u) };
}

void add_wall(Scene& scene, const cv::Vec3d& centre, double tilt_deg)
{
    const Axes axes = tilted_axes(tilt_deg);
    scene.add(std::make_unique<Rectangle>(centre, axes.u, axes.v, infinity, infinity));
}

/// Treads face the rig; risers join them. The wall is the lowest step.
void add_steps(Scene& scene, double wall_z)
{
    constexpr double width = 50, half_height = 120, rise = 20; // mm
    const double heights[] = { 0, 20, 40, 60, 40, 20, 0 };
    const cv::Vec3d x(1, 0, 0), y(0, 1, 0), z(0, 0, 1);
    for (int i = 1; i < 7; ++i) {
        const double left = (i - 3.5) * width;
        const double low = std::min(heights[i - 1], heights[i]);
        const cv::Vec3d riser_centre(left, 0, wall_z - low - 0.5 * rise);
        scene.add(std::make_unique<Rectangle>(riser_centre, z, y, 0.5 * rise, half_height));
        if (heights[i] == 0) continue;
        const cv::Vec3d tread_centre(left + 0.5 * width, 0, wall_z - heights[i]);
        scene.add(std::make_unique<Rectangle>(tread_centre, x, y, 0.5 * width, half_height));
        for (const double side : { -half_height, half_height }) { // the ends, so that no ray looks behind
            const cv::Vec3d end_centre(left + 0.5 * width, side, wall_z - 0.5 * heights[i]);
            scene.add(std::make_unique<Rectangle>(end_centre, x, z, 0.5 * width, 0.5 * heights[i]));
        }
    }
}

void add_balls(Scene& scene, const RigOptions& options)
{
    const Balls balls = make_balls(options);
    for (const cv::Vec3d& centre : balls.centres)
        scene.add(std::make_unique<Sphere>(centre, 0.5 * balls.diameter));
}

void add_bust(Scene& scene, double middle_z)
{
    constexpr double middle_of_bust_y = 13, nose_to_middle = 40; // mm; nearest point and ears about the middle
    static const Implicit bust([](const cv::Vec3d& p) { return bust_scale * bust_field(p / bust_scale); },
        bust_scale * cv::Vec3d(bust_low), bust_scale * cv::Vec3d(bust_high), {});
    scene.add(std::make_unique<Implicit>(bust.at({ 0, -bust_scale * middle_of_bust_y, middle_z + nose_to_middle })));
}

/// A printed board, upright before the rig, between three balls that hold clouds of it where the flat paper would not.
void add_plate(Scene& scene, double z)
{
    const BoardLayout board;
    const cv::Rect2d paper = board_paper(board);
    const cv::Point2d middle(paper.x + 0.5 * paper.width, paper.y + 0.5 * paper.height);
    auto plate = std::make_unique<Rectangle>(
        cv::Vec3d(0, 0, z), cv::Vec3d(1, 0, 0), cv::Vec3d(0, 1, 0), 0.5 * paper.width, 0.5 * paper.height);
    plate->albedo = [board, middle](const cv::Vec3d& p) {
        constexpr double white = 0.9, ink = 0.1;
        double edge = 0;
        return board_spot(board, { middle.x + p[0], middle.y - p[1] }, edge) == BoardSpot::ink ? ink : white;
    };
    scene.add(std::move(plate));
    constexpr double radius = 20, gap = 5; // mm
    const double beside = 0.5 * paper.width + radius + gap, above = 0.5 * paper.height + radius + gap;
    for (const cv::Vec3d& centre : { cv::Vec3d(-beside, 30, z), cv::Vec3d(beside, -20, z), cv::Vec3d(40, -above, z) })
        scene.add(std::make_unique<Sphere>(centre, radius));
}
} // namespace

const std::vector<std::string>& scene_names()
{
    static const std::vector<std::string> names { "plane", "sphere", "steps", "bust", "spheres", "albedo", "plate" };
    return names;
}

bool stands_free(const std::string& name)
{
    return name == "bust" || name == "albedo";
}

cv::Matx44d turned(const RigOptions& options)
{
    const double angle = options.turned_deg * CV_PI / 180.0, c = std::cos(angle), s = std::sin(angle);
    const double z = options.distance_mm; // the axis: x = 0, this z; p -> R (p - a) + a
    return { c, 0, s, -s * z, 0, 1, 0, 0, -s, 0, c, z - c * z, 0, 0, 0, 1 };
}

double stripe_albedo(const cv::Vec3d& point_mm) noexcept
{
    constexpr double width = 24; // mm, some 70 px of the default rig
    constexpr int levels = 4;
    const double stripe = std::floor(point_mm[0] / width);
    const auto level = static_cast<int>(stripe - levels * std::floor(stripe / levels));
    return std::pow(4.0, level - 2);
}

Balls make_balls(const RigOptions& options)
{
    const Axes axes = tilted_axes(options.tilt_deg);
    const cv::Vec3d middle = cv::Vec3d(0, 0, options.distance_mm) + 0.5 * ball_diameter * axes.towards_rig;
    return { { middle - 0.5 * ball_distance * axes.u, middle + 0.5 * ball_distance * axes.u }, ball_diameter };
}

Scene make_scene(const std::string& name, const RigOptions& options)
{
    Scene scene;
    const double z = options.distance_mm;
    if (name == "plane") add_wall(scene, { 0, 0, z }, options.tilt_deg);
    if (name == "sphere") {
        add_wall(scene, { 0, 0, z + 90 }, 0);
        scene.add(std::make_unique<Sphere>(cv::Vec3d(0, 0, z + 10), 75));
    }
    if (name == "steps") {
        add_wall(scene, { 0, 0, z + 30 }, 0);
        add_steps(scene, z + 30);
    }
    if (name == "bust" || name == "albedo") add_bust(scene, z);
    if (name == "albedo") scene.paint(stripe_albedo);
    if (name == "plate") add_plate(scene, z);
    if (name == "spheres") {
        add_wall(scene, { 0, 0, z }, options.tilt_deg);
        add_balls(scene, options);
    }
    if (options.turned_deg != 0.0) {
        const cv::Matx44d pose = turned(options);
        scene.turn(pose.get_minor<3, 3>(0, 0), { 0, 0, z });
    }
    if (options.method == Method::sgbm) {
        const double finest = 4 * make_rig(options).pixel_mm(); // smaller blotches would be lost in the pixels
        scene.paint([finest](const cv::Vec3d& point) { return blotchy_albedo(point, finest); });
    }
    return scene;
}

} // namespace sim
} // namespace vexo
