#pragma once

#include "camera/camera_pinhole.h"

namespace vexo {

/// Real camera: a PinHoleCamera with lens distortion in OpenCV's model. The calibrators estimate it; rectified
/// cameras are made from it.
/// Source: Brown, Photogrammetric Eng. 37 (1971) 855; the order is that of cv::projectPoints.
class DistortCamera : public PinHoleCamera {
public:
    /// k1 k2 p1 p2 [k3 [k4 k5 k6 [s1..s4 [tx ty]]]], one row or column; empty: no distortion.
    cv::Mat_<double> D;

    using PinHoleCamera::PinHoleCamera;
    DistortCamera(const DistortCamera& other);
    DistortCamera(DistortCamera&& other) noexcept = default;
    DistortCamera& operator=(const DistortCamera& other);
    DistortCamera& operator=(DistortCamera&& other) noexcept = default;
    ~DistortCamera() override = default;

    /// As PinHoleCamera::save(), with the key `name`_D. The default file gets the name as it is before an
    /// empty one becomes "cam": a nameless camera goes to "_param.yaml", under keys "cam_...".
    bool save(cv::FileStorage* fs) override;

    /// As PinHoleCamera::load(), with `name`_D: 0, 4, 5, 8, 12 or 14 finite numbers. A file without that key
    /// leaves D empty.
    bool load(cv::FileStorage* fs) override;

    /// As PinHoleCamera::solvePnPRansac(), with distortion.
    bool solvePnPRansac(cv::Mat& rvec, cv::Mat& tvec, std::vector<cv::Point2f>& image_points,
        std::vector<cv::Point3f>& object_points) override;

    /// As PinHoleCamera::solvePnP(), with distortion.
    bool solvePnP(cv::Mat& rvec, cv::Mat& tvec, std::vector<cv::Point2f>& image_points,
        std::vector<cv::Point3f>& object_points) override;

    /// Distorted pixel of a world point. Point and pixel pass through single precision.
    cv::Point2d project_forw(const cv::Point3d& X) const;

    /// Throw std::logic_error: the distortion has no closed inverse. Rays come from rectified cameras.
    [[noreturn]] cv::Point3d project_back(const cv::Point2d& p) const;
    [[noreturn]] cv::Vec3d get_sight_vector(const cv::Point2d& p) const;
};

} // namespace vexo
