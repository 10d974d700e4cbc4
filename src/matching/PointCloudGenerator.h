#pragma once

#include "base/large_pages.h"
#include "vexo/point_cloud.h"

#include <opencv2/core.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace vexo {

class StereoCamera;

/// What all matchers share: the stereo camera, the buffers, and the way from disparities to points.
///
/// A matcher fills `disparity` and `texture`, then calls generate_pointcloud(). Nothing here or in a matcher
/// changes the stereo camera, so generators on several threads may share one.
///
/// Frames   points lie in rectified camera-0 axes; see docs/conventions.md.
/// Threads  one generator is for one thread at a time.
class PointCloudGenerator : public iPointCloudGenerator {
public:
    /// See iPointCloudGenerator. A camera other than the present one drops texture, disparities and count;
    /// `points` grows or shrinks to the rectified size, and new entries are NaN.
    void init(iStereoCamera* camera) override;
    bool convert_coordinate(std::string file) override;
    bool convert_coordinate(std::vector<double>& rt) override;
    int get_pointcloud(PointCloudCallback* callback) override;

    /// Turns `disparity` into `points` and `valid_count`; see Method3D.
    void generate_pointcloud(Method3D method);

    PointCloudGenerator(const PointCloudGenerator&) = delete;
    PointCloudGenerator& operator=(const PointCloudGenerator&) = delete;

protected:
    PointCloudGenerator() = default;
    ~PointCloudGenerator() override = default;

    /// Linear least squares on the projection matrices, the map value taken as column in camera 1.
    void generate_pointcloud_P();
    /// Midpoint of the sight rays, the map value taken as column in camera 1. Rays farther apart than 1e-8
    /// give no point.
    void generate_pointcloud_V();
    /// Reprojection, `transform` included:
    ///
    ///     (X, Y, Z, W)^T = M Q (column, row, disparity, 1)^T     point = (X, Y, Z) / W; none where W is 0
    void generate_pointcloud_Q();
    /// The steps of the Q method, for a matcher that goes from disparities to points row by row: no points yet; M Q;
    /// one row. @return how many of its points are valid
    void _begin_cloud();
    cv::Matx44d _reprojection() const;
    int _reproject(const cv::Matx44d& H, int row, const double* disparities) noexcept;

    /// init(). @return whether the camera is another one than before, by address or sizes
    bool _bind(iStereoCamera* new_camera) noexcept;
    /// No texture, no disparities, no valid points.
    void _drop_cloud() noexcept;
    /// Whether a picture of `width` x `height` fills what `cam` accepts: the input size, twice the width for 2.
    bool _is_input_size(int cam, int width, int height) const noexcept;
    /// Row step in bytes of the caller's frame(s) for `cam`, with 0 replaced by packed rows; 0 when the frame
    /// is refused: no data, no such camera, no init(), or a step smaller than a row.
    unsigned long _checked_step(const void* data, unsigned long step, int cam, int pixel_bytes) const noexcept;
    /// getpict() for the frames given: `second` null for one, else both side by side, of equal size and type.
    /// Copies into `picture`. False, and nothing written, for empty or unequal frames.
    bool _hand_out(const cv::Mat& first, const cv::Mat* second, unsigned char** data, int* width, int* height,
        unsigned long* step);

    using Points = std::vector<cv::Point3f, LargePageAllocator<cv::Point3f>>;

    StereoCamera* camera = nullptr;             ///< not owned
    int input_width = 0;                        ///< raw images, px
    int input_height = 0;                       ///< raw images, px
    int output_width = 0;                       ///< rectified images, px
    int output_height = 0;                      ///< rectified images, px
    cv::Mat texture;                            ///< rectified image of camera 0
    Points points;                              ///< one per rectified pixel, row by row; NaN when invalid
    int valid_count = 0;                        ///< valid points of the last cloud
    cv::Mat disparity;                          ///< CV_64F, one per rectified pixel, px
    double invalid_disparity = 0.0;             ///< marks a pixel without disparity
    cv::Matx44d transform = cv::Matx44d::eye(); ///< M: rectified camera 0 -> the frame of the points
    cv::Mat picture;                            ///< what getpict() handed out last
    std::vector<int> _row_counts;               ///< valid points of each row
    bool executed = false;                      ///< exec() has succeeded since the last init() or setparams()

private:
    bool _set_transform(const cv::Mat& rt);

    std::uint64_t _camera_serial = 0; ///< a later camera may have the address of a destroyed one
};

} // namespace vexo
