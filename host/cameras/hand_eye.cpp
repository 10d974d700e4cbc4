#include "host/cameras/hand_eye.h"

#include "base/boundary.h"
#include "host/cameras/inverted.h"

#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

using cv::Affine3d;
using cv::Matx33d;
using cv::Matx66d;
using cv::Vec3d;
using cv::Vec6d;

constexpr int unknowns = 12; ///< translation and turn of the camera, then of the board
using Slopes = cv::Matx<double, 6, unknowns>;
using Normal = cv::Matx<double, unknowns, unknowns>;
using Step = cv::Vec<double, unknowns>;

constexpr double deg_per_rad = 180.0 / CV_PI;

/// Rodrigues vector of a rotation. OpenCV's is 0 below 1e-5 rad, and has half of the digits somewhat above.
Vec3d turn_of(const Matx33d& R)
{
    const Vec3d twice_sine(R(2, 1) - R(1, 2), R(0, 2) - R(2, 0), R(1, 0) - R(0, 1));
    const double sine = 0.5 * cv::norm(twice_sine), cosine = 0.5 * (R(0, 0) + R(1, 1) + R(2, 2) - 1);
    constexpr double small = 1e-4; // where the angle over its sine is 1 + sine^2 / 6 to 1e-17
    if (sine < small && cosine > 0) return 0.5 * (1 + sine * sine / 6) * twice_sine;
    if (sine > small) return 0.5 * std::atan2(sine, cosine) / sine * twice_sine;
    Vec3d turn; // by half a turn
    cv::Rodrigues(R, turn);
    return turn;
}

/// Moved by translation along the outer axes and turned about the inner ones.
Affine3d moved(const Affine3d& pose, const Vec3d& translation, const Vec3d& turn)
{
    return { pose.rotation() * Affine3d(turn).rotation(), pose.translation() + translation };
}

Vec3d part(const Step& step, int from)
{
    return { step[from], step[from + 1], step[from + 2] };
}

HandEye moved(const HandEye& state, const Step& step)
{
    HandEye next = state;
    next.camera = moved(state.camera, part(step, 0), part(step, 3));
    next.board = moved(state.board, part(step, 6), part(step, 9));
    return next;
}

/// What camera, board and picture say of the robot: base_from_gripper.
Affine3d predicted(const HandEye& h, const Affine3d& camera_from_board)
{
    return h.setup == HandEyeSetup::eye_in_hand ? h.board * inverted(camera_from_board) * inverted(h.camera)
                                                : h.camera * camera_from_board * inverted(h.board);
}

/// The robot's reading less what is predicted: translation, then the turn between both.
Vec6d residual_of(const HandEye& h, const Affine3d& camera_from_board, const Affine3d& base_from_gripper)
{
    const Affine3d expected = predicted(h, camera_from_board);
    const Vec3d t = base_from_gripper.translation() - expected.translation();
    const Vec3d r = turn_of(expected.rotation().t() * base_from_gripper.rotation());
    return { t[0], t[1], t[2], r[0], r[1], r[2] };
}

/// Steps of central differences: their error is 1e-9 of a slope, at lengths of a metre.
constexpr double step_mm = 1e-2, step_rad = 1e-5;

double step_of(int parameter)
{
    return parameter % 6 < 3 ? step_mm : step_rad;
}

/// One pose, linearised: residual, how it changes with the unknowns (its slopes' sign turned), and what the picture
/// alone adds to its covariance.
struct Linear {
    Vec6d residual;
    Slopes slopes;
    Matx66d by_picture;
};

Matx66d covariance_by_picture(const HandEye& h, const HandEyePose& pose)
{
    Matx66d slopes;
    for (int k = 0; k < 6; ++k) {
        const double step = k < 3 ? step_rad : step_mm; // the Rodrigues vector comes first
        Vec3d change;
        change[k % 3] = step;
        const auto at = [&](double sign) {
            const Vec3d r = pose.board_rvec + (k < 3 ? sign * change : Vec3d());
            const Vec3d t = pose.board_tvec + (k < 3 ? Vec3d() : sign * change);
            return residual_of(h, Affine3d(r, t), pose.base_from_gripper);
        };
        const Vec6d slope = (at(1) - at(-1)) * (0.5 / step);
        for (int row = 0; row < 6; ++row)
            slopes(row, k) = slope[row];
    }
    return slopes * pose.board_covariance * slopes.t();
}

Linear linear_of(const HandEye& h, const HandEyePose& pose)
{
    const Affine3d seen = pose.camera_from_board();
    Linear linear { residual_of(h, seen, pose.base_from_gripper), {}, covariance_by_picture(h, pose) };
    for (int k = 0; k < unknowns; ++k) {
        Step step;
        step[k] = step_of(k);
        const Vec6d more = residual_of(moved(h, step), seen, pose.base_from_gripper);
        const Vec6d less = residual_of(moved(h, -step), seen, pose.base_from_gripper);
        for (int row = 0; row < 6; ++row)
            linear.slopes(row, k) = (less[row] - more[row]) / (2 * step_of(k));
    }
    return linear;
}

