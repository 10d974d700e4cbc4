#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

/// No window opens while this lives, whatever desktop the tests run on; what would have been shown is told to stderr.
class NoDisplay {
public:
    NoDisplay()
    {
        for (const char* name : { "DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM" })
            unsetenv(name);
        testing::internal::CaptureStderr();
    }
    ~NoDisplay() { said("", 0); }
    NoDisplay(const NoDisplay&) = delete;
    NoDisplay& operator=(const NoDisplay&) = delete;

    /// Ends it. @return whether a text was said so many times
    bool said(const std::string& text, int times)
    {
        if (_ended) return false;
        _ended = true;
        const std::string all = testing::internal::GetCapturedStderr();
        for (std::size_t at = all.find(text); !text.empty() && at != std::string::npos; at = all.find(text, at + 1))
            --times;
        return times == 0;
    }

private:
    bool _ended = false;
};
