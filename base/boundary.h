#pragma once

#include "base/failure.h"

#include <opencv2/core.hpp>

#include <exception>
#include <new>
#include <string>
#include <type_traits>

/// The one place where an exception becomes a return value. Each operation that a host calls says with one of these
/// what happens to exceptions; members allocate in constructors, too, so that even a non-throwing new may throw.
namespace vexo {

/// The value of `steps`; whatever they throw becomes `otherwise`.
template <class T, class Steps> T value_if_it_throws(T otherwise, Steps steps) noexcept
{
    try {
        return steps();
    } catch (...) {
        return otherwise;
    }
}

/// The same for operations that state an exception of OpenCV: where `stated` is true, that goes on to the caller.
template <class T, class Steps> T value_but_stated(T otherwise, bool stated, Steps steps)
{
    try {
        return steps();
    } catch (const cv::Exception&) {
        if (stated) throw;
        return otherwise;
    } catch (...) {
        return otherwise;
    }
}

/// What `make` makes; whatever it throws becomes nothing: an empty image, an empty text, null.
template <class Make> auto nothing_if_it_throws(Make make) noexcept -> decltype(make())
{
    return value_if_it_throws(decltype(make()) {}, make);
}

/// What `make` makes, a pointer; whatever it throws becomes null.
template <class Make> auto null_if_it_throws(Make make) noexcept -> decltype(make())
{
    static_assert(std::is_pointer_v<decltype(make())>);
    return nothing_if_it_throws(make);
}

/// Whether `steps` come to their end: the bool that they return, or true where they return nothing. Whatever they throw
/// becomes false.
template <class Steps> bool false_if_it_throws(Steps steps) noexcept
{
    return value_if_it_throws(false, [&steps]() -> bool {
        if constexpr (std::is_void_v<decltype(steps())>) {
            steps();
            return true;
        } else {
            return steps();
        }
    });
}

/// Runs `steps`, which return a bool. Lack of memory becomes false, whether the standard library or OpenCV reports
/// it; any other exception goes on to the caller, for operations that state one.
template <class Steps> bool false_without_memory(Steps steps)
{
    try {
        return steps();
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const cv::Exception& e) {
        if (e.code == cv::Error::StsNoMem) return false;
        throw;
    }
}

/// The value of `steps`; an exception of OpenCV becomes `otherwise`, for data of which OpenCV decides whether they make
/// sense. Any other goes on to the caller.
template <class T, class Steps> T value_if_opencv_throws(T otherwise, Steps steps)
{
    try {
        return steps();
    } catch (const cv::Exception&) {
        return otherwise;
    }
}

/// The value of `steps`; an exception of OpenCV becomes a Failure with the words of `why`.
template <class Steps> auto failure_if_opencv_throws(const std::string& why, Steps steps) -> decltype(steps())
{
    try {
        return steps();
    } catch (const cv::Exception&) {
        throw Failure(why);
    }
}

/// What `work` throws, null when it comes to its end: for loops and steps that no exception may leave at once.
template <class Work> std::exception_ptr exception_of(Work work) noexcept
{
    try {
        work();
        return nullptr;
    } catch (...) {
        return std::current_exception();
    }
}

} // namespace vexo
