#pragma once

#include <opencv2/core.hpp>

#include <new>

namespace vexo {

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
