#include "sim/calibration.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>

#include <opencv2/imgproc.hpp>

#include "sim/noise.h"

namespace vexo {
namespace sim {

namespace {
constexpr double pi = CV_PI, rad_per_deg = pi / 180;

bool within(double value, double low, double high) noexcept
{
    return value >= low && value <= high;
}

/// Rotation about a unit axis. Source: Rodrigues' formula.
cv::Matx33d turn(const cv::Vec3d& axis, double angle_rad)
{
    const double c = std::cos(angle_rad), s = std::sin(angle_rad);
    const cv::Matx33d cross(0, -axis[2], axis[1], axis[2], 0, -axis[0], -axis[1], axis[0], 0);
    return cv::Matx33d::eye() * c + cross * s + (axis * axis.t()) * (1 - c);
}

/// Number i of a sequence that fills 0 to 1 evenly however many are taken. Source: van der Corput 1935.
double radical_inverse(int i, int base) noexcept
{
    double value = 0, place = 1;
    for (; i > 0; i /= base) {
        place /= base;
        value += place * (i % base);
    }
    return value;
}

/// The same, turned by an amount that belongs to the seed: evenly filled still. Source: Cranley, Patterson 1976.
double spread(int i, int base, std::uint64_t seed) noexcept
{
    const std::uint64_t bits = mix_bits(seed * 0x9E3779B97F4A7C15U + static_cast<std::uint64_t>(base));
    const double shifted = radical_inverse(i, base) + static_cast<double>(bits >> 11) / 9007199254740992.0;
    return shifted - std::floor(shifted);
}

cv::Vec3d middle_of(const BoardLayout& board)
{
    const cv::Rect2d paper = board_paper(board);
    return { paper.x + 0.5 * paper.width, paper.y + 0.5 * paper.height, 0 };
}

/// Whether both cameras see the whole paper.
bool sees_all(const Rig& rig, const CalibrationOptions& o, const BoardPose& pose) noexcept
{
    const cv::Rect2d paper = board_paper(o.board);
    const BentBoard board(o.board, o.bend);
    for (const double x : { 0.0, 0.5, 1.0 }) // distortion bends the sides
        for (const double y : { 0.0, 0.5, 1.0 }) {
            const cv::Vec3d point = pose * board.point({ paper.x + x * paper.width, paper.y + y * paper.height });
            if (!rig.cameras[0].sees(point) || !rig.cameras[1].sees(point)) return false;
        }
    return true;
}

/// What one view is to look like; lengths and angles still to be scaled.
struct Plan {
    cv::Matx33d R;
    cv::Vec2d push; ///< mm sideways and down at the nominal distance, a good deal too far
    double distance;
};

Plan plan_view(const CalibrationOptions& o, int i)
{
    const auto next = [&o, i](int base) { return spread(i, base, o.rig.seed); };
    constexpr double least_tilt = 0.35; // of the greatest: flat views say little of the focal length
    const double tilt = o.max_tilt_deg * rad_per_deg * (least_tilt + (1 - least_tilt) * next(2));
    const double tilt_towards = 2 * pi * next(3);
    const bool upright = i % 4 == 3; // turned by a quarter: tells fx from fy, and cx from cy
    const double roll = ((upright ? 90 : 0) + 40 * (next(5) - 0.5)) * rad_per_deg;
    const cv::Matx33d facing_the_rig(1, 0, 0, 0, -1, 0, 0, 0, -1);
    const cv::Vec3d axis(std::cos(tilt_towards), std::sin(tilt_towards), 0);

    const double push_towards = 2 * pi * next(7);
    const double push = i % 4 == 0 ? 0 : o.rig.distance_mm;
    const double distance = o.rig.distance_mm * (0.8 + 0.45 * next(11));
    return { turn(axis, tilt) * turn({ 0, 0, 1 }, roll) * facing_the_rig,
        push * cv::Vec2d(std::cos(push_towards), std::sin(push_towards)), distance };
}

BoardPose place(const Plan& plan, const BoardLayout& board, double share, double distance)
{
    const cv::Vec3d middle(share * plan.push[0], share * plan.push[1], distance);
    return { plan.R, middle - plan.R * middle_of(board) };
}
} // namespace

const char* why_invalid(const CalibrationOptions& o) noexcept
{
    if (const char* fault = why_invalid(o.rig)) return fault;
    if (o.views < 1 || o.views > 100) return "the number of views must be 1 to 100";
    if (!within(o.max_tilt_deg, 0, 60)) return "the tilt must be 0 to 60 degrees";
    if (!within(o.blur, 0, 20)) return "the blur must be 0 to 20 px";
    if (!within(o.gradient, 1, 100)) return "the light gradient must be 1 to 100";
    if (!within(o.bend.bow_mm, -5, 5)) return "the bow must be -5 to 5 mm";
    if (!within(o.bend.stretch_y, -0.05, 0.05)) return "the stretch along y must be -0.05 to 0.05";
    return o.robot ? why_invalid(*o.robot) : nullptr;
}

std::vector<BoardPose> choose_poses(const Rig& rig, const CalibrationOptions& options)
{
    std::vector<BoardPose> poses;
    for (int i = 0; i < options.views; ++i) {
        const Plan plan = plan_view(options, i);
        double distance = plan.distance;
        while (!sees_all(rig, options, place(plan, options.board, 0, distance))) {
            distance *= 1.03;
            if (distance > 4 * options.rig.distance_mm)
                throw std::invalid_argument("the board is too large for the cameras' common view");
        }
        double in = 0, out = 1; // shares of the push at which the board is seen whole, and is not
        for (int k = 0; k < 30; ++k) {
            const double share = 0.5 * (in + out);
            (sees_all(rig, options, place(plan, options.board, share, distance)) ? in : out) = share;
        }
        poses.push_back(place(plan, options.board, 0.97 * in, distance));
    }
    return poses;
}

// --- photos ----------------------------------------------------------------------------------------

struct BoardPhotographer::Shot {
    BentBoard board;
    cv::Matx33d board_from_ray; ///< homography: undistorted image coordinates to the board's plane, mm
    cv::Matx33d turn;           ///< of directions in the camera to those on the board
    cv::Vec3d centre;           ///< of the camera, in the board's frame, mm
    double light;               ///< grey levels of the best lit white, for the board's tilt
    cv::Vec2d fall;             ///< logarithm of the light per undistorted image coordinate
    double fall_middle;         ///< that of the picture's middle
};

BoardPhotographer::BoardPhotographer(const Rig& rig, int camera, const CalibrationOptions& options)
    : _rig(&rig)
    , _camera(camera)
    , _options(&options)
{
    const Camera& lens = rig.cameras[static_cast<std::size_t>(camera)];
    _rays.create(lens.size);
    const auto fill_row = [this, &lens](int y) noexcept {
        for (int x = 0; x < _rays.cols; ++x)
            _rays(y, x) = lens.normalized(cv::Vec2d(x, y));
    };
#pragma omp parallel for schedule(static) // each thread writes its own rows of `_rays`
    for (int y = 0; y < _rays.rows; ++y)
        fill_row(y);
}

namespace {
/// Light that the things in a photo throw back.
double albedo(BoardSpot spot) noexcept
{
    constexpr double dark_room = 0.1, paper = 0.9, ink = 0.07;
    return spot == BoardSpot::outside ? dark_room : spot == BoardSpot::paper ? paper : ink;
}

/// A lamp behind the cameras and above them, and light from the walls.
double light_on(const cv::Vec3d& normal) noexcept
{
    const cv::Vec3d to_lamp = cv::normalize(cv::Vec3d(0.2, -0.5, -1));
    return 0.45 + 0.55 * std::max(0.0, normal.dot(to_lamp));
}
} // namespace

BentBoard::Hit BoardPhotographer::_hit(const Shot& shot, int y, int x) const noexcept
{
    const cv::Vec2d& ray = _rays(y, x);
    const int beside = x > 0 ? x - 1 : x + 1, above = y > 0 ? y - 1 : y + 1;
    const cv::Vec2d along[2] = { (ray - _rays(y, beside)) * (x - beside), (ray - _rays(above, x)) * (y - above) };
    if (!shot.board.is_flat()) {
        const auto turned = [&shot](const cv::Vec2d& ab, double z) { return shot.turn * cv::Vec3d(ab[0], ab[1], z); };
        return shot.board.hit(shot.centre, turned(ray, 1), turned(along[0], 0), turned(along[1], 0));
    }
    const cv::Matx33d& H = shot.board_from_ray;
    const cv::Vec3d h = H * cv::Vec3d(ray[0], ray[1], 1);
    const cv::Point2d at(h[0] / h[2], h[1] / h[2]);
    const auto moved = [&](const cv::Vec2d& step) { // how far the point moves on the board from pixel to pixel
        const cv::Vec3d d = H * cv::Vec3d(step[0], step[1], 0);
        return shot.board.of_layout({ (d[0] - at.x * d[2]) / h[2], (d[1] - at.y * d[2]) / h[2] });
    };
    return { true, shot.board.of_layout(at), moved(along[0]), moved(along[1]) };
}

float BoardPhotographer::_light(const Shot& shot, int y, int x) const noexcept
{
    const BentBoard::Hit hit = _hit(shot, y, x);
    double edge = 0;
    double seen = albedo(hit.found ? board_spot(_options->board, hit.at, edge) : BoardSpot::outside);
    const double pixel_mm = std::hypot(hit.along_x.x, hit.along_x.y) + std::hypot(hit.along_y.x, hit.along_y.y);
    const bool crossed = edge < 0.5 * pixel_mm;
    if (crossed) {
        constexpr int fine = 8;
        seen = 0;
        for (int j = 0; j < fine; ++j)
            for (int i = 0; i < fine; ++i) { // rows and columns shifted a little: 64 steps at upright edges, too
                const double right = (i + (j + 0.5) / fine) / fine - 0.5, down = (j + (i + 0.5) / fine) / fine - 0.5;
                seen += albedo(board_spot(_options->board, hit.at + right * hit.along_x + down * hit.along_y, edge));
            }
        seen /= fine * fine;
    }
    return static_cast<float>(shot.light * seen * std::exp(shot.fall.dot(_rays(y, x)) - shot.fall_middle));
}

void BoardPhotographer::_light_row(const Shot& shot, int y, float* out) const noexcept
{
    for (int x = 0; x < _rays.cols; ++x)
        out[x] = _light(shot, y, x);
}

void BoardPhotographer::_expose_row(const float* light, std::uint64_t key, int y, uchar* out) const noexcept
{
    const auto first = static_cast<std::uint64_t>(y) * static_cast<std::uint64_t>(_rays.cols);
    for (int x = 0; x < _rays.cols; ++x)
        out[x] = _rig->sensor.grey(static_cast<double>(light[x]), key, first + static_cast<std::uint64_t>(x));
}

cv::Mat_<uchar> BoardPhotographer::photo(const BoardPose& pose, int view) const
{
    const Camera& camera = _rig->cameras[static_cast<std::size_t>(_camera)];
    const cv::Matx33d R = camera.R * pose.R;
    const cv::Vec3d T = camera.R * pose.T + camera.T;
    const cv::Matx33d ray_from_board(R(0, 0), R(0, 1), T[0], R(1, 0), R(1, 1), T[1], R(2, 0), R(2, 1), T[2]);

    Shot shot { BentBoard(_options->board, _options->bend), ray_from_board.inv(), R.t(), -(R.t() * T), 0, {}, 0 };
    constexpr double white = 210; // grey levels of the best lit paper facing the lamp
    shot.light = white * _options->rig.exposure * light_on({ pose.R(0, 2), pose.R(1, 2), pose.R(2, 2) });
    const double from = 2 * pi * spread(view, 13, _options->rig.seed);
    const double across = camera.size.width / camera.K(0, 0); // of the picture, undistorted image coordinates
    const double fall = std::log(_options->gradient);
    shot.fall = fall / across * cv::Vec2d(std::cos(from), std::sin(from));
    shot.fall_middle = 0.5 * fall; // brightest: exp(0)

    cv::Mat_<float> light(_rays.size());
#pragma omp parallel for schedule(static) // each thread writes its own rows of `light`
    for (int y = 0; y < light.rows; ++y)
        _light_row(shot, y, light[y]);
    if (_options->blur > 0)
        cv::GaussianBlur(light, light, cv::Size(), _options->blur, _options->blur, cv::BORDER_REPLICATE);

    cv::Mat_<uchar> image(_rays.size());
    const std::uint64_t key = noise_key(_options->rig.seed, _camera, view);
#pragma omp parallel for schedule(static) // each thread writes its own rows of `image`
    for (int y = 0; y < image.rows; ++y)
        _expose_row(light[y], key, y, image[y]);
    return image;
}

// --- files -----------------------------------------------------------------------------------------

namespace {
Json camera_json(const Rig& rig, int index)
{
    const Camera& camera = rig.cameras[static_cast<std::size_t>(index)];
    const cv::Matx34d pose = pose_in_camera0(rig, index);
    return { { "size", to_json(camera.size) }, { "K", to_json(camera.K) }, { "D", camera.D },
        { "R", to_json(pose.get_minor<3, 3>(0, 0)) }, { "T", Json::array({ pose(0, 3), pose(1, 3), pose(2, 3) }) } };
}

Json pose_json(const Rig& rig, const BoardLayout& board, const BoardPose& pose)
{
    const Camera& camera0 = rig.cameras[0];
    const cv::Vec3d middle = pose * middle_of(board);
    return { { "R_cam0_from_board", to_json(camera0.R * pose.R) },
        { "T_cam0_from_board_mm", to_json(camera0.to_camera(pose.T)) },
        { "tilt_deg", std::acos(std::min(1.0, -pose.R(2, 2))) / rad_per_deg }, { "distance_mm", middle[2] } };
}

Json board_json(const BoardLayout& b, const BoardBend& bend)
{
    return { { "pitch_mm", b.pitch_mm }, { "diameter_mm", b.diameter_mm }, { "hole_mm", b.hole_mm },
        { "margin_mm", b.margin_mm }, { "columns", b.columns }, { "rows", b.rows }, { "origin_x", b.origin_x },
        { "origin_y", b.origin_y }, { "bow_mm", bend.bow_mm }, { "stretch_y", bend.stretch_y } };
}

std::string truth_text(const Rig& rig, const CalibrationOptions& o, const std::vector<BoardPose>& poses)
{
    Json json;
    json["scene"] = "calibration";
    json["views"] = o.views;
    json["cameras"] = { camera_json(rig, 0), camera_json(rig, 1) };
    json["baseline_mm"] = o.rig.baseline_mm;
    json["board"] = board_json(o.board, o.bend);
    for (const BoardPose& pose : poses)
        json["poses"].push_back(pose_json(rig, o.board, pose));
    json["options"] = { { "distance_mm", o.rig.distance_mm }, { "exposure", o.rig.exposure }, { "noise", o.rig.noise },
        { "seed", o.rig.seed }, { "max_tilt_deg", o.max_tilt_deg }, { "blur", o.blur }, { "gradient", o.gradient } };
    json["sensor"] = to_json(rig.sensor);
    if (o.robot) json["robot"] = robot_json(*o.robot);
    return json.dump(2) + "\n";
}

std::vector<cv::Matx44d> seen_by_camera0(const Rig& rig, const std::vector<BoardPose>& poses)
{
    std::vector<cv::Matx44d> seen;
    for (const BoardPose& pose : poses) {
        const cv::Matx33d R = rig.cameras[0].R * pose.R;
        const cv::Vec3d T = rig.cameras[0].to_camera(pose.T);
        seen.push_back({ R(0, 0), R(0, 1), R(0, 2), T[0], R(1, 0), R(1, 1), R(1, 2), T[1], R(2, 0), R(2, 1), R(2, 2),
            T[2], 0, 0, 0, 1 });
    }
    return seen;
}
} // namespace

Files make_calibration(const CalibrationOptions& options, const OnStep& on_step)
{
    if (const char* fault = why_invalid(options)) throw std::invalid_argument(fault);
    const Rig rig = make_rig(options.rig);
    const std::vector<BoardPose> poses = choose_poses(rig, options);
    const std::array<BoardPhotographer, 2> cameras { BoardPhotographer(rig, 0, options),
        BoardPhotographer(rig, 1, options) };
    Files files;
    for (int view = 0; view < options.views; ++view) {
        next_step(on_step, "view " + std::to_string(view));
        const BoardPose& pose = poses[static_cast<std::size_t>(view)];
        add_images({ { picture_name(0, "view", view), cameras[0].photo(pose, view) },
                       { picture_name(1, "view", view), cameras[1].photo(pose, view) } },
            files);
    }
    if (options.robot)
        add_text("poses.csv", robot_poses_text(*options.robot, seen_by_camera0(rig, poses), options.rig.seed), files);
    add_text("truth.json", truth_text(rig, options, poses), files);
    return files;
}

} // namespace sim
} // namespace vexo
