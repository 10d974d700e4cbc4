#pragma once

#include "host/accuracy/errors.h"
#include "host/files/json_file.h"

namespace vexo {

/// Beyond so many sigma a point is no noise: a wrong match, which no model of the noise sees.
constexpr double noise_end = 6.0;

/// Whether the points' sigma is what they are off by: figures of z = error / sigma, which are 1 where it is. Of the
/// points on surface that both cameras see; the rms, over all and in each tenth of the points by their sigma, without
/// those beyond noise_end. Null where no point has a sigma.
Json check_sigma(const Errors& errors);

} // namespace vexo
