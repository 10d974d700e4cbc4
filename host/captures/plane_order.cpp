#include "host/captures/plane_order.h"

#include "host/captures/agreement.h"

#include <algorithm>
#include <map>
#include <utility>

namespace vexo {

namespace {

/// In order, nine tenths of the fringes that touch have codes that follow one another; at the changes of a plane that
/// stands in a wrong place, none has.
constexpr double mostly_kept = 0.8, mostly_broken = 0.4;

/// A plane with fewer changes, of all links, is not judged: those may lie on the edges of things.
constexpr double least_changes = 0.005;

/// Gray codes of two fringes that touch, and how many pairs have them.
using Links = std::map<std::pair<int, int>, double>;

Links links_of(const std::vector<cv::Mat>& frames)
{
    Links links;
    for (const CodeLink& link : code_links(frames))
        links[{ link.left ^ (link.left >> 1), link.right ^ (link.right >> 1) }] += 1;
    return links;
}

bool has_plane(int gray, std::size_t plane)
{
    return ((gray >> (code_planes - 1 - plane)) & 1) != 0;
}

/// Number of a fringe by its gray code in another order of the planes; those of `turned` say 1 for 0.
int number_of(int gray, const PlaneOrder& order, int turned = 0)
{
    int code = 0;
    bool bit = false;
    for (const std::size_t plane : order) {
        bit = bit != has_plane(gray ^ turned, plane);
        code = 2 * code + (bit ? 1 : 0);
    }
    return code;
}

/// How many links there are, and how many have codes that follow one another; of all, and where each plane changes.
struct Kept {
    double all = 0, kept = 0;
    std::array<double, code_planes> changes {}, kept_changes {};

    bool is_broken(std::size_t plane) const
    {
        return changes[plane] > least_changes * all && kept_changes[plane] < mostly_broken * changes[plane];
    }
    bool any_broken() const
    {
        for (std::size_t plane = 0; plane < code_planes; ++plane)
            if (is_broken(plane)) return true;
        return false;
    }
};

Kept judge(const Links& links, const PlaneOrder& order, int turned = 0)
{
    Kept found;
    for (const auto& [pair, count] : links) {
        const double kept
            = number_of(pair.second, order, turned) == number_of(pair.first, order, turned) + 1 ? count : 0;
        found.all += count;
        found.kept += kept;
        for (std::size_t plane = 0; plane < code_planes; ++plane) {
            if (has_plane(pair.first, plane) == has_plane(pair.second, plane)) continue;
            found.changes[plane] += count;
            found.kept_changes[plane] += kept;
        }
    }
    return found;
}

std::size_t moved(const PlaneOrder& order)
{
    std::size_t count = 0;
    for (std::size_t k = 0; k < code_planes; ++k)
        count += order[k] != k ? 1 : 0;
    return count;
}

/// The best of all orders. Where several keep as many links and move as few planes, the one with the smallest numbers:
/// planes without use are the coarsest, and dark.
PlaneOrder best_order(const Links& links)
{
    PlaneOrder best = planes_as_given, order = planes_as_given;
    std::array<double, 3> most { 0, 0, 0 };
    while (std::next_permutation(order.begin(), order.end())) {
        double kept = 0, numbers = 0;
        for (const auto& [pair, count] : links) {
            const int left = number_of(pair.first, order);
            kept += number_of(pair.second, order) == left + 1 ? count : 0;
            numbers += count * left;
        }
        const std::array<double, 3> found { kept, -static_cast<double>(moved(order)), -numbers };
        if (found <= most) continue;
        most = found;
        best = order;
    }
    return best;
}

} // namespace

PlaneOrder find_plane_order(const std::vector<const std::vector<cv::Mat>*>& cameras)
{
    constexpr double enough = 50;
    Links links;
    for (const std::vector<cv::Mat>* frames : cameras)
        for (const auto& [pair, count] : links_of(*frames))
            links[pair] += count;
    const Kept given = judge(links, planes_as_given);
    if (given.all < enough || !given.any_broken()) return planes_as_given;
    const PlaneOrder best = best_order(links);
    const Kept found = judge(links, best);
    if (found.kept < mostly_kept * found.all || found.any_broken()) return planes_as_given;
    for (std::size_t plane = 0; plane < code_planes; ++plane) // one that is blank, and has no use as it is
        if (judge(links, planes_as_given, 1 << (code_planes - 1 - plane)).kept >= found.kept) return planes_as_given;
    return best;
}

} // namespace vexo
