#pragma once

#include <cmath>
#include <cstdint>

namespace vexo {
namespace sim {

/// Bit mixer of the SplitMix64 generator. Source: Steele, Lea, Flood, OOPSLA 2014.
inline std::uint64_t mix_bits(std::uint64_t z) noexcept
{
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
    return z ^ (z >> 31);
}

/// Key of one frame's noise. Each (seed, camera, frame) has its own.
inline std::uint64_t noise_key(std::uint64_t seed, int camera, int frame) noexcept
{
    const auto stream = static_cast<std::uint64_t>(camera) << 32 | static_cast<std::uint32_t>(frame);
    return mix_bits(mix_bits(seed + 0x9E3779B97F4A7C15U) ^ mix_bits(stream + 0xD1B54A32D192ED03U));
}

/// Standard normal number that belongs to a pixel: a pure function of key and pixel, so frames do not depend on
/// the order in which their pixels are made. Source: Box, Muller, Ann. Math. Stat. 29 (1958) 610.
inline double normal_of(std::uint64_t key, std::uint64_t pixel) noexcept
{
    const std::uint64_t bits = mix_bits(key + pixel * 0x9E3779B97F4A7C15U);
    constexpr double unit = 1.0 / 4294967296.0;
    constexpr double two_pi = 6.283185307179586;
    const double radius = (static_cast<double>(bits >> 32) + 0.5) * unit;
    const double angle = static_cast<double>(bits & 0xFFFFFFFFU) * unit;
    return std::sqrt(-2 * std::log(radius)) * std::cos(two_pi * angle);
}

} // namespace sim
} // namespace vexo
