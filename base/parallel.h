#pragma once

#include <cstddef>
#include <functional>

namespace vexo {

/// Calls `work` with 0 to count - 1, on as many threads as there are to be. When some fail, the exception of the
/// first of them goes on to the caller.
void in_parallel(std::size_t count, const std::function<void(std::size_t)>& work);

} // namespace vexo
