#include "commands.h"
#include "host/reports/file_info.h"
#include "options.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace vexo::app {

namespace {

struct Typed {
    std::string file, depth;
};

} // namespace

void add_info(CLI::App& app, GlobalOptions& global)
{
    auto o = std::make_shared<Typed>();
    CLI::App* cmd = app.add_subcommand("info", "what a camera, stereo, hmat, table or PLY file holds");
    cmd->add_option("file", o->file, "the file")->required();
    cmd->add_option("--depth", o->depth, "also the disparities of depths NEAR:FAR");
    finish_command(*cmd, global,
        "vexo info scan/cameras.yaml --depth 500:700\n"
        "  prints sizes, focal lengths, baseline, and the disparities that depths of 500 to 700 mm have",
        [o, &global] {
            InfoRequest request { o->file, {} };
            if (!o->depth.empty()) request.depth = parse_depths(o->depth, "--depth");
            const Json info = describe_file(request);
            say(global, info_lines(info));
            put_json(global, info);
        });
}

} // namespace vexo::app
