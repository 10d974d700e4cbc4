#include "report.h"

#include "common.h"

#include "base/whole_file.h"

namespace vexo::app {

Json quantiles(const std::vector<float>& values)
{
    const std::vector<double> q = quantiles(values, { 0.01, 0.5, 0.99 });
    return { { "q01", q[0] }, { "q50", q[1] }, { "q99", q[2] } };
}

namespace {

Json parameters(const GrayPhaseMatchingParam& p)
{
    return { { "max_phase_diff", p.max_phase_diff }, { "min_disparity", p.min_disparity },
        { "max_disparity", p.max_disparity }, { "fit_points", p.fit_points }, { "datatype", p.datatype },
        { "min_contrast", p.min_contrast }, { "max_white", p.max_white }, { "min_white", p.min_white },
        { "anchor_length", p.anchor_length }, { "reject_length", p.reject_length }, { "code_spread", p.code_spread } };
}

Json parameters(const MultiPhaseMatchingParam& p)
{
    return { { "max_phase_diff", p.max_phase_diff }, { "min_disparity", p.min_disparity },
        { "max_disparity", p.max_disparity }, { "fit_points", p.fit_points }, { "datatype", p.datatype },
        { "min_contrast", p.min_contrast }, { "max_white", p.max_white }, { "min_white", p.min_white },
        { "steps", p.steps }, { "periods", std::vector<int>(p.periods, p.periods + p.nperiods) } };
}

Json parameters(const SGBMatchingParam& p)
{
    return { { "minDisparity", p.minDisparity }, { "numDisparities", p.numDisparities }, { "blockSize", p.blockSize },
        { "P1", p.P1 }, { "P2", p.P2 }, { "disp12MaxDiff", p.disp12MaxDiff }, { "preFilterCap", p.preFilterCap },
        { "uniquenessRatio", p.uniquenessRatio }, { "speckleWindowSize", p.speckleWindowSize },
        { "speckleRange", p.speckleRange }, { "mode", p.mode } };
}

} // namespace

Json describe(const MatchingRecord& record)
{
    return std::visit([](const auto& param) { return parameters(param); }, record);
}

Json describe(const FringeFigures& f)
{
    return { { "length_px", f.length_px }, { "modulation", f.modulation }, { "grey_noise", f.grey_noise },
        { "phase_noise", f.phase_noise }, { "share_in_longer_runs", f.share_in_longer_runs } };
}

Json describe(const CauseMap& map, Method method)
{
    Json causes = Json::object();
    for (const Cause cause : causes_of(method))
        if (cause != Cause::none) causes[key_of(cause)] = map[cause];
    return causes;
}

Json describe(const StageTimes& times)
{
    return { { "set_frames", times.frames }, { "decode_and_rectify", times.decode },
        { "match_and_triangulate", times.triangulate } };
}

Json describe(const StereoCameraParam& param, const iStereoCamera& camera, const Geometry& geometry)
{
    int width = 0, height = 0;
    camera.get_outimage_size(&width, &height);
    return { { "input_size", { param.inp_width, param.inp_height } }, { "output_size", { width, height } },
        { "alpha", param.alpha }, { "flags", param.flags }, { "baseline", camera.get_baseline_length() },
        { "f", geometry.f }, { "cx", geometry.cx }, { "cy", geometry.cy },
        { "disparity_at_infinity", -geometry.offset / geometry.slope } };
}

Json to_json(const cv::Matx33d& matrix)
{
    return std::vector<double>(matrix.val, matrix.val + 9);
}

Json read_json(const std::string& path)
{
    constexpr std::size_t max_json_bytes = std::size_t { 1 } << 24;
    const std::string text = read_bytes(path, max_json_bytes);
    // The parser recurses where brackets nest; ours nest a few levels.
    int depth = 0;
    const auto too_deep = [&depth](Json::parse_event_t event) {
        if (event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start) ++depth;
        if (event == Json::parse_event_t::object_end || event == Json::parse_event_t::array_end) --depth;
        return depth > 32;
    };
    bool deep = false;
    Json json = Json::parse(
        text,
        [&](int, Json::parse_event_t event, Json&) {
            deep = deep || too_deep(event);
            return true;
        },
        false);
    if (json.is_discarded() || !json.is_object() || deep) throw Failure(path + ": is not a JSON file of this program");
    return json;
}

double number_in(const Json& json, const std::string& pointer, const std::string& path)
{
    const Json::json_pointer where(pointer);
    if (!json.contains(where) || !json.at(where).is_number())
        throw Failure(path + ": has no number " + pointer.substr(1) + "; run vexo measure again");
    return json.at(where).get<double>();
}

std::string text_in(const Json& json, const char* key, const std::string& otherwise)
{
    return json.contains(key) && json[key].is_string() ? json[key].get<std::string>() : otherwise;
}

} // namespace vexo::app
