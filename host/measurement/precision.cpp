#include "host/measurement/precision.h"

#include "base/parallel.h"
#include "host/measurement/library_sigma.h"
#include "host/measurement/plain_decoding.h"
#include "host/measurement/refine.h"
#include "patterns/method.h"

#include <cmath>
#include <cstring>
#include <limits>

namespace vexo {

namespace {

constexpr float none = std::numeric_limits<float>::quiet_NaN();

/// What each period counts in the coordinate: that of gray code + phase is the fringe number plus the phase, that of
/// several periods the mean of the positions in projector px. The frames of the former step the other way.
std::vector<FringeSet> sets_of(const MatchingRecord& record)
{
    std::vector<FringeSet> sets;
    for (const std::size_t first : phase_sets(method_of(record)))
        sets.push_back({ first, -1.0F });
    if (const auto* multi = std::get_if<MultiPhaseMatchingParam>(&record))
        for (std::size_t f = 0; f < sets.size(); ++f)
            sets[f].weight = static_cast<float>(multi->periods[f]) / static_cast<float>(sets.size());
    return sets;
}

/// Makes the standard deviation of a depth from that of its disparity, px: sigma_Z = Z^2 / (f b) sigma_d.
float of_depth(const Geometry& geometry, float z, float sigma)
{
    return static_cast<float>(std::abs(geometry.slope)) * z * z * sigma;
}

/// Of one row: points read from n pixels of camera 1, [0]: dropped, and those beyond the limits of the disparity.
struct RowCounts {
    std::array<long long, 6> samples {};
    long long outside = 0;
};

/// Puts the refined points of a row in the place of the matches.
RowCounts replace_row(
    const Geometry& geometry, int y, const Refined& refined, const PhasePoints& points, cv::Mat& made_sigma)
{
    const auto [least, most] = disparity_limits(points.record);
    cv::Point3f* const cloud = points.cloud.points.data() + static_cast<std::ptrdiff_t>(y) * points.cloud.size.width;
    float* const disparity = points.disparity.ptr<float>(y);
    const float* const found = refined.disparity.ptr<float>(y);
    float* const sigma = made_sigma.ptr<float>(y);
    const double ray_y = (y - geometry.cy) / geometry.f, over_f = 1.0 / geometry.f;
    const uchar* const samples = refined.samples.ptr<uchar>(y);
    RowCounts counts;
    long long fives = 0; // nearly all: in a register
    for (int x = 0; x < points.cloud.size.width; ++x) {
        if (!(disparity[x] == disparity[x])) continue;
        const auto d = static_cast<double>(disparity[x] = found[x]);
        const double z = geometry.depth(d);
        if (d >= least && d <= most && z > 0.0) { // false without a point
            cloud[x] = { static_cast<float>((x - geometry.cx) * over_f * z), static_cast<float>(ray_y * z),
                static_cast<float>(z) };
            sigma[x] = of_depth(geometry, cloud[x].z, sigma[x]);
            fives += samples[x] == 5 ? 1 : 0;
            if (samples[x] != 5) ++counts.samples[samples[x]];
            continue;
        }
        const bool any = found[x] == found[x];
        ++(any ? counts.outside : counts.samples[0]);
        points.causes.causes.at<uchar>(y, x) = static_cast<uchar>(any ? Cause::disparity : Cause::refinement);
        cloud[x] = { none, none, none };
        disparity[x] = sigma[x] = none;
    }
    counts.samples[5] = fives;
    return counts;
}

void replace_points(const Geometry& geometry, const Refined& refined, const PhasePoints& points, Precision& made)
{
    std::vector<RowCounts> rows(static_cast<std::size_t>(points.cloud.size.height));
    in_parallel(rows.size(),
        [&](std::size_t y) { rows[y] = replace_row(geometry, static_cast<int>(y), refined, points, made.sigma); });
    long long outside = 0;
    for (const RowCounts& row : rows) {
        outside += row.outside;
        for (std::size_t n = 0; n < row.samples.size(); ++n)
            made.samples[n] += row.samples[n];
    }
    auto& counts = points.causes.counts;
    const long long gone = made.samples[0] + outside;
    counts[static_cast<std::size_t>(Cause::refinement)] += made.samples[0];
    counts[static_cast<std::size_t>(Cause::disparity)] += outside;
    counts[static_cast<std::size_t>(Cause::none)] -= gone;
    points.cloud.count -= static_cast<int>(gone);
}

/// Changes of the counts of causes.
using CauseChanges = std::array<long long, cause_count>;

/// Notes which points of a row come and go.
void note_row(int y, const float* chosen, const PhasePoints& points, CauseChanges& changes)
{
    cv::Point3f* const cloud = points.cloud.points.data() + static_cast<std::ptrdiff_t>(y) * points.cloud.size.width;
    const float* const library = points.disparity.ptr<float>(y);
    uchar* const causes = points.causes.causes.ptr<uchar>(y);
    const int cols = points.cloud.size.width;
    if (std::memcmp(library, chosen, static_cast<std::size_t>(cols) * sizeof(float)) == 0) return;
    for (int x = 0; x < cols; ++x) {
        const bool was = library[x] == library[x], is = chosen[x] == chosen[x];
        if (was == is) continue;
        --changes[causes[x]];
        causes[x] = static_cast<uchar>(is ? Cause::none : Cause::ambiguous);
        ++changes[causes[x]];
        cloud[x] = { none, none, none }; // until it is refined
    }
}

/// Puts the matches of a second decoding in the place of the library's, or beside them.
CandidateCounts decode_again(
    const RectifyingTables& tables, const std::array<RawPhases, 2>& raw, const PhasePoints& points)
{
    const std::array<cv::Mat, 2> coordinates { plain_coordinates(points.frames0, raw[0], points.record),
        plain_coordinates(points.frames1, raw[1], points.record) };
    const cv::Mat plain = plain_matches(coordinates, tables, points.disparity, points.limits);
    const Candidates chosen = choose_candidates(points.disparity, plain, points.limits);
    std::vector<CauseChanges> changes(static_cast<std::size_t>(plain.rows), CauseChanges {});
    in_parallel(changes.size(), [&](std::size_t row) {
        const int y = static_cast<int>(row);
        note_row(y, chosen.disparity.ptr<float>(y), points, changes[row]);
    });
    for (const CauseChanges& of_row : changes)
        for (std::size_t cause = 0; cause < cause_count; ++cause)
            points.causes.counts[cause] += of_row[cause];
    points.cloud.count = static_cast<int>(points.causes[Cause::none]);
    points.disparity = chosen.disparity;
    return chosen.counts;
}

void to_depth(const Geometry& geometry, const Cloud& cloud, cv::Mat& sigma)
{
    for (int y = 0; y < sigma.rows; ++y)
        for (int x = 0; x < sigma.cols; ++x)
            sigma.at<float>(y, x) = of_depth(geometry, cloud.point(y, x).z, sigma.at<float>(y, x));
}

} // namespace

PhaseData phase_data(const PhasePoints& points)
{
    PhaseData data;
    if (points.cloud.count == 0) return data; // also of pictures too small to lie between four pixels
    const std::vector<FringeSet> sets = sets_of(points.record);
    const std::array<const std::vector<cv::Mat>*, 2> frames { &points.frames0, &points.frames1 };
    in_parallel(2, [&](std::size_t camera) {
        data.noise[camera]
            = estimate_noise(*frames[camera], phase_sets(method_of(points.record)), points.masks[camera].modulation);
    });
    for (std::size_t camera = 0; camera < 2; ++camera)
        data.raw[camera] = raw_phases(*frames[camera], sets, data.noise[camera], points.masks[camera].modulation);
    return data;
}

Precision make_precise(const Stereo& stereo, const PhaseData& data, const PhasePoints& points, bool refined)
{
    Precision made;
    made.refined = refined;
    made.noise = data.noise;
    if (points.cloud.count == 0) {
        made.sigma = cv::Mat(points.disparity.size(), CV_32F, cv::Scalar(static_cast<double>(none)));
        return made;
    }
    if (refined) {
        made.candidates = decode_again(stereo.tables, data.raw, points);
        const Refined found = refine(data.raw, stereo.tables, points.disparity);
        made.sigma = found.sigma; // still of the disparity, px
        replace_points(stereo.geometry, found, points, made);
    } else {
        constexpr float gray_periods = 128.0F, projector_px = 912.0F;
        const auto* gray = std::get_if<GrayPhaseMatchingParam>(&points.record);
        const int samples = gray ? gray->fit_points : std::get<MultiPhaseMatchingParam>(points.record).fit_points;
        made.sigma
            = library_sigma(data.raw, stereo.tables, points.disparity, { samples, gray ? gray_periods : projector_px });
        to_depth(stereo.geometry, points.cloud, made.sigma);
    }
    return made;
}

} // namespace vexo
