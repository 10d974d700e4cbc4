#pragma once

#include "base/failure.h"

#include <functional>
#include <string>

namespace vexo {

/// Told before each step of a long call what comes next. Answering false ends the call.
using OnStep = std::function<bool(const std::string& what)>;

/// The caller's OnStep answered false.
class Stopped : public Failure {
public:
    using Failure::Failure;
};

/// Tells the caller what comes next. Throws Stopped.
inline void next_step(const OnStep& on_step, const std::string& what)
{
    if (on_step && !on_step(what)) throw Stopped("stopped before: " + what);
}

} // namespace vexo
