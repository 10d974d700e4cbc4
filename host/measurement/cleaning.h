#pragma once

#include "host/clouds/clean.h"
#include "host/measurement/measured.h"
#include "host/measurement/parameters.h"

namespace vexo {

/// The tests that a measurement's points go through.
CleaningRules cleaning_rules(Method method, bool refined, Cleaning cleaning);

/// Sigma of the disparity, px, from that of the depth: sigma_d = f b / Z^2 sigma_Z. Empty when there is none.
cv::Mat sigma_of_disparity(const Measured& measured);

/// Takes points that fail these tests out of cloud, disparities and sigma; each gets its cause.
void clean(Measured& measured, const CleaningRules& rules);

/// Takes the points under a mask, CV_8U, out of cloud, disparities and sigma; they get this cause.
void remove_points(Measured& measured, const cv::Mat& mask, Cause cause);

} // namespace vexo
