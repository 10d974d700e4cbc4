#include "calib/board_pose.h"

#include <opencv2/calib3d.hpp>

namespace vexo {

namespace {

/// What one rectified camera sees of the board.
struct Sighting {
    std::vector<cv::Point2f> in_image; // rectified px
    std::vector<cv::Point3f> on_board;
    cv::Mat_<double> K;      // belongs to the rectified camera
    cv::Mat_<double> offset; // rectified camera 0 -> this rectified camera: the axes are the same
};

/// False when the view shows too few markers.
bool sight(const DistortCamera& raw, const UndistortCamera& rectified, const cv::Mat_<double>& rectifying,
    iCalibBoardRecognizer& recognizer, const View& view, Sighting& sighting)
{
    View in_raw;
    if (recognizer.corresponding_points(view, in_raw, sighting.on_board) < min_view_markers) return false;
    sighting.K = rectified.normalised_K();
    sighting.offset = rectified.T;
    const cv::TermCriteria until(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, 50, 1e-9);
    cv::undistortPoints(in_raw, sighting.in_image, raw.normalised_K(), raw.D, rectifying, sighting.K, until);
    return true;
}

/// Reprojection errors of a pose (rotation vector, translation; 6x1) in both cameras, and their derivatives.
class ReprojectionErrors : public cv::LMSolver::Callback {
public:
    explicit ReprojectionErrors(const std::array<Sighting, 2>& sightings)
        : _sightings(sightings)
    {
    }

    bool compute(cv::InputArray param, cv::OutputArray errors, cv::OutputArray jacobian) const override
    {
        const cv::Mat_<double> pose = param.getMat();
        cv::Mat all_errors, all_derivatives;
        for (const Sighting& s : _sightings) {
            std::vector<cv::Point2f> projected;
            cv::Mat derivatives;
            const cv::Mat translation = pose.rowRange(3, 6) + s.offset;
            cv::projectPoints(s.on_board, pose.rowRange(0, 3), translation, s.K, cv::noArray(), projected, derivatives);
            cv::Mat miss = cv::Mat(projected) - cv::Mat(s.in_image);
            miss = miss.reshape(1, 2 * miss.rows);
            miss.convertTo(miss, CV_64F);
            all_errors.push_back(miss);
            all_derivatives.push_back(derivatives.colRange(0, 6));
        }
        all_errors.copyTo(errors);
        if (jacobian.needed()) all_derivatives.copyTo(jacobian);
        return true;
    }

private:
    const std::array<Sighting, 2>& _sightings;
};

} // namespace

cv::Mat_<double> rigid_matrix(const cv::Mat& rvec, const cv::Mat& tvec)
{
    cv::Mat_<double> pose(cv::Mat_<double>::eye(4, 4));
    cv::Mat R;
    cv::Rodrigues(rvec, R);
    R.copyTo(pose(cv::Rect(0, 0, 3, 3)));
    tvec.copyTo(pose(cv::Rect(3, 0, 1, 3)));
    return pose;
}

bool board_pose_in_rectified(const std::array<DistortCamera, 2>& cameras, const StereoCamera& stereo,
    iCalibBoardRecognizer& recognizer, const std::array<View, 2>& views, cv::Mat_<double>& rect0_from_board)
{
    std::array<Sighting, 2> sightings;
    if (!sight(cameras[0], stereo.cam0, stereo.cam0_R2, recognizer, views[0], sightings[0])
        || !sight(cameras[1], stereo.cam1, stereo.cam1_R2, recognizer, views[1], sightings[1]))
        return false;

    cv::Mat rvec, tvec;
    if (!cv::solvePnP(sightings[0].on_board, sightings[0].in_image, sightings[0].K, cv::noArray(), rvec, tvec))
        return false;
    cv::Mat pose;
    cv::vconcat(rvec, tvec, pose);
    constexpr int most_steps = 50;
    cv::LMSolver::create(cv::makePtr<ReprojectionErrors>(sightings), most_steps)->run(pose);

    const cv::Mat_<double> found = rigid_matrix(pose.rowRange(0, 3), pose.rowRange(3, 6));
    if (!cv::checkRange(found) || !(found(2, 3) > 0)) return false; // behind the camera
    rect0_from_board = found;
    return true;
}

} // namespace vexo
