#pragma once

#include <cstddef>

namespace vexo {

/// A position that is known not to be negative, as containers count.
constexpr std::size_t at(int position) noexcept
{
    return static_cast<std::size_t>(position);
}

} // namespace vexo
