#pragma once

#include "camera/camera_distort.h"
#include "camera/camera_undistort.h"
#include "vexo/stereo_camera.h"

#include <opencv2/core.hpp>

#include <cstdint>
#include <string>

namespace vexo {

/// Rectified stereo pair: two undistorted cameras whose rows (columns on a vertical rig) are epipolar lines,
/// with Q and the baseline. stereo_construction.h makes them.
///
/// Frame    points lie in the axes of *rectified* camera 0: x right, y down, z forward, origin at its optical
///          centre; in another frame after convert_coordinate_system().
/// Lengths  in the unit of the calibration.
/// Threads  remap() and triangulation only read and may run at once; nothing may overlap with a change.
/// Copies are deep.
class StereoCamera : public iStereoCamera {
public:
    std::string name;         ///< "stereo"; save() calls the cameras `name`L and `name`R
    cv::Size input_size;      ///< size of the raw images, px
    cv::Size output_size;     ///< size of the rectified images, px
    UndistortCamera cam0;     ///< left or upper camera
    UndistortCamera cam1;     ///< right or lower camera
    cv::Mat_<double> cam0_R2; ///< 3x3 rotation raw -> rectified axes of camera 0
    cv::Mat_<double> cam1_R2; ///< 3x3 rotation raw -> rectified axes of camera 1
    cv::Mat_<double> Q;       ///< 4x4: rectified pixel and disparity -> point
    cv::Mat_<double> T;       ///< 3x1 baseline: centre of cam1 minus centre of cam0

    /// Empty pair, to be filled by load(): no tables, Q zero.
    explicit StereoCamera(cv::Size input_size);

    /// Rectifies two calibrated cameras of one image size. Both may carry world poses; only the pose of one to
    /// the other matters: x1 = R x0 + T with [R T] = RT1 RT0^-1.
    ///
    /// @param cams          two cameras, composed
    /// @param alpha, flags  as in cv::stereoRectify
    /// @param new_size      of the rectified images; 0 x 0: the input size
    /// @param fill0, fill1  colours of rectified pixels without a source
    /// Throws what OpenCV throws; create_StereoCamera_from_pair() checks first and does not.
    StereoCamera(const DistortCamera* cams, double alpha, int flags, cv::Size new_size, const cv::Scalar& fill0,
        const cv::Scalar& fill1);

    StereoCamera(const StereoCamera& other);
    StereoCamera(StereoCamera&& other) noexcept = default;
    StereoCamera& operator=(const StereoCamera& other);
    StereoCamera& operator=(StereoCamera&& other) noexcept = default;

    // iStereoCamera; documented there.
    void destroy() override;
    double get_baseline_length() const override;
    void get_inpimage_size(int* width, int* height) const override;
    void get_outimage_size(int* width, int* height) const override;
    bool remap(
        unsigned char* src, unsigned long src_step, unsigned char* dst, unsigned long dst_step, int which) override;
    bool get3dposition(double* xyz, int x, int y, double disparity) override;
    bool get3dposition(double* xyz, const double* pt0, const double* pt1) override;
    bool get3dposition(double* xyz, double maxdist, const double* pt0, const double* pt1) override;
    ~StereoCamera() override = default;

    /// Whether the cameras stand side by side rather than one above the other: |T.y| < |T.x|, with the baseline
    /// in the axes of camera 0.
    bool is_horizontal_stereo() const;

    /// Whether a host may measure with this pair: finite matrices, a finite baseline that is not 0, and sizes
    /// within limits.
    bool is_usable() const;

    /// Writes "StereoName", both cameras, "Q", "oldcamSize", "cam0_R2" and "cam1_R2". The cameras get the names
    /// `name`L and `name`R, under which load() looks for them; tables go to the cameras' map_file, first.
    ///
    /// @param fs  open for writing, stays open; null: the file `name`_param.yaml, whole or not at all
    /// @return    false when something cannot be written, when the name cannot be a key, or when both cameras
    ///            carry one name
    bool save(const cv::FileStorage* fs);

    /// Reads what save() writes; the cameras are renamed after "StereoName", unless the file lacks one of them under
    /// that name: then they are read under the names that they have. The tables come from their map_file, if
    /// set. The output size is that of the rectified cameras.
    ///
    /// @return  false, and the object as it was, unless all of it is there and usable ("oldcamSize" may be
    ///          missing: the input size is kept)
    bool load(const cv::FileStorage* fs);

    /// Moves the pair into another world frame, in which all triangulated points come out afterwards.
    ///
    ///     P0 <- P0 M        P1 <- K1 [R1 T1] M = P1 M        Q <- M^-1 Q        T <- centre 1 - centre 0
    ///
    /// @param M  4x4 rigid pose new frame -> present frame (for the first call: -> rectified camera 0), as
    ///           solvePnP gives it for a board
    /// @return   false, and nothing changed, for another shape or a matrix that is not finite or singular
    bool convert_coordinate_system(const cv::Mat_<double>& M);

    /// Q from the two projections, as cv::stereoRectify lays it out, followed by the pose camera 0 -> world
    /// when camera 0 has one.
    ///
    ///     K1 [R t] = P1 RT0^-1                                     camera 1 in camera 0's axes
    ///     Q = RT0^-1 [1 0 0 -cx0; 0 1 0 -cy0; 0 0 0 f; 0 0 -1/t.x (cx0 - cx1)/t.x]        vertical: t.y, cy
    void recalculationQ();

    /// @name Triangulation
    /// In the frame of the class, double precision.
    /// @{

    /// Q method: (X, Y, Z, W)^T = Q (x, y, d, 1)^T, point = (X, Y, Z) / W. W = 0 gives infinite or NaN numbers.
    cv::Vec3d get3dposition_Q(double x, double y, double d) const;

    /// P method: linear least squares on both projections. @param valid  out, may be null: false, with a zero
    /// point, when the normal matrix has determinant exactly 0
    cv::Vec3d get3dposition_P(const cv::Point2d& p0, const cv::Point2d& p1, bool* valid) const;

    /// Midpoint of the shortest segment between two rays, whose origins are T apart.
    ///
    /// @param sv0, sv1  unit directions
    /// @param dist      out: length of the segment; the largest double, with a zero point, when sv0 sv1 = 1
    /// @param c0, c1    origins
    cv::Vec3d position_from_sv(
        const cv::Vec3d& sv0, const cv::Vec3d& sv1, double& dist, const cv::Vec3d& c0, const cv::Vec3d& c1) const;

    /// V method: position_from_sv() of the sight rays of two pixels.
    cv::Vec3d get3dposition_V(const cv::Point2d& p0, const cv::Point2d& p1, double& dist) const;

    /// Disparity of a point at a distance along the viewing axis of rectified camera 0.
    double convert_distance_to_disparity(double distance) const;
    /// @}

    /// Another number for every pair that is made, copied, loaded or moved into another frame: distinguishes it from
    /// one that had the same address before it was destroyed.
    std::uint64_t serial() const noexcept { return _serial; }

private:
    cv::Mat_<double> _baseline_in_cam0() const;
    void _name_cameras();
    void _swap(StereoCamera& other) noexcept;
    bool _write(cv::FileStorage& fs);
    bool _read(cv::FileStorage& fs);
    static std::uint64_t _next_serial() noexcept;

    std::uint64_t _serial = _next_serial();
};

} // namespace vexo
