#pragma once

#include "host/files/json_file.h"
#include "host/results/merge.h"

namespace vexo {

/// The report of a merged result. Lengths in mm.
Json merge_report(const MergeRequest& request, const Merged& merged);

} // namespace vexo
