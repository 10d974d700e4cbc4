#include "program.h"

#include <map>

namespace {

namespace fs = std::filesystem;

/// What stands in a folder is replaced by the command that wrote it, and by no other.
class ForeignFiles : public program::Suite {
protected:
    static std::map<std::string, std::string> tree()
    {
        std::map<std::string, std::string> files;
        for (const auto& entry : fs::recursive_directory_iterator(at("all")))
            files[entry.path().string()] = entry.is_regular_file() ? program::read(entry.path().string()) : "";
        return files;
    }
};

TEST_F(ForeignFiles, StayAsTheyWereAndTheRefusalNamesFolderAndRemedy)
{
    const std::string scan = at("all/scan"), result = at("all/result"), sheets = at("all/sheets");
    ASSERT_EQ(run("simulate plane --size 160x128 --period 32 --quiet --out " + scan).code, 0);
    ASSERT_EQ(run("measure --quiet " + scan + " --out " + result).code, 0);
    ASSERT_EQ(run("board --quiet --out " + sheets + "/a.svg").code, 0);
    ASSERT_EQ(run("board --quiet --out " + sheets + "/a.svg").code, 0) << "its own again";
    copy("all/scan", "all/captured");
    fs::remove(at("all/captured/.vexo-files.json"));
    const struct {
        std::string arguments, named;
    } rows[] = {
        { "patterns --out " + scan + "/cam0", scan + "/cam0: holds frame00.png" },
        { "patterns --out " + scan, "vexo simulate" },
        { "simulate plane --size 64x48 --out " + at("all/captured"), "captured: holds" },
        { "calibrate " + scan + " --board none.yaml --out " + result, "vexo measure" },
        { "check " + scan + " --out " + result, "vexo measure" },
        { "board --preset coarse --out " + sheets + "/b.svg", "board.yaml: belongs to vexo board a.svg" },
    };
    const auto before = tree();
    for (const auto& row : rows) {
        const program::Outcome refused = run(row.arguments);
        EXPECT_EQ(refused.code, 2) << row.arguments << ": " << refused.err;
        EXPECT_NE(refused.err.find(row.named), std::string::npos) << refused.err;
        EXPECT_NE(refused.err.find("--force"), std::string::npos) << refused.err;
        EXPECT_TRUE(tree() == before) << row.arguments << " changed something";
    }
    EXPECT_EQ(run("board --quiet --force --preset coarse --out " + sheets + "/b.svg").code, 0);
    EXPECT_TRUE(fs::exists(sheets + "/a.svg"));
}

TEST_F(ForeignFiles, ComparisonOfAnEarlierCloudGoesWithItAndAReportSaysWhatItWasMadeFrom)
{
    const std::string scan = at("s"), result = at("r");
    ASSERT_EQ(run("simulate plane --size 160x128 --period 32 --quiet --out " + scan).code, 0);
    const auto first = told("measure", scan + " --out " + result);
    ASSERT_EQ(run("compare --quiet " + result + " " + scan).code, 0);
    const auto second = told("measure", scan + " --max-white 250 --out " + result);
    EXPECT_FALSE(fs::exists(result + "/compare.json") || fs::exists(result + "/compare_view.png"));
    EXPECT_EQ(first["schema"], 1);
    EXPECT_EQ(first["made_from"]["cam0"].size(), 13U);
    EXPECT_EQ(first["made_from"]["cam1"], second["made_from"]["cam1"]);
    EXPECT_NE(first["made_from"]["cam0"], first["made_from"]["cam1"]);
    EXPECT_NE(first["made_from"]["parameters"], second["made_from"]["parameters"]);
}

} // namespace