/// Inverse of a positive definite matrix whose rows differ by many orders of magnitude; nothing where it is none, or
/// where its smallest eigenvalue, after scaling to a diagonal of ones, is below `least`.
template <int n> std::optional<cv::Matx<double, n, n>> inverse(const cv::Matx<double, n, n>& matrix, double least = 0.0)
{
    cv::Matx<double, n, n> scaled = matrix;
    cv::Vec<double, n> scale;
    for (int i = 0; i < n; ++i)
        scale[i] = 1.0 / std::sqrt(matrix(i, i));
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < n; ++k)
            scaled(i, k) *= scale[i] * scale[k];
    if (!std::isfinite(cv::norm(scaled))) return std::nullopt;
    cv::Mat values;
    if (least > 0 && (!cv::eigen(scaled, values) || values.at<double>(n - 1) < least)) return std::nullopt;
    bool regular = false;
    cv::Matx<double, n, n> inverted = scaled.inv(cv::DECOMP_CHOLESKY, &regular);
    if (!regular) return std::nullopt;
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < n; ++k)
            inverted(i, k) *= scale[i] * scale[k];
    return inverted;
}

struct Variances {
    double translation = 0.0, rotation = 0.0; // mm^2, rad^2
};

/// Far below any robot: they only keep matrices regular where poses fit exactly.
constexpr double least_translation = 1e-12, least_rotation = 1e-18;

Variances bounded(Variances v)
{
    return { std::max(v.translation, least_translation), std::max(v.rotation, least_rotation) };
}

std::optional<Matx66d> weight_of(const Linear& linear, const Variances& v)
{
    Matx66d covariance = linear.by_picture;
    for (int i = 0; i < 6; ++i)
        covariance(i, i) += i < 3 ? v.translation : v.rotation;
    return inverse<6>(covariance);
}

/// Normal equations of all poses under one pair of variances.
struct Equations {
    Normal inverse;
    Step side;
    std::vector<Matx66d> weights;
    double squares = 0.0; ///< sum of r^T V^-1 r
};

std::optional<Equations> equations_of(const std::vector<Linear>& all, const Variances& v)
{
    Equations e;
    Normal normal;
    for (const Linear& linear : all) {
        const auto weight = weight_of(linear, v);
        if (!weight) return std::nullopt;
        const auto weighted = linear.slopes.t() * *weight;
        normal += weighted * linear.slopes;
        e.side += Step((weighted * linear.residual).val);
        e.squares += linear.residual.dot(*weight * linear.residual);
        e.weights.push_back(*weight);
    }
    constexpr double determined = 1e-12;
    const auto inverted = inverse<unknowns>(normal, determined);
    if (!inverted) return std::nullopt;
    e.inverse = *inverted;
    return e;
}

/// One step of the MM algorithm of restricted maximum likelihood: v_k *= sqrt(r^T V^-1 E_k V^-1 r / tr(P E_k)) with
/// P = V^-1 - V^-1 J (J^T V^-1 J)^-1 J^T V^-1.
Variances improved(const std::vector<Linear>& all, const Equations& e, const Variances& v)
{
    Variances explained, expected;
    const Step step(e.inverse * e.side);
    for (std::size_t i = 0; i < all.size(); ++i) {
        const auto weighted = e.weights[i] * all[i].slopes;
        const Matx66d left = e.weights[i] - weighted * e.inverse * weighted.t();
        const Vec6d pulled = e.weights[i] * (all[i].residual - Vec6d((all[i].slopes * step).val));
        for (int k = 0; k < 6; ++k) {
            (k < 3 ? explained.translation : explained.rotation) += pulled[k] * pulled[k];
            (k < 3 ? expected.translation : expected.rotation) += left(k, k);
        }
    }
    const auto factor = [](double q, double p) { return p > 0 ? std::sqrt(q / p) : 1.0; };
    return bounded({ v.translation * factor(explained.translation, expected.translation),
        v.rotation * factor(explained.rotation, expected.rotation) });
}

Variances plain_variances(const std::vector<Linear>& all)
{
    Variances v;
    for (const Linear& linear : all)
        for (int k = 0; k < 6; ++k)
            (k < 3 ? v.translation : v.rotation)
                += linear.residual[k] * linear.residual[k] / (3.0 * static_cast<double>(all.size()));
    return bounded(v);
}

/// Gauss-Newton with halved steps for the unknowns, in turns with the variances.
class Refinement {
public:
    Refinement(const std::vector<HandEyePose>& poses, const HandEye& start, const std::optional<RobotNoise>& known)
        : _poses(poses)
        , _state(start)
        , _estimate(!known)
    {
        _linearise();
        const auto square = [](double value) { return value * value; };
        _variances = known ? bounded({ square(known->translation_mm), square(known->rotation_rad) })
                           : plain_variances(_linear);
    }

