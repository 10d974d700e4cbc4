#include "program.h"

namespace {

/// A script decides by the code alone what to do next.
class ExitCodes : public program::Suite { };

TEST_F(ExitCodes, SayWhetherTheCallTheInputTheLimitOrTheMomentWasWrong)
{
    ASSERT_EQ(run("simulate plane --size 160x128 --quiet --out " + at("scan")).code, 0);
    std::filesystem::copy(at("scan"), at("cut"), std::filesystem::copy_options::recursive);
    std::filesystem::resize_file(at("cut/cam0/frame05.png"), 100);
    const struct {
        int code;
        std::string arguments;
    } rows[] = {
        { 2, "measure" },
        { 2, "measure --disparity 5 " + at("scan") + " --out " + at("r") },
        { 2, "measure --disparity 0:5 --depth 5:9 " + at("scan") + " --out " + at("r") },
        { 2, "patterns --periods 9,10,9 --method multi-phase --out " + at("p") },
        { 3, "measure " + at("nowhere") + " --out " + at("r") },
        { 3, "measure " + at("cut") + " --out " + at("r") },
        { 3, "info " + at("scan/cam0/frame00.png") },
        { 1, "measure --depth 5000:5001 " + at("scan") + " --out " + at("r") },
        { 75, "info --json " + at("scan/cameras.yaml") + " > /dev/full" },
    };
    for (const auto& row : rows) {
        const program::Outcome outcome = run(row.arguments);
        EXPECT_EQ(outcome.code, row.code) << row.arguments << ": " << outcome.err;
        EXPECT_TRUE(outcome.one_line_of_error()) << row.arguments << ": " << outcome.err;
    }
}

TEST_F(ExitCodes, StandInTheHelpOfEachCommandWhichFits100Columns)
{
    std::istringstream commands(run("--help").out);
    std::string line;
    while (line != "Subcommands:" && std::getline(commands, line)) { }
    int count = 0;
    for (; std::getline(commands, line) && !line.empty(); ++count) {
        if (line[2] == ' ') continue; // goes on
        const std::string command = line.substr(2, line.find(' ', 2) - 2);
        const std::string help = run(command + " --help").out;
        EXPECT_NE(help.find("75 temporary"), std::string::npos) << command;
        std::istringstream lines(help);
        for (std::string l; std::getline(lines, l);)
            EXPECT_LE(l.size(), 100U) << command << ": " << l;
    }
    EXPECT_GT(count, 9);
}

} // namespace
