#pragma once

#include "vexo/records.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

/// Pictures of a calibration board with known truth, for tests: rays through a distorted pinhole camera meet
/// the board's plane. Uses no camera model of the library, nor OpenCV's.
namespace board_image {

/// A board on paper, seen from its front: position (x, y) is x pitches right of O and y pitches above it.
struct Board {
    vexo::CalibBoardParam param;
    double diameter = 9.6;                                           ///< mm, of discs and rings
    double hole = 5.76;                                              ///< mm, of rings
    std::vector<cv::Point> rings = { { 0, 0 }, { 2, 0 }, { 0, 1 } }; ///< O, X, Y, as board positions
    std::vector<cv::Point> missing;                                  ///< positions without a marker
    bool mirrored = false;                                           ///< seen through the paper: x runs to the left

    int index(cv::Point p) const { return (param.origin_x - p.x) * param.rows - p.y + param.origin_y; }

    bool contains(cv::Point p) const
    {
        return p.x <= param.origin_x && p.x > param.origin_x - param.columns && p.y <= param.origin_y
            && p.y > param.origin_y - param.rows;
    }

    bool has(cv::Point p) const { return contains(p) && std::find(missing.begin(), missing.end(), p) == missing.end(); }

    bool is_ring(cv::Point p) const { return std::find(rings.begin(), rings.end(), p) != rings.end(); }
};

/// The default board, 19 x 15 markers: 228 x 180 mm.
inline Board default_board()
{
    Board b;
    b.param = { 12.0, 19, 15, 10, 7, 1.2 };
    return b;
}

/// The coarse board, 11 x 9 markers: 220 x 180 mm.
inline Board coarse_board()
{
    Board b;
    b.param = { 20.0, 11, 9, 6, 4, 1.2 };
    b.diameter = 16;
    b.hole = 9.6;
    return b;
}

/// Rigid motion: x_to = R x_from + t, mm.
struct Pose {
    cv::Matx33d R = cv::Matx33d::eye();
    cv::Vec3d t;

    cv::Vec3d operator*(const cv::Vec3d& x) const { return R * x + t; }
    Pose operator*(const Pose& p) const { return { R * p.R, R * p.t + t }; }
};

inline cv::Matx33d rotation(int axis, double angle_rad)
{
    const double c = std::cos(angle_rad);
    const double s = std::sin(angle_rad);
    cv::Matx33d R = cv::Matx33d::eye();
    const int i = (axis + 1) % 3;
    const int j = (axis + 2) % 3;
    R(i, i) = c;
    R(i, j) = -s;
    R(j, i) = s;
    R(j, j) = c;
    return R;
}

/// Pinhole with Brown-Conrady distortion k1 k2 p1 p2 k3; pixel (0, 0) is the centre of the top-left pixel.
struct Camera {
    cv::Size size = { 1280, 1024 };
    double fx = 1402, fy = 1399, cx = 646, cy = 507;
    std::array<double, 5> d = { -0.08, 0.05, 0.0004, -0.0003, 0.0 };

    cv::Point2d distort(cv::Point2d n) const
    {
        const double r2 = n.x * n.x + n.y * n.y;
        const double radial = 1 + r2 * (d[0] + r2 * (d[1] + r2 * d[4]));
        return { n.x * radial + 2 * d[2] * n.x * n.y + d[3] * (r2 + 2 * n.x * n.x),
            n.y * radial + d[2] * (r2 + 2 * n.y * n.y) + 2 * d[3] * n.x * n.y };
    }

    cv::Point2d project(const cv::Vec3d& in_camera) const
    {
        const cv::Point2d p = distort({ in_camera[0] / in_camera[2], in_camera[1] / in_camera[2] });
        return { fx * p.x + cx, fy * p.y + cy };
    }

    /// Direction (x, y, 1) seen at a pixel, by fixed-point iteration to 1e-9 px.
    cv::Point2d ray(cv::Point2d pixel) const
    {
        const cv::Point2d goal((pixel.x - cx) / fx, (pixel.y - cy) / fy);
        cv::Point2d n = goal;
        for (int i = 0; i < 50; ++i) {
            const cv::Point2d miss = goal - distort(n);
            n += miss;
            if (std::abs(miss.x) + std::abs(miss.y) < 1e-12) break;
        }
        return n;
    }

