#pragma once

#include <opencv2/core.hpp>

#include <new>

/// Where an exception becomes a return value.
namespace vexo {

/// Runs `make`; whatever it throws becomes null. Members allocate in constructors, too, so even a
/// non-throwing new may throw.
template <class Make> auto null_if_it_throws(Make make) noexcept -> decltype(make())
{
    try {
        return make();
    } catch (...) {
        return nullptr;
    }
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

} // namespace vexo
