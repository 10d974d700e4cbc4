#include "host/verdict/finding.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace vexo {

const char* word_of(Weight weight)
{
    const char* const words[] = { "good", "note", "unknown", "worse", "spoils" };
    return words[static_cast<std::size_t>(weight)];
}

Weight heaviest(const std::vector<Finding>& findings)
{
    Weight worst = Weight::good;
    for (const Finding& finding : findings)
        worst = std::max(worst, finding.weight);
    return worst;
}

std::string sentence(const Finding& finding)
{
    return (finding.where.empty() ? "" : finding.where + ": ") + finding.text
        + (finding.advice.empty() ? "" : "; " + finding.advice);
}

nlohmann::ordered_json to_json(const Finding& finding)
{
    return { { "name", finding.name }, { "weight", word_of(finding.weight) }, { "where", finding.where },
        { "text", finding.text }, { "advice", finding.advice } };
}

} // namespace vexo
