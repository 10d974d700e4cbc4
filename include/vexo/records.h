#pragma once

#include "vexo/limits.h"

#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>

/// Parameter records that cross the library's boundary. Their layouts are a binary contract, held by the
/// assertions below; hosts pass them by pointer or reference and keep them.
///
/// why_invalid(record) is null exactly when the call that the record is for accepts it; else it says the first fault
/// found: which field, and its limit. The calls themselves ask it.
namespace vexo {

// --- stereo camera ---------------------------------------------------------------------------------

/// How CreateStereoCamera and CreateStereoCameraFromRaw rectify.
struct StereoCameraParam {
    int32_t inp_width = 0;  ///< width of the raw camera images, px
    int32_t inp_height = 0; ///< height of the raw camera images, px
    int32_t out_width = 0;  ///< width of the rectified images, px; 0 x 0 means the input size
    int32_t out_height = 0; ///< height of the rectified images, px
    double alpha = -1.0;    ///< 0: only valid pixels remain, 1: all pixels remain, -1: OpenCV's default scaling
    int32_t flags = 0;      ///< cv::stereoRectify flags; 1024 = CALIB_ZERO_DISPARITY
    uint8_t fill0 = 0;      ///< grey of rectified pixels of camera 0 without a source, 0..255
    uint8_t fill1 = 0;      ///< the same of camera 1
};

/// How iStereoCalibrator::create_stereo_camera rectifies. Fields as in StereoCameraParam.
struct RectifyParam {
    double alpha = -1.0;
    int32_t flags = 0;
    int32_t width = 0;  ///< width of the rectified images, px; 0 x 0 means the input size
    int32_t height = 0; ///< height of the rectified images, px
    int32_t fill0 = 0;  ///< grey of rectified pixels of camera 0 without a source
    int32_t fill1 = 0;  ///< the same of camera 1
};

/// Null when CreateStereoCameraFromRaw and CreateStereoCamera with selector 2 accept the record, for cameras that can
/// be rectified. With selector 1 nothing but the input size counts.
inline const char* why_invalid(const StereoCameraParam& p) noexcept
{
    if (!is_picture_size(p.inp_width, p.inp_height))
        return "inp_width and inp_height must be 1 to 32766 px, and at most 2^26 pixels in all";
    if ((p.out_width != 0 || p.out_height != 0) && !is_picture_size(p.out_width, p.out_height))
        return "out_width and out_height must be 1 to 32766 px, and at most 2^26 pixels in all, or both 0";
    if (!std::isfinite(p.alpha)) return "alpha must be a finite number";
    return nullptr;
}

/// Null when create_stereo_camera() accepts the record.
inline const char* why_invalid(const RectifyParam& p) noexcept
{
    if ((p.width != 0 || p.height != 0) && !is_picture_size(p.width, p.height))
        return "width and height must be 1 to 32766 px, and at most 2^26 pixels in all, or both 0";
    if (!std::isfinite(p.alpha)) return "alpha must be a finite number";
    return nullptr;
}

// --- point cloud generators ------------------------------------------------------------------------

/// Parameters of semi-global block matching (selector 0): the arguments of cv::StereoSGBM::create, in order.
struct SGBMatchingParam {
    int32_t minDisparity = 0;        ///< px; minDisparity - 1 marks "no match"
    int32_t numDisparities = 256;    ///< px, a positive multiple of 16
    int32_t blockSize = 5;           ///< px, odd
    int32_t P1 = -1;                 ///< smoothness penalty for steps of 1 px; negative: 8 blockSize^2
    int32_t P2 = -1;                 ///< smoothness penalty for larger steps; negative: 32 blockSize^2
    int32_t disp12MaxDiff = 0;       ///< px; largest left-right difference, negative: not checked
    int32_t preFilterCap = 0;        ///< grey levels; bound of the pre-filtered gradient
    int32_t uniquenessRatio = 20;    ///< %, 0..100
    int32_t speckleWindowSize = 100; ///< px; smaller regions are removed, 0: none
    int32_t speckleRange = 1;        ///< px; variation within one region
    int32_t mode = 0;                ///< cv::StereoSGBM mode, 0..3
};

/// Head that both phase matchers' records begin with.
struct PhaseMatchingParam {
    double max_phase_diff = 1.5707963267948966; ///< see the records below
    double max_disparity = 400.0;               ///< px, inclusive
    double min_disparity = -300.0;              ///< px, inclusive; min_disparity - 1 marks "no match"
    int32_t fit_points = 3;                     ///< samples of the sub-pixel line fit: 3 or 5
};

/// Parameters of gray code + phase (selector 1).
struct GrayPhaseMatchingParam {
    /// Largest accepted difference between a left phase and the phase at the nearest right column, in
    /// *fringe periods*. The default accepts neighbours 1.6 periods away, across depth edges, too; 0.15 is
    /// a good value for surfaces.
    double max_phase_diff = 1.5707963267948966;
    double max_disparity = 400.0;  ///< px, inclusive
    double min_disparity = -300.0; ///< px, inclusive; min_disparity - 1 marks "no match"
    int32_t fit_points = 3;        ///< samples of the sub-pixel line fit: 3 or 5 (less noise, rounder edges)
    int32_t datatype = 0;          ///< 0: camera frames are decoded, 1: decoded phase data is loaded
    int32_t min_contrast = 16;     ///< grey levels; smallest accepted lit - dark, inclusive
    int32_t max_white = 256;       ///< grey levels; largest accepted lit value, inclusive; 256 accepts all
    int32_t min_white = 15;        ///< grey levels; smallest accepted lit value, inclusive
    /// px >= 0; a run of rising phase can be trusted only when it is longer. Runs break where noise makes
    /// neighbouring phases fall: long fringes with noise want a small value, 1 to 4.
    int32_t anchor_length = 8;
    int32_t reject_length = 3; ///< px >= 0; runs up to this length are dropped
    int32_t code_spread = 3;   ///< >= 1; most different gray codes in a trusted run
};

/// Parameters of multi-period phase (selector 2). The host passes the 68 bytes up to the end of `periods`;
/// nothing after them is read.
struct MultiPhaseMatchingParam {
    double max_phase_diff = 1.5707963267948966; ///< as in the gray code record, but in *projector pixels*
    double max_disparity = 400.0;               ///< px, inclusive
    double min_disparity = -300.0;              ///< px, inclusive; min_disparity - 1 marks "no match"
    int32_t fit_points = 3;                     ///< samples of the sub-pixel line fit: 3 or 5
    int32_t datatype = 0;                       ///< 0: camera frames are decoded, 1: decoded phase data is loaded
    int32_t min_contrast = 16; ///< grey levels; smallest accepted lit - dark, inclusive; weak pixels lose
                               ///< their fringe number, 60 is a good value
    int32_t max_white = 256;   ///< grey levels; largest accepted lit value, inclusive; 256 accepts all
    int32_t min_white = 15;    ///< grey levels; smallest accepted lit value, inclusive
    /// Phase shifts per period: 3 or 4. Use 4: the three-step formula kept here weights I0 alone by sqrt(3)
    /// and is off by up to 0.8 rad on ordinary three-step patterns.
    int32_t steps = 4;
    /// 0..4 periods in use. Only 3 can be unwrapped; with any other number exec() answers false.
    int32_t nperiods = 3;
    /// Fringe periods in projector px, >= 2. Coordinates above 912 are dropped, whatever the periods, and
    /// an unresolved pixel has the least common multiple as its coordinate: choose periods whose common
    /// multiple is above 912, or unresolved pixels count as measured.
    int32_t periods[4] = { 9, 10, 11, 12 };
};

/// Bytes of MultiPhaseMatchingParam that a host hands over (the struct itself is padded to 72).
constexpr std::size_t multi_phase_param_bytes = 68;

/// Null when setparams() accepts the record.
inline const char* why_invalid(const SGBMatchingParam& p) noexcept
{
    if (p.numDisparities % 16 != 0) return "numDisparities must be a multiple of 16";
    if (p.blockSize % 2 != 1) return "blockSize must be odd and positive";
    if (p.uniquenessRatio < 0 || p.uniquenessRatio > 100) return "uniquenessRatio must be 0 to 100";
    if (p.mode < 0 || p.mode > 3) return "mode must be 0 to 3";
    return nullptr;
}

/// What setparams() of both phase matchers asks of the head of their records.
inline const char* why_invalid(const PhaseMatchingParam& p) noexcept
{
    if (p.fit_points != 3 && p.fit_points != 5) return "fit_points must be 3 or 5";
    if (p.min_disparity > p.max_disparity) return "min_disparity must not be above max_disparity";
    return nullptr;
}

/// Null when setparams() accepts the record.
inline const char* why_invalid(const GrayPhaseMatchingParam& p) noexcept
{
    const PhaseMatchingParam head { p.max_phase_diff, p.max_disparity, p.min_disparity, p.fit_points };
    if (const char* fault = why_invalid(head)) return fault;
    if (p.datatype < 0 || p.datatype > 1) return "datatype must be 0 or 1";
    if (p.anchor_length < 0) return "anchor_length must not be negative";
    if (p.reject_length < 0) return "reject_length must not be negative";
    if (p.code_spread < 1) return "code_spread must be at least 1";
    return nullptr;
}

/// Null when setparams() accepts the record.
inline const char* why_invalid(const MultiPhaseMatchingParam& p) noexcept
{
    const PhaseMatchingParam head { p.max_phase_diff, p.max_disparity, p.min_disparity, p.fit_points };
    if (const char* fault = why_invalid(head)) return fault;
    if (p.datatype < 0 || p.datatype > 1) return "datatype must be 0 or 1";
    if (p.steps != 3 && p.steps != 4) return "steps must be 3 or 4";
    if (p.nperiods < 0 || p.nperiods > 4) return "nperiods must be 0 to 4";
    return nullptr;
}

// --- board recognition -----------------------------------------------------------------------------

/// How a board image becomes a binary one: inversion, median, gamma, equalisation, threshold, in this order.
struct PreProcParam {
    bool invert = false;   ///< take the negative first: for bright markers on a dark board
    bool equalize = false; ///< equalise the histogram after the gamma step
    bool median = false;   ///< 3x3 median filter after the inversion
    /// 0: fixed threshold, 1: Otsu, 2: adaptive mean (strong light gradients); else nothing is found
    int32_t binarize_mode = 1;
    /// mode 0: grey level; mode 2: block size in px, odd and >= 3, better above three marker diameters
    int32_t threshold = 0;
    int32_t C = 0;      ///< mode 2: grey levels subtracted from the local mean
    double gamma = 1.0; ///< exponent of the gamma correction; exactly 1 switches it off
};

/// Which contours of the binary image are circle markers.
struct CircleMarkerParam {
    double min_fit_score = 0.9; ///< 0..1; smallest share of contour points within 1.5 px of the fitted ellipse
    int32_t min_markers = 9;    ///< fewer circles than this end the search; more than 4096 end it, too
    double max_radius = 1500.0; ///< px, largest semi-axis, inclusive
    /// px, smallest semi-axis, inclusive. The contour's point count is also held against 2 pi min_radius,
    /// and a digital circle has only 5.66 points per px of radius: 8 starts at about 9.3 px, 4 at 4.5 px.
    double min_radius = 8.0;
    int32_t image_width = 0;  ///< expected image size in px; 0 x 0: that of the first image
    int32_t image_height = 0; ///< see image_width
    /// 0: no windows. Else the zoom of a window that shows each stage and waits for a key; without a
    /// display a line on the standard error stream stands for it.
    double debug_scale = 0.0;
};

/// Most positions of a board, columns times rows.
constexpr int32_t max_board_positions = 1000000;

/// Geometry of the board; board frame: see docs/conventions.md.
struct CalibBoardParam {
    double pitch = 0.0;           ///< distance of neighbouring marker centres, > 0; its unit is that of all 3D results
    int32_t columns = 0;          ///< markers along board x, >= 1; columns x rows at most 1 000 000
    int32_t rows = 0;             ///< markers along board y, >= 1
    int32_t origin_x = 0;         ///< board x of the first column, in marker steps
    int32_t origin_y = 0;         ///< board y of the first row, in marker steps
    double neighbour_limit = 1.2; ///< farthest neighbour, in marker diameters (+ 0.1 slack)
};

/// Options of camera and stereo calibration.
struct CameraCalibParam {
    double reserved0 = 0.0;   ///< not read
    double reserved1 = 0.0;   ///< not read
    double focal_guess = 0.0; ///< px, used with flag 1 (CALIB_USE_INTRINSIC_GUESS); 0: no guess
    int32_t flags = 0;        ///< cv::calibrateCamera and cv::stereoCalibrate flags (CALIB_*)
};

/// Null when recognize() can work with the record, else what it throws cv::Exception for. set_parameters() accepts
/// every record. An unknown binarize_mode and a block above 2901 px are no faults: they find nothing.
inline const char* why_invalid(const PreProcParam& p) noexcept
{
    if (p.binarize_mode == 2 && (p.threshold < 3 || p.threshold % 2 == 0))
        return "threshold must be odd and at least 3 with binarize_mode 2";
    return nullptr;
}

/// Null: set_parameters() and recognize() accept every record. One that no circle meets finds none.
inline const char* why_invalid(const CircleMarkerParam& /*p*/) noexcept
{
    return nullptr;
}

/// Null when set_parameters() accepts the record.
inline const char* why_invalid(const CalibBoardParam& p) noexcept
{
    if (!(p.pitch >= FLT_MIN && p.pitch <= FLT_MAX)) // board points are floats
        return "pitch must be positive and finite, 1.2e-38 to 3.4e38";
    if (p.columns < 1) return "columns must be at least 1";
    if (p.rows < 1) return "rows must be at least 1";
    if (int64_t { p.columns } * p.rows > max_board_positions) return "columns x rows must be at most 1000000";
    return nullptr;
}

/// Null when iCameraCalibrator::do_calibrate() accepts the record. Whether the views suffice, and go together with what
/// an earlier calibration has left, it says itself.
inline const char* why_invalid(const CameraCalibParam& p) noexcept
{
    constexpr int32_t use_intrinsic_guess = 1;
    if ((p.flags & use_intrinsic_guess) != 0 && !(std::isfinite(p.focal_guess) && p.focal_guess >= 0.0))
        return "focal_guess must be 0 or positive and finite with flag 1 (CALIB_USE_INTRINSIC_GUESS)";
    return nullptr;
}

/// Null when iStereoCalibrator::do_calibrate() accepts the record.
inline const char* why_invalid_for_pair(const CameraCalibParam& p) noexcept
{
    constexpr int32_t use_extrinsic_guess = 1 << 22, thin_prism = 1 << 15, tilted = 1 << 18;
    constexpr int32_t intrinsics_given = 1 | 1 << 8; // CALIB_USE_INTRINSIC_GUESS, CALIB_FIX_INTRINSIC
    if (const char* fault = why_invalid(p)) return fault;
    if ((p.flags & use_extrinsic_guess) != 0)
        return "flags must not have 4194304 (CALIB_USE_EXTRINSIC_GUESS) for a pair";
    if ((p.flags & thin_prism) != 0 && (p.flags & (tilted | intrinsics_given)) == 0)
        return "flags must have 1, 256 or 262144 with 32768 (CALIB_THIN_PRISM_MODEL) for a pair";
    return nullptr;
}

// --- layouts ---------------------------------------------------------------------------------------

static_assert(sizeof(StereoCameraParam) == 32 && offsetof(StereoCameraParam, alpha) == 16
    && offsetof(StereoCameraParam, flags) == 24 && offsetof(StereoCameraParam, fill1) == 29);
static_assert(sizeof(RectifyParam) == 32 && offsetof(RectifyParam, flags) == 8 && offsetof(RectifyParam, width) == 12
    && offsetof(RectifyParam, fill1) == 24);
static_assert(sizeof(SGBMatchingParam) == 44 && offsetof(SGBMatchingParam, mode) == 40);
static_assert(sizeof(PhaseMatchingParam) == 32 && offsetof(PhaseMatchingParam, min_disparity) == 16
    && offsetof(PhaseMatchingParam, fit_points) == 24);
static_assert(sizeof(GrayPhaseMatchingParam) == 56 && offsetof(GrayPhaseMatchingParam, fit_points) == 24
    && offsetof(GrayPhaseMatchingParam, datatype) == 28 && offsetof(GrayPhaseMatchingParam, min_contrast) == 32
    && offsetof(GrayPhaseMatchingParam, anchor_length) == 44 && offsetof(GrayPhaseMatchingParam, code_spread) == 52);
static_assert(offsetof(MultiPhaseMatchingParam, fit_points) == 24 && offsetof(MultiPhaseMatchingParam, datatype) == 28
    && offsetof(MultiPhaseMatchingParam, steps) == 44 && offsetof(MultiPhaseMatchingParam, nperiods) == 48
    && offsetof(MultiPhaseMatchingParam, periods) == 52
    && offsetof(MultiPhaseMatchingParam, periods) + sizeof(MultiPhaseMatchingParam::periods)
        == multi_phase_param_bytes);
static_assert(sizeof(PreProcParam) == 24 && offsetof(PreProcParam, median) == 2
    && offsetof(PreProcParam, binarize_mode) == 4 && offsetof(PreProcParam, gamma) == 16);
static_assert(sizeof(CircleMarkerParam) == 48 && offsetof(CircleMarkerParam, min_markers) == 8
    && offsetof(CircleMarkerParam, max_radius) == 16 && offsetof(CircleMarkerParam, min_radius) == 24
    && offsetof(CircleMarkerParam, image_width) == 32 && offsetof(CircleMarkerParam, debug_scale) == 40);
static_assert(sizeof(CalibBoardParam) == 32 && offsetof(CalibBoardParam, columns) == 8
    && offsetof(CalibBoardParam, origin_y) == 20 && offsetof(CalibBoardParam, neighbour_limit) == 24);
static_assert(sizeof(CameraCalibParam) == 32 && offsetof(CameraCalibParam, focal_guess) == 16
    && offsetof(CameraCalibParam, flags) == 24);

} // namespace vexo
