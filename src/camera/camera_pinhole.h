#pragma once

#include <opencv2/core.hpp>

#include <iosfwd>
#include <string>
#include <vector>

namespace vexo {

/// Pixel of a world point under a projection matrix.
///
///     (u, v, w)^T = M (X, Y, Z, 1)^T         pixel = (u / w, v / w)
///
/// @param M  3x4 projection, or a 4x4 one whose last row is not read
/// @return   infinite or NaN for a point in the camera's focal plane (w = 0)
cv::Point2d project3d_2d(const cv::Mat_<double>& M, const cv::Point3d& X);

/// Ideal camera without distortion.
///
///     x_camera = R x_world + T               pixel ~ K x_camera = P x_world
///
/// The members are public and redundant; compose(), decompose(), setRT() and setPPM() bring them back into
/// agreement after a change. Pixel (0, 0) is the centre of the top-left pixel.
/// Copies are deep. Threads: reading is free, a change must not overlap with any other use.
/// Source: Hartley, Zisserman, Multiple View Geometry (2004), 6.1.
class PinHoleCamera {
public:
    cv::Size size;           ///< image size, px
    std::string name;        ///< prefix of every key in a file, and of the default file name
    cv::Mat_<double> K;      ///< 3x3 intrinsic matrix; K(2, 2) is the scale of P, not always 1
    cv::Mat_<double> R;      ///< 3x3 rotation world -> camera
    cv::Mat_<double> T;      ///< 3x1 translation world -> camera, length unit of the calibration
    cv::Mat_<double> P;      ///< 4x4: the 3x4 projection world -> pixel, and (0, 0, 0, 1)
    cv::Mat_<double> P_inv;  ///< 4x4 inverse of P
    cv::Mat_<double> RT;     ///< 4x4 pose world -> camera
    cv::Mat_<double> RT_inv; ///< 4x4 pose camera -> world, from the transpose of R

    /// A camera at the world's origin with K = I.
    PinHoleCamera(cv::Size size, std::string name);
    PinHoleCamera(const PinHoleCamera& other);
    PinHoleCamera(PinHoleCamera&& other) noexcept = default;
    PinHoleCamera& operator=(const PinHoleCamera& other);
    PinHoleCamera& operator=(PinHoleCamera&& other) noexcept = default;

    // The order of the virtual operations is a binary contract.
    virtual ~PinHoleCamera() = default;

    /// Writes the camera as YAML, keys `name`_size, _K, _R, _T, _P. An empty name becomes "cam" for good.
    ///
    /// @param fs  open for writing, stays open; null: the file `name`_param.yaml, whole or not at all
    /// @return    false when the storage is not open or cannot be written, or when the name cannot be a key
    virtual bool save(cv::FileStorage* fs);

    /// Reads what save() writes: K, R and T when all are there, else P, else only the size. An empty name is
    /// taken from the first key of the storage. Every entry is checked (shape, finite, focal lengths not 0,
    /// not singular) before the camera changes.
    ///
    /// @param fs  open for reading, stays open; null: the file `name`_param.yaml
    /// @return    false, and the camera as it was, when the storage is not open or holds an unusable entry;
    ///            an open storage without keys of this camera is a success that changes nothing
    virtual bool load(cv::FileStorage* fs);

    /// Pose of an object from at least four of its points, seen without distortion; RANSAC with 100 rounds,
    /// 8 px, confidence 0.99.
    ///
    /// @param rvec, tvec     out: Rodrigues vector and translation object -> camera, 3x1; only on success
    /// @param image_points   pixels
    /// @param object_points  the same points in the object's frame
    /// @return               false for fewer than 4 points, lists of two lengths, a coordinate that is not
    ///                       finite or FLT_MAX (a marker not seen), and points that give no pose
    virtual bool solvePnPRansac(
        cv::Mat& rvec, cv::Mat& tvec, std::vector<cv::Point2f>& image_points, std::vector<cv::Point3f>& object_points);

    /// As solvePnPRansac(), from all points by least squares.
    virtual bool solvePnP(
        cv::Mat& rvec, cv::Mat& tvec, std::vector<cv::Point2f>& image_points, std::vector<cv::Point3f>& object_points);

    /// RT, RT_inv, P and P_inv from K, R and T.
    void compose();

    /// K, R and T from P, by RQ decomposition: K is upper triangular with positive focal lengths and carries
    /// the scale of P in K(2, 2), which is negative when P has a negative determinant.
    void decompose();

    /// RT and RT_inv from R and T, in place: views from get_center() follow.
    void setRT();

    /// Takes a 3x4 projection matrix and derives everything else. Throws cv::Exception for another shape.
    void setPPM(const cv::Mat_<double>& m);

    /// K with K(2, 2) = 1, for routines that read single entries.
    cv::Mat_<double> normalised_K() const;

    /// Pixel of a world point; see project3d_2d().
    cv::Point2d project_forw(const cv::Point3d& X) const;

    /// Direction, in world axes, of the ray through a pixel: R^T K^-1 (x, y, 1)^T, not normalised.
    cv::Point3d project_back(const cv::Point2d& p) const;

    /// project_back() with unit length; zero when that is zero.
    cv::Vec3d get_sight_vector(const cv::Point2d& p) const;

    /// Optical centre in the world, 3x1: a live view into RT_inv, not a copy. Clone it to keep it.
    cv::Mat get_center() const;

    /// Name of the first camera in a storage: its first key up to the first '_'. Empty when the key has none
    /// or the storage holds no map.
    std::string get_camera_name(const cv::FileStorage* fs) const;

    /// Writes the 3x4 projection as twelve doubles, row-major, in the machine's byte order, without header.
    bool save_hmat(std::ostream& os) const;

    /// Reads what save_hmat() writes and hands it to setPPM(). False, and the camera as it was, for a short
    /// stream, a number that is not finite, or a singular matrix.
    bool load_hmat(std::istream& is);

protected:
    void _swap(PinHoleCamera& other) noexcept;
    bool _write(cv::FileStorage& fs);
    bool _read(const cv::FileStorage& fs);
};

} // namespace vexo
