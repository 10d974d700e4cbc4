#pragma once

#include "camera/camera_distort.h"
#include "camera/camera_pinhole.h"
#include "camera/remap_kernels.h"

#include <opencv2/core.hpp>

#include <iosfwd>
#include <string>

namespace vexo {

/// Ideal camera behind a pair of remapping tables, which turn the image of a real camera into its own: without
/// distortion, and inside a stereo pair rectified. Size and K are those of the rectified image.
class UndistortCamera : public PinHoleCamera {
public:
    /// Not 0: tables of single floats. With 0 initMap() asks OpenCV for a table type that it refuses, and its
    /// cv::Exception reaches the caller.
    int float_maps = 1;
    int interpolation = 1; ///< how remap() does it: 0 nearest, 1 linear, 2 cubic, 3 Lanczos 4; anything else linear
    cv::Mat map1;          ///< raw column of each rectified pixel, px
    cv::Mat map2;          ///< raw row of each rectified pixel, px
    cv::Rect roi;          ///< rectified pixels that all have a source
    cv::Scalar fill;       ///< colour of rectified pixels without a source
    std::string map_file;  ///< file of the tables that save() writes and load() reads; empty: none

    UndistortCamera(cv::Size size, std::string name);
    UndistortCamera(const UndistortCamera& other);
    UndistortCamera(UndistortCamera&& other) noexcept = default;
    UndistortCamera& operator=(const UndistortCamera& other);
    UndistortCamera& operator=(UndistortCamera&& other) noexcept = default;
    ~UndistortCamera() override = default;

    /// Computes the tables.
    ///
    /// @param src  the real camera
    /// @param R    3x3 rotation raw camera axes -> axes of this camera
    void initMap(const DistortCamera& src, const cv::Mat_<double>& R);

    /// Makes this camera's image from a raw one.
    ///
    /// @param src  raw image, 1 to 4 channels of 8 or 16 bits or floats
    /// @param dst  out: image of the tables' size; its memory is kept when size and type already fit
    /// @return     false without tables, for an empty source and for a type that OpenCV cannot remap
    /// Safe from several threads at once.
    bool remap(const cv::Mat& src, cv::Mat& dst) const { return remap(src, dst, fill); }

    /// As above with another fill colour: the camera itself is shared and never changed.
    bool remap(const cv::Mat& src, cv::Mat& dst, const cv::Scalar& colour) const;

    /// Whether remap_row() may stand in for remap(): linear interpolation, float tables, sizes that cv::remap accepts.
    bool has_row_form(cv::Size raw) const noexcept;

    /// One row of remap(), for callers that go on with the row while it is in the cache; see vexo::remap_row().
    ///
    /// @param row     of the rectified image
    /// @param raw     size of the raw images, for which has_row_form() holds
    /// @param images  what is remapped in one pass
    void remap_row(int row, cv::Size raw, const RemapImages& images) const noexcept;

    /// As PinHoleCamera::save(), with the key `name`_roi, after the tables have gone to map_file if that is
    /// named. False, too, when that file cannot be written; then no YAML is written either. A camera without tables
    /// leaves an empty file there, so that load() finds no tables of another camera beside the new YAML.
    bool save(cv::FileStorage* fs) override;

    /// As PinHoleCamera::load(), with `name`_roi and the tables of map_file.
    ///
    /// @return  without a table file, or when it cannot be opened: true, with a line on the standard error
    ///          stream, and the tables kept; when it opens but does not hold two tables of this camera's
    ///          size: false, and the camera as it was
    bool load(cv::FileStorage* fs) override;

private:
    bool _remap_rows(const cv::Mat& src, cv::Mat& dst, const cv::Scalar& colour) const;
};

/// @name Binary tables
/// Integers are 32-bit in the machine's byte order; data begins at multiples of 8 bytes of the stream.
///
///     table file     type, columns, rows, padding, pixels row after row, padding;  one record a table
///     bare stream    rows x columns, padding, rows of columns x 4 bytes, padding;  one record a table
/// @{

/// Writes zeros up to the next multiple of 8, or skips them.
void alignment_padding_offset(std::ostream& os);
void alignment_padding_offset(std::istream& is);

/// One record of a table file. False, and nothing written, for an empty table.
bool save_map(std::ostream& os, const cv::Mat& m);

/// Reads what save_map() writes, of any element type. False, and `m` untouched, unless the record names a type and a
/// size within limits, and the stream holds all of it.
bool load_map(std::istream& is, cv::Mat& m);

/// One record of a bare stream; the table has 4 bytes a pixel.
bool _save_rtable(std::ostream& os, const cv::Mat& m);

/// Reads what _save_rtable() writes into a table of the right size. False, and `m` untouched, for another
/// count (then nothing after the count is read) or a short stream.
bool _load_rtable(std::istream& is, cv::Mat& m);

/// Both tables of a camera as two records, converted to floats when they are something else.
bool SaveRectifyTables(const UndistortCamera* cam, std::ostream& os);

/// Reads both tables; they keep the sizes that they already have. False, and both untouched, on any failure.
bool LoadRectifyTables(UndistortCamera* cam, std::istream& is);
/// @}

} // namespace vexo
