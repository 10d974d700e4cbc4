#include "base/failure.h"
#include "base/pictures.h"
#include "base/text.h"
#include "commands.h"
#include "host/captures/pattern_files.h"
#include "host/files/output_folder.h"
#include "options.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace vexo::app {

namespace {

struct PatternOptions {
    std::string method = "gray-phase", projector = "1024x768", out, gamma_table;
    int steps = 4;
    PatternRequest request;
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
        throw UsageFailure("--projector " + text + ": write COLUMNSxROWS, such as 1024x768, at most 16384 each");
    return { sides[0], sides[1] };
}

void check_steps(int steps)
{
    if (steps == 3)
        throw UsageFailure(
            "--steps 3: the library's three-step formula weights the first frame alone by sqrt(3) and is off "
            "by up to 0.8 rad on three-step patterns; use --steps 4");
    if (steps != 4)
        throw UsageFailure("--steps " + std::to_string(steps) + ": four shifts a period are decoded, --steps 4");
}

void run(PatternOptions o, const GlobalOptions& options)
{
    check_steps(o.steps);
    PatternRequest& request = o.request;
    request.method = *method_named(o.method);
    request.projector = projector_size(o.projector);
    if (!o.gamma_table.empty()) request.gamma = load_gamma_table(o.gamma_table);
    OutputFolder folder(o.out, { "patterns", { "patterns.json" }, {}, false, options.force });
    const std::vector<PatternFrame> frames = make_patterns(request);
    const cv::Size size = request.projector;

    for (std::size_t i = 0; i < frames.size(); ++i)
        folder.add(frame_name(i), encode(".png", cv::repeat(frames[i].row, size.height, 1)));
    const Json json = patterns_json(request, frames);
    folder.add("patterns.json", json_text(json));
    folder.add("contact_sheet.png", encode(".png", contact_sheet(frames, size.height)));
    say_kept(options, folder.commit());

    say(options,
        o.out + ": " + std::to_string(frames.size()) + " frames, " + frame_name(0) + " to "
            + frame_name(frames.size() - 1) + ", to be projected and captured in this order");
    say(options, "  patterns.json says what each is; contact_sheet.png shows them");
    if (request.method == Method::multi_phase && size.width > multi_phase_columns)
        say(options,
            "  columns from " + std::to_string(multi_phase_columns) + " on stay dark: the decoder uses "
                + std::to_string(multi_phase_columns) + " of the " + std::to_string(size.width) + " columns");
    if (request.gamma.gamma != 1.0) say(options, "  corrected for a gamma of " + number(request.gamma.gamma, 2));
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
    command->add_option("--period", o->request.period, "gray-phase: projector px a fringe")->capture_default_str();
    command->add_option("--periods", o->request.periods, "multi-phase: three periods, projector px")
        ->delimiter(',')
        ->expected(3)
        ->allow_extra_args(false)
        ->capture_default_str();
    command->add_option("--steps", o->steps, "shifts a period: 4")->capture_default_str();
    command->add_option("--gamma-table", o->gamma_table, "gamma_table.json of vexo check: makes the projector linear");
    add_force(*command, options);
    finish_command(*command, options,
        "vexo patterns --method gray-phase --projector 1024x768 --out patterns\n  writes frame00.png (dark), "
        "frame01.png (lit), seven gray code frames and four fringe frames",
        [o, &options] { run(*o, options); });
}

} // namespace vexo::app
