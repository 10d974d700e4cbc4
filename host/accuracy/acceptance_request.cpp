#include "host/accuracy/acceptance_request.h"

#include <cmath>
#include <cstddef>

namespace vexo {

const char* why_invalid(const AcceptanceRequest& r)
{
    const std::size_t lengths = r.body == AcceptanceRequest::Body::ball ? 1
        : r.body == AcceptanceRequest::Body::balls                      ? 3
                                                                        : 0;
    if (r.lengths.size() != lengths) return "a ball has one diameter; two balls have two, and a distance";
    for (const double length : r.lengths)
        if (!(length > 0.0) || !std::isfinite(length)) return "diameters and distance are lengths above 0, in mm";
    if ((r.body == AcceptanceRequest::Body::reference) == r.reference.empty()) return "a reference is a PLY file";
    if (r.limit_mm && !(*r.limit_mm > 0.0)) return "the limit is a length above 0, in mm";
    if (r.region.box)
        for (int k = 0; k < 3; ++k)
            if (!((*r.region.box)[k] < (*r.region.box)[k + 3])) return "a box is X0 Y0 Z0 X1 Y1 Z1, each 1 above its 0";
    if (r.region.pixels && r.region.pixels->empty()) return "a part of the picture is X Y W H, W and H above 0";
    return nullptr;
}

} // namespace vexo
