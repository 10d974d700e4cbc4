#pragma once

#include "host/clouds/align_views.h"
#include "host/results/result_view.h"
#include "host/verdict/finding.h"

#include <string>
#include <vector>

namespace vexo {

/// Results laid onto one another.
struct ViewFit {
    AlignedViews aligned;
    std::vector<ViewPair> pairs; ///< as they then fit
    std::string fault;           ///< why they are not views of one surface at these poses, names them; empty: they are
    std::vector<Finding> findings;
};

/// Lays views onto one another from where poses put them, and judges how they fit.
/// @param folders  names of the results, as they are spoken of
/// @param common_from_view  of the points, mm
ViewFit fit_views(const std::vector<ResultView>& results, const std::vector<View>& views,
    const std::vector<cv::Affine3d>& common_from_view);

/// How much of the views comes to lie on others where poses put them, to choose between poses: larger is better.
double closeness(const std::vector<View>& views, const std::vector<cv::Affine3d>& common_from_view);

} // namespace vexo
