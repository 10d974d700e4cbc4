#include "host/reports/cause_words.h"

#include <cstddef>

namespace vexo {

std::vector<Label> cause_legend()
{
    const cv::Vec3b colours[cause_count] = {
        // BGR
        { 96, 174, 39 },
        { 224, 224, 224 },
        { 60, 60, 60 },
        { 155, 89, 142 },
        { 18, 156, 243 },
        { 219, 152, 52 },
        { 60, 76, 231 },
        { 15, 196, 241 },
        { 186, 174, 149 },
        { 60, 76, 231 },
        { 212, 188, 0 },
        { 147, 53, 40 },
        { 72, 85, 121 },
        { 203, 192, 255 },
        { 0, 128, 128 },
        { 60, 60, 60 },
    };
    std::vector<Label> legend;
    for (std::size_t i = 0; i < cause_count; ++i)
        legend.push_back({ colours[i], words_of(static_cast<Cause>(i)) });
    return legend;
}

} // namespace vexo
