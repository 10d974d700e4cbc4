#include "common.h"
#include "pattern_files.h"
#include "pictures.h"
#include "report.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <memory>

namespace vexo::app {

namespace {

struct PatternOptions {
    std::string method = "gray-phase", projector = "1024x768", out, gamma_table;
    int period = 8;
    int steps = 4;
    std::vector<int> periods = { 9, 10, 11 };
};

cv::Size projector_size(const std::string& text)
{
    const std::size_t x = text.find('x');
    int sides[2] = { 0, 0 };
    for (int i = 0; i < 2 && x != std::string::npos; ++i) {
        const std::string part = i == 0 ? text.substr(0, x) : text.substr(x + 1);
        const bool digits
            = !part.empty() && part.size() < 6 && part.find_first_not_of("0123456789") == std::string::npos;
        sides[i] = digits ? std::stoi(part) : 0;
    }
    if (sides[0] < 64 || sides[1] < 1 || sides[0] > 16384 || sides[1] > 16384)
        throw Failure("--projector " + text + ": write COLUMNSxROWS, such as 1024x768, at most 16384 each");
    return { sides[0], sides[1] };
}

void check_steps(int steps)
{
    if (steps == 3)
        throw Failure("--steps 3: the library's three-step formula weights the first frame alone by sqrt(3) and is off "
                      "by up to 0.8 rad on three-step patterns; use --steps 4");
    if (steps != 4) throw Failure("--steps " + std::to_string(steps) + ": four shifts a period are decoded, --steps 4");
}

Json describe(const PatternFrame& frame, std::size_t index)
{
    Json json { { "index", index }, { "file", frame_name(index) }, { "what", frame.what } };
    if (frame.bit >= 0) json["bit"] = frame.bit;
    if (frame.period > 0) {
        json["period"] = frame.period;
        json["shift"] = frame.shift;
        json["shift_deg"] = 90 * frame.shift;
    }
    return json;
}

Json describe(const PatternOptions& o, cv::Size size, const std::vector<PatternFrame>& frames, const GammaTable& gamma)
{
    const bool multi = o.method == "multi-phase";
    Json json { { "method", o.method }, { "projector", { size.width, size.height } } };
    if (multi)
        json["periods"] = o.periods;
    else
        json["period"] = o.period;
    json["steps"] = o.steps;
    json["lit_columns"] = multi ? std::min(size.width, multi_phase_columns) : size.width;
    json["gamma_corrected"] = gamma.gamma;
    for (std::size_t i = 0; i < frames.size(); ++i)
        json["frames"].push_back(describe(frames[i], i));
    return json;
}

void correct_gamma(std::vector<PatternFrame>& frames, const GammaTable& table)
{
    const cv::Mat look_up(1, 256, CV_8U, const_cast<unsigned char*>(table.grey.data()));
    for (PatternFrame& frame : frames)
        cv::LUT(frame.row, look_up, frame.row);
}

void write_patterns(const PatternOptions& o, const GlobalOptions& options)
{
    check_steps(o.steps);
    const cv::Size size = projector_size(o.projector);
    const bool multi = o.method == "multi-phase";
    if (multi)
        check_periods(o.periods);
    else
        check_period(size.width, o.period);
    std::vector<PatternFrame> frames
        = multi ? multi_phase_frames(size.width, o.periods) : gray_phase_frames(size.width, o.period);
    const GammaTable gamma = o.gamma_table.empty() ? undo_gamma(1.0) : load_gamma_table(o.gamma_table);
    correct_gamma(frames, gamma);

    OutputFolder folder(o.out);
    for (std::size_t i = 0; i < frames.size(); ++i)
        folder.add(frame_name(i), encode(".png", cv::repeat(frames[i].row, size.height, 1)));
    const Json json = describe(o, size, frames, gamma);
    folder.add("patterns.json", json_text(json));
    folder.add("contact_sheet.png", encode(".png", contact_sheet(frames, size.height)));
    folder.commit();

    say(options,
        o.out + ": " + std::to_string(frames.size()) + " frames, " + frame_name(0) + " to "
            + frame_name(frames.size() - 1) + ", to be projected and captured in this order");
    say(options, "  patterns.json says what each is; contact_sheet.png shows them");
    if (multi && size.width > multi_phase_columns)
        say(options,
            "  columns from " + std::to_string(multi_phase_columns) + " on stay dark: the decoder uses "
                + std::to_string(multi_phase_columns) + " of the " + std::to_string(size.width) + " columns");
    if (gamma.gamma != 1.0) say(options, "  corrected for a gamma of " + number(gamma.gamma, 2));
    put_json(options, json);
}

} // namespace

void add_patterns(CLI::App& app, GlobalOptions& options)
{
    auto o = std::make_shared<PatternOptions>();
    CLI::App* command = app.add_subcommand("patterns", "write the frames to project, as pictures");
    command->add_option("--method", o->method, "gray-phase (13 frames) or multi-phase (14)")
        ->check(CLI::IsMember({ "gray-phase", "multi-phase" }))
        ->capture_default_str();
    command->add_option("--projector", o->projector, "COLUMNSxROWS of the projector")->capture_default_str();
    command->add_option("--out", o->out, "folder for the frames")->required();
    command->add_option("--period", o->period, "gray-phase: projector px a fringe")->capture_default_str();
    command->add_option("--periods", o->periods, "multi-phase: three periods, projector px")
        ->delimiter(',')
        ->capture_default_str();
    command->add_option("--steps", o->steps, "shifts a period: 4")->capture_default_str();
    command->add_option("--gamma-table", o->gamma_table, "gamma_table.json of vexo check: makes the projector linear");
    finish_command(*command, options,
        "vexo patterns --method gray-phase --projector 1024x768 --out patterns\n  writes frame00.png (dark), "
        "frame01.png (lit), seven gray code frames and four fringe frames",
        [o, &options] { write_patterns(*o, options); });
}

} // namespace vexo::app
