#include "base/parallel.h"

#include "base/boundary.h"

#include <exception>
#include <vector>

namespace vexo {

void in_parallel(std::size_t count, const std::function<void(std::size_t)>& work)
{
    std::vector<std::exception_ptr> faults(count);
#pragma omp parallel for schedule(dynamic) // each writes its own entry of `faults`
    for (std::size_t i = 0; i < count; ++i)
        faults[i] = exception_of([&] { work(i); });
    for (const std::exception_ptr& fault : faults)
        if (fault) std::rethrow_exception(fault);
}

} // namespace vexo
