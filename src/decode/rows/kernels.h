#pragma once

#include <cstdint>

/// The arithmetic of pixel_formulas.h once more, in a form that processors like: whole rows of bytes and masks, no
/// lists of columns, no branches. Every kernel gives the bits of its readable twin; where that is not plain to
/// see, the reason stands at it.
///
/// Each is written once, in ordinary C++, and compiled three times: for every x86-64, for AVX2 and for AVX-512 (without
/// FMA, and contraction is off: no rounding differs). row_kernels() chooses at run time.
namespace vexo {

/// Limits of usable pixels, cut to bytes.
///
///     min_white <= w <= max_white    and    w -sat b >= rise    and    b -sat w <= fall
///
/// with saturating differences: for a contrast limit above 0 the first of them decides (and implies w >= b), for
/// one below the second.
struct ByteLimits {
    uint8_t min_white;
    uint8_t max_white;
    uint8_t rise;
    uint8_t fall;
};
/// @param min_contrast, max_white, min_white  as in ValidLimits: any values
ByteLimits byte_limits(int min_contrast, int max_white, int min_white) noexcept;

/// What resolve() needs of a FringePairTable.
struct PairSlots {
    const float* offsets; ///< for every slot, px; infinite where no position shows these differences
    int lower[2];
    int range[2];
    int longest;   ///< largest period, px
    float scale;   ///< 1 / 3
    float largest; ///< largest coordinate kept, px
};

/// Masks and flags are bytes, 255 for true. Rows have `cols` pixels; nothing outside them is touched.
struct RowKernels {
    /// Usable pixels, as valid_row().
    void (*valid)(const uint8_t* white, const uint8_t* black, int cols, const ByteLimits& limits, uint8_t* mask);
    /// Period numbers of all pixels, as code_row(). @param planes  seven rows, most significant first
    void (*code)(const uint8_t* const* planes, const uint8_t* white, const uint8_t* black, int cols, uint8_t* code);
    /// Wrapped phases of all pixels, as phase_row(). @param steps  four rows. @param angles  AngleTable's
    void (*phase)(const uint8_t* const* steps, const float* angles, int cols, float* phase);
    /// Where sections of rising phase go on, and where the period number changes:
    ///     rises[x] = mask[x] and mask[x - 1] and phase[x] >= phase[x - 1]      changes[x] = code[x] != code[x - 1]
    void (*rises)(
        const uint8_t* mask, const float* phase, const uint8_t* code, int cols, uint8_t* rises, uint8_t* changes);
    /// Coordinates of the pixels whose section is trusted:
    ///     kept[x] = mask[x] and trusted[x]      coordinate[x] = phase[x] + code[x], or 0
    void (*join)(const uint8_t* mask, const uint8_t* trusted, const uint8_t* code, const float* phase, int cols,
        float* coordinate, uint8_t* kept);
    /// Positions after the start of the fringe, px, of all pixels: the period times phase4_row()'s phase.
    void (*position)(const uint8_t* const* steps, const float* angles, float offset, int period, int cols, float* x);
    /// Coordinates of the pixels of `mask` from three positions each, as FringePairTable::unwrap(); 0 and not
    /// `kept` where there is none.
    void (*resolve)(const float* const* positions, const uint8_t* mask, const PairSlots& slots, int cols,
        float* coordinate, uint8_t* kept);
    /// falls[x] = v[x - 1] > v[x], x > 0.
    void (*falls)(const float* v, int cols, uint8_t* falls);
};

/// The kernels that Cpu asks for.
const RowKernels& row_kernels() noexcept;

} // namespace vexo
