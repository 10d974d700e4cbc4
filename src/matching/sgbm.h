#pragma once

#include "matching/PointCloudGenerator.h"
#include "vexo/records.h"

#include <cstdint>

namespace vexo {

/// Point clouds from one image per camera by semi-global block matching (selector 0). Works on the default
/// record without setparams().
/// Source: Hirschmueller, IEEE TPAMI 30 (2008) 328, as implemented in cv::StereoSGBM.
class SGBMatching final : public PointCloudGenerator {
public:
    SGBMatching();

    void destroy() override { delete this; }
    void init(iStereoCamera* camera) override;
    /// @param p  SGBMatchingParam
    bool setparams(void* p) override;
    /// Rectifies at once; `frame` is not used.
    bool setpict(void* data, unsigned long step, int cam, int frame) override;
    bool loadpict(std::string file, int cam, int frame) override;
    /// The rectified image(s); `index` is not used.
    bool getpict(unsigned char** data, int* width, int* height, unsigned long* step, int cam, int index) override;
    /// False, too, while a record that cv::StereoSGBM cannot work with is in force; see _record_is_usable().
    /// Throws what cv::StereoSGBM throws beyond that.
    bool exec() override;
    void genPC(Method3D method, bool interpolate) override;

    /// Rectifies a raw image of camera `cam`, 0 or 1, into its target. False when the camera has no tables.
    bool set_target(const cv::Mat& image, int cam);

private:
    bool _record_is_usable() const noexcept;
    /// Columns of camera 0 whose whole range of disparities lies inside camera 1; 0 or less: none.
    int64_t _matched_columns() const noexcept;
    /// Throws when there is no memory for what cv::StereoSGBM needs.
    void _ask_for_buffers() const;
    /// Disparities of the targets.
    bool _match();

    SGBMatchingParam record; ///< in force, even when setparams() refused it
    cv::Mat targets[2];      ///< rectified 8-bit images, one per camera; empty: not given
    cv::Mat fixed_point;     ///< disparities in 1/16 px; kept for its memory
};

} // namespace vexo
