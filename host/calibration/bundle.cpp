#include "host/calibration/bundle.h"

#include "base/boundary.h"
#include "host/calibration/bundle_view.h"
#include "host/cameras/board_pose.h"
#include "host/cameras/camera_covariance.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/core/eigen.hpp>

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace vexo {

namespace {

constexpr int tied = cv::CALIB_FIX_ASPECT_RATIO | cv::CALIB_SAME_FOCAL_LENGTH | cv::CALIB_FIX_INTRINSIC;

/// Flags that hold a distortion coefficient fixed, by its place.
constexpr int fixing[] = { cv::CALIB_FIX_K1, cv::CALIB_FIX_K2, cv::CALIB_FIX_TANGENT_DIST | cv::CALIB_ZERO_TANGENT_DIST,
    cv::CALIB_FIX_TANGENT_DIST | cv::CALIB_ZERO_TANGENT_DIST, cv::CALIB_FIX_K3, cv::CALIB_FIX_K4, cv::CALIB_FIX_K5,
    cv::CALIB_FIX_K6, cv::CALIB_FIX_S1_S2_S3_S4, cv::CALIB_FIX_S1_S2_S3_S4, cv::CALIB_FIX_S1_S2_S3_S4,
    cv::CALIB_FIX_S1_S2_S3_S4, cv::CALIB_FIX_TAUX_TAUY, cv::CALIB_FIX_TAUX_TAUY };

/// Which of the shared parameters are free.
std::vector<bool> free_ones(const std::vector<CalibratedCamera>& cameras, const BundleOptions& options)
{
    std::vector<bool> free;
    for (const CalibratedCamera& camera : cameras) {
        const bool focal = (options.flags & cv::CALIB_FIX_FOCAL_LENGTH) == 0;
        const bool middle = (options.flags & cv::CALIB_FIX_PRINCIPAL_POINT) == 0;
        free.insert(free.end(), { focal, focal, middle, middle });
        for (std::size_t i = 0; i < camera.D.total(); ++i)
            free.push_back((options.flags & fixing[i]) == 0);
    }
    if (cameras.size() == 2) free.insert(free.end(), pose_parameters, true);
    free.insert(free.end(), shape_parameters, options.shape);
    return free;
}

/// Markers of a view that every camera saw.
BundleMarkers markers_of(const BoardViews& views, std::size_t view)
{
    BundleMarkers markers;
    for (std::size_t i = 0; i < views.cameras[0][view].markers.size(); ++i) {
        const auto saw = [&](const std::vector<BoardPicture>& pictures) {
            return i < pictures[view].markers.size() && pictures[view].markers[i].x != FLT_MAX;
        };
        if (!std::all_of(views.cameras.begin(), views.cameras.end(), saw)) continue;
        markers.index.push_back(i);
        for (std::size_t k = 0; k < views.cameras.size(); ++k)
            markers.seen_px[k].push_back(views.cameras[k][view].markers[i]);
    }
    return markers;
}

std::optional<BundlePose> first_pose(
    const BundleMarkers& markers, const BoardFile& board, const CalibratedCamera& camera)
{
    SeenMarkers seen;
    for (std::size_t i = 0; i < markers.index.size(); ++i) {
        seen.board_mm.push_back(board_point(board, markers.index[i]));
        seen.image_px.emplace_back(markers.seen_px[0][i]);
    }
    const auto pose = solve_board_pose(seen, camera);
    if (!pose) return std::nullopt;
    return BundlePose { pose->rvec, pose->tvec };
}

/// What is sought.
struct State {
    std::vector<CalibratedCamera> cameras;
    std::vector<BundlePose> poses;
    BoardFile board;
};

/// Normal equations of all views after the poses were eliminated.
struct Reduced {
    Eigen::MatrixXd matrix;
    Eigen::VectorXd side;
    double squares = 0.0;
};

/// Levenberg and Marquardt's steps with the poses eliminated.
class Adjustment {
public:
    Adjustment(State start, std::vector<BundleMarkers> markers, std::vector<bool> free)
        : _state(std::move(start))
        , _markers(std::move(markers))
        , _free(std::move(free))
        , _columns(bundle_columns(_state.cameras))
    {
    }

    /// False when the parameters are not determined.
    bool run()
    {
        constexpr int most_steps = 30;
        constexpr double settled = 1e-10, most_damping = 1e3;
        double damping = 0.0;
        _linearise();
        for (int step = 0; step < most_steps; ++step) {
            const auto next = _stepped(damping);
            if (!next) return false;
            const double squares = _squares(*next);
            if (squares > _reduced.squares * (1.0 + settled)) {
                damping = std::max(10.0 * damping, 1e-4);
                if (damping > most_damping) return true; // nothing lowers it any more, but for rounding
                continue;
            }
            const double gain = _reduced.squares > 0.0 ? 1.0 - squares / _reduced.squares : 0.0;
            _state = *next;
            damping *= 0.1;
            _linearise();
            if (gain < settled) return true;
        }
        return false;
    }

    const State& state() const { return _state; }
    double squares() const { return _reduced.squares; }

    /// (J^T J)^-1 of the shared parameters; nothing where it does not exist.
    std::optional<Eigen::MatrixXd> cofactors() const
    {
        const Reduced reduced = _reduce(0.0);
        const Eigen::VectorXd scale = _scale_of(reduced.matrix);
        const Eigen::MatrixXd scaled = scale.asDiagonal() * reduced.matrix * scale.asDiagonal();
        const Eigen::LDLT<Eigen::MatrixXd> solver(scaled);
        if (!_determined(solver)) return std::nullopt;
        Eigen::MatrixXd inverse = scale.asDiagonal()
            * solver.solve(Eigen::MatrixXd::Identity(scaled.rows(), scaled.cols())) * scale.asDiagonal();
        for (int i = 0; i < _columns.count; ++i)
            if (!_free[static_cast<std::size_t>(i)]) inverse(i, i) = 0.0;
        return inverse;
    }

private:
    static Eigen::VectorXd _scale_of(const Eigen::MatrixXd& matrix)
    {
        return matrix.diagonal().cwiseMax(DBL_MIN).cwiseSqrt().cwiseInverse();
    }

    static bool _determined(const Eigen::LDLT<Eigen::MatrixXd>& solver)
    {
        constexpr double least = 1e-13; // pivots of a matrix whose diagonal is 1
        return solver.info() == Eigen::Success && solver.vectorD().minCoeff() > least;
    }

    void _linearise()
    {
        _equations.clear();
        for (std::size_t v = 0; v < _markers.size(); ++v)
            _equations.push_back(view_equations(_markers[v], _state.poses[v], _state.board, _state.cameras));
        _reduced.squares = 0.0;
        for (const ViewEquations& e : _equations)
            _reduced.squares += e.squares;
    }

    Reduced _reduce(double damping) const
    {
        Reduced r;
        r.matrix.setZero(_columns.count, _columns.count);
        r.side.setZero(_columns.count);
        for (const ViewEquations& e : _equations) {
            const Eigen::Matrix<double, 6, 6> pose = _damped(e.pose, damping);
            const Eigen::MatrixXd by_pose = pose.ldlt().solve(e.mixed.transpose());
            r.matrix += _damped(e.shared, damping) - e.mixed * by_pose;
            r.side += e.shared_side - by_pose.transpose() * e.pose_side;
        }
        for (int i = 0; i < _columns.count; ++i) {
            if (_free[static_cast<std::size_t>(i)]) continue;
            r.matrix.row(i).setZero();
            r.matrix.col(i).setZero();
            r.matrix(i, i) = 1.0;
            r.side(i) = 0.0;
        }
        return r;
    }

    template <class Matrix> static Matrix _damped(Matrix matrix, double damping)
    {
        matrix.diagonal() *= 1.0 + damping;
        return matrix;
    }

    std::optional<State> _stepped(double damping) const
    {
        const Reduced reduced = _reduce(damping);
        const Eigen::VectorXd scale = _scale_of(reduced.matrix);
        const Eigen::LDLT<Eigen::MatrixXd> solver(
            Eigen::MatrixXd(scale.asDiagonal() * reduced.matrix * scale.asDiagonal()));
        if (!_determined(solver)) return std::nullopt;
        const Eigen::VectorXd shared = scale.cwiseProduct(solver.solve(scale.cwiseProduct(reduced.side)));
        State next = _state;
        _move_shared(next, shared);
        for (std::size_t v = 0; v < _equations.size(); ++v) {
            const ViewEquations& e = _equations[v];
            const Eigen::Matrix<double, 6, 6> matrix = _damped(e.pose, damping);
            const Eigen::Matrix<double, 6, 1> step = matrix.ldlt().solve(e.pose_side - e.mixed.transpose() * shared);
            for (int i = 0; i < 3; ++i) {
                next.poses[v].rvec[i] += step(i);
                next.poses[v].tvec[i] += step(i + 3);
            }
        }
        return next;
    }

    void _move_shared(State& state, const Eigen::VectorXd& step) const
    {
        for (std::size_t k = 0; k < state.cameras.size(); ++k) {
            CalibratedCamera& camera = state.cameras[k];
            int column = _columns.camera[k];
            for (const auto& [row, col] : { std::pair(0, 0), std::pair(1, 1), std::pair(0, 2), std::pair(1, 2) })
                camera.K(row, col) += step(column++);
            camera.D = camera.D.clone();
            for (std::size_t i = 0; i < camera.D.total(); ++i)
                camera.D.at<double>(static_cast<int>(i)) += step(column++);
        }
        if (state.cameras.size() == 2) {
            cv::Vec3d turn;
            cv::Rodrigues(state.cameras[1].R, turn);
            for (int i = 0; i < 3; ++i) {
                turn[i] += step(_columns.rig + i);
                state.cameras[1].T[i] += step(_columns.rig + 3 + i);
            }
            cv::Rodrigues(turn, state.cameras[1].R);
        }
        BoardShape& shape = state.board.shape;
        int column = _columns.shape;
        for (double* value : { &shape.bow_xx, &shape.bow_xy, &shape.bow_yy, &shape.stretch_y, &shape.shear })
            *value += step(column++);
    }

    double _squares(const State& state) const
    {
        double squares = 0.0;
        for (std::size_t v = 0; v < _markers.size(); ++v)
            squares += view_squares(_markers[v], state.poses[v], state.board, state.cameras);
        return squares;
    }

    State _state;
    std::vector<BundleMarkers> _markers;
    std::vector<bool> _free;
    BundleColumns _columns;
    std::vector<ViewEquations> _equations;
    Reduced _reduced;
};

std::optional<Bundle> adjusted(Adjustment& adjustment, Bundle bundle)
{
    if (!adjustment.run()) return std::nullopt;
    const int freedom = bundle.residuals - bundle.parameters;
    const auto cofactors = adjustment.cofactors();
    if (freedom <= 0 || !cofactors) return std::nullopt;
    bundle.cameras = adjustment.state().cameras;
    bundle.shape = adjustment.state().board.shape;
    bundle.squares = adjustment.squares();
    const int cameras_only = bundle_columns(bundle.cameras).shape;
    const Eigen::MatrixXd covariance
        = cofactors->topLeftCorner(cameras_only, cameras_only) * (bundle.squares / freedom);
    cv::eigen2cv(covariance, bundle.covariance);
    if (!cv::checkRange(bundle.covariance)) return std::nullopt;
    return bundle;
}

} // namespace

double Bundle::residual_px() const
{
    return std::sqrt(squares / (residuals - parameters));
}

std::optional<Bundle> adjust_bundle(const BoardViews& views, const BoardFile& board, const std::vector<bool>& use,
    const std::vector<CalibratedCamera>& start, const BundleOptions& options)
{
    if ((options.flags & tied) != 0) return std::nullopt;
    State state { start, {}, board };
    std::vector<BundleMarkers> markers;
    Bundle bundle;
    for (std::size_t v = 0; v < views.count(); ++v) {
        if (!use[v]) continue;
        BundleMarkers seen = markers_of(views, v);
        const auto pose = first_pose(seen, board, start[0]);
        if (!pose) continue;
        bundle.residuals += static_cast<int>(2 * start.size() * seen.index.size());
        bundle.parameters += pose_parameters;
        state.poses.push_back(*pose);
        markers.push_back(std::move(seen));
    }
    const std::vector<bool> free = free_ones(start, options);
    bundle.parameters += static_cast<int>(std::count(free.begin(), free.end(), true));
    return value_if_opencv_throws(std::optional<Bundle>(), [&] {
        Adjustment adjustment(std::move(state), std::move(markers), free);
        return adjusted(adjustment, std::move(bundle));
    });
}

bool shape_is_significant(const Bundle& without, const Bundle& with)
{
    const int freedom = with.residuals - with.parameters;
    constexpr int least_freedom = 30;
    if (freedom < least_freedom) return false;
    // The 0.999 quantile of F(5, freedom), within 2 % from 30 on: 4.103 for infinitely many.
    const double needed = 4.103 * (1.0 + 9.6 / freedom);
    return (without.squares - with.squares) / shape_parameters > needed * with.squares / freedom;
}

} // namespace vexo