    std::optional<HandEye> run()
    {
        constexpr int most = 40;
        constexpr double settled = 1e-4; // share of a variance, which itself is known to 10 % at best
        for (int round = 0; round < most; ++round) {
            const auto change = _settle_variances();
            const auto e = equations_of(_linear, _variances);
            if (!e || !change) return std::nullopt;
            const Step step(e->inverse * e->side);
            const double gain = step.dot(e->side); // the step in its own sigmas, squared
            if (gain < 1e-10 && *change < settled) return _finished(*e);
            if (!_take(step, *e) && *change < settled) return _finished(*e);
        }
        const auto e = equations_of(_linear, _variances);
        return e ? std::optional<HandEye>(_finished(*e)) : std::nullopt;
    }

private:
    void _linearise()
    {
        _linear.clear();
        for (const HandEyePose& pose : _poses)
            _linear.push_back(linear_of(_state, pose));
    }

    /// @return by what share they changed at last
    std::optional<double> _settle_variances()
    {
        if (!_estimate) return 0.0;
        double change = 0.0;
        constexpr int steps = 12;
        for (int i = 0; i < steps; ++i) {
            const auto e = equations_of(_linear, _variances);
            if (!e) return std::nullopt;
            const Variances next = improved(_linear, *e, _variances);
            change = std::max(std::abs(next.translation / _variances.translation - 1),
                std::abs(next.rotation / _variances.rotation - 1));
            _variances = next;
        }
        return change;
    }

    double _squares(const HandEye& h, const std::vector<Matx66d>& weights) const
    {
        double squares = 0.0;
        for (std::size_t i = 0; i < _poses.size(); ++i) {
            const Vec6d r = residual_of(h, _poses[i].camera_from_board(), _poses[i].base_from_gripper);
            squares += r.dot(weights[i] * r);
        }
        return squares;
    }

    bool _take(Step step, const Equations& e)
    {
        for (int halved = 0; halved < 10; ++halved, step *= 0.5) {
            const HandEye next = moved(_state, step);
            if (!(_squares(next, e.weights) < e.squares)) continue;
            _state = next;
            _linearise();
            return true;
        }
        return false;
    }

    HandEye _finished(const Equations& e)
    {
        HandEye found = _state;
        found.covariance = e.inverse.get_minor<6, 6>(0, 0);
        found.noise = { std::sqrt(_variances.translation), std::sqrt(_variances.rotation) };
        return found;
    }

    const std::vector<HandEyePose>& _poses;
    HandEye _state;
    bool _estimate;
    std::vector<Linear> _linear;
    Variances _variances;
};

} // namespace

const char* name_of(HandEyeSetup setup)
{
    return setup == HandEyeSetup::eye_in_hand ? "eye-in-hand" : "eye-to-hand";
}

HandEyeSetup other(HandEyeSetup setup)
{
    return setup == HandEyeSetup::eye_in_hand ? HandEyeSetup::eye_to_hand : HandEyeSetup::eye_in_hand;
}

Vec3d HandEye::translation_sigma_mm() const
{
    return { std::sqrt(covariance(0, 0)), std::sqrt(covariance(1, 1)), std::sqrt(covariance(2, 2)) };
}

Vec3d HandEye::rotation_sigma_deg() const
{
    return deg_per_rad * Vec3d(std::sqrt(covariance(3, 3)), std::sqrt(covariance(4, 4)), std::sqrt(covariance(5, 5)));
}

Affine3d HandEye::camera_from_board(const Affine3d& base_from_gripper) const
{
    return setup == HandEyeSetup::eye_in_hand ? inverted(camera) * inverted(base_from_gripper) * board
                                              : inverted(camera) * base_from_gripper * board;
}

HandEyeResidual HandEye::residual(const HandEyePose& pose, const Vec3d& board_point_mm) const
{
    const Affine3d seen = camera * pose.camera_from_board();
    const bool in_hand = setup == HandEyeSetup::eye_in_hand;
    const Vec3d by_camera = (in_hand ? pose.base_from_gripper * seen : seen) * board_point_mm;
    const Vec3d by_others = (in_hand ? board : pose.base_from_gripper * board) * board_point_mm;
    const Vec6d r = residual_of(*this, pose.camera_from_board(), pose.base_from_gripper);
    return { cv::norm(by_camera - by_others), deg_per_rad * cv::norm(Vec3d(r[3], r[4], r[5])) };
}

std::optional<HandEye> refine_hand_eye(
    const std::vector<HandEyePose>& poses, const HandEye& start, const std::optional<RobotNoise>& known)
{
    if (poses.size() < fewest_hand_eye_poses) return std::nullopt;
    return value_if_opencv_throws(std::optional<HandEye>(), [&] { return Refinement(poses, start, known).run(); });
}

std::optional<HandEye> solve_hand_eye(
    const std::vector<HandEyePose>& poses, HandEyeSetup setup, const std::optional<RobotNoise>& known)
{
    const auto start = closed_hand_eye(poses, setup);
    return start ? refine_hand_eye(poses, *start, known) : std::nullopt;
}

} // namespace vexo
