#include "host/calibration/stray_markers.h"

#include "base/statistics.h"

#include <algorithm>
#include <cfloat>

namespace vexo {

namespace {

struct Link {
    std::size_t a, b;
    double px;
};

/// Between markers that were seen, from each to the next column and the next row.
std::vector<Link> links_of(const std::vector<cv::Point2f>& markers, const BoardFile& board)
{
    const auto rows = static_cast<std::size_t>(board.layout.rows);
    std::vector<Link> links;
    const auto add = [&](std::size_t a, std::size_t b) {
        if (markers[a].x == FLT_MAX || markers[b].x == FLT_MAX) return;
        links.push_back({ a, b, cv::norm(markers[a] - markers[b]) });
    };
    for (std::size_t i = 0; i < markers.size(); ++i) {
        if ((i + 1) % rows != 0) add(i, i + 1);
        if (i + rows < markers.size()) add(i, i + rows);
    }
    return links;
}

} // namespace

void remove_strays(std::vector<cv::Point2f>& markers, const BoardFile& board)
{
    constexpr double farthest = 3.0; // medians; boards of up to 60 degrees keep within 2
    const std::vector<Link> links = links_of(markers, board);
    std::vector<double> lengths;
    lengths.reserve(links.size());
    for (const Link& link : links)
        lengths.push_back(link.px);
    if (lengths.empty()) return;
    const double limit = farthest * median(lengths);
    std::vector<std::size_t> group(markers.size());
    for (std::size_t i = 0; i < group.size(); ++i)
        group[i] = i;
    for (bool changed = true; changed;) { // each passes the smaller number on, until all of a group have the same
        changed = false;
        for (const Link& link : links) {
            const std::size_t least = std::min(group[link.a], group[link.b]);
            if (link.px > limit || group[link.a] == group[link.b]) continue;
            group[link.a] = group[link.b] = least;
            changed = true;
        }
    }
    std::vector<std::size_t> members(group.size(), 0);
    for (const std::size_t g : group)
        ++members[g];
    const auto largest = static_cast<std::size_t>(std::max_element(members.begin(), members.end()) - members.begin());
    for (std::size_t i = 0; i < markers.size(); ++i)
        if (group[i] != largest) markers[i] = { FLT_MAX, FLT_MAX };
}

} // namespace vexo
