#include "host/measurement/measure.h"

#include "base/failure.h"
#include "base/parallel.h"
#include "base/stopwatch.h"
#include "host/cameras/rectification.h"
#include "host/captures/exposures.h"
#include "host/measurement/cleaning.h"
#include "host/measurement/disparity_range.h"
#include "host/measurement/gap_points.h"
#include "host/measurement/judge.h"
#include "host/measurement/smoothing.h"
#include "host/measurement/texture.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace vexo {

namespace {

/// One measurement on its way: what is given, what is found.
struct Work {
    const Capture& capture;
    const Stereo& stereo;
    const MeasureRequest& request;
    const OnStep& on_step;
    PairFrames frames; ///< as recorded; lit frames masked after mask_pixels()
    PhaseData phases;
    Measured m;

    iStereoCamera& camera() const { return *stereo.camera; }
    bool decoded() const { return capture.files.decoded; }
};

std::vector<FringeFigures> figures_of(const Work& w, std::size_t camera)
{
    const std::vector<cv::Mat>& frames = w.frames[camera];
    const cv::Mat& mask = w.m.masks[camera].modulation;
    std::vector<FringeFigures> figures;
    const std::size_t first_map = w.m.method() == Method::gray_phase ? 3 : 2;
    for (std::size_t map = first_map; w.decoded() && map < frames.size(); ++map)
        figures.push_back(measure_phase(frames[map], mask));
    if (w.decoded()) return figures;
    for (const std::size_t first : phase_sets(w.m.method()))
        figures.push_back(measure_fringes(frames, first, mask));
    return figures;
}

/// The noise of both cameras' projector coordinates.
CoordinateNoise noise_of(const Measured& m)
{
    std::vector<PeriodNoise> noise;
    const std::vector<int> periods = m.periods();
    for (std::size_t f = 0; f < m.fringes[1].size(); ++f)
        noise.push_back({ periods.empty() ? 1.0 : periods[f],
            { m.fringes[0][f].phase_noise, m.fringes[1][f].phase_noise }, m.fringes[1][f].length_px });
    return periods.empty() ? gray_noise(noise[0]) : multi_noise(noise);
}

void choose_parameters(Work& w)
{
    choose_match(w.m.record, w.request, noise_of(w.m), w.m.origins);
    auto* gray = std::get_if<GrayPhaseMatchingParam>(&w.m.record);
    if (!gray) return;
    w.m.runs = choose_run_lengths(w.m.fringes[0][0], w.m.fringes[1][0]);
    w.m.runs.anchor_given = w.request.anchor.has_value();
    w.m.runs.reject_given = w.request.reject.has_value();
    gray->anchor_length = w.request.anchor.value_or(w.m.runs.anchor);
    gray->reject_length = w.request.reject.value_or(w.m.runs.reject);
}

/// How dim a pixel may be, by the noisier camera.
void choose_light(Work& w)
{
    if (w.decoded()) {
        w.m.origins.min_contrast = w.request.min_contrast ? Origin::given : Origin::standard;
        return;
    }
    std::array<LeastLight, 2> least;
    in_parallel(2, [&](std::size_t camera) {
        least[camera] = least_light(w.capture.frames.frames[camera], phase_sets(w.m.method()));
    });
    const LeastLight light { std::max(least[0].contrast, least[1].contrast),
        std::max(least[0].modulation, least[1].modulation), least[0].measured || least[1].measured };
    w.m.min_modulation = choose_light(w.m.record, w.request, light, w.m.origins);
    w.m.weak = find_weak_pixels(w.capture.frames.frames[0], light.contrast, light_limits(w.m.record).min_contrast);
}

/// A pixel without fringes decodes to a phase all the same: gray code sees a patch of such pixels as one long run
/// that can outvote its neighbours, several periods may agree on a coordinate by chance. So they are handed over as
/// unlit, which the decoder leaves out.
void mask_pixels(Work& w)
{
    const auto sets = w.decoded() ? std::vector<std::size_t>() : phase_sets(w.m.method());
    const LightLimits limits = light_limits(w.m.record);
    in_parallel(2, [&](std::size_t camera) {
        std::vector<cv::Mat>& frames = w.frames[camera];
        w.m.masks[camera] = make_masks(frames, limits, sets, w.m.min_modulation);
        cv::Mat& seen = w.m.masks[camera].modulation;
        if (w.capture.exposures)
            drop_mixtures(frames, sets, contrast_of(w.capture, camera), seen);
        else if (!w.decoded())
            drop_mixtures(contrast_of(w.capture, camera), seen);
        w.m.fringes[camera] = figures_of(w, camera);
        frames[1] = frames[1].clone(); // the capture stays as it was recorded
        frames[1].setTo(0, seen == 0);
    });
}

void set_range(Measured& m, const MeasureRequest::Range& range, const std::string& origin)
{
    set_disparity_limits(m.record, range.first, range.second);
    m.range_origin = origin;
}

constexpr const char* as_given = "as given";
constexpr const char* from_the_data = "found in the data";

void measure_phases(Work& w)
{
    Measured& m = w.m;
    const auto given = given_range(w.request, m.geometry);
    next_step(w.on_step, "looking at the fringes");
    choose_light(w);
    mask_pixels(w);
    choose_parameters(w);
    next_step(w.on_step, "decoding and matching");
    Stopwatch clock;
    m.cloud = match(w.camera(), w.frames, lift_disparity(m.record), w.request.interpolate, &m.times);
    m.any_disparity = disparities_of(m.cloud, m.geometry);
    const cv::Mat matched = mask_of(m.cloud);
    if (given)
        set_range(m, *given, as_given);
    else if (const auto found = occupied_range(m.any_disparity))
        set_range(m, *found, from_the_data);
    if (!keep_within_limits(m.cloud, m.record, m.geometry))
        m.cloud = match(w.camera(), w.frames, m.record, w.request.interpolate, &m.times);
    m.first_pass_seconds = clock.lap();
    next_step(w.on_step, "finding out why pixels were not measured");
    clock.lap();
    m.causes = find_phase_causes(w.camera(), w.frames, m.masks[0], m.record, w.request.interpolate, m.cloud, matched);
    m.causes_seconds = clock.lap();
}

/// No point: the two pictures fit each other at no disparity.
void leave_unmatched(Work& w)
{
    w.m.range_origin = no_range;
    w.m.cloud.size = w.m.texture.size();
    w.m.cloud.points.assign(w.m.texture.total(), cv::Point3f(std::nanf(""), std::nanf(""), std::nanf("")));
    w.m.causes = nothing_matches(w.camera(), w.frames[0][0].size(), w.m.cloud);
}

void measure_blocks(Work& w)
{
    Measured& m = w.m;
    auto range = given_range(w.request, m.geometry);
    next_step(w.on_step, "looking for the disparity range");
    Stopwatch clock;
    const char* const origin = range ? as_given : from_the_data;
    if (!range) range = matching_range(m.texture, rectified(w.camera(), w.frames[1][0], 1), m.geometry);
    if (!range) return leave_unmatched(w);
    const auto& count = w.request.num_disparities;
    if (count) range->second = range->first + *count - 1;
    set_range(m, *range, origin);
    if (count) std::get<SGBMatchingParam>(m.record).numDisparities = *count;
    m.first_pass_seconds = clock.lap();
    next_step(w.on_step, "matching");
    m.cloud = match(w.camera(), w.frames, m.record, w.request.interpolate, &m.times);
    next_step(w.on_step, "finding out why pixels were not measured");
    clock.lap();
    m.causes = find_block_causes(w.camera(), w.frames, std::get<SGBMatchingParam>(m.record), m.cloud);
    m.causes_seconds = clock.lap();
}

cv::Mat disparity_map(const Cloud& cloud, const Geometry& geometry)
{
    cv::Mat disparity(cloud.size, CV_32F, cv::Scalar(static_cast<double>(std::nanf(""))));
    in_parallel(static_cast<std::size_t>(disparity.rows), [&](std::size_t row) {
        const int y = static_cast<int>(row);
        for (int x = 0; x < disparity.cols; ++x)
            if (cloud.measured(y, x))
                disparity.at<float>(y, x)
                    = static_cast<float>(geometry.disparity(static_cast<double>(cloud.point(y, x).z)));
    });
    return disparity;
}

CandidateLimits candidate_limits(const Work& w)
{
    const std::vector<int> periods = w.m.periods();
    const auto [least, most] = disparity_limits(w.m.record);
    const double difference = w.m.method() == Method::gray_phase
        ? std::get<GrayPhaseMatchingParam>(w.m.record).max_phase_diff
        : std::get<MultiPhaseMatchingParam>(w.m.record).max_phase_diff;
    return { noise_of(w.m).unit_px, periods.empty() ? 1.0 : *std::min_element(periods.begin(), periods.end()),
        difference, least, most };
}

/// Points by phases of frames get their sigma, and are refined if that is asked for.
void make_precise(Work& w)
{
    Measured& m = w.m;
    if (m.method() == Method::sgbm)
        m.precision.why_none = "block matching has no model of its noise";
    else if (w.decoded())
        m.precision.why_none = "maps of another decoder do not show their noise";
    else if (w.request.interpolate)
        m.precision.why_none = "filled columns are not measured";
    if (!m.precision.why_none.empty()) return;
    next_step(w.on_step, "looking once more around each match");
    Stopwatch clock;
    const PhasePoints points { w.capture.frames.frames[0], w.capture.frames.frames[1], m.masks, m.record, m.disparity,
        m.cloud, m.causes, candidate_limits(w) };
    w.phases = phase_data(points);
    m.precision = make_precise(w.stereo, w.phases, points, w.request.refine);
    m.precision.seconds = clock.lap();
}

/// Takes out what does not belong to the surface: for block matching also what it could not see.
void clean(Work& w)
{
    Measured& m = w.m;
    const Cleaning cleaning = w.request.cleaning;
    if (m.method() == Method::sgbm && cleaning != Cleaning::off && m.cloud.count > 0) {
        const std::array<cv::Mat, 2> pictures { m.texture, rectified(w.camera(), w.frames[1][0], 1) };
        const std::array<double, 2> noise { picture_noise(w.frames[0][0]), picture_noise(w.frames[1][0]) };
        remove_points(m, lacks_texture(pictures, noise, m.disparity), Cause::texture);
    }
    clean(m, cleaning_rules(m.method(), m.precision.refined, cleaning));
    if (m.precision.refined && m.cloud.count > 0) measure_gaps(w.stereo, w.phases.raw, m);
    w.phases = {}; // 32 bytes a pixel that nobody asks for any more
}

cv::Mat depth_map(const Cloud& cloud)
{
    cv::Mat depth(cloud.size, CV_32F);
    float* const z = depth.ptr<float>();
    for (std::size_t i = 0; i < cloud.points.size(); ++i)
        z[i] = cloud.points[i].z;
    return depth;
}

} // namespace

