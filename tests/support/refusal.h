#pragma once

#include "base/failure.h"

#include <string>

/// What `steps` fail with; empty where they come to their end.
template <class Steps> std::string refusal(const Steps& steps)
{
    try {
        steps();
    } catch (const vexo::Failure& failure) {
        return failure.what();
    }
    return "";
}

/// Whether a message fits on a line of a terminal: short, and no byte that moves the cursor.
inline bool is_one_line(const std::string& message)
{
    constexpr std::size_t longest = 400;
    for (const char c : message)
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7F') return false;
    return !message.empty() && message.size() < longest;
}
