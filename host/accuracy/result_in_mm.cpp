#include "host/accuracy/result_in_mm.h"

namespace vexo {

Result read_result_in_mm(const std::string& folder)
{
    Result r = read_result(folder);
    refuse_empty(r);
    const double factor = unit_of(r).in_mm;
    r.baseline *= factor;
    for (cv::Point3f& point : r.cloud)
        point *= factor;
    for (float& sigma : r.sigma)
        sigma *= static_cast<float>(factor);
    if (r.predicted_noise) *r.predicted_noise *= factor;
    return r;
}

} // namespace vexo