    /// Rays of all pixels of one image, and one more column and row, so that those between can be interpolated.
    cv::Mat_<cv::Point2d> rays() const
    {
        cv::Mat_<cv::Point2d> r(size.height + 1, size.width + 1);
        for (int y = 0; y < r.rows; ++y)
            for (int x = 0; x < r.cols; ++x)
                r(y, x) = ray(cv::Point2d(x - 0.5, y - 0.5)); // pixel corners
        return r;
    }
};

/// What happens to the light on its way to the image.
struct Light {
    double blur_px = 0.6;                        ///< sigma
    double noise = 1.0;                          ///< sigma, grey levels
    double gradient = 1.0;                       ///< light at the right border over that at the left
    double dark = 30, white = 200, around = 120; ///< grey levels: ink, paper, what is behind the board
};

/// Renders boards for one camera; the table of rays is made once.
class Renderer {
public:
    explicit Renderer(const Camera& camera)
        : camera(camera)
        , _corner_rays(camera.rays())
    {
    }

    /// Truth: image of each marker's centre by list index; (FLT_MAX, FLT_MAX) where there is none.
    std::vector<cv::Point2d> centres(const Board& board, const Pose& camera_from_board) const
    {
        std::vector<cv::Point2d> c;
        const vexo::CalibBoardParam& p = board.param;
        for (int i = 0; i < p.columns; ++i)
            for (int j = 0; j < p.rows; ++j) {
                const cv::Point at(p.origin_x - i, p.origin_y - j);
                const cv::Vec3d x(at.x * p.pitch * (board.mirrored ? -1 : 1), at.y * p.pitch, 0);
                c.push_back(board.has(at) ? camera.project(camera_from_board * x) : cv::Point2d(3.4e38, 3.4e38));
            }
        return c;
    }

    /// 8-bit grey picture. Pixels that an edge may cross are the mean of 5 x 5 rays, the others one ray.
    cv::Mat render(const Board& board, const Pose& camera_from_board, const Light& light, int seed) const
    {
        const Scene scene(board, camera_from_board, light);
        cv::Mat_<float> grey(camera.size, static_cast<float>(light.around));
        const cv::Rect seen = _bounds(board, camera_from_board);
        for (int y = seen.y; y < seen.br().y; ++y)
            for (int x = seen.x; x < seen.br().x; ++x)
                grey(y, x) = static_cast<float>(_pixel(scene, x, y));
        for (int x = 0; x < grey.cols; ++x)
            grey.col(x) *= 1 + (light.gradient - 1) * x / (grey.cols - 1);
        if (light.blur_px > 0) cv::GaussianBlur(grey, grey, {}, light.blur_px);
        cv::Mat_<float> noise(grey.size());
        cv::RNG rng(static_cast<uint64>(seed) + 1);
        rng.fill(noise, cv::RNG::NORMAL, 0, light.noise);
        cv::Mat picture;
        cv::Mat(grey + noise).convertTo(picture, CV_8U);
        return picture;
    }

    const Camera camera;

private:
    struct Scene {
        Scene(const Board& board, const Pose& pose, const Light& light)
            : board(board)
            , light(light)
        {
            // x_board = (numerators) / (n . ray): the plane through t with the axes R e0 and R e1.
            const cv::Vec3d ex(pose.R(0, 0), pose.R(1, 0), pose.R(2, 0));
            const cv::Vec3d ey(pose.R(0, 1), pose.R(1, 1), pose.R(2, 1));
            const cv::Vec3d n(pose.R(0, 2), pose.R(1, 2), pose.R(2, 2));
            depth = n;
            x_axis = ex * n.dot(pose.t) - n * ex.dot(pose.t);
            y_axis = ey * n.dot(pose.t) - n * ey.dot(pose.t);
            if (board.mirrored) x_axis = -x_axis;
        }

        /// Board point that a ray meets, mm.
        cv::Point2d meet(cv::Point2d ray) const
        {
            const double w = 1 / (depth[0] * ray.x + depth[1] * ray.y + depth[2]);
            return { w * (x_axis[0] * ray.x + x_axis[1] * ray.y + x_axis[2]),
                w * (y_axis[0] * ray.x + y_axis[1] * ray.y + y_axis[2]) };
        }

