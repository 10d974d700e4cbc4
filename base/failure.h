#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace vexo {

/// What a caller asked for or has is not usable. The text is one line: which file, what is wrong, what to do.
/// Findings about data that can be used are no failures: they are returned. A Failure that is neither of the two
/// below is about the input: trying again with the same files fails again.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What was asked for makes no sense, whatever the files are.
class UsageFailure : public Failure {
public:
    using Failure::Failure;
};

/// No space, no memory, a quota, an I/O error: the same call may succeed later.
class TemporaryFailure : public Failure {
public:
    using Failure::Failure;
};

/// Whether an error of the operating system may be gone the next time.
inline bool is_temporary(int error) noexcept
{
    switch (error) {
    case ENOSPC:
    case EDQUOT:
    case EIO:
    case ENOMEM:
    case EMFILE:
    case ENFILE:
    case EAGAIN:
    case EBUSY:
    case ESTALE:
        return true;
    default:
        return false;
    }
}

/// Throws the kind of failure that belongs to `error` (an errno); its words follow the text.
[[noreturn]] inline void fail_with(int error, const std::string& text)
{
    const std::string words = text + ": " + std::strerror(error);
    if (is_temporary(error)) throw TemporaryFailure(words);
    throw Failure(words);
}

} // namespace vexo
