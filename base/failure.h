#pragma once

#include <stdexcept>

namespace vexo {

/// What a caller asked for or has is not usable. The text is one line: which file, what is wrong, what to do.
/// Findings about data that can be used are no failures: they are returned.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace vexo
