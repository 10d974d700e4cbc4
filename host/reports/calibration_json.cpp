#include "host/reports/calibration_json.h"

#include "host/calibration/board_heights.h"

#include <cmath>

namespace vexo {

namespace {

Json finite(double value)
{
    constexpr double steps = 1e6;
    if (!std::isfinite(value)) return nullptr;
    return std::round(value * steps) / steps;
}

Json finite(const std::vector<double>& values)
{
    Json list = Json::array();
    for (const double value : values)
        list.push_back(finite(value));
    return list;
}

Json to_json(const CalibratedCamera& camera)
{
    Json json { { "fx", camera.K(0, 0) }, { "fy", camera.K(1, 1) }, { "cx", camera.K(0, 2) },
        { "cy", camera.K(1, 2) } };
    json["distortion"] = std::vector<double>(camera.D.begin<double>(), camera.D.end<double>());
    return json;
}

Json to_json(const DistanceErrors& d)
{
    return { { "bias_mm", finite(d.bias) }, { "rms_mm", finite(d.rms) }, { "length_mm", finite(d.length) },
        { "count", d.count } };
}

Json to_json(const PairFit& fit)
{
    return { { "row_error_rms_px", finite(fit.row_rms) }, { "row_error_systematic_px", finite(fit.row_systematic) },
        { "row_error_99_percent_px", finite(fit.row_worst) }, { "row_error_per_view_px", finite(fit.view_row) },
        { "distances_along_x", to_json(fit.along_x) }, { "distances_along_y", to_json(fit.along_y) },
        { "board_bend_mm", finite(fit.bend) }, { "board_scale_x", finite(fit.scale_x) },
        { "board_scale_y", finite(fit.scale_y) } };
}

Json to_json(const BoardPicture& picture, const BoardFile& board)
{
    Json json { { "file", picture.name }, { "code", picture.code }, { "found", picture.found },
        { "outcome", outcome(picture, board) } };
    if (picture.recognised()) json["step"] = name_of(picture.step);
    return json;
}

Json to_json(const Refinement& r)
{
    return { { "markers", r.markers }, { "not_fitted", r.not_fitted }, { "far_off", r.far_off },
        { "doubtful", r.doubtful }, { "views_added", r.views_added }, { "pictures_kept", r.pictures_kept },
        { "sigma_px", finite(r.sigma) }, { "seconds", finite(r.seconds) } };
}

/// What the views say of how the board's markers lie.
Json to_json(const LearntShape& learnt, const BoardFile& board)
{
    const BoardShape& shape = board.shape;
    return { { "kept", learnt.kept }, { "residual_flat_px", finite(learnt.flat_px) },
        { "residual_shaped_px", finite(learnt.shaped_px) }, { "bow_mm", finite(heights_of(board).range_mm) },
        { "bow_xx", finite(shape.bow_xx) }, { "bow_xy", finite(shape.bow_xy) }, { "bow_yy", finite(shape.bow_yy) },
        { "stretch_y", finite(shape.stretch_y) }, { "shear", finite(shape.shear) } };
}

Json to_json(const HoldOut& held)
{
    Json json;
    for (const CameraFit& fit : held.fits)
        json["camera_rms_px"].push_back(finite(fit.rms));
    json["focal_spread_px"] = finite(held.focal_spread);
    if (held.fits.size() < 2) return json;
    json["halves_apart"] = { { "distance_mm", finite(held.apart.distance) }, { "depth_mm", finite(held.apart.depth) },
        { "shape_mm", finite(held.apart.shape) } };
    json["pair"] = to_json(held.pair);
    return json;
}

} // namespace

Json calibration_json(const Calibrated& c, const std::vector<Finding>& findings)
{
    Json json { { "verdict", calibration_verdict(findings) }, { "image_size", { c.size.width, c.size.height } },
        { "rms_px", finite(c.rms) }, { "pitch_mm", c.board.layout.pitch_mm }, { "views_used", c.used_count() } };
    if (c.is_pair()) json["baseline_mm"] = finite(c.baseline);
    if (c.refinement.made) json["refinement"] = to_json(c.refinement);
    if (c.is_pair())
        add_share(json, c.share);
    else
        add_share(json, c.direction);
    if (c.covariance)
        json["markers_off"] = { { "residual_px", finite(c.covariance->residual_px) },
            { "expected_px", finite(c.covariance->marker_sigma_px) } };
    for (const Finding& finding : findings)
        json["checks"].push_back({ { "question", question_of(finding) }, { "level", word_of(finding.weight) },
            { "answer", finding.text }, { "advice", finding.advice } });
    for (std::size_t k = 0; k < c.cameras.size(); ++k) {
        Json camera = to_json(c.cameras[k]);
        camera["rms_px"] = finite(c.fits[k].rms);
        camera["per_view_px"] = finite(c.view_rms[k]);
        camera["tilt_deg"] = finite(c.fits[k].view_tilt);
        camera["coverage"] = finite(coverage(c.views.cameras[k], c.used, c.size));
        json["cameras"].push_back(camera);
    }
    for (std::size_t v = 0; v < c.views.count(); ++v) {
        Json view { { "number", c.views.cameras[0][v].number }, { "used", static_cast<bool>(c.used[v]) } };
        for (const auto& pictures : c.views.cameras)
            view["pictures"].push_back(to_json(pictures[v], c.board));
        json["views"].push_back(view);
    }
    json["outlying_views"] = Json::array();
    for (const std::size_t v : outlying_views(c))
        json["outlying_views"].push_back(c.views.cameras[0][v].number);
    if (!c.agreement.error_px.empty()) json["pair_agreement_px"] = finite(c.agreement.error_px);
    for (const Partners& moved : c.agreement.moved)
        json["exchanged_pictures"].push_back(
            { { "cam0", c.views.cameras[0][moved.cam0].name }, { "cam1", c.views.cameras[1][moved.cam1].name } });
    json["dropped_views"] = c.dropped;
    if (c.is_pair()) json["pair"] = to_json(c.pair);
    json["board_shape"] = to_json(c.shape, c.board);
    if (c.hold_out.done) json["hold_out"] = to_json(c.hold_out);
    return json;
}

} // namespace vexo
