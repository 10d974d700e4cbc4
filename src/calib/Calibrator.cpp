#include "calib/Calibrator.h"

#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>
#include <new>

namespace vexo {

namespace {

/// Flags for cv::calibrateCamera, and K's start when a focal length was guessed.
int prepare_guess(const CameraCalibParam& param, cv::Size size, cv::Mat_<double>& K)
{
    if ((param.flags & cv::CALIB_USE_INTRINSIC_GUESS) == 0) return param.flags;
    if (param.focal_guess == 0) return param.flags & ~cv::CALIB_USE_INTRINSIC_GUESS;
    K = cv::Mat_<double>::eye(3, 3);
    K(0, 0) = K(1, 1) = param.focal_guess;
    K(0, 2) = size.width * 0.5;
    K(1, 2) = size.height * 0.5;
    return param.flags;
}

/// Whether a view has enough markers to be used. One whose markers found no memory must not be left out unnoticed.
bool is_enough(int markers)
{
    if (markers < 0) throw std::bad_alloc();
    return markers >= min_view_markers;
}

/// One entry a view: the next error for one that was used, NaN for one that was skipped.
std::vector<double> errors_by_view(const std::vector<bool>& used, const cv::Mat_<double>& errors_of_used)
{
    std::vector<double> errors;
    errors.reserve(used.size());
    int next = 0;
    for (const bool u : used)
        errors.push_back(u ? errors_of_used(next++) : std::numeric_limits<double>::quiet_NaN());
    return errors;
}

bool all_finite(double rms, std::initializer_list<cv::Mat> matrices)
{
    return std::isfinite(rms)
        && std::all_of(matrices.begin(), matrices.end(), [](const cv::Mat& m) { return cv::checkRange(m); });
}

} // namespace

bool calib_intrinsic(DistortCamera& camera, CameraCalibParam& param, iCalibBoardRecognizer* recognizer,
    std::vector<View>& views, std::vector<double>* per_view, double* rms)
{
    std::vector<bool> used(views.size(), false);
    std::vector<std::vector<cv::Point2f>> image_points;
    std::vector<std::vector<cv::Point3f>> board_points;
    for (size_t k = 0; recognizer != nullptr && k < views.size(); ++k) {
        View in_image;
        std::vector<cv::Point3f> on_board;
        if (views[k].empty() || !is_enough(recognizer->corresponding_points(views[k], in_image, on_board))) continue;
        image_points.push_back(in_image);
        board_points.push_back(on_board);
        used[k] = true;
    }
    if (image_points.empty()) return false;
    if (const char* fault = why_invalid(param)) {
        if (param.focal_guess < 0) CV_Error(cv::Error::StsOutOfRange, fault);
        return false; // from a guess that is no number, no number results
    }

    cv::Mat_<double> K = camera.K.clone();
    cv::Mat_<double> D = camera.D.clone();
    const int flags = prepare_guess(param, camera.size, K);
    const cv::TermCriteria until(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, 30, DBL_EPSILON);
    std::vector<cv::Mat> rvecs, tvecs;
    cv::Mat deviations_intrinsic, deviations_extrinsic, errors;
    const double result = cv::calibrateCamera(board_points, image_points, camera.size, K, D, rvecs, tvecs,
        deviations_intrinsic, deviations_extrinsic, errors, flags, until);
    if (!all_finite(result, { K, D })) return false;

    if (rms != nullptr) *rms = result;
    if (per_view != nullptr) *per_view = errors_by_view(used, errors);
    camera.K = K;
    camera.D = D;
    camera.compose();
    return true;
}

bool calib_extrinsic(std::array<DistortCamera, 2>& cameras, iCalibBoardRecognizer* recognizer,
    const std::array<std::vector<View>, 2>& views, int flags, std::vector<bool>& pair_used, double* rms)
{
    const size_t pairs = std::min(views[0].size(), views[1].size());
    pair_used.assign(pairs, false);
    std::vector<std::vector<cv::Point2f>> image_points0, image_points1;
    std::vector<std::vector<cv::Point3f>> board_points;
    for (size_t k = 0; recognizer != nullptr && k < pairs; ++k) {
        View in_image0, in_image1;
        std::vector<cv::Point3f> on_board;
        if (views[0][k].empty() || views[1][k].empty()) continue;
        if (!is_enough(recognizer->corresponding_points(views[0][k], views[1][k], in_image0, in_image1, on_board)))
            continue;
        image_points0.push_back(in_image0);
        image_points1.push_back(in_image1);
        board_points.push_back(on_board);
        pair_used[k] = true;
    }
    if (board_points.empty() || cameras[0].size != cameras[1].size) return false;
    CameraCalibParam asked;
    asked.flags = flags;
    if (const char* fault = why_invalid_for_pair(asked)) CV_Error(cv::Error::StsBadArg, fault);

    cv::Mat_<double> K0 = cameras[0].K.clone(), D0 = cameras[0].D.clone();
    cv::Mat_<double> K1 = cameras[1].K.clone(), D1 = cameras[1].D.clone();
    cv::Mat cam1_from_cam0, translation, essential, fundamental;
    const cv::TermCriteria until(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, 30, 1e-6);
    const double result = cv::stereoCalibrate(board_points, image_points0, image_points1, K0, D0, K1, D1,
        cameras[0].size, cam1_from_cam0, translation, essential, fundamental, flags, until);
    if (!all_finite(result, { K0, D0, K1, D1, cam1_from_cam0, translation })) return false;

    if (rms != nullptr) *rms = result;
    cameras[0].K = K0;
    cameras[0].D = D0;
    cameras[0].R = cv::Mat_<double>::eye(3, 3);
    cameras[0].T = cv::Mat_<double>::zeros(3, 1);
    cameras[1].K = K1;
    cameras[1].D = D1;
    cameras[1].R = cam1_from_cam0;
    cameras[1].T = translation;
    for (DistortCamera& camera : cameras)
        camera.compose();
    return true;
}

} // namespace vexo
