#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/on_step.h"
#include "patterns/board.h"
#include "sim/bent_board.h"
#include "sim/output.h"
#include "sim/rig.h"
#include "sim/robot.h"

namespace vexo {
namespace sim {

/// Everything that can be chosen about a series of photos of a calibration board.
struct CalibrationOptions {
    RigOptions rig; ///< of these: image size, distance, baseline, toe-in, exposure, noise and seed
    BoardLayout board;
    int views = 16;
    double max_tilt_deg = 45;          ///< of the board against the rig's front; steep views fix the focal lengths
    double blur = 0.7;                 ///< px; standard deviation of the cameras' blur
    double gradient = 1.5;             ///< brightest over darkest light across the field of view
    BoardBend bend;                    ///< of the board: none
    std::optional<RobotOptions> robot; ///< that moved the board or the cameras
};

/// Null when such photos can be taken, else the options' first fault.
const char* why_invalid(const CalibrationOptions& options) noexcept;

/// Where the board lies: x_rig = R x_board + T, mm. A bent board touches the plane z = 0 in the middle of its markers.
struct BoardPose {
    cv::Matx33d R;
    cv::Vec3d T;

    cv::Vec3d operator*(const cv::Vec3d& on_board) const { return R * on_board + T; }
};

/// Poses that determine a calibration well: tilted about changing axes, near and far, most of them pushed from the
/// middle towards the border of the picture as far as both cameras see the whole paper. Evenly spread for every seed.
/// Throws std::invalid_argument for a board that is too large to be seen whole at four times the distance.
std::vector<BoardPose> choose_poses(const Rig& rig, const CalibrationOptions& options);

/// What one camera sees of a board, and of nothing else: rays are cast once for all photos.
class BoardPhotographer {
public:
    BoardPhotographer(const Rig& rig, int camera, const CalibrationOptions& options);

    /// The photo of a board, 8 bits; `view` selects the noise and where the light comes from. Pixels that an edge
    /// crosses are made of 8 x 8 samples, all others of one. Rays hit a bent board where it is; its light is that of a
    /// flat one.
    cv::Mat_<uchar> photo(const BoardPose& pose, int view) const;

private:
    struct Shot; ///< what is the same for all pixels of a photo
    BentBoard::Hit _hit(const Shot& shot, int y, int x) const noexcept;
    float _light(const Shot& shot, int y, int x) const noexcept;
    void _light_row(const Shot& shot, int y, float* out) const noexcept;
    void _expose_row(const float* light, std::uint64_t key, int y, uchar* out) const noexcept;

    const Rig* _rig;
    int _camera;
    const CalibrationOptions* _options;
    cv::Mat_<cv::Vec2d> _rays; ///< undistorted image coordinates of each pixel
};

/// Renders all photos and the truth.
///     cam0/view00.png ...   8-bit photos of camera 0; cam1/ likewise, each pair at the same pose
///     poses.csv             of a robot: what it said of its gripper at each view
///     truth.json            both cameras in raw camera-0 axes, the poses, the board and all options
/// The cameras are not written as the YAML file that measuring would read: it is calibration's work to find them.
/// Throws std::invalid_argument for options that why_invalid() refuses, and as choose_poses() does; Stopped. A step is
/// a view.
Files make_calibration(const CalibrationOptions& options, const OnStep& on_step = {});

} // namespace sim
} // namespace vexo
