#pragma once

#include "host/captures/fringes.h"
#include "host/files/json_file.h"
#include "patterns/method.h"
#include "vexo/records.h"

#include <utility>
#include <variant>

namespace vexo {

/// Parameters of one method; the index is CreatePointCloudGenerator's selector.
using MatchingRecord = std::variant<SGBMatchingParam, GrayPhaseMatchingParam, MultiPhaseMatchingParam>;

inline Method method_of(const MatchingRecord& record)
{
    return static_cast<Method>(record.index());
}

/// The limits of a phase method; zeros otherwise.
LightLimits light_limits(const MatchingRecord& record);

/// Smallest and largest accepted disparity, px.
std::pair<double, double> disparity_limits(const MatchingRecord& record);

void set_disparity_limits(MatchingRecord& record, double low, double high);

/// Decoded maps instead of camera frames.
bool is_decoded(const MatchingRecord& record);

/// The fields of the record, by their names.
Json to_json(const MatchingRecord& record);

} // namespace vexo
