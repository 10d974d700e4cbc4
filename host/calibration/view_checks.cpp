#include "host/calibration/view_checks.h"

#include "host/calibration/levels.h"

#include <cfloat>

namespace vexo {

namespace {

/// A dozen views leave fx uncertain by a third of what one view leaves; below five distortion is guessed.
constexpr std::size_t enough_views = 10, fewest_views = 5;

/// Distortion is only known where markers were; a quarter of the image without any is usually a corner.
constexpr double enough_coverage = 0.75, least_coverage = 0.5;

/// Focal length and distance of boards that are parallel to one another cannot be told apart, however oblique they are.
constexpr double enough_spread_deg = 25.0, least_spread_deg = 12.0;

Finding check_count(const Calibrated& c)
{
    const std::size_t n = c.used_count();
    const Weight level = n >= enough_views ? Weight::good : n >= fewest_views ? Weight::worse : Weight::spoils;
    return { "views", level, "", std::to_string(n) + " of " + std::to_string(c.views.count()) + " used",
        level == Weight::good ? "" : "take " + std::to_string(enough_views) + " or more" };
}

Finding check_coverage(const Calibrated& c)
{
    double least = 1;
    std::vector<double> percents;
    for (std::size_t k = 0; k < c.cameras.size(); ++k) {
        const double share = coverage(c.views.cameras[k], c.used, c.size);
        least = std::min(least, share);
        percents.push_back(100 * share);
    }
    const Weight l = level(-least, -enough_coverage, -least_coverage);
    return { "coverage", l, "", each(percents, 0, " % of the image has markers"),
        l == Weight::good ? "" : "move the board into the empty parts, the corners above all" };
}

Finding check_tilt(const Calibrated& c)
{
    const Spread spread = spread_deg(c.fits[0].normals); // camera 1 sees the same boards
    const Weight l = level(-spread.across, -enough_spread_deg, -least_spread_deg);
    return { "tilt", l, "",
        "the boards' directions differ by up to " + number(spread.along, 0) + " degrees, and by "
            + number(spread.across, 0) + " at right angles to that",
        l == Weight::good ? "" : "tilt the board by 25 to 45 degrees, to all sides, in most views" };
}

/// "columns 12 to 19"; which of `seen` are false, from the first to the last of them.
std::string never_seen(const std::vector<bool>& seen, const std::string& what)
{
    std::string text;
    int count = 0;
    for (std::size_t i = 0; i < seen.size(); ++i) {
        if (seen[i]) continue;
        text += (text.empty() ? "" : ", ") + std::to_string(i + 1);
        ++count;
    }
    return count == 0 ? "" : what + (count > 1 ? "s " : " ") + text;
}

/// A board with more rows or columns than the printed one is recognised all the same, and may have another pitch, too.
Finding check_board(const Calibrated& c)
{
    const auto rows = static_cast<std::size_t>(c.board.layout.rows);
    std::vector<bool> seen_columns(static_cast<std::size_t>(c.board.layout.columns), false), seen_rows(rows, false);
    for (const auto& pictures : c.views.cameras)
        for (std::size_t v = 0; v < pictures.size(); ++v)
            for (std::size_t k = 0; c.used[v] && k < pictures[v].markers.size(); ++k) {
                if (pictures[v].markers[k].x == FLT_MAX) continue;
                seen_columns[k / rows] = true;
                seen_rows[k % rows] = true;
            }
    const std::string columns = never_seen(seen_columns, "column"), lines = never_seen(seen_rows, "row");
    if (columns.empty() && lines.empty())
        return { "board", Weight::good, "", "each of its rows and columns was seen", "" };
    return { "board", Weight::worse, "",
        columns + (columns.empty() || lines.empty() ? "" : " and ") + lines + " of board.yaml: never seen",
        "show the whole board, or give the board.yaml that was written with this sheet" };
}

/// Camera 1's origin lies at the right of camera 0 when T.x is below 0; x1 = R x0 + T.
std::vector<Finding> check_sides(const Calibrated& c)
{
    if (!c.is_pair()) return {};
    const cv::Vec3d T = c.cameras[1].T - c.cameras[1].R * c.cameras[0].R.t() * c.cameras[0].T;
    if (!(T[0] > std::abs(T[1]))) return {};
    return { { "sides", Weight::worse, "", "camera 1 stands to the left of camera 0: were the cameras exchanged?",
        "exchange cam0 and cam1 here if captures have them the other way round; else all is well" } };
}

/// Single markers are spoilt by dirt, glints and shadows' edges; more of them say that the pictures are not right.
constexpr double few_left_out = 0.05;

/// The used picture with the fewest markers, "cam1 view07.png (190 of 285)".
std::string poorest_picture(const Calibrated& c)
{
    const BoardPicture* poorest = nullptr;
    for (const auto& pictures : c.views.cameras)
        for (std::size_t v = 0; v < pictures.size(); ++v)
            if (c.used[v] && (poorest == nullptr || pictures[v].found < poorest->found)) poorest = &pictures[v];
    return "cam" + std::to_string(poorest->camera) + " " + poorest->name + " (" + std::to_string(poorest->found)
        + " of " + std::to_string(c.board.markers()) + ")";
}

/// Says something only where markers that were seen did not let themselves be measured.
std::vector<Finding> check_markers(const Calibrated& c)
{
    const Refinement& r = c.refinement;
    const int left_out = r.far_off + r.doubtful, all = r.markers + left_out;
    if (left_out <= few_left_out * all || c.used_count() == 0) return {};
    return { { "markers", Weight::worse, "",
        number(100.0 * left_out / all, 0) + " % of the markers were left out: of " + std::to_string(r.doubtful)
            + " have grey values unlike the others, or edges that say another place; " + std::to_string(r.far_off)
            + " are far from where they were recognised; fewest were kept in " + poorest_picture(c),
        "look for glints, dirt, shadows' edges and motion blur; take these pictures again, the board at rest in soft "
        "light" } };
}

} // namespace

std::vector<Finding> check_views(const Calibrated& c)
{
    std::vector<Finding> findings { check_count(c), check_coverage(c), check_tilt(c), check_board(c) };
    for (const auto& more : { check_sides(c), check_markers(c) })
        findings.insert(findings.end(), more.begin(), more.end());
    return findings;
}

} // namespace vexo
