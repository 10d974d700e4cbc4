#pragma once

#include "host/measurement/causes.h"
#include "host/reports/false_colour.h"

#include <vector>

namespace vexo {

/// One colour each, of all causes; the text is words_of().
std::vector<Label> cause_legend();

} // namespace vexo
