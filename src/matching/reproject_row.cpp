#include "matching/reproject_row.h"

#include "base/cpu.h"
#include "matching/divisor.h"

namespace vexo {
namespace {

using Point = cv::Point3_<float>;

/// One row of H times (column, row, disparity, 1). Members of cv::Matx would stay calls: they are of no form.
VEXO_INLINE double component(const double* H, double c, double r, double d) noexcept
{
    return ((H[0] * c + H[1] * r) + H[2] * d) + H[3];
}

/// Without branches: what is no point is computed all the same.
VEXO_INLINE int reproject_body(
    const double* matrix, int row, const double* disparity, int cols, double invalid, Point* points) noexcept
{
    double H[16]; // a copy that no point can lie in: its entries stay in registers
    for (int i = 0; i < 16; ++i)
        H[i] = matrix[i];
    const float nan = nan_point().x;
    const double r = row;
    auto* out = reinterpret_cast<float*>(points);
    int count = 0;
#pragma omp simd reduction(+ : count)
    for (int c = 0; c < cols; ++c) {
        const double d = disparity[c];
        const double w = component(H + 12, c, r, d);
        const bool valid = (d != invalid) & (w != 0.0);
        const double s = 1.0 / divisor_of(w);
        const auto x = static_cast<float>(component(H, c, r, d) * s);
        const auto y = static_cast<float>(component(H + 4, c, r, d) * s);
        const auto z = static_cast<float>(component(H + 8, c, r, d) * s);
        out[3 * c] = valid ? x : nan;
        out[3 * c + 1] = valid ? y : nan;
        out[3 * c + 2] = valid ? z : nan;
        count += valid ? 1 : 0;
    }
    return count;
}

// NOLINTBEGIN(bugprone-macro-parentheses)
#define VEXO_REPROJECTION(SET, TARGET)                                                                                 \
    namespace SET {                                                                                                    \
    TARGET int reproject(                                                                                              \
        const cv::Matx44d& H, int row, const double* disparity, int cols, double invalid, Point* points) noexcept      \
    {                                                                                                                  \
        return reproject_body(H.val, row, disparity, cols, invalid, points);                                           \
    }                                                                                                                  \
    }
VEXO_FORMS(VEXO_REPROJECTION)
// NOLINTEND(bugprone-macro-parentheses)

} // namespace

int reproject_row(const cv::Matx44d& H, int row, const double* disparity, int cols, double invalid,
    cv::Point3_<float>* points) noexcept
{
    return VEXO_FORM_OF(reproject)(H, row, disparity, cols, invalid, points);
}

} // namespace vexo
