#pragma once

#include "base/angles.h"
#include "decode/AngleTable.h"

#include <array>
#include <cmath>
#include <cstdint>

/// The per-pixel arithmetic of the decoders: pure functions on one image row each. Rows are pointers to the
/// first pixel; nothing allocates, throws or looks at another row.
namespace vexo {

/// Columns of a row to work on, ascending.
struct Columns {
    const int* first;
    const int* last;
    const int* begin() const noexcept { return first; }
    const int* end() const noexcept { return last; }
};

/// Columns from a `valid` list of a row.
template <class List> Columns columns_of(const List& valid) noexcept
{
    return { valid.data(), valid.data() + valid.size() };
}

/// Grey-level limits of usable pixels, all inclusive.
struct ValidLimits {
    int min_contrast; ///< smallest white - black
    int max_white;
    int min_white;
};

/// Usable columns of one row.
///
///     min_white <= white <= max_white    and    white - black >= min_contrast
///
/// @param valid  out, room for `cols` entries
/// @return       number of columns written
inline int valid_row(
    const uint8_t* white, const uint8_t* black, int cols, const ValidLimits& limits, int* valid) noexcept
{
    int n = 0;
    for (int x = 0; x < cols; ++x) {
        const int w = white[x];
        const int b = black[x];
        valid[n] = x;
        n += (limits.min_white <= w && w <= limits.max_white && w - b >= limits.min_contrast) ? 1 : 0;
    }
    return n;
}

/// Sets the mask to 255 at the columns given that lie inside the row.
inline void mask_row(const Columns& valid, int cols, uint8_t* mask) noexcept
{
    for (const int x : valid)
        if (x >= 0 && x < cols) mask[x] = 255;
}

/// The columns where a mask is exactly 255. @return number of columns written to `valid`
inline int unmask_row(const uint8_t* mask, int cols, int* valid) noexcept
{
    int n = 0;
    for (int x = 0; x < cols; ++x) {
        valid[n] = x;
        n += mask[x] == 255 ? 1 : 0;
    }
    return n;
}

/// Grey level between dark and lit of each pixel, (white + black) / 2; exact.
inline void threshold_row(const uint8_t* white, const uint8_t* black, int cols, float* threshold) noexcept
{
    for (int x = 0; x < cols; ++x)
        threshold[x] = static_cast<float>(white[x] + black[x]) * 0.5F;
}

/// Binary value of a reflected gray code, b = g ^ g>>1 ^ g>>2 ^ ... Source: Gray, US patent 2632058 (1953).
constexpr std::array<uint8_t, 256> make_gray_to_binary()
{
    std::array<uint8_t, 256> table {};
    for (unsigned g = 0; g < 256; ++g) {
        unsigned b = 0;
        for (unsigned rest = g; rest != 0; rest >>= 1)
            b ^= rest;
        table[g] = static_cast<uint8_t>(b);
    }
    return table;
}
constexpr std::array<uint8_t, 256> gray_to_binary = make_gray_to_binary();

/// Period number of each column from seven bit planes.
///
/// @param planes     row pointers, most significant plane first; brighter than `threshold` is a set bit
/// @param threshold  grey level for each column
/// @param cols       columns to decode; others of `gray` are left alone
/// @param gray       out, 0 to 127
inline void code_row(
    const std::array<const uint8_t*, 7>& planes, const float* threshold, const Columns& cols, uint8_t* gray) noexcept
{
    for (const int x : cols) {
        unsigned code = 0;
        for (const uint8_t* plane : planes)
            code = code << 1 | (static_cast<float>(plane[x]) > threshold[x] ? 1U : 0U);
        gray[x] = gray_to_binary[code];
    }
}

/// (pi - a) / (2 pi), of an angle in rad.
__attribute__((always_inline)) inline float phase_of_angle(float a) noexcept
{
    constexpr double half_turn = pi_float;          // a float, as `a` is: a = pi gives exactly 0
    constexpr double periods_per_rad = 0.15915494F; // the float nearest 1 / (2 pi)
    return static_cast<float>((half_turn - a) * periods_per_rad);
}

/// Wrapped phase from four fringe frames a quarter period apart.
///
///     a = atan2(P1 - P3, P2 - P0)         phase = (pi - a) / (2 pi)
///
/// @param steps  row pointers of P0..P3
/// @param cols   columns to decode; others of `phase` are left alone
/// @param phase  out, fraction of a fringe period, 0 to 1; 0.5 without modulation
/// Background and contrast cancel, gamma does not. Source: Srinivasan, Liu, Halioua, Appl. Opt. 23 (1984) 3105.
inline void phase_row(const std::array<const uint8_t*, 4>& steps, const Columns& cols, float* phase) noexcept
{
    const AngleTable& atan2 = AngleTable::instance();
    for (const int x : cols)
        phase[x] = phase_of_angle(atan2(steps[1][x] - steps[3][x], steps[2][x] - steps[0][x]));
}

/// What the multi-period kernels add to the angle: pi less half a projector pixel, so that the decoded
/// coordinate of column i's centre is i.
///
///     o = pi - pi / T
///
/// @param period  T, projector px; one below 1 is no period and gets no half pixel
inline float phase_offset(int period) noexcept
{
    return static_cast<float>(period < 1 ? pi : pi - pi / period);
}

/// Wrapped phase of one of several periods from four shifts.
///
///     a = atan2(I3 - I1, I0 - I2)         phase = (a + o) / (2 pi)
///
/// @param steps   row pointers of I0..I3
/// @param offset  o, rad, of the period
/// @param phase   out, fraction of the period T, -1 / (2T) to 1 - 1 / (2T)
/// Source as phase_row().
inline void phase4_row(
    const std::array<const uint8_t*, 4>& steps, float offset, const Columns& cols, float* phase) noexcept
{
    const AngleTable& atan2 = AngleTable::instance();
    for (const int x : cols)
        phase[x] = (atan2(steps[3][x] - steps[1][x], steps[0][x] - steps[2][x]) + offset) / two_pi_float;
}

/// Wrapped phase of one of several periods from three shifts.
///
///     a = atan2(sqrt(3) I0 - I2, 2 I1 - I0 - I2)         phase = (a + o) / (2 pi)
///
/// sqrt(3) weights I0 alone. Existing captures count on that; for an ordinary three-step pattern, whose sine
/// is sqrt(3) (I0 - I2), the phase is off by up to 0.8 rad: use four steps.
inline void phase3_row(
    const std::array<const uint8_t*, 3>& steps, float offset, const Columns& cols, float* phase) noexcept
{
    constexpr float sqrt3 = 1.7320508F;
    for (const int x : cols) {
        const float sine = sqrt3 * static_cast<float>(steps[0][x]) - static_cast<float>(steps[2][x]);
        const auto cosine = static_cast<float>(2 * steps[1][x] - steps[0][x] - steps[2][x]); // exact
        const double a = std::atan2(static_cast<double>(sine), static_cast<double>(cosine));
        phase[x] = (static_cast<float>(a) + offset) / two_pi_float;
    }
}

/// Whether a loaded phase can be one: a number, and at most a period outside 0 to 1. Decoded ones always are. A NaN
/// raises no floating-point exception, as it would with ">".
inline bool plausible_phase(float phase) noexcept
{
    return std::isgreater(phase, -1.0F) && std::isless(phase, 2.0F);
}

} // namespace vexo