        /// Grey level at a board point; `edge` gets the distance to the nearest edge, mm.
        double grey(cv::Point2d p, double& edge) const
        {
            const vexo::CalibBoardParam& b = board.param;
            const double margin = 0.75 * b.pitch + 0.5 * board.diameter;
            const double right = b.origin_x * b.pitch + margin, top = b.origin_y * b.pitch + margin;
            const double left = (b.origin_x - b.columns + 1) * b.pitch - margin;
            const double bottom = (b.origin_y - b.rows + 1) * b.pitch - margin;
            const double inside = std::min(std::min(right - p.x, p.x - left), std::min(top - p.y, p.y - bottom));
            edge = std::abs(inside);
            if (inside < 0) return light.around;
            const cv::Point at(
                static_cast<int>(std::lround(p.x / b.pitch)), static_cast<int>(std::lround(p.y / b.pitch)));
            if (!board.has(at)) return light.white;
            const double r = std::hypot(p.x - at.x * b.pitch, p.y - at.y * b.pitch);
            edge = std::min(edge, std::abs(r - 0.5 * board.diameter));
            const bool ring = board.is_ring(at);
            if (ring) edge = std::min(edge, std::abs(r - 0.5 * board.hole));
            return r < 0.5 * board.diameter && !(ring && r < 0.5 * board.hole) ? light.dark : light.white;
        }

        const Board& board;
        const Light& light;
        cv::Vec3d depth, x_axis, y_axis;
    };

    /// Pixels that can show the board: distortion bends its border by less than the 50 px added.
    cv::Rect _bounds(const Board& board, const Pose& camera_from_board) const
    {
        const vexo::CalibBoardParam& b = board.param;
        std::vector<cv::Point2f> corners;
        for (const int i : { -1, b.columns })
            for (const int j : { -1, b.rows }) {
                const double x = (b.origin_x - i) * b.pitch * (board.mirrored ? -1 : 1);
                const double y = (b.origin_y - j) * b.pitch;
                const cv::Vec3d at = camera_from_board * cv::Vec3d(x, y, 0);
                corners.push_back(camera.project(at));
            }
        const cv::Rect box = cv::boundingRect(corners);
        return (box + cv::Size(100, 100) - cv::Point(50, 50)) & cv::Rect({}, camera.size);
    }

    double _pixel(const Scene& scene, int x, int y) const
    {
        const cv::Point2d& r00 = _corner_rays(y, x);
        const cv::Point2d& r01 = _corner_rays(y, x + 1);
        const cv::Point2d& r10 = _corner_rays(y + 1, x);
        const cv::Point2d& r11 = _corner_rays(y + 1, x + 1);
        const cv::Point2d first = scene.meet(r00), last = scene.meet(r11);
        double edge = 0;
        const double centre = scene.grey(0.5 * (first + last), edge);
        const cv::Point2d across = last - first, other = scene.meet(r01) - scene.meet(r10);
        if (edge > 0.55 * std::sqrt(std::max(across.dot(across), other.dot(other)))) return centre;

        constexpr int n = 5;
        double sum = 0;
        for (int i = 0; i < n * n; ++i) {
            const double u = (i % n + 0.5) / n, v = (i / n + 0.5) / n;
            const cv::Point2d ray = (1 - v) * ((1 - u) * r00 + u * r01) + v * ((1 - u) * r10 + u * r11);
            sum += scene.grey(scene.meet(ray), edge);
        }
        return sum / (n * n);
    }

    cv::Mat_<cv::Point2d> _corner_rays;
};

/// A view of the whole board from its front: tilted by tilt_rad about a direction in the board, turned by
/// turn_rad about the optical axis, its middle at `middle_mm` in the camera frame.
inline Pose view(const Board& board, double tilt_rad, double tilt_direction_rad, double turn_rad, cv::Vec3d middle_mm)
{
    const cv::Matx33d facing = rotation(0, CV_PI); // board y up, z towards the camera
    const cv::Matx33d tilt = rotation(2, tilt_direction_rad) * rotation(0, tilt_rad) * rotation(2, -tilt_direction_rad);
    const vexo::CalibBoardParam& b = board.param;
    const cv::Vec3d middle_in_board(
        (b.origin_x - 0.5 * (b.columns - 1)) * b.pitch, (b.origin_y - 0.5 * (b.rows - 1)) * b.pitch, 0);
    const cv::Matx33d R = rotation(2, turn_rad) * tilt * facing;
    return { R, middle_mm - R * middle_in_board };
}

/// Recognition settings for these boards.
inline vexo::CircleMarkerParam marker_settings()
{
    vexo::CircleMarkerParam circle;
    circle.min_radius = 4;
    return circle;
}

/// For tests that need a picture of a board rather than accuracy.
inline Camera small_camera()
{
    return { { 400, 320 }, 440, 440, 200, 160 };
}

inline cv::Mat small_picture()
{
    const Board board = coarse_board();
    return Renderer(small_camera()).render(board, view(board, 0.3, 1.0, 0.1, { 0, 0, 320 }), {}, 1);
}

} // namespace board_image
