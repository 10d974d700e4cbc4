#include "host/reports/cause_words.h"

#include <cstddef>

namespace vexo {

namespace {

struct CauseWords {
    const char* words;
    cv::Vec3b colour; // BGR
};

const CauseWords& entry_of(Cause cause)
{
    static const CauseWords entries[cause_count] = {
        { "measured", { 96, 174, 39 } },
        { "outside the camera's picture", { 224, 224, 224 } },
        { "too dark or low contrast", { 60, 60, 60 } },
        { "fringes too weak or saturated", { 155, 89, 142 } },
        { "removed by unwrapping", { 18, 156, 243 } },
        { "out of the other camera's phase range", { 219, 152, 52 } },
        { "phase difference too large", { 60, 76, 231 } },
        { "disparity outside the limits", { 15, 196, 241 } },
        { "range leads out of the other picture", { 186, 174, 149 } },
        { "no match in the other picture", { 60, 76, 231 } },
        { "other disparities fit as well", { 18, 156, 243 } },
        { "patch too small", { 155, 89, 142 } },
    };
    return entries[static_cast<std::size_t>(cause)];
}

} // namespace

const char* words_of(Cause cause)
{
    return entry_of(cause).words;
}

std::vector<Label> cause_legend()
{
    std::vector<Label> legend;
    for (std::size_t i = 0; i < cause_count; ++i)
        legend.push_back({ entry_of(static_cast<Cause>(i)).colour, words_of(static_cast<Cause>(i)) });
    return legend;
}

} // namespace vexo
