#include "commands.h"
#include "host/reports/file_info.h"
#include "host/reports/folder_info.h"
#include "options.h"

#include <CLI/CLI.hpp>

#include <filesystem>
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
    CLI::App* cmd = app.add_subcommand("info", "what a folder, or a camera, stereo, hmat, table or PLY file holds");
    cmd->add_option("file", o->file, "the file or folder")->required();
    cmd->add_option(
        "--depth", o->depth, "also the disparities of depths NEAR:FAR; of a folder, the view in their middle");
    finish_command(*cmd, global,
        "vexo info scan/cameras.yaml --depth 500:700\n"
        "  prints sizes, focal lengths, baseline, and the disparities that depths of 500 to 700 mm have",
        [o, &global] {
            InfoRequest request { o->file, {} };
            if (!o->depth.empty()) request.depth = parse_depths(o->depth, "--depth");
            std::error_code ignored;
            const bool folder = std::filesystem::is_directory(o->file, ignored);
            const Json info = folder ? describe_folder(request) : describe_file(request);
            say(global, folder ? folder_lines(info) : info_lines(info));
            put_json(global, info);
            if (folder && info["whole"] == false)
                throw BelowLimit(o->file + ": is not as it was written; run its command again");
        });
}

} // namespace vexo::app
