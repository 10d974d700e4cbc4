#pragma once

namespace vexo {

constexpr double pi = 3.14159265358979323846;
/// The floats nearest to pi and 2 pi.
constexpr float pi_float = static_cast<float>(pi), two_pi_float = static_cast<float>(2 * pi);

} // namespace vexo
