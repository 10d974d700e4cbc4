#include "host/calibration/bundle_view.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/core/eigen.hpp>

namespace vexo {

namespace {

using Rows = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

constexpr int intrinsics = 4;

int distortions(const CalibratedCamera& camera)
{
    return static_cast<int>(camera.D.total());
}

/// A pose, and how it changes with the board's pose and with that of camera 1.
struct Seen {
    cv::Vec3d rvec, tvec;
    Eigen::Matrix<double, 6, 6> by_pose = Eigen::Matrix<double, 6, 6>::Identity();
    Eigen::Matrix<double, 6, 6> by_rig = Eigen::Matrix<double, 6, 6>::Zero();
};

void put(Eigen::Matrix<double, 6, 6>& into, int row, int column, const cv::Mat& block)
{
    Eigen::Matrix3d values;
    cv::cv2eigen(block, values);
    into.block<3, 3>(row, column) = values;
}

Seen seen_by(std::size_t camera, const BundlePose& pose, const std::vector<CalibratedCamera>& cameras)
{
    Seen seen;
    if (camera == 0) {
        seen.rvec = pose.rvec;
        seen.tvec = pose.tvec;
        return seen;
    }
    cv::Vec3d turn;
    cv::Rodrigues(cameras[1].R, turn);
    cv::Mat drdr1, drdt1, drdr2, drdt2, dtdr1, dtdt1, dtdr2, dtdt2;
    cv::composeRT(pose.rvec, pose.tvec, turn, cameras[1].T, seen.rvec, seen.tvec, drdr1, drdt1, drdr2, drdt2, dtdr1,
        dtdt1, dtdr2, dtdt2);
    put(seen.by_pose, 0, 0, drdr1);
    put(seen.by_pose, 0, 3, drdt1);
    put(seen.by_pose, 3, 0, dtdr1);
    put(seen.by_pose, 3, 3, dtdt1);
    put(seen.by_rig, 0, 0, drdr2);
    put(seen.by_rig, 0, 3, drdt2);
    put(seen.by_rig, 3, 0, dtdr2);
    put(seen.by_rig, 3, 3, dtdt2);
    return seen;
}

std::vector<cv::Point3d> on_board(const BundleMarkers& markers, const BoardFile& board)
{
    std::vector<cv::Point3d> points;
    for (const std::size_t index : markers.index)
        points.push_back(board.shape.at(printed_point(board, index)));
    return points;
}

/// How the place of a marker on the board changes with the shape.
Eigen::Matrix<double, 3, shape_parameters> by_shape(cv::Point2d p)
{
    constexpr double bow_at = 100.0; // mm
    const cv::Point2d q = p / bow_at;
    Eigen::Matrix<double, 3, shape_parameters> slope;
    slope << 0, 0, 0, 0, p.y, //
        0, 0, 0, p.y, 0,      //
        q.x * q.x, q.x * q.y, q.y * q.y, 0, 0;
    return slope;
}

/// Residuals, seen - projected, in pairs of x and y.
Eigen::VectorXd residuals(const std::vector<cv::Point2d>& seen, const std::vector<cv::Point2d>& projected)
{
    Eigen::VectorXd errors(2 * static_cast<int>(seen.size()));
    for (std::size_t i = 0; i < seen.size(); ++i) {
        const auto row = 2 * static_cast<int>(i);
        errors(row) = seen[i].x - projected[i].x;
        errors(row + 1) = seen[i].y - projected[i].y;
    }
    return errors;
}

} // namespace

BundleColumns bundle_columns(const std::vector<CalibratedCamera>& cameras)
{
    BundleColumns columns;
    for (std::size_t k = 0; k < cameras.size(); ++k) {
        columns.camera[k] = columns.count;
        columns.count += intrinsics + distortions(cameras[k]);
    }
    columns.rig = columns.count;
    if (cameras.size() == 2) columns.count += pose_parameters;
    columns.shape = columns.count;
    columns.count += shape_parameters;
    return columns;
}

ViewEquations view_equations(const BundleMarkers& markers, const BundlePose& pose, const BoardFile& board,
    const std::vector<CalibratedCamera>& cameras)
{
    const BundleColumns columns = bundle_columns(cameras);
    const std::vector<cv::Point3d> points = on_board(markers, board);
    const int rows = 2 * static_cast<int>(points.size());
    ViewEquations e;
    e.shared.setZero(columns.count, columns.count);
    e.mixed.setZero(columns.count, pose_parameters);
    e.shared_side.setZero(columns.count);
    e.pose.setZero();
    e.pose_side.setZero();
    for (std::size_t k = 0; k < cameras.size(); ++k) {
        const Seen seen = seen_by(k, pose, cameras);
        std::vector<cv::Point2d> projected;
        cv::Mat slopes; // by rvec, tvec, fx fy, cx cy, distortion
        cv::projectPoints(points, seen.rvec, seen.tvec, cameras[k].K, cameras[k].D, projected, slopes);
        const Eigen::Map<const Rows> by(slopes.ptr<double>(), slopes.rows, slopes.cols);
        const auto by_pose = by.leftCols<6>();
        Rows shared = Rows::Zero(rows, columns.count);
        const int own = intrinsics + distortions(cameras[k]);
        shared.middleCols(columns.camera[k], own) = by.middleCols(pose_parameters, own);
        if (k == 1) shared.middleCols<pose_parameters>(columns.rig) = by_pose * seen.by_rig;
        cv::Matx33d turn;
        cv::Rodrigues(seen.rvec, turn);
        Eigen::Matrix3d rotation;
        cv::cv2eigen(turn, rotation);
        for (int i = 0; 2 * i < rows; ++i)
            shared.block<2, shape_parameters>(2 * i, columns.shape) = by.block<2, 3>(2 * i, 3) * rotation
                * by_shape(printed_point(board, markers.index[static_cast<std::size_t>(i)]));
        const Rows posed = by_pose * seen.by_pose;
        const Eigen::VectorXd errors = residuals(markers.seen_px[k], projected);
        e.shared += shared.transpose() * shared;
        e.mixed += shared.transpose() * posed;
        e.pose += posed.transpose() * posed;
        e.shared_side += shared.transpose() * errors;
        e.pose_side += posed.transpose() * errors;
        e.squares += errors.squaredNorm();
    }
    return e;
}

double view_squares(const BundleMarkers& markers, const BundlePose& pose, const BoardFile& board,
    const std::vector<CalibratedCamera>& cameras)
{
    const std::vector<cv::Point3d> points = on_board(markers, board);
    double squares = 0.0;
    for (std::size_t k = 0; k < cameras.size(); ++k) {
        const Seen seen = seen_by(k, pose, cameras);
        std::vector<cv::Point2d> projected;
        cv::projectPoints(points, seen.rvec, seen.tvec, cameras[k].K, cameras[k].D, projected);
        squares += residuals(markers.seen_px[k], projected).squaredNorm();
    }
    return squares;
}

} // namespace vexo
