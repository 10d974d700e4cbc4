#pragma once

#include "vexo/records.h"

#include <opencv2/core.hpp>

#include <vector>

namespace vexo {

/// How PreProcParam::binarize_mode separates dark from light; any other number finds nothing.
enum BinarizeMode { kFixedThreshold = 0, kOtsu = 1, kAdaptiveMean = 2 };

/// Turns an 8-bit grey camera image into a binary one whose contours are those of the markers.
///
/// Order    inversion, 3x3 median, gamma, histogram equalisation, threshold; each but the last is optional.
///          Inversion comes first, so that every later step sees light on dark or dark on light as the host
///          declared it.
/// Threads  preprocess() only reads the object.
class PreProcessor {
public:
    virtual ~PreProcessor() = default;

    /// Copies the record. The gamma table is built when gamma is not exactly 1, and stays, unused, when
    /// gamma returns to 1.
    void init_preproc(PreProcParam& param);

    /// Gamma table of n entries.
    ///
    ///     table[i] = trunc((i / (n - 1))^gamma (n - 1) + 1/2)
    ///
    /// Values outside of int, as negative exponents make at i = 0, are clamped.
    void gamma_init(int n);

    /// Looks every pixel up in the table and keeps the low 8 bits; nothing while the table is empty.
    /// @param src, dst  8-bit grey of one size; may be the same image
    void gamma_correction(cv::Mat& src, cv::Mat& dst);

    /// Binary image, 0 and 255, of an 8-bit grey one; empty for an unknown mode and for adaptive blocks above
    /// 2901 px, over which OpenCV cannot sum.
    /// Throws cv::Exception for an adaptive block size that is even or below 3.
    cv::Mat binarize(cv::Mat& img);

    /// All steps. `src` stays as it is.
    cv::Mat preprocess(cv::Mat& src);

protected:
    std::vector<int> gamma_table; ///< grey level after gamma, by grey level; empty: never needed
    PreProcParam preproc_param;
};

} // namespace vexo