Measured measure(const Capture& capture, const Stereo& stereo, const MeasureRequest& request, const OnStep& on_step)
{
    Work work { capture, stereo, request, on_step, capture.frames.frames, {}, {} };
    Measured& m = work.m;
    m.choice = capture.choice;
    m.record = record_of(request, capture.method(), capture.files.decoded, capture.periods);
    m.geometry = stereo.geometry;
    m.baseline = stereo.camera->get_baseline_length();
    m.unit = stereo.notes.unit;
    m.findings = judge_calibration(stereo);
    Stopwatch clock;
    m.texture = rectified(*stereo.camera, lit_picture(capture, 0), 0);
    m.rectify_seconds = clock.lap();
    if (m.method() == Method::sgbm)
        measure_blocks(work);
    else
        measure_phases(work);
    m.disparity = disparity_map(m.cloud, m.geometry);
    make_precise(work);
    m.uncleaned = m.disparity.clone();
    clean(work);
    if (request.smooth) {
        next_step(on_step, "smoothing");
        smooth_points(m);
    }
    m.depth = depth_map(m.cloud);
    clock.lap();
    m.findings.insert(m.findings.end(), capture.frames.notes.begin(), capture.frames.notes.end());
    judge_measured(m, capture, stereo, request);
    m.checks_seconds = clock.lap();
    return std::move(work.m);
}

} // namespace vexo
