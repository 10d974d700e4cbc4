#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <vector>

/// One vocabulary of judgement, of captures, measurements and calibrations alike.
namespace vexo {

/// What a finding means for the result, from best to worst.
enum class Weight {
    good,    ///< asked and answered well
    note,    ///< worth knowing, costs nothing
    unknown, ///< could not be asked: never counts as good, and spoils nothing
    worse,   ///< the result is usable, but not as good as it could be
    spoils   ///< the result cannot be trusted
};

/// Something that is to be said of an input or a result.
struct Finding {
    std::string name; ///< what programs know it by: "over-exposed", "rows"
    Weight weight = Weight::note;
    std::string where;  ///< "camera 0", "view 7"; empty: the whole
    std::string text;   ///< with figures, for people
    std::string advice; ///< what to do about it; empty: nothing needs to be done
};

/// "good", "note", "unknown", "worse", "spoils".
const char* word_of(Weight weight);

/// The heaviest of the findings; Weight::good when there is none.
Weight heaviest(const std::vector<Finding>& findings);

/// "camera 0: text; advice".
std::string sentence(const Finding& finding);

nlohmann::ordered_json to_json(const Finding& finding);

} // namespace vexo
